/* SPDX-License-Identifier: MIT */
#include "connection.h"

#include "httpreply.h"
#include "viewlimits.h"

#include <array>
#include <libsoup/soup.h>
#include <sys/socket.h>

namespace view
{

namespace
{

/* What is sent to one client before the others have their turn. */
constexpr gsize TURN_BYTES = 256 * 1024;

/* Output streams of sockets have no state of their own. */
GIOStream *
new_engine_stream(GSocketConnection *connection, BoundedInput *input)
{
  return g_simple_io_stream_new(G_INPUT_STREAM(input),
                                g_io_stream_get_output_stream(G_IO_STREAM(connection)));
}

GSource *
add_watch(GSocket *socket, GIOCondition condition, GSocketSourceFunc function, gpointer user_data)
{
  GSource *source = g_socket_create_source(socket, condition, nullptr);
  g_source_set_callback(source, G_SOURCE_FUNC(function), user_data, nullptr);
  g_source_attach(source, nullptr);
  return source;
}

void
remove_watch(GSource **source)
{
  if (*source != nullptr) {
    g_source_destroy(*source);
    g_clear_pointer(source, g_source_unref);
  }
}

} // namespace

/**
 * Connection:
 * @socket_connection: (transfer none): a connection that was accepted
 * @on_closed: see %ClosedFunction
 * @user_data: for @on_closed
 */
Connection::Connection(GSocketConnection *socket_connection, ClosedFunction on_closed, gpointer user_data)
    : socket_connection_(G_SOCKET_CONNECTION(g_object_ref(socket_connection))),
      socket_(g_socket_connection_get_socket(socket_connection)),
      input_(bounded_input_new(g_io_stream_get_input_stream(G_IO_STREAM(socket_connection)),
                               VIEW_REQUEST_BYTES_MAX, on_engine_closed, this)),
      engine_stream_(new_engine_stream(socket_connection, input_)), on_closed_(on_closed),
      user_data_(user_data), since_us_(g_get_monotonic_time()), queue_(VIEW_QUEUE_BYTES_MAX)
{
  g_socket_set_blocking(socket_, FALSE);
  g_socket_set_option(socket_, SOL_SOCKET, SO_SNDBUF, VIEW_SEND_BUFFER_BYTES, nullptr);
}

Connection::~Connection()
{
  remove_watch(&writable_);
  remove_watch(&readable_);
  bounded_input_forget(input_);
  g_io_stream_close(G_IO_STREAM(socket_connection_), nullptr, nullptr);
  g_clear_object(&stolen_);
  g_object_unref(engine_stream_);
  g_object_unref(input_);
  g_object_unref(socket_connection_);
}

/**
 * Connection::engine_stream:
 *
 * Returns: (transfer none): the stream from which the engine reads the request
 */
GIOStream *
Connection::engine_stream() const
{
  return engine_stream_;
}

/**
 * Connection::take_over:
 * @stolen: (transfer full): the stream that the engine has given back
 *
 * The request is complete, and its reply comes later.
 */
void
Connection::take_over(GIOStream *stolen)
{
  stolen_ = stolen;
  state_ = State::WAITING;
}

/**
 * Connection::reply:
 * @text: a complete reply
 *
 * Sends the reply and closes the connection.
 */
void
Connection::reply(Text text)
{
  if (state_ != State::WAITING) {
    return;
  }
  state_ = State::REPLY;
  current_ = std::move(text);
  watch_output();
}

/**
 * Connection::begin_stream:
 * @head: the head of a reply whose body has no end
 *
 * The client has nothing more to send: bytes, and the end of its side, close the connection.
 */
void
Connection::begin_stream(Text head)
{
  state_ = State::STREAM;
  readable_ = add_watch(socket_, G_IO_IN, on_readable, this);
  send({}, std::move(head));
}

/**
 * Connection::send:
 * @key: what the text replaces, see #SendQueue
 * @text: a part of the body
 *
 * Closes the connection of a client that lets too much wait.
 */
void
Connection::send(const std::string &key, Text text)
{
  if (state_ != State::STREAM) {
    return;
  }
  if (!queue_.push(key, std::move(text))) {
    close();
    return;
  }
  watch_output();
}

/**
 * Connection::send_behind_barrier:
 * @text: a part of the body
 *
 * Sends the text; later texts replace only those behind it.
 */
void
Connection::send_behind_barrier(Text text)
{
  queue_.add_barrier();
  send({}, std::move(text));
}

/**
 * Connection::shut_down:
 *
 * Ends a connection whose request is not complete. The engine then closes it.
 */
void
Connection::shut_down()
{
  g_socket_shutdown(socket_, TRUE, TRUE, nullptr);
  state_ = State::ENDING;
}

/**
 * Connection::is_reading_request:
 *
 * Returns: whether the request is not complete
 */
bool
Connection::is_reading_request() const
{
  return state_ == State::REQUEST;
}

/**
 * Connection::is_active:
 *
 * Returns: whether the connection neither ends nor has closed
 */
bool
Connection::is_active() const
{
  return state_ != State::ENDING && state_ != State::CLOSED;
}

/**
 * Connection::is_closed:
 *
 * Returns: whether the connection has closed
 */
bool
Connection::is_closed() const
{
  return state_ == State::CLOSED;
}

/**
 * Connection::check:
 * @now_us: the monotonic time
 *
 * Ends a connection that takes too long.
 */
void
Connection::check(gint64 now_us)
{
  const gint64 seconds = (now_us - since_us_) / G_TIME_SPAN_SECOND;
  if (state_ == State::REQUEST && seconds >= VIEW_REQUEST_SECONDS) {
    shut_down();
  } else if ((is_sending() && seconds >= VIEW_SEND_SECONDS) ||
             (state_ == State::LINGER && seconds >= VIEW_LINGER_SECONDS)) {
    close();
  }
}

bool
Connection::is_sending() const
{
  return (state_ == State::REPLY || state_ == State::STREAM) && (current_ != nullptr || !queue_.is_empty());
}

void
Connection::close()
{
  remove_watch(&writable_);
  remove_watch(&readable_);
  state_ = State::CLOSED;
  on_closed_(user_data_);
}

/* A connection that is closed while the client still sends is reset, and the client can lose the reply. */
void
Connection::linger()
{
  g_socket_shutdown(socket_, FALSE, TRUE, nullptr);
  state_ = State::LINGER;
  since_us_ = g_get_monotonic_time();
  readable_ = add_watch(socket_, G_IO_IN, on_readable, this);
}

void
Connection::watch_output()
{
  if (writable_ == nullptr) {
    since_us_ = g_get_monotonic_time();
    writable_ = add_watch(socket_, G_IO_OUT, on_writable, this);
  }
}

/* Returns: whether more can be sent now */
bool
Connection::send_current()
{
  g_autoptr(GError) error = nullptr;
  const gssize size =
      g_socket_send(socket_, current_->data() + sent_, current_->size() - sent_, nullptr, &error);
  if (size < 0) {
    if (!g_error_matches(error, G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK)) {
      close();
    }
    return false;
  }
  sent_ += static_cast<gsize>(size);
  if (sent_ == current_->size()) {
    current_ = nullptr;
    since_us_ = g_get_monotonic_time();
  }
  return true;
}

void
Connection::send_some()
{
  gsize turn = 0;
  while (turn < TURN_BYTES) {
    if (current_ == nullptr) {
      current_ = queue_.pop();
      sent_ = 0;
    }
    if (current_ == nullptr) {
      remove_watch(&writable_);
      if (state_ == State::REPLY) {
        linger();
      }
      return;
    }
    turn += current_->size() - sent_;
    if (!send_current()) {
      return;
    }
  }
}

/* Returns: whether the client can send more */
bool
Connection::read_rest()
{
  std::array<gchar, 4096> bytes = {};
  g_autoptr(GError) error = nullptr;
  const gssize size = g_socket_receive(socket_, bytes.data(), bytes.size(), nullptr, &error);
  return size > 0 ? state_ == State::LINGER : g_error_matches(error, G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK) != 0;
}

void
Connection::on_engine_closed(gpointer user_data)
{
  auto *self = static_cast<Connection *>(user_data);
  if (self->state_ == State::REQUEST && bounded_input_has_refused(self->input_)) {
    self->state_ = State::WAITING;
    self->reply(http_error(SOUP_STATUS_BAD_REQUEST, "The length of the request is not known.", {}));
  } else if (self->state_ == State::REQUEST || self->state_ == State::ENDING) {
    self->close();
  }
}

gboolean
Connection::on_writable(GSocket *socket, GIOCondition condition, gpointer user_data)
{
  static_cast<Connection *>(user_data)->send_some();
  return G_SOURCE_CONTINUE;
}

gboolean
Connection::on_readable(GSocket *socket, GIOCondition condition, gpointer user_data)
{
  auto *self = static_cast<Connection *>(user_data);
  if (!self->read_rest()) {
    self->close();
  }
  return G_SOURCE_CONTINUE;
}

} // namespace view
