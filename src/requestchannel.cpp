/* The channel between a pool thread and one client: it reads the request's text from memory, where a
 * RequestReader has collected it, and writes the reply to the socket. So reading never waits, and GLib's line
 * reader may read ahead.
 *
 * A request that did not arrive as a whole is read as far as it goes. Behind that the channel ends like the
 * client's stream, or fails with the reason.
 */
#include "requestchannel.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>

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
  const gchar *text; /* what was not read yet */
  gsize length;
  const gchar *failure;
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

GIOStatus
on_read(GIOChannel *channel, gchar *buf, gsize count, gsize *bytes_read, GError **error)
{
  RequestChannel *self = from_channel(channel);

  *bytes_read = std::min(count, self->length);
  if (*bytes_read > 0) {
    memcpy(buf, self->text, *bytes_read);
    self->text += *bytes_read;
    self->length -= *bytes_read;
    return G_IO_STATUS_NORMAL;
  }
  if (self->failure == nullptr) {
    return G_IO_STATUS_EOF;
  }
  g_set_error_literal(error, G_IO_CHANNEL_ERROR, G_IO_CHANNEL_ERROR_FAILED, self->failure);
  return G_IO_STATUS_ERROR;
}

/* FALSE with errno set when there is none in time. @deadline: monotonic, microseconds. */
gboolean
wait_for_room(int fd, gint64 deadline)
{
  pollfd descriptor = {fd, POLLOUT, 0};
  int ready = 0;

  do {
    const gint64 left_us = std::max<gint64>(deadline - g_get_monotonic_time(), 0);
    const auto left_ms = static_cast<int>((left_us + 999) / 1000);
    ready = poll(&descriptor, 1, left_ms);
  } while (ready < 0 && errno == EINTR);
  if (ready == 0) {
    errno = EAGAIN;
  }
  return ready > 0;
}

/* Writes what fits. Negative with errno set on failure, also when there is no room in time. A socket takes
 * far more than poll() reports room for, so poll() is asked only when nothing fits. */
ssize_t
write_in_time(int fd, const gchar *buf, gsize count)
{
  const gint64 deadline = g_get_monotonic_time() + WRITE_TIMEOUT_MS * G_TIME_SPAN_MILLISECOND;
  ssize_t written = send(fd, buf, count, MSG_DONTWAIT | MSG_NOSIGNAL);

  while (written < 0 && errno == EAGAIN && wait_for_room(fd, deadline)) {
    written = send(fd, buf, count, MSG_DONTWAIT | MSG_NOSIGNAL);
  }
  return written;
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

void
on_free(GIOChannel *channel)
{
  g_free(from_channel(channel));
}

/* GLib asks for the flags, and sets them, when a channel goes with something left to write. Reads never wait
 * here and writes are bounded in time whatever the flags say, so there are none. */
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

/* Nobody seeks in a request or watches its channel, and the descriptor is not the channel's to close. */
GIOFuncs request_channel_funcs = {
    .io_read = on_read,
    .io_write = on_write,
    .io_seek = nullptr,
    .io_close = nullptr,
    .io_create_watch = nullptr,
    .io_free = on_free,
    .io_set_flags = on_set_flags,
    .io_get_flags = on_get_flags,
};

} // namespace

/**
 * request_channel_new:
 * @fd: a connected stream socket, for the reply; stays open when the channel goes
 * @text: (transfer none) (array length=length) (nullable): what was read of the request, kept by the caller
 * @length: how many bytes that is
 * @failure: (transfer none) (nullable): why there is no more, kept by the caller; %NULL when the client's
 *   stream ends behind @text, or nothing behind @text matters
 *
 * Makes a channel for one request and its reply. Reading beyond @text fails with a %G_IO_CHANNEL_ERROR that
 * has @failure as its message. One thread at a time.
 *
 * Returns: (transfer full): a channel for g_io_channel_read_line(), g_io_channel_write_chars(),
 *   g_io_channel_flush() and g_io_channel_unref(); others are not served
 */
GIOChannel *
request_channel_new(int fd, const gchar *text, gsize length, const gchar *failure)
{
  auto *self = g_new0(RequestChannel, 1);

  g_io_channel_init(&self->channel);
  self->channel.funcs = &request_channel_funcs;
  self->channel.is_readable = TRUE;
  self->channel.is_writeable = TRUE;
  /* Bytes from the start, so that a reply can end in a NUL even if the encoding cannot be set later. */
  g_clear_pointer(&self->channel.encoding, g_free);
  self->fd = fd;
  self->text = text;
  self->length = length;
  self->failure = failure;
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
