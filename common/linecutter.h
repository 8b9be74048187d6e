/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>
#include <optional>
#include <string>
#include <string_view>

/* A line of text without the line feed at its end. */
struct Line {
  guint64 number;    /* counts all lines from 1 */
  gboolean too_long; /* then there is no text */
  std::string text;
};

/* Cuts a sequence of bytes into lines of limited length. Any thread, one at a time. */
class LineCutter
{
public:
  explicit LineCutter(gsize max_bytes);

  void push(std::string_view more);
  void finish();
  std::optional<Line> pop();

private:
  gsize limit;
  std::string bytes;  /* that are not cut yet */
  gsize begin = 0;    /* of the next line in the bytes */
  gsize searched = 0; /* no line ends before this offset */
  guint64 count = 0;
  gboolean dropping = FALSE; /* whether the current line is too long */
};
