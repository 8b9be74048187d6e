/* SPDX-License-Identifier: MIT */
#include "linecutter.h"

/**
 * LineCutter::LineCutter:
 * @max_bytes: the length of the longest line, without its line feed
 */
LineCutter::LineCutter(gsize max_bytes) : limit(max_bytes)
{
}

/**
 * LineCutter::push:
 * @more: the next bytes
 *
 * Adds bytes. If it is called only when pop() returns no line, at most one incomplete line is stored.
 */
void
LineCutter::push(std::string_view more)
{
  bytes.erase(0, begin);
  searched -= begin;
  begin = 0;
  bytes.append(more);
}

/**
 * LineCutter::finish:
 *
 * Ends the last line, if it has no line feed.
 */
void
LineCutter::finish()
{
  if (dropping || (bytes.size() > begin && bytes.back() != '\n')) {
    push("\n");
  }
}

/**
 * LineCutter::pop:
 *
 * Returns: the next complete line, if there is one
 */
std::optional<Line>
LineCutter::pop()
{
  const gsize end = bytes.find('\n', searched);
  const gsize size = (end == std::string::npos ? bytes.size() : end) - begin;

  dropping = dropping || size > limit;
  if (end == std::string::npos) {
    begin = dropping ? bytes.size() : begin;
    searched = bytes.size();
    return std::nullopt;
  }
  Line line = {++count, dropping, dropping ? std::string() : bytes.substr(begin, size)};
  begin = searched = end + 1;
  dropping = FALSE;
  return line;
}
