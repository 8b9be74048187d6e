/* SPDX-License-Identifier: MIT */
#pragma once

#include "linecutter.h"

#include <glib.h>
#include <optional>

/* Reads lines from standard input without ever blocking on it. For the main thread. */
class LineInput
{
public:
  /* Called when there are more lines, and at the end. Takes @error, which is NULL unless reading has failed.
   */
  using MoreCallback = void (*)(GError *error, gpointer user_data);

  LineInput(gsize max_line_bytes, MoreCallback more_callback, gpointer callback_data);
  LineInput(const LineInput &) = delete;
  LineInput &operator=(const LineInput &) = delete;
  ~LineInput();

  void set_reading(gboolean reading);
  std::optional<Line> pop();
  gboolean has_ended() const;

private:
  static gboolean on_input(gint fd, GIOCondition condition, gpointer user_data);

  void read_more();

  MoreCallback on_more;
  gpointer user_data;
  LineCutter cutter;
  guint watch = 0; /* while lines are read */
  gboolean ended = FALSE;
};
