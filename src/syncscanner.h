#pragma once

#include <glib.h>

G_BEGIN_DECLS

/**
 * SyncScanner:
 *
 * What has to be remembered of a client's input between two reads. Zero-filled is the start of the input.
 * The size never depends on what the client sends.
 */
typedef struct {
  guchar matched;                    /*< private >*/
  guchar sequence_size;              /*< private >*/
  gchar sequence[6]; /*< private >*/ /* as long as GLib may ask for more */
} SyncScanner;

gboolean sync_scanner_feed(SyncScanner *scanner, const gchar *data, gsize length, guint *syncs);

G_END_DECLS
