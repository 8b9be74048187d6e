/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

G_BEGIN_DECLS

/**
 * SyncScanner:
 *
 * The state of the scan of a client's input. Initialised with zeros. Its size is constant.
 */
typedef struct {
  guchar matched;                    /*< private >*/
  guchar sequence_size;              /*< private >*/
  gchar sequence[6]; /*< private >*/ /* the longest sequence that GLib reports as incomplete */
} SyncScanner;

gboolean sync_scanner_feed(SyncScanner *scanner, const gchar *data, gsize length, guint *syncs);

G_END_DECLS
