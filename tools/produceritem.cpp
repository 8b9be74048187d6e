/* SPDX-License-Identifier: MIT */
/* The checks of producers' items (docs/producers.md). */
#include "produceritem.h"

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
