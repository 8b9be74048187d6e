/* SPDX-License-Identifier: MIT */
#include "messagesplitter.h"

#include "receiverlimits.h"

#include <algorithm>
#include <cstring>
#include <utility>

/* The receiver reads the length of a message and checks that the text is UTF-8. It does not parse the items;
 * json2xml drops malformed ones. Random bytes soon fail one of the two checks. */

namespace receiver
{

namespace
{

constexpr gsize LENGTH_BYTES = sizeof(guint32);

guint32
length_of(std::string_view bytes)
{
  guint32 length = 0;

  memcpy(&length, bytes.data(), sizeof length);
  return length;
}

} // namespace

/**
 * MessageSplitter::push:
 * @bytes: the next bytes
 * @deliver: called with each message that is complete, in order; messages without a text are left out
 *
 * Adds bytes. After a fault the splitter is not used again.
 *
 * Returns: the fault of the first message that has one
 */
MessageSplitter::Fault
MessageSplitter::push(std::string_view bytes, const Deliver &deliver)
{
  Fault fault = Fault::NONE;

  while (!bytes.empty() && fault == Fault::NONE) {
    fault = take_next(&bytes, deliver);
  }
  return fault;
}

/* Takes the rest of one message, or the available part of it. */
MessageSplitter::Fault
MessageSplitter::take_next(std::string_view *bytes, const Deliver &deliver)
{
  if (!collect(bytes, LENGTH_BYTES)) {
    return Fault::NONE;
  }
  const guint32 length = length_of(unfinished_);
  if (length > RECEIVER_MAX_MESSAGE_BYTES) {
    return Fault::TOO_LONG;
  }
  if (!collect(bytes, LENGTH_BYTES + length)) {
    return Fault::NONE;
  }
  const std::string message = std::exchange(unfinished_, {});
  const std::string_view text = std::string_view(message).substr(LENGTH_BYTES);
  if (!g_utf8_validate_len(text.data(), text.size(), nullptr)) {
    return Fault::NOT_TEXT;
  }
  completed_++;
  if (!text.empty()) {
    deliver(shared_text_count(text));
  }
  return Fault::NONE;
}

/* Moves bytes to the unfinished message until it has @size bytes.
 *
 * Returns: whether it has @size bytes */
bool
MessageSplitter::collect(std::string_view *bytes, gsize size)
{
  const gsize missing = size - std::min(size, unfinished_.size());
  const std::string_view part = bytes->substr(0, missing);

  unfinished_.append(part);
  bytes->remove_prefix(part.size());
  return part.size() == missing;
}

/**
 * MessageSplitter::has_unfinished:
 *
 * Returns: whether a message has begun and is not complete
 */
bool
MessageSplitter::has_unfinished() const
{
  return !unfinished_.empty();
}

/**
 * MessageSplitter::completed:
 *
 * Returns: the number of messages that are complete so far, including those without a text
 */
guint64
MessageSplitter::completed() const
{
  return completed_;
}

} // namespace receiver
