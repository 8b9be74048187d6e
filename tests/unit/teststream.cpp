/* SPDX-License-Identifier: MIT */
#include "teststream.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <glib-unix.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace teststream
{

std::string
message(const std::string &payload)
{
  const auto length = static_cast<guint32>(payload.size());

  return std::string(reinterpret_cast<const char *>(&length), sizeof length) + payload;
}

std::string
frame(const std::string &source_name, const std::string &payload)
{
  return R"({"Source":")" + source_name + R"(","Data":{"Item":[)" + payload + "]}}";
}

int
reopen(int fd, int flags)
{
  return open(("/proc/self/fd/" + std::to_string(fd)).c_str(), flags | O_CLOEXEC);
}

Producer::Producer(Carrier carrier, Mode mode)
{
  std::array<int, 2> ends = {-1, -1};
  const int result = carrier == Carrier::SOCKET
                         ? socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data())
                         : pipe2(ends.data(), O_CLOEXEC);

  EXPECT_EQ(result, 0) << g_strerror(errno);
  consumer_fd = carrier == Carrier::FIFO ? reopen(ends[0], O_RDONLY) : ends[0];
  if (carrier == Carrier::FIFO) {
    close(ends[0]);
  }
  fd_ = ends[1];
  EXPECT_TRUE(g_unix_set_fd_nonblocking(fd_, TRUE, nullptr));
  EXPECT_TRUE(g_unix_set_fd_nonblocking(consumer_fd, mode == Mode::NON_BLOCKING, nullptr));
}

Producer::~Producer()
{
  hang_up();
}

void
Producer::send(const std::string &bytes) const
{
  EXPECT_EQ(send_some(bytes.data(), bytes.size()), bytes.size());
}

gsize
Producer::send_some(const char *bytes, gsize count) const
{
  const ssize_t sent = write(fd_, bytes, count);

  return sent > 0 ? sent : 0;
}

void
Producer::hang_up()
{
  if (fd_ >= 0) {
    close(std::exchange(fd_, -1));
  }
}

} // namespace teststream
