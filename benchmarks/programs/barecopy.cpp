/* SPDX-License-Identifier: MIT */
/* The least that passing messages on can cost: a thread for each stream reads a message and writes it with as
 * many bytes before it as a packet of the GStreamer data protocol has.
 *
 *   benchcopy IN:OUT... */
#include "packetcounter.h"
#include "streams.h"

#include <algorithm>
#include <array>
#include <sys/uio.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace benchmarks
{

namespace
{

constexpr gsize MAX_MESSAGE_BYTES = 1024 * 1024;

bool
write_all(int fd, std::array<iovec, 2> pieces)
{
  while (pieces[0].iov_len + pieces[1].iov_len > 0) {
    const gssize done = writev(fd, pieces.data(), pieces.size());
    if (done <= 0) {
      return false;
    }
    gsize left = done;
    for (iovec &piece : pieces) {
      const gsize part = std::min(left, piece.iov_len);
      piece.iov_base = static_cast<guint8 *>(piece.iov_base) + part;
      piece.iov_len -= part;
      left -= part;
    }
  }
  return true;
}

void
copy(StreamPair pair)
{
  std::vector<guint8> message(MAX_MESSAGE_BYTES);
  /* The form of the protocol, and a buffer as the type of the payload. */
  std::array<guint8, GDP_HEADER_BYTES> header = {1, 0, 0, 0, 0, 1};
  guint32 size = 0;

  while (read_exactly(pair.in, &size, sizeof size) && size <= message.size() &&
         read_exactly(pair.in, message.data(), size)) {
    for (gsize i = 0; i < sizeof size; i++) {
      header[6 + i] = static_cast<guint8>(size >> 8 * (3 - i));
    }
    if (!write_all(pair.out, {{{header.data(), header.size()}, {message.data(), size}}})) {
      return;
    }
  }
}

} // namespace

} // namespace benchmarks

int
main(int argc, char **argv)
{
  std::vector<std::thread> threads;

  for (int i = 1; i < argc; i++) {
    benchmarks::StreamPair pair = {};
    if (!benchmarks::parse_stream_pair(argv[i], &pair)) {
      return 2;
    }
    threads.emplace_back(benchmarks::copy, pair);
  }
  for (std::thread &thread : threads) {
    thread.join();
  }
  return 0;
}
