#pragma once

#include <gio/gio.h>

G_BEGIN_DECLS

/**
 * SYSTEM_BUS_SPARE_DESCRIPTORS:
 *
 * How many descriptors have to be free for a call that waits for its reply: those of a new connection and of
 * a few calls at once.
 */
#define SYSTEM_BUS_SPARE_DESCRIPTORS 8

GDBusConnection *system_bus_get(GError **error);

G_END_DECLS
