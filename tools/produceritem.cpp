/* SPDX-License-Identifier: MIT */
/* The items of producers (docs/producers.md): their checks, and their messages. */
#include "produceritem.h"

#include <cstring>

namespace
{

/* The daemon's frame around an item. The producer's name in it is that of the configuration, which only the
 * daemon knows. */
constexpr std::string_view FRAME_START = R"({"Source":"","Data":{"Item":[)";
constexpr std::string_view FRAME_END = "]}}";

} // namespace

/**
 * ProducerItemChecker::check:
 * @text: any bytes
 * @flaws: (out): the reason to drop all of @text, and that to drop a part of it; parts of a sentence
 *
 * Returns: whether @text is one item; %FALSE if the daemon would drop it
 */
gboolean
ProducerItemChecker::check(std::string_view text, plugins::ProducerFlaws *flaws)
{
  frame.assign(FRAME_START).append(text).append(FRAME_END);
  const std::optional<plugins::ProducerFrame> read = reader.read(frame, flaws);

  if (read.has_value() && read->items.size() != 1) {
    flaws->fatal = "it is more than one item";
  }
  return flaws->fatal == nullptr;
}

/**
 * producer_item_make_message:
 * @text: an item of at most %PRODUCE_MAX_LINE_BYTES bytes
 *
 * Returns: the message with the item, for a channel of the receiver
 */
std::string
producer_item_make_message(std::string_view text)
{
  const guint32 length = static_cast<guint32>(text.size());
  std::string message(sizeof length, '\0');

  memcpy(message.data(), &length, sizeof length);
  return message.append(text);
}
