/* SPDX-License-Identifier: MIT */
#include "fakebroker.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace fakebroker
{

namespace
{

constexpr int BOUND_MS = 30000;

void
wait_readable(int fd)
{
  pollfd readable = {fd, POLLIN, 0};
  EXPECT_EQ(poll(&readable, 1, BOUND_MS), 1) << "nothing arrives";
}

gsize
length_at(const std::string &body, gsize at)
{
  return static_cast<gsize>(static_cast<guchar>(body.at(at)) << 8 | static_cast<guchar>(body.at(at + 1)));
}

sockaddr_in
loopback(guint16 port)
{
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

} // namespace

std::ostream &
operator<<(std::ostream &stream, const Published &published)
{
  return stream << published.topic << " " << published.payload << " with QoS " << published.qos
                << (published.is_retained ? ", retained" : "");
}

std::string
text(const std::string &text)
{
  return std::string{static_cast<char>(text.size() >> 8), static_cast<char>(text.size() & 0xff)} + text;
}

std::string
packet(int type, const std::string &body, int flags)
{
  std::string bytes(1, static_cast<char>(type << 4 | flags));
  gsize length = body.size();
  do {
    gsize digit = length & 0x7f;
    length >>= 7;
    bytes += static_cast<char>(digit | (length > 0 ? 0x80 : 0));
  } while (length > 0);
  return bytes + body;
}

Published
parse_publish(const Packet &packet)
{
  EXPECT_EQ(packet.type, PUBLISH);
  if (packet.type != PUBLISH) {
    return {};
  }
  Published published;
  gsize at = 2 + length_at(packet.body, 0);
  published.topic = packet.body.substr(2, at - 2);
  published.qos = packet.flags >> 1 & 3;
  published.is_retained = (packet.flags & 1) != 0;
  published.mid = packet.body.substr(at, published.qos > 0 ? 2 : 0);
  published.payload = packet.body.substr(at + published.mid.size());
  return published;
}

Peer::Peer(int fd) : fd_(fd)
{
}

Peer::~Peer()
{
  close();
}

bool
Peer::can_read() const
{
  pollfd readable = {fd_, POLLIN, 0};
  return poll(&readable, 1, 0) == 1;
}

std::string
Peer::read_bytes(gsize size)
{
  std::string bytes;
  char buffer[4096];
  while (bytes.size() < size) {
    wait_readable(fd_);
    gssize count = recv(fd_, buffer, std::min(sizeof buffer, size - bytes.size()), MSG_DONTWAIT);
    if (count <= 0) {
      return {};
    }
    bytes.append(buffer, static_cast<gsize>(count));
  }
  return bytes;
}

Packet
Peer::read()
{
  std::string first = read_bytes(1);
  if (first.empty()) {
    return {};
  }
  gsize length = 0;
  bool has_more = true;
  for (int shift = 0; has_more; shift += 7) {
    std::string byte = read_bytes(1);
    int digit = byte.empty() ? 0 : static_cast<guchar>(byte[0]);
    length |= static_cast<gsize>(digit & 0x7f) << shift;
    has_more = (digit & 0x80) != 0;
  }
  return {static_cast<guchar>(first[0]) >> 4, first[0] & 0xf, read_bytes(length)};
}

std::string
Peer::accept_client()
{
  Packet connect = read();
  EXPECT_EQ(connect.type, CONNECT);
  send(packet(CONNACK, std::string(2, '\0')));
  return connect.body;
}

Published
Peer::read_publish()
{
  Published published = parse_publish(read());
  if (published.qos == 1) {
    send(packet(PUBACK, published.mid));
  }
  published.mid.clear();
  return published;
}

void
Peer::send(const std::string &bytes)
{
  EXPECT_EQ(::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<gssize>(bytes.size()));
}

void
Peer::close()
{
  if (fd_ != -1) {
    ::close(fd_);
  }
  fd_ = -1;
}

FakeBroker::FakeBroker(guint16 port) : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
  const int reuse = 1;
  sockaddr_in address = loopback(port);
  setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
  EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
  EXPECT_EQ(listen(fd_, 10), 0);
}

FakeBroker::~FakeBroker()
{
  ::close(fd_);
}

guint16
FakeBroker::port() const
{
  sockaddr_in address = {};
  socklen_t size = sizeof address;
  getsockname(fd_, reinterpret_cast<sockaddr *>(&address), &size);
  return ntohs(address.sin_port);
}

mqtt::BrokerConfig
FakeBroker::config() const
{
  mqtt::BrokerConfig config;
  config.address = "mqtt://fake";
  config.port = port();
  config.client_id = "client";
  return config;
}

std::unique_ptr<Peer>
FakeBroker::accept()
{
  wait_readable(fd_);
  return std::make_unique<Peer>(accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC));
}

} // namespace fakebroker
