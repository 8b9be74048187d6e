/* The one way to the system bus. GLib shares one connection among all who hold it, makes a new one when
 * nobody does, and has each of them end the process when the bus goes away. The daemon's clients do not need
 * the bus for what they already receive, so here its death is nobody's end.
 */
#include "systembus.h"

/**
 * system_bus_get:
 * @error: (out) (optional): where to put the failure
 *
 * Gets the shared connection, making it when there is none. What is called on the bus while the connection is
 * held, through GLib's functions for a bus type too, uses this connection. May block while it connects. Any
 * thread.
 *
 * Returns: (transfer full) (nullable): the connection, %NULL with @error set (%G_IO_ERROR, %G_DBUS_ERROR)
 * when the bus cannot be reached
 */
GDBusConnection *
system_bus_get(GError **error)
{
  GDBusConnection *connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, error);

  if (connection != nullptr) {
    g_dbus_connection_set_exit_on_close(connection, FALSE);
  }
  return connection;
}
