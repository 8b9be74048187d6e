#pragma once

#include <glib.h>

/* One line on standard error that says how far things are, rewritten in place. Main thread only. */
class ProgressLine
{
public:
  void show(guint64 documents, guint64 bytes, gint64 elapsed_us);
  void end();

private:
  glong width = 0; /* columns that the last text took */
};
