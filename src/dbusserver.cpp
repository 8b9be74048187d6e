/* SPDX-License-Identifier: MIT */
/* Owns the daemon's name on the system bus. The name only makes the control service easy to find: the
 * producers' objects are exported while there is a connection, and clients' streams need neither.
 */
#include "dbusserver.h"

#include "dbusproducermanager.h"
#include "dbusstatus.h"
#include "systembus.h"

#include <syslog.h>

namespace
{

constexpr const char *BUS_NAME = "com.quon.MetadataServer1";

guint owner_id; /* 0 before dbus_server_init() and after the teardown */

GCancellable *owner_lookup; /* cancels the look-up of the name's owner; NULL like owner_id */

constexpr const char *NO_CONNECTION = "there is no connection to the system bus";

void
log_unavailable(const gchar *reason)
{
  syslog(LOG_WARNING, "The control service is unavailable: %s.", reason);
}

/* Logs nothing if the daemon owns the name by now: that was logged when the name was acquired. */
void
log_owner(GDBusConnection *connection, GVariant *reply)
{
  const gchar *owner = nullptr;

  g_variant_get(reply, "(&s)", &owner);
  if (g_strcmp0(owner, g_dbus_connection_get_unique_name(connection)) != 0) {
    g_autofree gchar *reason = g_strdup_printf("%s has the name %s", owner, BUS_NAME);
    log_unavailable(reason);
  }
}

void
on_bus_acquired(GDBusConnection *connection, const gchar *, gpointer user_data)
{
  syslog(LOG_INFO, "Bus acquired");
  system_bus_prepare(connection);
  dbus_producer_manager_on_bus_acquired(connection, static_cast<AnalyticsProducerList *>(user_data));
  dbus_status_on_bus_acquired(connection);
}

void
on_name_acquired(GDBusConnection *, const gchar *, gpointer)
{
  syslog(LOG_INFO, "DBus-name acquired");
}

/* GLib does not report why the name was lost. If the name has no owner, the policy refused it. */
void
on_name_owner(GObject *source, GAsyncResult *result, gpointer)
{
  GDBusConnection *connection = G_DBUS_CONNECTION(source);
  g_autoptr(GError) error = nullptr;
  g_autoptr(GVariant) reply = g_dbus_connection_call_finish(connection, result, &error);

  if (reply != nullptr) {
    log_owner(connection, reply);
  } else if (g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_NAME_HAS_NO_OWNER)) {
    log_unavailable("the bus policy does not let this user own the name com.quon.MetadataServer1");
  } else if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CLOSED)) {
    log_unavailable(NO_CONNECTION);
  } else if (!g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED)) {
    log_unavailable(error->message);
  }
}

/* There is no bus, the bus went away, another process owns the name, or the policy refuses it. The daemon
 * stays in the bus' queue for the name; docs/compatibility.md, "lost bus name". */
void
on_name_lost(GDBusConnection *connection, const gchar *, gpointer)
{
  syslog(LOG_INFO, "DBus-name was lost");
  if (connection == nullptr) {
    log_unavailable(NO_CONNECTION);
    return;
  }
  g_dbus_connection_call(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                         "GetNameOwner", g_variant_new("(s)", BUS_NAME), G_VARIANT_TYPE("(s)"),
                         G_DBUS_CALL_FLAGS_NONE, -1, owner_lookup, on_name_owner, nullptr);
}

} // namespace

/**
 * dbus_server_init:
 * @producers: (transfer none): the daemon's producers; must exist until dbus_server_teardown()
 *
 * Exports the producers and the daemon's status, and requests the daemon's name on the system bus. Does not
 * wait for the bus. Without one, the daemon has no control service.
 *
 * Infos: "Bus acquired", "DBus-name acquired", "DBus-name was lost"
 *
 * Warnings: "The control service is unavailable: %s.", with the reason: no bus, another owner, or the bus'
 * policy
 */
void
dbus_server_init(AnalyticsProducerList *producers)
{
  g_return_if_fail(producers != NULL);
  g_return_if_fail(owner_id == 0);

  dbus_producer_manager_init(producers);
  dbus_status_init();
  owner_lookup = g_cancellable_new();
  owner_id = g_bus_own_name(G_BUS_TYPE_SYSTEM, BUS_NAME, G_BUS_NAME_OWNER_FLAGS_NONE, on_bus_acquired,
                            on_name_acquired, on_name_lost, producers, nullptr);
}

/**
 * dbus_server_teardown:
 *
 * Releases the name and removes all objects. Has no effect before dbus_server_init().
 */
void
dbus_server_teardown(void)
{
  if (owner_id != 0) {
    g_bus_unown_name(owner_id);
    owner_id = 0;
    g_cancellable_cancel(owner_lookup);
    g_clear_object(&owner_lookup);
  }
  dbus_status_teardown();
  dbus_producer_manager_teardown();
}
