/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

namespace mqtt
{

/* Lines of one kind in the log, of which there can be many. Any thread can call the functions. */
class QuietLog
{
public:
  QuietLog();
  ~QuietLog();
  QuietLog(const QuietLog &) = delete;
  QuietLog &operator=(const QuietLog &) = delete;

  void warn(const char *text);

private:
  GMutex lock_;
  bool has_logged_ = false;
  gint64 logged_us_ = 0;
  guint64 left_out_ = 0;
};

} // namespace mqtt
