/* SPDX-License-Identifier: MIT */
/* The daemon's side of the client protocol, one step at a time: a test starts the client, which runs on
 * another thread, and makes each step of the connection. No step waits longer than a bound.
 */
#pragma once

#include <glib.h>
#include <memory>
#include <string>
#include <vector>

namespace fakedaemon
{

/* Types of packets. */
constexpr guint16 BUFFER = 1;
constexpr guint16 CAPS = 2;
constexpr guint16 STREAM_START = 64 + 0x280e;
constexpr guint16 END_OF_STREAM = 64 + 0x6e0e;

/* Flags of a packet: which checksums it has. */
constexpr guint8 HEADER_CHECKSUM = 1;
constexpr guint8 PAYLOAD_CHECKSUM = 2;

constexpr gsize HEADER_BYTES = 62;

constexpr const char *METADATA_CAPS = "application/x-onvif-metadata";

/* A packet of the GStreamer data protocol. */
std::string packet(guint16 type, const std::string &payload, guint8 flags = HEADER_CHECKSUM);

/* The first packets of a stream. */
std::string stream_start(const std::string &caps = METADATA_CAPS);

/* A packet with a document. */
std::string document(const std::string &text);

/* The daemon's side of one connection. */
class Connection
{
public:
  explicit Connection(int fd);
  ~Connection();
  Connection(const Connection &) = delete;
  Connection &operator=(const Connection &) = delete;

  /* Reads up to the empty line. */
  std::string read_request();
  std::string read(gsize size);
  /* Reads until the client closes the connection; empty if it sent nothing more. */
  std::string read_to_end();
  void send(const std::string &bytes);
  void close();

private:
  int fd_;
};

/* A listening socket at a path. */
class FakeDaemon
{
public:
  explicit FakeDaemon(const std::string &path, int backlog = 10);
  ~FakeDaemon();
  FakeDaemon(const FakeDaemon &) = delete;
  FakeDaemon &operator=(const FakeDaemon &) = delete;

  const std::string &path() const;
  /* Accepts the next client. The end of the daemon closes the connection. */
  Connection *accept();
  /* Accepts a client and reads its request. */
  Connection *accept_request();
  /* Accepts a client, reads its request, and sends "OK" and the first packets of a stream. */
  Connection *accept_stream();

private:
  std::string path_;
  int fd_;
  std::vector<std::unique_ptr<Connection>> connections_;
};

} // namespace fakedaemon
