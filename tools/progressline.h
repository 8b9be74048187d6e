/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

/* One line on standard error that shows the progress of a stream, rewritten in place. For the main thread. */
class ProgressLine
{
public:
  void show(guint64 documents, guint64 bytes, gint64 elapsed_us);
  void end();

private:
  glong width = 0; /* of the last text, in columns */
};
