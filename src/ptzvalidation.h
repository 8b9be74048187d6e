#pragma once

#include <glib.h>

G_BEGIN_DECLS

GQuark ptz_validation_error_quark(void);

gint32 ptz_validation_parse_ptz(const gchar *value, GError **error);

gint32 ptz_validation_parse_ptz_pantilt(const gchar *value, GError **error);

gint32 ptz_validation_parse_ptz_zoom(const gchar *value, GError **error);

G_END_DECLS
