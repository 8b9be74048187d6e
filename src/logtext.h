/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

G_BEGIN_DECLS

/**
 * LOG_TEXT_MAX_BYTES:
 *
 * The length of a peer's text in a line of the log.
 */
#define LOG_TEXT_MAX_BYTES 1024

gchar *log_text_clip(const gchar *text);

G_END_DECLS
