/* SPDX-License-Identifier: MIT */
/* Connects to the bus of the metadata receiver, which is the system bus, and keeps the connection.
 *
 * Connecting does not block. A failed attempt is repeated, after a time that doubles with each failure. An
 * attempt cannot be cancelled: the whole process shares one connection of GLib, and another thread may wait
 * for the same attempt. An abandoned attempt is therefore ignored when it ends.
 *
 * A connection that the bus has closed is dropped and not replaced. GLib returns its shared connection, even
 * a closed one, while there is a reference to it, and requests could then not reach a bus that is back.
 */
#include "receiverbus.h"

#include "descriptorreserve.h"
#include "receiverwatch.h"
#include "systembus.h"

#include <algorithm>
#include <utility>

namespace
{

struct ReceiverBus {
  const ReceiverBusFuncs *funcs;  /* NULL while disconnected */
  DescriptorReservation *attempt; /* owned by the current attempt; NULL without one */
  guint retry_id;                 /* the time-out before the next attempt, or 0 */
  guint retry_s;
  GDBusConnection *connection; /* NULL until the attempt succeeds */
  gulong closed_id;
};

ReceiverBus receiver_bus;

void start_attempt();

gboolean
on_attempt_time(gpointer)
{
  receiver_bus.retry_id = 0;
  start_attempt();
  return G_SOURCE_REMOVE;
}

void
retry_later(const GError *error)
{
  receiver_watch_log_failure(error);
  receiver_bus.retry_id = g_timeout_add_seconds(receiver_bus.retry_s, on_attempt_time, nullptr);
  receiver_bus.retry_s = std::min<guint>(2 * receiver_bus.retry_s, RECEIVER_WATCH_LAST_RETRY_S);
}

void
on_bus_closed(GDBusConnection *, gboolean, GError *, gpointer)
{
  receiver_bus.funcs->on_closed();
}

void
on_attempt_ended(GObject *, GAsyncResult *result, gpointer user_data)
{
  g_autoptr(DescriptorReservation) attempt = static_cast<DescriptorReservation *>(user_data);
  g_autoptr(GError) error = nullptr;
  g_autoptr(GDBusConnection) connected = g_bus_get_finish(result, &error);

  if (connected != nullptr) {
    system_bus_prepare(connected);
  }
  if (attempt != receiver_bus.attempt) {
    return;
  }
  receiver_bus.attempt = nullptr;
  if (connected != nullptr && g_dbus_connection_is_closed(connected)) {
    g_set_error_literal(&error, G_IO_ERROR, G_IO_ERROR_CLOSED, "The connection is closed");
  }
  if (error != nullptr) {
    retry_later(error);
    return;
  }
  receiver_bus.closed_id = g_signal_connect(connected, "closed", G_CALLBACK(on_bus_closed), nullptr);
  receiver_bus.connection = G_DBUS_CONNECTION(g_object_ref(connected));
  receiver_bus.funcs->on_connected(connected);
}

void
start_attempt()
{
  g_autoptr(GError) error = nullptr;

  receiver_bus.attempt = descriptor_reservation_new(SYSTEM_BUS_CALL_DESCRIPTORS, &error);
  if (receiver_bus.attempt == nullptr) {
    retry_later(error);
    return;
  }
  g_bus_get(G_BUS_TYPE_SYSTEM, nullptr, on_attempt_ended, receiver_bus.attempt);
}

} // namespace

/**
 * receiver_bus_connect:
 * @funcs: (transfer none): the callbacks; must exist until receiver_bus_disconnect()
 *
 * Begins to connect, and repeats the attempt until it succeeds. Calls no callback before it returns.
 *
 * Warnings: "Failed to connect to metadata-receiver over DBus: %s", for each failed attempt.
 * "receiver_bus.funcs == NULL" is a precondition: the component is disconnected.
 */
void
receiver_bus_connect(const ReceiverBusFuncs *funcs)
{
  g_return_if_fail(receiver_bus.funcs == NULL);

  receiver_bus.funcs = funcs;
  receiver_bus.retry_s = RECEIVER_WATCH_FIRST_RETRY_S;
  start_attempt();
}

/**
 * receiver_bus_disconnect:
 *
 * Drops the connection or ends the attempts. No callback is called afterwards. Has no effect while
 * disconnected.
 */
void
receiver_bus_disconnect(void)
{
  g_clear_handle_id(&receiver_bus.retry_id, g_source_remove);
  receiver_bus.attempt = nullptr; /* on_attempt_ended() frees the reservation */
  if (receiver_bus.connection != nullptr) {
    g_signal_handler_disconnect(receiver_bus.connection, std::exchange(receiver_bus.closed_id, 0));
  }
  g_clear_object(&receiver_bus.connection);
  receiver_bus.funcs = nullptr;
}
