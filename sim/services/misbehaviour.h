#pragma once

#include "words.h"

#include <memory>
#include <span>

namespace sim
{

enum class Conduct {
  GOOD,
  ERROR, /* a D-Bus error */
  REPLY, /* a reply that is not what was asked for */
  SLOW,  /* the right answer, later */
  NEVER, /* no answer */
};

/* A reply of the wrong form: how it is called, and the whole body as GVariant's text format has it. */
struct WrongReply {
  const char *kind;
  const char *body;
  bool with_descriptors = false; /* whether those of the right answer come with it */
};

/* How a service answers. */
struct Misbehaviour {
  static constexpr guint MAX_DELAY_MS = 10 * 60 * 1000;

  struct Free {
    void operator()(GVariant *variant) const;
  };

  Conduct conduct = Conduct::GOOD;
  std::string error_text;
  std::unique_ptr<GVariant, Free> reply;
  bool reply_has_descriptors = false; /* those of the right answer */
  guint delay_ms = 0;
};

bool misbehaviour_parse(const Words &words, std::span<const WrongReply> wrong_replies,
                        Misbehaviour *misbehaviour, GError **error);
std::string misbehaviour_list(std::span<const WrongReply> wrong_replies);

} /* namespace sim */
