#pragma once

#include <glib.h>

G_BEGIN_DECLS

/**
 * LOG_TEXT_MAX_BYTES:
 *
 * How many bytes of a line of the log a text takes that comes from outside.
 */
#define LOG_TEXT_MAX_BYTES 1024

gchar *log_text_clip(const gchar *text);

G_END_DECLS
