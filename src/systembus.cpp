/* SPDX-License-Identifier: MIT */
/* Calls services on the system bus and waits for their replies. GLib shares one connection among all users,
 * makes a new one when there are no references to it, and by default ends the process when the bus goes away.
 * That is switched off here: clients that stream do not need the bus.
 *
 * A call that waits makes a main context, and GLib ends the process when there is no descriptor for that.
 * Each call therefore holds a reservation of descriptors while it waits.
 */
#include "systembus.h"

#include "buscall.h"
#include "descriptorfilter.h"

namespace
{

constexpr const char *PREPARED_KEY = "tessard-system-bus-prepared";

GMutex prepare_lock;

/* Like system_bus_get(), but sets @error only for a shortage of descriptors. */
GDBusConnection *
find_bus(DescriptorReservation **reservation, GError **error)
{
  g_autoptr(GError) cause = nullptr;
  GDBusConnection *connection = system_bus_get(reservation, &cause);

  if (g_error_matches(cause, G_IO_ERROR, G_IO_ERROR_TOO_MANY_OPEN_FILES)) {
    g_propagate_error(error, g_steal_pointer(&cause));
  }
  return connection;
}

} // namespace

/**
 * system_bus_get:
 * @reservation: (out) (optional) (transfer full): the descriptors for calls that wait; must be held until the
 *   last of them has returned. Set to %NULL on failure
 * @error: (out) (optional): where to put the failure
 *
 * Returns the shared connection. Makes a new one, which can block, if there is none. While the connection is
 * held, GLib's functions for a bus type use it too.
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
 * system_bus_call:
 * @object: the target
 * @method: the method
 * @arguments: (transfer floating) (nullable): a tuple
 * @timeout_ms: the longest wait for the reply, in milliseconds; -1 for GDBus' default of 25 s; 0 makes the
 *   call without waiting for it
 * @cancellable: (nullable): ends the wait for the reply
 * @error: (out) (optional): where to put a shortage of descriptors or the cancellation; other failures are
 *   no errors
 *
 * Calls a method and waits for the reply. Makes no proxy, because a new proxy loads all properties and waits
 * for them with GDBus' default time-out.
 *
 * Returns: (transfer full) (nullable): the reply; %NULL without an error when there is no bus, no service or
 *   no reply; %NULL with @error set to %G_IO_ERROR_TOO_MANY_OPEN_FILES when %SYSTEM_BUS_CALL_DESCRIPTORS
 *   descriptors cannot be reserved, or to %G_IO_ERROR_CANCELLED
 */
GVariant *
system_bus_call(const SystemBusObject *object, const gchar *method, GVariant *arguments, gint timeout_ms,
                GCancellable *cancellable, GError **error)
{
  g_autoptr(GVariant) taken = arguments != nullptr ? g_variant_ref_sink(arguments) : nullptr;
  g_autoptr(DescriptorReservation) reservation = nullptr;
  g_autoptr(GDBusConnection) bus = find_bus(&reservation, error);
  if (bus == nullptr) {
    return nullptr;
  }
  const BusCall call = {bus, object->name, object->path, object->interface, method, taken, timeout_ms};
  GVariant *reply = bus_call_sync(&call, cancellable, nullptr);
  if (reply == nullptr) {
    g_cancellable_set_error_if_cancelled(cancellable, error);
  }
  return reply;
}

/**
 * system_bus_get_first_child:
 * @value: (nullable): a reply, or a part of one
 *
 * Unpacks a value from the bus, which can have any type.
 *
 * Returns: (transfer full) (nullable): the first child; %NULL when @value has none or cannot have any
 */
GVariant *
system_bus_get_first_child(GVariant *value)
{
  if (value == nullptr || !g_variant_is_container(value) || g_variant_n_children(value) == 0) {
    return nullptr;
  }
  return g_variant_get_child_value(value, 0);
}

/**
 * system_bus_prepare:
 * @connection: (transfer none): a connection to the system bus
 *
 * Prepares a connection for the daemon: the process survives the end of the bus, and the descriptor filter
 * refuses descriptors that the daemon has not requested. system_bus_get() returns a prepared connection. Any
 * other connection must be prepared before the first call on it: the filter refuses the descriptor in the
 * reply to an earlier call. Further calls of this function have no effect.
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
