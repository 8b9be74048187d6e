/* SPDX-License-Identifier: MIT */
#include "linesplitter.h"

namespace sim
{

namespace
{

/* Lines may end with CR LF; the CR of a line that is not empty is kept. */
bool
is_empty(std::string_view line)
{
  return line.empty() || line == "\r";
}

} // namespace

/**
 * LineSplitter:
 *
 * A splitter of lines that fit into a message.
 */
LineSplitter::LineSplitter() : cutter_(MAX_TEXT_BYTES)
{
}

/**
 * LineSplitter::push:
 * @bytes: the next bytes
 *
 * Adds bytes. Call it when pop() returns no line, so that at most one incomplete line is stored.
 */
void
LineSplitter::push(std::string_view bytes)
{
  cutter_.push(bytes);
}

/**
 * LineSplitter::finish:
 *
 * Terminates the last line, if it is not terminated.
 */
void
LineSplitter::finish()
{
  cutter_.finish();
}

/**
 * LineSplitter::pop:
 *
 * Returns: the next complete line without its terminator, if there is one
 */
std::optional<SharedText>
LineSplitter::pop()
{
  while (const std::optional<Line> line = cutter_.pop()) {
    if (line->too_long) {
      dropped_++;
    } else if (!is_empty(line->text)) {
      return shared_text_copy(line->text);
    }
  }
  return std::nullopt;
}

/**
 * LineSplitter::dropped:
 *
 * Returns: the number of lines that were dropped because they are longer than %MAX_TEXT_BYTES
 */
gsize
LineSplitter::dropped() const
{
  return dropped_;
}

} // namespace sim
