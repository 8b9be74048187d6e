/* SPDX-License-Identifier: MIT */
#include "streams.h"

#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
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

/**
 * connect_to:
 * @path: the path of a UNIX socket
 *
 * Returns: a connected blocking socket, or -1 with errno set
 */
int
connect_to(const char *path)
{
  sockaddr_un address = {};
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);

  address.sun_family = AF_UNIX;
  g_strlcpy(address.sun_path, path, sizeof address.sun_path);
  if (fd >= 0 && connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

/**
 * set_nonblocking:
 * @fd: an open descriptor
 */
void
set_nonblocking(int fd)
{
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
}

/**
 * now_ns:
 *
 * Returns: the monotonic clock in nanoseconds
 */
gint64
now_ns()
{
  timespec time = {};

  clock_gettime(CLOCK_MONOTONIC, &time);
  return time.tv_sec * G_GINT64_CONSTANT(1000000000) + time.tv_nsec;
}

} // namespace benchmarks
