#pragma once

#include <glib.h>

/**
 * LINE_WRITER_MAX_PENDING_BYTES:
 *
 * How much is kept for a reader that does not read.
 */
#define LINE_WRITER_MAX_PENDING_BYTES (1024 * 1024)

/* Writes lines as soon as their reader takes them, and never waits for it. Main thread only. */
class LineWriter
{
public:
  /* Called once nothing can be written any more: without an outcome when the reader has gone. Takes it. */
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
  GString *pending; /* what the reader has not taken yet */
  guint hang_up_source;
  guint writable_source = 0; /* while something is pending */
  gboolean ended = FALSE;
};
