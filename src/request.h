#pragma once

#include <glib.h>

G_BEGIN_DECLS

/**
 * RequestScan:
 *
 * How far the text of one request has been looked at. Zero-filled is the start of the text.
 */
typedef struct {
  gsize line; /*< private >*/    /* where the current line begins */
  gsize scanned; /*< private >*/ /* up to where no line end is missing */
} RequestScan;

gboolean request_scan(RequestScan *scan, const gchar *text, gsize length, gsize *end);

GHashTable *request_read(GIOChannel *channel, gchar **failure);

G_END_DECLS
