/* SPDX-License-Identifier: MIT */
#include "testsockets.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <glib.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

namespace testsockets
{

namespace
{

constexpr int FIRST_HIGH_DESCRIPTOR = 100;

} // namespace

int
lowest_free_descriptor()
{
  const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);

  close(fd);
  return fd;
}

bool
is_open(int fd)
{
  return fcntl(fd, F_GETFD) >= 0;
}

int
listen_at(const std::string &path)
{
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address = {};

  address.sun_family = AF_UNIX;
  g_strlcpy(address.sun_path, path.c_str(), sizeof address.sun_path);
  EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0) << g_strerror(errno);
  EXPECT_EQ(listen(fd, 10), 0) << g_strerror(errno);
  return fd;
}

int
move_away(int fd)
{
  const int high = fcntl(fd, F_DUPFD_CLOEXEC, FIRST_HIGH_DESCRIPTOR);

  close(fd);
  return high;
}

int
listen_high(const std::string &path)
{
  return move_away(listen_at(path));
}

PassedDescriptors::PassedDescriptors(const std::vector<int> &fds)
{
  for (const int fd : fds) {
    const int number = SD_LISTEN_FDS_START + static_cast<int>(saved_.size());
    saved_.push_back(fcntl(number, F_DUPFD_CLOEXEC, FIRST_HIGH_DESCRIPTOR));
    EXPECT_EQ(dup2(fd, number), number);
    close(fd);
  }
  setenv("LISTEN_FDS", std::to_string(fds.size()).c_str(), TRUE);
  setenv("LISTEN_PID", std::to_string(getpid()).c_str(), TRUE);
}

PassedDescriptors::~PassedDescriptors()
{
  unsetenv("LISTEN_FDS");
  unsetenv("LISTEN_PID");
  for (gsize i = 0; i < saved_.size(); i++) {
    const int number = SD_LISTEN_FDS_START + static_cast<int>(i);
    if (saved_[i] >= 0) {
      dup2(saved_[i], number);
      close(saved_[i]);
    } else {
      close(number);
    }
  }
}

} // namespace testsockets
