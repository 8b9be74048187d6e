/* SPDX-License-Identifier: MIT */
/* A caller of the daemon's components that is written in C. */
#pragma once

#include <glib-object.h>

G_BEGIN_DECLS

/* Registers an event source factory with a new server, and requests a source without parameters. TRUE when
 * it declines. */
gboolean use_factory_from_c(void);

/* Counts the "SYNC" lines in a text. */
guint count_syncs_from_c(const gchar *text);

gsize size_of_scanner_in_c(void);

G_END_DECLS
