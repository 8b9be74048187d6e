/* SPDX-License-Identifier: MIT */
#pragma once

#include <gio/gio.h>

G_BEGIN_DECLS

/* The functions of this component are for the main thread. */

void dbus_status_init(void);

void dbus_status_on_bus_acquired(GDBusConnection *connection);

void dbus_status_teardown(void);

G_END_DECLS
