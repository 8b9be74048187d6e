#pragma once

#include <gio/gio.h>

G_BEGIN_DECLS

guint receiver_filter_add(GDBusConnection *connection, const gchar *root_path);

G_END_DECLS
