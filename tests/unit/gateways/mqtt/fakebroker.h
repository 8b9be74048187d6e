/* SPDX-License-Identifier: MIT */
/* The broker's side of MQTT 3.1.1, one packet at a time. No step waits longer than a bound. */
#pragma once

#include "mqttconfig.h"

#include <glib.h>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace fakebroker
{

/* Types of packets. */
constexpr int CONNECT = 1;
constexpr int CONNACK = 2;
constexpr int PUBLISH = 3;
constexpr int PUBACK = 4;
constexpr int PUBREC = 5;
constexpr int PUBREL = 6;
constexpr int PUBCOMP = 7;
constexpr int DISCONNECT = 14;

struct Packet {
  int type = 0; /* 0 at the end of the connection */
  int flags = 0;
  std::string body;
};

/* A published message. */
struct Published {
  std::string topic;
  std::string payload;
  int qos = 0;
  bool is_retained = false;
  std::string mid; /* two bytes; empty with QoS 0 */

  bool operator==(const Published &) const = default;
};

std::ostream &operator<<(std::ostream &stream, const Published &published);

/* The length of a text and the text. */
std::string text(const std::string &text);
std::string packet(int type, const std::string &body, int flags = 0);
Published parse_publish(const Packet &packet);

/* One connection of a client. */
class Peer
{
public:
  explicit Peer(int fd);
  ~Peer();
  Peer(const Peer &) = delete;
  Peer &operator=(const Peer &) = delete;

  bool can_read() const;
  Packet read();
  /* Reads CONNECT and accepts the client. Returns: the body of CONNECT */
  std::string accept_client();
  /* Reads a message and acknowledges it. */
  Published read_publish();
  void send(const std::string &bytes);
  void close();

private:
  std::string read_bytes(gsize size);

  int fd_;
};

/* A listening socket at a free port of 127.0.0.1. */
class FakeBroker
{
public:
  explicit FakeBroker(guint16 port = 0);
  ~FakeBroker();
  FakeBroker(const FakeBroker &) = delete;
  FakeBroker &operator=(const FakeBroker &) = delete;

  guint16 port() const;
  mqtt::BrokerConfig config() const;
  std::unique_ptr<Peer> accept();

private:
  int fd_;
};

} // namespace fakebroker
