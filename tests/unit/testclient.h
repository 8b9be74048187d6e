/* The other end of a connection: what a client sends, and what it is sent. Nothing here blocks; what has to
 * be waited for is waited for in the default main context, within a bound.
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

  /* A client whose server's end is @server_end, which is the caller's. */
  static Client connect_pair(int *server_end);

  /* FALSE when the server's end is closed. */
  bool send(const std::string &bytes);

  /* As much of @bytes as goes without waiting, with the flags of send(). */
  gsize send_some(const std::string &bytes, int flags = 0);

  /* Sends until the server's end takes no more for good, and waits for room meanwhile. The error's number.
   * Any thread. */
  int send_until_refused();

  /* Ends what the client sends; it goes on reading. */
  void half_close();
  void hang_up();

  /* How many bytes nobody has read at the server's end. */
  gsize unread();

  /* All bytes received so far. */
  const std::string &received();

  /* Whether the server's end is closed and all that it sent was received. An error in place of the end fails
   * the test. */
  bool ended();

  /* Whether an error came in place of the end: the server's end was closed with something unread, or was
   * never accepted. */
  bool was_reset();

  /* Waits for a NUL and gives what stands before it. */
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
