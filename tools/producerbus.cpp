/* The way to the daemon's objects, on the system's bus or on one that the user names.
 *
 * Every wait ends. The daemon is not started for being asked: who is not there has nothing to show. What
 * comes back is whatever its sender made it, so a body's type is checked before anybody unpacks it.
 */
#include "producerbus.h"
#include "command.h"

#include <array>

namespace
{

constexpr auto CONNECTION_FLAGS = static_cast<GDBusConnectionFlags>(
    G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT | G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);

/* The bus' own errors, in place of a reply of the daemon. */
struct BusFailure {
  const gchar *name;
  ExitStatus status;
  const gchar *text;
};

constexpr gchar NOT_ALLOWED[] = "The bus policy refused the call: only root and members of the "
                                "group '" PRODUCER_BUS_ADMIN_GROUP "' can enable and disable producers.";

constexpr gchar NOT_THERE[] = "The daemon is not on the bus: nobody owns '" PRODUCER_BUS_NAME "'.";

constexpr std::array BUS_FAILURES = {
    BusFailure{"org.freedesktop.DBus.Error.ServiceUnknown", EXIT_STATUS_NO_CONNECTION, NOT_THERE},
    BusFailure{"org.freedesktop.DBus.Error.NameHasNoOwner", EXIT_STATUS_NO_CONNECTION, NOT_THERE},
    BusFailure{"org.freedesktop.DBus.Error.NoReply", EXIT_STATUS_ENDED, "The daemon left without a reply."},
};

gboolean
on_connecting_overdue(gpointer user_data)
{
  g_cancellable_cancel(static_cast<GCancellable *>(user_data));
  return G_SOURCE_CONTINUE;
}

void
on_connected(GObject *source_object, GAsyncResult *result, gpointer user_data)
{
  *static_cast<GAsyncResult **>(user_data) = static_cast<GAsyncResult *>(g_object_ref(result));
}

void
set_no_connection(GError **error, const GError *cause)
{
  const gboolean overdue = g_error_matches(cause, G_IO_ERROR, G_IO_ERROR_CANCELLED);

  g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_NO_CONNECTION, "Could not connect to the bus: %s.",
              overdue ? "No answer in time" : cause->message);
}

/* Whoever listens at the address may be no bus and never say a word. */
GDBusConnection *
connect_in_time(const gchar *address, GError **error)
{
  g_autoptr(GCancellable) cancellable = g_cancellable_new();
  g_autoptr(GAsyncResult) result = nullptr;
  /* GLib rounds a time-out in seconds, also down. */
  const guint overdue =
      g_timeout_add(PRODUCER_BUS_TIMEOUT_SECONDS * 1000, on_connecting_overdue, cancellable);

  g_dbus_connection_new_for_address(address, CONNECTION_FLAGS, nullptr, cancellable, on_connected, &result);
  while (result == nullptr) {
    g_main_context_iteration(nullptr, TRUE);
  }
  g_source_remove(overdue);

  g_autoptr(GError) cause = nullptr;
  GDBusConnection *connection = g_dbus_connection_new_for_address_finish(result, &cause);
  if (connection == nullptr) {
    set_no_connection(error, cause);
  }
  return connection;
}

/* Access to the daemon's own methods is the policy's decision alone; the daemon refuses no caller. A policy
 * that refuses even the standard methods is another fault, which the bus' own text describes. */
gboolean
is_refused_by_policy(const gchar *interface, const GError *cause)
{
  return g_str_has_prefix(interface, PRODUCER_BUS_NAME) &&
         g_error_matches(cause, G_DBUS_ERROR, G_DBUS_ERROR_ACCESS_DENIED);
}

GError *
judge_remote_failure(const GError *cause)
{
  g_autofree gchar *name = g_dbus_error_get_remote_error(cause);
  g_autoptr(GError) stripped = g_error_copy(cause);

  for (const BusFailure &failure : BUS_FAILURES) {
    if (g_str_equal(failure.name, name)) {
      return g_error_new_literal(TESSARDCTL_ERROR, failure.status, failure.text);
    }
  }
  g_dbus_error_strip_remote_error(stripped);
  return g_error_new_literal(TESSARDCTL_ERROR, EXIT_STATUS_REFUSED,
                             *stripped->message != '\0' ? stripped->message : name);
}

} // namespace

/**
 * producer_bus_connect:
 * @address: (transfer none) (nullable): the bus, %NULL for the system's
 * @error: return location for an error of %TESSARDCTL_ERROR
 *
 * Opens a connection of its own, whose end is not the end of the process. Waits at most
 * %PRODUCER_BUS_TIMEOUT_SECONDS, with the default main context running. Main thread.
 *
 * Returns: (transfer full) (nullable): the connection, %NULL when there is no such bus
 */
GDBusConnection *
producer_bus_connect(const gchar *address, GError **error)
{
  if (address != nullptr) {
    return connect_in_time(address, error);
  }

  g_autoptr(GError) cause = nullptr;
  g_autofree gchar *systems = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, &cause);
  if (systems == nullptr) {
    set_no_connection(error, cause);
    return nullptr;
  }
  return connect_in_time(systems, error);
}

/**
 * producer_bus_call:
 * @connection: (transfer none): the connection
 * @path: (transfer none): the object's path
 * @interface: (transfer none): the interface
 * @method: (transfer none): its method
 * @arguments: (transfer floating) (nullable): the method's arguments
 * @reply_type: (transfer none): what the reply must be
 * @change_count: how many channels the method changes
 * @error: return location for an error of %TESSARDCTL_ERROR
 *
 * Calls a method of the daemon and waits for its reply. Any thread.
 *
 * Returns: (transfer full) (nullable): the reply, which has the type @reply_type
 */
GVariant *
producer_bus_call(GDBusConnection *connection, const gchar *path, const gchar *interface, const gchar *method,
                  GVariant *arguments, const GVariantType *reply_type, gsize change_count, GError **error)
{
  const guint seconds =
      PRODUCER_BUS_TIMEOUT_SECONDS + static_cast<guint>(change_count) * PRODUCER_BUS_SECONDS_PER_CHANGE;
  g_autoptr(GError) cause = nullptr;
  g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
      connection, PRODUCER_BUS_NAME, path, interface, method, arguments, nullptr,
      G_DBUS_CALL_FLAGS_NO_AUTO_START, static_cast<gint>(seconds * 1000), nullptr, &cause);

  if (reply == nullptr && is_refused_by_policy(interface, cause)) {
    g_set_error_literal(error, TESSARDCTL_ERROR, EXIT_STATUS_REFUSED, NOT_ALLOWED);
    return nullptr;
  }
  if (reply == nullptr) {
    g_propagate_error(error, producer_bus_judge_failure(cause, seconds));
    return nullptr;
  }
  return producer_bus_check_type(reply, method, reply_type, error) ? g_steal_pointer(&reply) : nullptr;
}

/**
 * producer_bus_check_type:
 * @body: (transfer none): the body of a reply or a signal
 * @what: (transfer none): the method or signal
 * @type: (transfer none): what @body must be
 * @error: return location for an error of %TESSARDCTL_ERROR
 *
 * Any thread.
 *
 * Returns: whether @body has the type
 */
gboolean
producer_bus_check_type(GVariant *body, const gchar *what, const GVariantType *type, GError **error)
{
  if (g_variant_is_of_type(body, type)) {
    return TRUE;
  }
  g_autofree gchar *wanted = g_variant_type_dup_string(type);
  g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_MALFORMED,
              "What the daemon sent for %s has the type '%s', not '%s'.", what,
              g_variant_get_type_string(body), wanted);
  return FALSE;
}

/**
 * producer_bus_judge_failure:
 * @cause: (transfer none): why GDBus has no reply to a call of the daemon
 * @seconds: how long the call could take
 *
 * Any thread.
 *
 * Returns: (transfer full): the error of %TESSARDCTL_ERROR for it, whose message is the daemon's own when the
 *   daemon refused
 */
GError *
producer_bus_judge_failure(const GError *cause, guint seconds)
{
  if (g_dbus_error_is_remote_error(cause)) {
    return judge_remote_failure(cause);
  }
  if (g_error_matches(cause, G_IO_ERROR, G_IO_ERROR_TIMED_OUT)) {
    return g_error_new(TESSARDCTL_ERROR, EXIT_STATUS_TIMED_OUT, "No reply within %u seconds.", seconds);
  }
  if (g_error_matches(cause, G_IO_ERROR, G_IO_ERROR_CLOSED)) {
    return g_error_new_literal(TESSARDCTL_ERROR, EXIT_STATUS_ENDED, "The bus closed the connection.");
  }
  return g_error_new(TESSARDCTL_ERROR, EXIT_STATUS_LOCAL, "Could not ask the daemon: %s.", cause->message);
}
