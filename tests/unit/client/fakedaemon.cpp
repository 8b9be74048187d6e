/* SPDX-License-Identifier: MIT */
#include "fakedaemon.h"

#include <array>
#include <cstring>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace fakedaemon
{

namespace
{

constexpr timeval BOUND = {60, 0};

std::string
big_endian(guint64 number, int size)
{
  std::string bytes;
  for (int shift = 8 * (size - 1); shift >= 0; shift -= 8)
    bytes.push_back(static_cast<char>(number >> shift));
  return bytes;
}

guint16
checksum(const std::string &bytes)
{
  guint value = 0xffff;
  for (char byte : bytes) {
    value ^= static_cast<guint>(static_cast<guint8>(byte)) << 8;
    for (int bit = 0; bit < 8; bit++)
      value = (value & 0x8000) != 0 ? (value << 1 ^ 0x1021) & 0xffff : value << 1;
  }
  return static_cast<guint16>(value ^ 0xffff);
}

void
set_bounds(int fd)
{
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &BOUND, sizeof BOUND);
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &BOUND, sizeof BOUND);
}

} // namespace

std::string
packet(guint16 type, const std::string &payload, guint8 flags)
{
  const std::string version = {1, 0};
  std::string header = version + static_cast<char>(flags) + '\0' + big_endian(type, 2) +
                       big_endian(payload.size(), 4) + std::string(48, '\0');
  header += (flags & HEADER_CHECKSUM) != 0 ? big_endian(checksum(header), 2) : std::string(2, '\0');
  header += (flags & PAYLOAD_CHECKSUM) != 0 ? big_endian(checksum(payload), 2) : std::string(2, '\0');
  return header + payload;
}

std::string
stream_start(const std::string &caps)
{
  return packet(STREAM_START, "GstEventStreamStart, stream-id=(string)1;") + packet(CAPS, caps + '\0');
}

std::string
document(const std::string &text)
{
  return packet(BUFFER, text);
}

Connection::Connection(int fd) : fd_(fd)
{
  set_bounds(fd);
}

Connection::~Connection()
{
  close();
}

std::string
Connection::read(gsize size)
{
  std::string bytes(size, '\0');
  gsize filled = 0;
  while (filled < size) {
    const ssize_t count = recv(fd_, bytes.data() + filled, size - filled, 0);
    if (count <= 0) {
      EXPECT_TRUE(count == 0 || errno == ECONNRESET) << g_strerror(errno);
      break;
    }
    filled += count;
  }
  bytes.resize(filled);
  return bytes;
}

std::string
Connection::read_request()
{
  std::string request;
  while (!request.ends_with("\n\n")) {
    const std::string byte = read(1);
    if (byte.empty()) {
      ADD_FAILURE() << "The client closed the connection after: " << request;
      break;
    }
    request += byte;
  }
  return request;
}

std::string
Connection::read_to_end()
{
  std::string bytes;
  for (std::string part = read(1); !part.empty(); part = read(1))
    bytes += part;
  return bytes;
}

void
Connection::send(const std::string &bytes)
{
  for (gsize sent = 0; sent < bytes.size();) {
    const ssize_t count = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (count < 0) {
      EXPECT_TRUE(errno == EPIPE || errno == ECONNRESET) << g_strerror(errno);
      return;
    }
    sent += count;
  }
}

void
Connection::close()
{
  if (fd_ >= 0)
    ::close(fd_);
  fd_ = -1;
}

FakeDaemon::FakeDaemon(const std::string &path, int backlog)
    : path_(path), fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  set_bounds(fd_);
  EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address), 0) << g_strerror(errno);
  EXPECT_EQ(listen(fd_, backlog), 0) << g_strerror(errno);
}

FakeDaemon::~FakeDaemon()
{
  close(fd_);
  unlink(path_.c_str());
}

const std::string &
FakeDaemon::path() const
{
  return path_;
}

Connection *
FakeDaemon::accept()
{
  const int fd = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
  EXPECT_GE(fd, 0) << g_strerror(errno);
  connections_.push_back(std::make_unique<Connection>(fd));
  return connections_.back().get();
}

Connection *
FakeDaemon::accept_request()
{
  Connection *connection = accept();
  connection->read_request();
  return connection;
}

Connection *
FakeDaemon::accept_stream()
{
  Connection *connection = accept_request();
  connection->send(std::string("OK\0", 3) + stream_start());
  return connection;
}

} // namespace fakedaemon
