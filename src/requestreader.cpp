/* SPDX-License-Identifier: MIT */
/* Collects the text of one client's request on the main loop, so that no thread waits for a client.
 *
 * Bytes after the request belong to the stream, for which another component reads the same descriptor. A turn
 * therefore peeks at the input, finds the end of the request in it, and removes nothing after that.
 *
 * Length and time of the text are limited, and so is a turn. The reader ends when the request is complete or
 * malformed, when the client has ended its writing half, when a limit is exceeded, and when reading fails.
 * The last two cases have a failure text, which is part of the client's reply.
 */
#include "requestreader.h"

#include "request.h"

#include <algorithm>
#include <cerrno>
#include <glib-unix.h>
#include <sys/socket.h>

struct RequestReader {
  int fd;
  gsize max_bytes;
  guint timeout_ms;
  gint64 deadline; /* monotonic, microseconds */
  RequestReaderFunc on_end;
  gpointer user_data;
  GSource *source; /* NULL once reading has stopped */
  GByteArray *text;
  RequestScan scan;
  gchar *failure;
};

namespace
{

/* FALSE with the failure set when the deadline has passed. */
gboolean
is_time_left(RequestReader *self)
{
  if (g_get_monotonic_time() < self->deadline) {
    return TRUE;
  }
  self->failure = g_strdup_printf("Request not complete within %u ms", self->timeout_ms);
  return FALSE;
}

/* FALSE with the failure set when the text has reached its longest length. */
gboolean
is_room_left(RequestReader *self)
{
  if (self->text->len < self->max_bytes) {
    return TRUE;
  }
  self->failure = g_strdup_printf("Request longer than %" G_GSIZE_FORMAT " bytes", self->max_bytes);
  return FALSE;
}

/* Appends the arrived bytes to the text and leaves them in the socket. FALSE at the end of the stream; FALSE
 * with the failure set when reading fails. */
gboolean
look_at_input(RequestReader *self)
{
  const gsize before = self->text->len;
  const gsize count = std::min<gsize>(self->max_bytes - before, REQUEST_READER_BYTES_PER_TURN);

  g_byte_array_set_size(self->text, before + count);
  const gssize arrived = recv(self->fd, self->text->data + before, count, MSG_PEEK | MSG_DONTWAIT);
  if (arrived < 0) {
    /* Out-of-band data alone cannot be read, and poll() would report it forever. */
    self->failure = g_strdup(errno == EAGAIN ? "" : g_strerror(errno));
  }
  g_byte_array_set_size(self->text, before + std::max<gssize>(arrived, 0));
  return arrived > 0;
}

/* Removes the text from @before on from the socket by a second read. FALSE with the failure set when the
 * bytes are gone, which out-of-band data can cause. */
gboolean
remove_input(RequestReader *self, gsize before)
{
  const gsize count = self->text->len - before;

  if (recv(self->fd, self->text->data + before, count, MSG_DONTWAIT) == static_cast<gssize>(count)) {
    return TRUE;
  }
  self->failure = g_strdup("");
  g_byte_array_set_size(self->text, before);
  return FALSE;
}

/* Reads in one turn. FALSE when the reader has nothing more to read. */
gboolean
take_input(RequestReader *self)
{
  const gsize before = self->text->len;
  if (!look_at_input(self)) {
    return FALSE;
  }

  gsize end = self->text->len;
  const gboolean ended =
      request_scan(&self->scan, reinterpret_cast<const gchar *>(self->text->data), self->text->len, &end);
  g_byte_array_set_size(self->text, end);
  return remove_input(self, before) && !ended && is_room_left(self);
}

void
stop_reading(RequestReader *self)
{
  if (self->source != nullptr) {
    g_source_destroy(self->source);
    g_clear_pointer(&self->source, g_source_unref);
  }
}

/* @condition is 0 at the deadline. */
gboolean
on_request_ready(gint fd, GIOCondition condition, gpointer user_data)
{
  auto *self = static_cast<RequestReader *>(user_data);

  if ((condition == 0 || take_input(self)) && is_time_left(self)) {
    return G_SOURCE_CONTINUE;
  }
  stop_reading(self);
  self->on_end(self, self->user_data);
  return G_SOURCE_REMOVE;
}

} // namespace

/**
 * request_reader_new:
 * @fd: a connected stream socket; open for as long as the reader reads
 * @max_bytes: the limit for the length of the request, at least 1
 * @timeout_ms: the limit for the time of the request, in milliseconds from now
 * @on_end: called when the reader ends
 * @user_data: for @on_end
 *
 * Begins to read one request, in the default main context.
 *
 * Returns: (transfer full): a new reader, which reads until it calls @on_end or is freed
 */
RequestReader *
request_reader_new(int fd, gsize max_bytes, guint timeout_ms, RequestReaderFunc on_end, gpointer user_data)
{
  constexpr auto CONDITION = static_cast<GIOCondition>(G_IO_IN | G_IO_ERR | G_IO_HUP);
  auto *self = g_new0(RequestReader, 1);

  self->fd = fd;
  self->max_bytes = max_bytes;
  self->timeout_ms = timeout_ms;
  self->deadline = g_get_monotonic_time() + timeout_ms * G_TIME_SPAN_MILLISECOND;
  self->on_end = on_end;
  self->user_data = user_data;
  self->text = g_byte_array_new();
  self->source = g_unix_fd_source_new(fd, CONDITION);
  g_source_set_ready_time(self->source, self->deadline);
  g_source_set_callback(self->source, G_SOURCE_FUNC(on_request_ready), self, nullptr);
  g_source_attach(self->source, nullptr);
  return self;
}

/**
 * request_reader_get_text:
 * @self: (transfer none): a reader that has called its function
 * @length: (out): the length of the text in bytes
 *
 * Returns the bytes that were removed from the socket: at most the whole request, and nothing after it.
 *
 * Returns: (transfer none) (array length=length) (nullable): the text, without a terminating NUL
 */
const gchar *
request_reader_get_text(const RequestReader *self, gsize *length)
{
  *length = self->text->len;
  return reinterpret_cast<const gchar *>(self->text->data);
}

/**
 * request_reader_get_failure:
 * @self: (transfer none): a reader that has called its function
 *
 * Returns: (transfer none) (nullable): why the text is incomplete, possibly an empty text; %NULL when the
 *   text is complete or malformed, or the client has ended its writing half
 */
const gchar *
request_reader_get_failure(const RequestReader *self)
{
  return self->failure;
}

/**
 * request_reader_free:
 * @self: (transfer full): a reader
 *
 * Stops reading and frees the text. The descriptor stays open.
 *
 * Warnings: "self != NULL" is a precondition.
 */
void
request_reader_free(RequestReader *self)
{
  g_return_if_fail(self != NULL);

  stop_reading(self);
  g_byte_array_unref(self->text);
  g_free(self->failure);
  g_free(self);
}
