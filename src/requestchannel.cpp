/* The channel through which a pool thread reads one request and writes its reply.
 *
 * A GLib channel reads ahead. Here it must not: what a client sends behind its request belongs to the stream,
 * which reads the same descriptor by other means. So a read looks at what has arrived first and takes it up
 * to the next line feed only; as a request ends with a line that is a lone line feed, not one byte more than
 * the request is ever taken.
 *
 * A request is bounded in length and in time, because a client that sends without end, or nothing at all,
 * would hold one of the few pool threads. Past either bound reading fails with an error that says so.
 */
#include "requestchannel.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

/* A reply fits into the buffer of a socket that nothing was written to, so this bound is for the odd client
 * that has made the buffer smaller. */
constexpr int WRITE_TIMEOUT_MS = 1000;

constexpr gsize DISCARD_SIZE = 4096;

/* GLib hands out GIOChannel pointers; the first member makes them ours. */
struct RequestChannel {
  GIOChannel channel;
  int fd;
  gsize max_bytes;
  gsize bytes_left;
  guint timeout_ms;
  gint64 deadline; /* monotonic, microseconds */
  gboolean write_failed;
};

RequestChannel *
from_channel(GIOChannel *channel)
{
  return reinterpret_cast<RequestChannel *>(channel);
}

GIOStatus
fail_with_errno(GError **error)
{
  const int error_number = errno;

  if (error_number == EAGAIN) {
    return G_IO_STATUS_AGAIN;
  }
  g_set_error_literal(error, G_IO_CHANNEL_ERROR, g_io_channel_error_from_errno(error_number),
                      g_strerror(error_number));
  return G_IO_STATUS_ERROR;
}

/* Waits for @events until @deadline. Like poll(): positive when there is something to do, 0 when time is up.
 */
int
wait_for(int fd, short events, gint64 deadline)
{
  pollfd descriptor = {fd, events, 0};
  int result = 0;

  do {
    const gint64 left_us = std::max<gint64>(deadline - g_get_monotonic_time(), 0);
    const auto left_ms = static_cast<int>((left_us + 999) / 1000);
    result = poll(&descriptor, 1, left_ms);
  } while (result < 0 && errno == EINTR);
  return result;
}

/* How many of the bytes that have arrived, at most @count, make up the current line so far. 0 at the end of
 * the stream, negative with errno set on failure. */
ssize_t
peek_line(int fd, gchar *buf, gsize count)
{
  const ssize_t arrived = recv(fd, buf, count, MSG_PEEK | MSG_DONTWAIT);
  if (arrived <= 0) {
    return arrived;
  }

  const auto *line_feed = static_cast<const gchar *>(memchr(buf, '\n', arrived));
  return line_feed == nullptr ? arrived : line_feed - buf + 1;
}

GIOStatus
on_read(GIOChannel *channel, gchar *buf, gsize count, gsize *bytes_read, GError **error)
{
  RequestChannel *self = from_channel(channel);
  *bytes_read = 0;

  if (self->bytes_left == 0) {
    g_set_error(error, G_IO_CHANNEL_ERROR, G_IO_CHANNEL_ERROR_FBIG,
                "Request longer than %" G_GSIZE_FORMAT " bytes", self->max_bytes);
    return G_IO_STATUS_ERROR;
  }

  const int ready = wait_for(self->fd, POLLIN, self->deadline);
  if (ready < 0) {
    return fail_with_errno(error);
  }
  if (ready == 0) {
    g_set_error(error, G_IO_CHANNEL_ERROR, G_IO_CHANNEL_ERROR_FAILED, "Request not complete within %u ms",
                self->timeout_ms);
    return G_IO_STATUS_ERROR;
  }

  ssize_t taken = peek_line(self->fd, buf, std::min(count, self->bytes_left));
  if (taken > 0) {
    taken = recv(self->fd, buf, taken, MSG_DONTWAIT);
  }
  if (taken < 0) {
    return fail_with_errno(error);
  }
  if (taken == 0) {
    return G_IO_STATUS_EOF;
  }
  self->bytes_left -= taken;
  *bytes_read = taken;
  return G_IO_STATUS_NORMAL;
}

/* Waits for room and writes what fits. Negative with errno set on failure, also when there is no room in
 * time. */
ssize_t
write_in_time(int fd, const gchar *buf, gsize count)
{
  const int ready =
      wait_for(fd, POLLOUT, g_get_monotonic_time() + WRITE_TIMEOUT_MS * G_TIME_SPAN_MILLISECOND);

  if (ready == 0) {
    errno = EAGAIN;
  }
  return ready > 0 ? send(fd, buf, count, MSG_DONTWAIT | MSG_NOSIGNAL) : -1;
}

/* GLib keeps what could not be written and tries again when the channel goes. By then the descriptor may be
 * closed, and its number another client's, so after a failure everything is taken and thrown away. */
GIOStatus
on_write(GIOChannel *channel, const gchar *buf, gsize count, gsize *bytes_written, GError **error)
{
  RequestChannel *self = from_channel(channel);

  if (self->write_failed) {
    *bytes_written = count;
    return G_IO_STATUS_NORMAL;
  }

  const ssize_t written = write_in_time(self->fd, buf, count);
  if (written < 0) {
    *bytes_written = 0;
    self->write_failed = TRUE;
    return fail_with_errno(error);
  }
  *bytes_written = written;
  return G_IO_STATUS_NORMAL;
}

GIOStatus
on_close(GIOChannel *channel, GError **error)
{
  const int fd = from_channel(channel)->fd;

  request_channel_discard_input(fd);
  return close(fd) < 0 ? fail_with_errno(error) : G_IO_STATUS_NORMAL;
}

void
on_free(GIOChannel *channel)
{
  g_free(from_channel(channel));
}

/* GLib asks for the flags, and sets them, when it closes a channel with something left to write. Reads and
 * writes here are bounded in time whatever the flags say, so there are none. */
GIOFlags
on_get_flags(GIOChannel *channel)
{
  return G_IO_FLAG_NONE;
}

GIOStatus
on_set_flags(GIOChannel *channel, GIOFlags flags, GError **error)
{
  return G_IO_STATUS_NORMAL;
}

/* Nobody seeks in a request or watches its channel. */
GIOFuncs request_channel_funcs = {
    .io_read = on_read,
    .io_write = on_write,
    .io_seek = nullptr,
    .io_close = on_close,
    .io_create_watch = nullptr,
    .io_free = on_free,
    .io_set_flags = on_set_flags,
    .io_get_flags = on_get_flags,
};

} // namespace

/**
 * request_channel_new:
 * @fd: a connected stream socket; the channel discards its input and closes it only if told so with
 * g_io_channel_set_close_on_unref()
 * @max_bytes: how many bytes may be read in all
 * @timeout_ms: how many milliseconds from now reading may take in all
 *
 * Makes a channel for one request. Reading beyond a bound fails with a %G_IO_CHANNEL_ERROR. One thread at a
 * time.
 *
 * Returns: (transfer full): a channel for g_io_channel_read_line(), g_io_channel_write_chars(),
 *   g_io_channel_flush() and g_io_channel_unref(); others are not served
 */
GIOChannel *
request_channel_new(int fd, gsize max_bytes, guint timeout_ms)
{
  auto *self = g_new0(RequestChannel, 1);

  g_io_channel_init(&self->channel);
  self->channel.funcs = &request_channel_funcs;
  self->channel.is_readable = TRUE;
  self->channel.is_writeable = TRUE;
  /* Bytes from the start, so that a reply can end in a NUL even if the encoding cannot be set later. */
  g_clear_pointer(&self->channel.encoding, g_free);
  self->fd = fd;
  self->max_bytes = max_bytes;
  self->bytes_left = max_bytes;
  self->timeout_ms = timeout_ms;
  self->deadline = g_get_monotonic_time() + timeout_ms * G_TIME_SPAN_MILLISECOND;
  return &self->channel;
}

/**
 * request_channel_discard_input:
 * @fd: a connected stream socket, about to be closed
 *
 * Ends what the client can send and throws away what has arrived. The client reads what it was sent and then
 * the end of the stream; a socket that is closed with something unread would give it an error instead. Waits
 * for nobody. Any thread.
 */
void
request_channel_discard_input(int fd)
{
  std::array<gchar, DISCARD_SIZE> data;

  /* Nothing arrives after the shutdown, so the loop ends with what the socket's buffer held. */
  shutdown(fd, SHUT_RD);
  while (recv(fd, data.data(), data.size(), MSG_DONTWAIT) > 0) {
  }
}
