#pragma once

#include <gio/gio.h>

G_BEGIN_DECLS

GDBusConnection *system_bus_get(GError **error);

G_END_DECLS
