/* SPDX-License-Identifier: MIT */
#pragma once

#include <gio/gio.h>
#include <gio/gunixfdlist.h>

namespace sim
{

GDBusConnection *bus_connect(const char *address, GError **error);
bool bus_can_carry(GVariant *body);
void bus_reply(GDBusMethodInvocation *call, GVariant *body, GUnixFDList *fds);
bool bus_register_object(GDBusConnection *connection, const char *path, const char *xml,
                         const GDBusInterfaceVTable *vtable, gpointer user_data, GError **error);
bool bus_name_own(GDBusConnection *connection, const char *name, GError **error);
bool bus_name_release(GDBusConnection *connection, const char *name, GError **error);

} // namespace sim
