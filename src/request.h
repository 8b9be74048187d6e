/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

G_BEGIN_DECLS

/**
 * RequestScan:
 *
 * The state of the scan of one request's text. Initialised with zeros. Any thread can call the functions of
 * this component, one at a time for one state or channel.
 */
typedef struct {
  gsize line; /*< private >*/    /* the offset of the current line */
  gsize scanned; /*< private >*/ /* the offset up to which all line ends are known */
} RequestScan;

gboolean request_scan(RequestScan *scan, const gchar *text, gsize length, gsize *end);

GHashTable *request_read(GIOChannel *channel, gchar **failure);

G_END_DECLS
