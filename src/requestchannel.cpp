/* SPDX-License-Identifier: MIT */
/* The channel between a pool thread and one client. It reads the request's text from memory, where a
 * RequestReader has collected it, so reading never blocks and GLib's line reader can read ahead. It writes
 * the reply to the socket.
 *
 * The text can be incomplete. After its last byte the channel reports the end of the stream, or the failure
 * of the reader.
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

/* A reply fits into the empty buffer of a socket, so the limit matters only if the client has reduced the
 * size of the buffer. */
constexpr int WRITE_TIMEOUT_MS = 1000;

constexpr gsize DISCARD_SIZE = 4096;

struct RequestChannel {
  GIOChannel channel; /* must be the first member */
  int fd;
  const gchar *text; /* the unread part */
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

/* FALSE with errno set if there is no room before @deadline (monotonic, microseconds). */
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

/* Writes as much as fits. Returns -1 with errno set on failure, and if there is no room in time. A socket can
 * accept data while poll() reports no room, so poll() is called only after a failed write. */
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

/* GLib keeps unwritten data and retries when the channel is freed. The descriptor can then be closed, and its
 * number belong to another client. Therefore, after a failure, all further data is accepted and dropped. */
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

/* GLib gets and sets the flags when a channel with unwritten data is freed. Reads never block and writes have
 * a limit of time, so no flag applies. */
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

/* Requests need no seeking and no watches, and the channel does not own the descriptor. */
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
 * @fd: a connected stream socket for the reply, which the channel does not close
 * @text: (transfer none) (array length=length) (nullable): the request's text; must live as long as the
 *   channel
 * @length: the length of @text
 * @failure: (transfer none) (nullable): why the text is incomplete; must live as long as the channel. %NULL
 *   when the text is complete or malformed, or the client has ended its stream after @text
 *
 * Makes a channel for one request and its reply. Reading beyond @text fails with a %G_IO_CHANNEL_ERROR whose
 * message is @failure.
 *
 * Returns: (transfer full): a channel that supports only g_io_channel_read_line(),
 *   g_io_channel_write_chars(), g_io_channel_flush() and g_io_channel_unref()
 */
GIOChannel *
request_channel_new(int fd, const gchar *text, gsize length, const gchar *failure)
{
  auto *self = g_new0(RequestChannel, 1);

  g_io_channel_init(&self->channel);
  self->channel.funcs = &request_channel_funcs;
  self->channel.is_readable = TRUE;
  self->channel.is_writeable = TRUE;
  /* Without an encoding, a reply can end in a NUL even if setting the encoding fails later. */
  g_clear_pointer(&self->channel.encoding, g_free);
  self->fd = fd;
  self->text = text;
  self->length = length;
  self->failure = failure;
  return &self->channel;
}

/**
 * request_channel_discard_input:
 * @fd: a connected stream socket that is about to be closed
 *
 * Shuts the socket down for reading and drops all input. Otherwise closing a socket with unread input would
 * give the client an error instead of the reply and the end of the stream. Does not block.
 */
void
request_channel_discard_input(int fd)
{
  std::array<gchar, DISCARD_SIZE> data;

  /* No data arrives after the shutdown, so the loop ends. */
  shutdown(fd, SHUT_RD);
  while (recv(fd, data.data(), data.size(), MSG_DONTWAIT) > 0) {
  }
}
