/* SPDX-License-Identifier: MIT */
#pragma once

#include "message.h"

#include <functional>
#include <string>

namespace receiver
{

/* Splits the data that an application writes to a channel into messages. */
class MessageSplitter
{
public:
  enum class Fault {
    NONE,
    TOO_LONG, /* a length of more than %RECEIVER_MAX_MESSAGE_BYTES */
    NOT_TEXT, /* a text that is not UTF-8, or has a NUL */
  };

  using Deliver = std::function<void(const SharedText &text)>;

  Fault push(std::string_view bytes, const Deliver &deliver);
  bool has_unfinished() const;
  guint64 completed() const;

private:
  Fault take_next(std::string_view *bytes, const Deliver &deliver);
  bool collect(std::string_view *bytes, gsize size);

  std::string unfinished_; /* the available bytes of an incomplete message, with its length */
  guint64 completed_ = 0;
};

} // namespace receiver
