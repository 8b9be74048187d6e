/* SPDX-License-Identifier: MIT */
#include "linewriter.h"
#include "command.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <glib-unix.h>
#include <unistd.h>

/**
 * LineWriter::LineWriter:
 * @fd: the descriptor to write to; must stay open
 * @on_end: called at most once, from the main loop or within write()
 * @user_data: for @on_end
 */
LineWriter::LineWriter(int descriptor, EndCallback end_callback, gpointer end_data)
    : fd(descriptor), on_end(end_callback), user_data(end_data), pending(g_string_new(nullptr)),
      hang_up_source(g_unix_fd_add(fd, static_cast<GIOCondition>(G_IO_ERR | G_IO_HUP), on_hang_up, this))
{
}

/* Writes the pending bytes that the descriptor takes without blocking. */
LineWriter::~LineWriter()
{
  GPollFD poll = {fd, G_IO_OUT, 0};

  while (pending->len > 0 && g_poll(&poll, 1, 0) > 0 && write_piece()) {
  }
  g_source_remove(hang_up_source);
  if (writable_source != 0) {
    g_source_remove(writable_source);
  }
  g_string_free(pending, TRUE);
}

/**
 * LineWriter::write:
 * @line: (transfer none): a text without a line break
 *
 * Queues a line, which the main loop writes. Over %LINE_WRITER_MAX_PENDING_BYTES the writer ends with an
 * error.
 */
void
LineWriter::write(const gchar *line)
{
  if (ended) {
    return;
  }
  g_string_append_printf(pending, "%s\n", line);
  if (pending->len > LINE_WRITER_MAX_PENDING_BYTES) {
    end(g_error_new(TESSARDCTL_ERROR, EXIT_STATUS_LOCAL,
                    "More than %d bytes wait for the reader of standard output.",
                    LINE_WRITER_MAX_PENDING_BYTES));
    return;
  }
  if (writable_source == 0) {
    writable_source = g_unix_fd_add(fd, G_IO_OUT, on_writable, this);
  }
}

/* Without this watch, a hang-up would not be noticed before the next line. */
gboolean
LineWriter::on_hang_up(gint descriptor, GIOCondition condition, gpointer data)
{
  static_cast<LineWriter *>(data)->end(nullptr);
  return G_SOURCE_CONTINUE;
}

gboolean
LineWriter::on_writable(gint descriptor, GIOCondition condition, gpointer data)
{
  auto *self = static_cast<LineWriter *>(data);

  if (self->write_piece() && self->pending->len > 0) {
    return G_SOURCE_CONTINUE;
  }
  self->writable_source = 0;
  return G_SOURCE_REMOVE;
}

/* A pipe that polls as writable takes PIPE_BUF bytes without blocking. */
gboolean
LineWriter::write_piece()
{
  const gssize written = ::write(fd, pending->str, std::min<gsize>(pending->len, PIPE_BUF));

  if (written >= 0) {
    g_string_erase(pending, 0, written);
    return TRUE;
  }
  if (errno == EINTR || errno == EAGAIN) {
    return TRUE;
  }
  end(errno == EPIPE ? nullptr
                     : g_error_new(TESSARDCTL_ERROR, EXIT_STATUS_LOCAL,
                                   "Could not write to standard output: %s.", g_strerror(errno)));
  return FALSE;
}

void
LineWriter::end(GError *outcome)
{
  g_autoptr(GError) owned = outcome;

  if (ended) {
    return;
  }
  ended = TRUE;
  g_string_truncate(pending, 0);
  on_end(g_steal_pointer(&owned), user_data);
}
