/* SPDX-License-Identifier: MIT */
#include "streams.h"

#include <cstdio>
#include <unistd.h>

namespace benchmarks
{

/**
 * parse_stream_pair:
 * @text: an argument "IN:OUT" of a program that benchload starts
 * @pair: (out): the descriptors
 *
 * Returns: whether the argument has two descriptors
 */
bool
parse_stream_pair(const char *text, StreamPair *pair)
{
  return sscanf(text, "%d:%d", &pair->in, &pair->out) == 2;
}

/**
 * read_exactly:
 * @fd: a blocking descriptor
 * @data: (out): room for @size bytes
 * @size: the number of bytes
 *
 * Returns: false at the end of the stream
 */
bool
read_exactly(int fd, void *data, gsize size)
{
  auto *at = static_cast<guint8 *>(data);

  while (size > 0) {
    const gssize done = read(fd, at, size);
    if (done <= 0) {
      return false;
    }
    at += done;
    size -= done;
  }
  return true;
}

} // namespace benchmarks
