#pragma once

#include <glib.h>

G_BEGIN_DECLS

/**
 * OPTION_VALIDATION_DEFAULT_CHANNEL:
 *
 * The video channel of a request for analytics that names none; docs/compatibility.md, "default channel".
 */
#define OPTION_VALIDATION_DEFAULT_CHANNEL 1

/**
 * OPTION_VALIDATION_ANALYTICS_INVALID:
 *
 * What option_validation_parse_analytics() returns for a text that it refuses.
 */
#define OPTION_VALIDATION_ANALYTICS_INVALID 3

GQuark option_validation_error_quark(void);

gint32 option_validation_parse_channel(const gchar *value, GError **error);

gint32 option_validation_lookup_channel(GHashTable *params, GError **error);

gint32 option_validation_parse_analytics(const gchar *value, GError **error);

G_END_DECLS
