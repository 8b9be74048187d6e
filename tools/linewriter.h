/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

/**
 * LINE_WRITER_MAX_PENDING_BYTES:
 *
 * The most bytes that wait for a reader that does not read.
 */
#define LINE_WRITER_MAX_PENDING_BYTES (1024 * 1024)

/* Writes lines without ever blocking on their reader. For the main thread. */
class LineWriter
{
public:
  /* Called when writing has become impossible. Takes @outcome, which is NULL when the reader has hung up. */
  using EndCallback = void (*)(GError *outcome, gpointer user_data);

  LineWriter(int fd, EndCallback on_end, gpointer user_data);
  LineWriter(const LineWriter &) = delete;
  LineWriter &operator=(const LineWriter &) = delete;
  ~LineWriter();

  void write(const gchar *line);

private:
  static gboolean on_hang_up(gint fd, GIOCondition condition, gpointer user_data);
  static gboolean on_writable(gint fd, GIOCondition condition, gpointer user_data);
  gboolean write_piece();
  void end(GError *outcome);

  int fd;
  EndCallback on_end;
  gpointer user_data;
  GString *pending; /* not written yet */
  guint hang_up_source;
  guint writable_source = 0; /* while something is pending */
  gboolean ended = FALSE;
};
