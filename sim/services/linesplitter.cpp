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
 * LineSplitter::push:
 * @bytes: the next bytes
 *
 * Adds bytes. Call it when pop() returns no line, so that at most one incomplete line is stored.
 */
void
LineSplitter::push(std::string_view bytes)
{
  bytes_.erase(0, begin_);
  searched_ -= begin_;
  begin_ = 0;
  bytes_.append(bytes);
}

/**
 * LineSplitter::finish:
 *
 * Terminates the last line, if it is not terminated.
 */
void
LineSplitter::finish()
{
  push("\n");
}

/**
 * LineSplitter::pop:
 *
 * Returns: the next complete line without its terminator, if there is one
 */
std::optional<SharedText>
LineSplitter::pop()
{
  for (;;) {
    const gsize end = bytes_.find('\n', searched_);
    const gsize size = (end == std::string::npos ? bytes_.size() : end) - begin_;
    const gsize begin = begin_;

    dropping_ = dropping_ || size > MAX_TEXT_BYTES;
    begin_ = end != std::string::npos ? end + 1 : dropping_ ? bytes_.size() : begin_;
    searched_ = end != std::string::npos ? end + 1 : bytes_.size();
    if (end == std::string::npos) {
      return std::nullopt;
    }
    if (dropping_) {
      dropping_ = false;
      dropped_++;
    } else if (const std::string_view line(bytes_.data() + begin, size); !is_empty(line)) {
      return shared_text_copy(line);
    }
  }
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
