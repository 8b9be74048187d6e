/* SPDX-License-Identifier: MIT */
#pragma once

#include "boundedinput.h"
#include "sendqueue.h"

#include <gio/gio.h>

namespace view
{

/* One connection, which has one request. The engine reads the request; the connection sends the reply itself,
 * because the engine has no bounds for a client that does not read. All functions are for the main thread. */
class Connection
{
public:
  /* Called when the connection has closed; the owner deletes it afterwards, not in the call. */
  using ClosedFunction = void (*)(gpointer user_data);

  Connection(GSocketConnection *socket_connection, ClosedFunction on_closed, gpointer user_data);
  ~Connection();
  Connection(const Connection &) = delete;
  Connection &operator=(const Connection &) = delete;

  GIOStream *engine_stream() const;
  void take_over(GIOStream *stolen);
  void reply(Text text);
  void begin_stream(Text head);
  void send(const std::string &key, Text text);
  void send_behind_barrier(Text text);
  void shut_down();
  bool is_reading_request() const;
  bool is_active() const;
  bool is_closed() const;
  void check(gint64 now_us);

private:
  enum class State { REQUEST, ENDING, WAITING, REPLY, STREAM, LINGER, CLOSED };

  bool is_sending() const;
  void close();
  void linger();
  void watch_output();
  bool send_current();
  void send_some();
  bool read_rest();
  static void on_engine_closed(gpointer user_data);
  static gboolean on_writable(GSocket *socket, GIOCondition condition, gpointer user_data);
  static gboolean on_readable(GSocket *socket, GIOCondition condition, gpointer user_data);

  GSocketConnection *socket_connection_;
  GSocket *socket_; /* of the connection */
  BoundedInput *input_;
  GIOStream *engine_stream_;
  GIOStream *stolen_ = nullptr;
  ClosedFunction on_closed_;
  gpointer user_data_;
  State state_ = State::REQUEST;
  gint64 since_us_; /* when the state, or the sending of the current text began */
  GSource *writable_ = nullptr;
  GSource *readable_ = nullptr;
  SendQueue queue_;
  Text current_;
  gsize sent_ = 0; /* of the current text */
};

} // namespace view
