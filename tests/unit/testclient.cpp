/* SPDX-License-Identifier: MIT */
#include "testclient.h"

#include "testhost.h"

#include <array>
#include <cerrno>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

Client::Client(int fd) : fd_(fd)
{
}

Client::Client(Client &&other) noexcept
    : fd_(std::exchange(other.fd_, -1)), received_(std::move(other.received_)), ended_(other.ended_),
      was_reset_(other.was_reset_)
{
}

Client::~Client()
{
  hang_up();
}

Client
Client::connect_to(const std::string &path)
{
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address = {};

  address.sun_family = AF_UNIX;
  EXPECT_LT(g_strlcpy(address.sun_path, path.c_str(), sizeof address.sun_path), sizeof address.sun_path);
  EXPECT_EQ(connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0)
      << g_strerror(errno);
  return Client(fd);
}

Client
Client::connect_pair(int *server_end)
{
  std::array<int, 2> ends = {-1, -1};

  EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0) << g_strerror(errno);
  *server_end = ends[1];
  return Client(ends[0]);
}

bool
Client::send(const std::string &bytes)
{
  gsize sent = 0;

  return testhost::spin_until([&] {
           const ssize_t count =
               ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
           if (count < 0 && errno != EAGAIN) {
             return true;
           }
           sent += std::max<ssize_t>(count, 0);
           return sent == bytes.size();
         }) &&
         sent == bytes.size();
}

gsize
Client::send_some(const std::string &bytes, int flags)
{
  const ssize_t count = ::send(fd_, bytes.data(), bytes.size(), flags | MSG_DONTWAIT | MSG_NOSIGNAL);

  return std::max<ssize_t>(count, 0);
}

int
Client::send_until_refused()
{
  const std::string bytes(4096, 'x');

  while (::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) > 0) {
  }
  return errno;
}

void
Client::half_close()
{
  EXPECT_EQ(shutdown(fd_, SHUT_WR), 0) << g_strerror(errno);
}

void
Client::hang_up()
{
  if (fd_ >= 0) {
    close(std::exchange(fd_, -1));
  }
}

gsize
Client::unread()
{
  int count = -1;

  EXPECT_EQ(ioctl(fd_, SIOCOUTQ, &count), 0) << g_strerror(errno);
  return count;
}

const std::string &
Client::received()
{
  receive();
  return received_;
}

bool
Client::ended()
{
  receive();
  EXPECT_FALSE(was_reset_);
  return ended_;
}

bool
Client::was_reset()
{
  receive();
  return was_reset_;
}

std::string
Client::wait_for_reply()
{
  EXPECT_TRUE(testhost::spin_until([this] { return received().find('\0') != std::string::npos || ended_; }));

  const gsize end = received_.find('\0');
  return end == std::string::npos ? "no reply: " + received_ : received_.substr(0, end);
}

bool
Client::wait_for_bytes(gsize count)
{
  return testhost::spin_until([this, count] { return received().size() >= count || ended_; }) &&
         received_.size() >= count;
}

bool
Client::wait_for_end()
{
  return testhost::spin_until([this] { return ended(); });
}

void
Client::receive()
{
  std::array<char, 64 * 1024> bytes;
  ssize_t count = 0;

  while (!ended_ && (count = recv(fd_, bytes.data(), bytes.size(), MSG_DONTWAIT)) > 0) {
    received_.append(bytes.data(), count);
  }
  was_reset_ = was_reset_ || (count < 0 && errno != EAGAIN);
  ended_ = ended_ || count == 0 || was_reset_;
}
