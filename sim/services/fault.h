/* SPDX-License-Identifier: MIT */
#pragma once

#include "arguments.h"

#include <memory>
#include <span>

namespace sim
{

enum class FaultType {
  NONE,
  ERROR,    /* a D-Bus error */
  REPLY,    /* another reply */
  DELAY,    /* the correct reply, later */
  NO_REPLY, /* no reply */
};

/* A reply of a wrong form: the name of the fault, and the reply's body in GVariant's text format. */
struct WrongReply {
  const char *fault;
  const char *body;
  bool with_descriptors = false; /* whether it carries the correct reply's descriptors */
};

/* A fault that is injected into the replies of a service or of a method. */
struct Fault {
  static constexpr guint MAX_DELAY_MS = 10 * 60 * 1000;

  struct Free {
    void operator()(GVariant *variant) const;
  };

  FaultType type = FaultType::NONE;
  std::string error_text;
  std::unique_ptr<GVariant, Free> reply;
  bool reply_has_descriptors = false; /* those of the correct reply */
  guint delay_ms = 0;
};

bool fault_parse(const Arguments &arguments, std::span<const WrongReply> wrong_replies, Fault *fault,
                 GError **error);
std::string fault_list(std::span<const WrongReply> wrong_replies);

} // namespace sim
