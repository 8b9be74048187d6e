/* SPDX-License-Identifier: MIT */
/* The client's end of a connection. No function blocks; those that wait run the default main context, within
 * a bound.
 */
#pragma once

#include <glib.h>
#include <string>

class Client
{
public:
  /* Takes @fd, a connected stream socket. */
  explicit Client(int fd);
  ~Client();
  Client(Client &&other) noexcept;
  Client(const Client &) = delete;
  Client &operator=(const Client &) = delete;

  /* A client of a server that listens at @path. */
  static Client connect_to(const std::string &path);

  /* A client whose server's end is @server_end, which the caller owns. */
  static Client connect_pair(int *server_end);

  /* FALSE when the server's end is closed. */
  bool send(const std::string &bytes);

  /* Sends as much of @bytes as fits, with the flags of send(). */
  gsize send_some(const std::string &bytes, int flags = 0);

  /* Sends, and waits for room, until the server's end fails. Returns the error number. */
  int send_until_refused();

  /* Shuts the connection down for writing. */
  void half_close();
  void hang_up();

  /* The number of unread bytes at the server's end. */
  gsize unread();

  /* All bytes received so far. */
  const std::string &received();

  /* TRUE when the server's end is closed and everything that it sent is received. An error fails
   * the test. */
  bool ended();

  /* TRUE after an error instead of the end: the server closed its end with unread bytes, or never accepted
   * it. */
  bool was_reset();

  /* Waits for a NUL and returns the text before it. */
  std::string wait_for_reply();

  bool wait_for_bytes(gsize count);
  bool wait_for_end();

private:
  void receive();

  int fd_;
  std::string received_;
  bool ended_ = false;
  bool was_reset_ = false;
};
