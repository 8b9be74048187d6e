/* The one way to the system bus for threads that wait for replies. GLib shares one connection among all who
 * hold it, makes a new one when nobody does, and has each of them end the process when the bus goes away. The
 * daemon's clients do not need the bus for what they already receive, so the connection does not end the
 * process here.
 *
 * A call that waits makes a main context, and GLib ends the process when that finds no descriptor. So the
 * connection comes with a reservation, which the caller holds as long as it waits.
 */
#include "systembus.h"

#include "descriptorfilter.h"

namespace
{

constexpr const char *PREPARED_KEY = "tessard-system-bus-prepared";

GMutex prepare_lock;

} // namespace

/**
 * system_bus_get:
 * @reservation: (out) (optional) (transfer full): what the calls that wait need; to be held until the last of
 *   them has returned. Set to %NULL on failure
 * @error: (out) (optional): where to put the failure
 *
 * Gets the shared connection, making it when there is none. What is called on the bus while the connection is
 * held, through GLib's functions for a bus type too, uses this connection. May block while it connects. Any
 * thread.
 *
 * Returns: (transfer full) (nullable): the connection, %NULL with @error set (%G_IO_ERROR, %G_DBUS_ERROR)
 *   when the bus cannot be reached; %G_IO_ERROR_TOO_MANY_OPEN_FILES means that %SYSTEM_BUS_CALL_DESCRIPTORS
 *   descriptors cannot be reserved
 */
GDBusConnection *
system_bus_get(DescriptorReservation **reservation, GError **error)
{
  g_autoptr(DescriptorReservation) reserved = descriptor_reservation_new(SYSTEM_BUS_CALL_DESCRIPTORS, error);

  if (reservation != nullptr) {
    *reservation = nullptr;
  }
  if (reserved == nullptr) {
    return nullptr;
  }
  GDBusConnection *connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, error);
  if (connection == nullptr) {
    return nullptr;
  }
  system_bus_prepare(connection);
  if (reservation != nullptr) {
    *reservation = g_steal_pointer(&reserved);
  }
  return connection;
}

/**
 * system_bus_find:
 * @reservation: (out) (optional) (transfer full): the same as for system_bus_get()
 * @error: (out) (optional): where to put a shortage of descriptors; no other failure is an error
 *
 * Does what system_bus_get() does, for callers to whom a bus that is missing is no failure. Any thread.
 *
 * Returns: (transfer full) (nullable): the connection; %NULL without an error when the bus cannot be reached,
 *   %NULL with @error set to %G_IO_ERROR_TOO_MANY_OPEN_FILES when %SYSTEM_BUS_CALL_DESCRIPTORS descriptors
 *   cannot be reserved
 */
GDBusConnection *
system_bus_find(DescriptorReservation **reservation, GError **error)
{
  g_autoptr(GError) cause = nullptr;
  GDBusConnection *connection = system_bus_get(reservation, &cause);

  if (g_error_matches(cause, G_IO_ERROR, G_IO_ERROR_TOO_MANY_OPEN_FILES)) {
    g_propagate_error(error, g_steal_pointer(&cause));
  }
  return connection;
}

/**
 * system_bus_prepare:
 * @connection: (transfer none): a connection to the system bus
 *
 * Makes a connection one that the daemon can live with: the bus may go away, and nobody on the bus can take
 * the daemon's descriptors. What system_bus_get() returns is prepared; whoever has a connection in another
 * way prepares it before the first call on it, because the descriptor in the reply to an earlier call for a
 * stream would be refused. More often does no harm. Any thread.
 */
void
system_bus_prepare(GDBusConnection *connection)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&prepare_lock);

  if (g_object_get_data(G_OBJECT(connection), PREPARED_KEY) != nullptr) {
    return;
  }
  g_dbus_connection_set_exit_on_close(connection, FALSE);
  descriptor_filter_add(connection);
  g_object_set_data(G_OBJECT(connection), PREPARED_KEY, GINT_TO_POINTER(TRUE));
}
