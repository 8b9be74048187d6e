/* SPDX-License-Identifier: MIT */
/* Calls on the bus, on the worker. */
#include "buscall.h"

#include <memory>

namespace
{

/* A reply that comes too late would leave something behind at its sender, whose end on the bus ends a call.
 */
constexpr gint NO_TIME_LIMIT = G_MAXINT;

struct Call {
  GCancellable *cancellable;
  BusReplyFunction function;
};

void
on_reply(GObject *connection, GAsyncResult *result, gpointer user_data)
{
  const std::unique_ptr<Call> call(static_cast<Call *>(user_data));
  g_autoptr(GCancellable) cancellable = call->cancellable;
  g_autoptr(GUnixFDList) fds = nullptr;
  g_autoptr(GError) error = nullptr;
  g_autoptr(GVariant) reply =
      g_dbus_connection_call_with_unix_fd_list_finish(G_DBUS_CONNECTION(connection), &fds, result, &error);

  if (!g_cancellable_is_cancelled(cancellable)) {
    call->function(reply, fds, error);
  }
}

} // namespace

/**
 * bus_call:
 * @connection: (transfer none): the connection
 * @destination: (transfer none): the unique name of the callee
 * @method: (transfer none): the method
 * @arguments: (transfer floating): its arguments
 * @cancellable: (transfer none): ends the call; then @function is not called
 * @function: called on the worker with the reply
 *
 * Calls a method without a time limit.
 */
void
bus_call(GDBusConnection *connection, const gchar *destination, const BusMethod *method, GVariant *arguments,
         GCancellable *cancellable, BusReplyFunction function)
{
  g_dbus_connection_call_with_unix_fd_list(
      connection, destination, method->path, method->interface, method->name, arguments,
      G_VARIANT_TYPE(method->reply_type), G_DBUS_CALL_FLAGS_NO_AUTO_START, NO_TIME_LIMIT, nullptr,
      cancellable, on_reply, new Call{G_CANCELLABLE(g_object_ref(cancellable)), std::move(function)});
}
