/* SPDX-License-Identifier: MIT */
#include "progressline.h"

#include <algorithm>

/**
 * ProgressLine::show:
 * @documents: the number of documents written
 * @bytes: their length
 * @elapsed_us: microseconds since the stream's start
 *
 * Replaces the line. Blanks overwrite the end of a longer one.
 */
void
ProgressLine::show(guint64 documents, guint64 bytes, gint64 elapsed_us)
{
  const gdouble seconds = static_cast<gdouble>(std::max<gint64>(elapsed_us, 1)) / G_TIME_SPAN_SECOND;
  g_autofree gchar *size = g_format_size(bytes);
  g_autofree gchar *text = g_strdup_printf("%" G_GUINT64_FORMAT " documents, %s, %.1f documents/s", documents,
                                           size, static_cast<gdouble>(documents) / seconds);
  const glong text_width = g_utf8_strlen(text, -1);

  g_printerr("\r%s%*s", text, static_cast<int>(std::max<glong>(width - text_width, 0)), "");
  width = text_width;
}

/**
 * ProgressLine::end:
 *
 * Ends the line; later text starts on a new one.
 */
void
ProgressLine::end()
{
  g_printerr("\n");
}
