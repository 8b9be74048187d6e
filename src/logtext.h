#pragma once

#include <glib.h>

G_BEGIN_DECLS

/**
 * LOG_TEXT_MAX_BYTES:
 *
 * How much of a text that comes from outside goes into a line of the log.
 */
#define LOG_TEXT_MAX_BYTES 512

gchar *log_text_clip(const gchar *text);

G_END_DECLS
