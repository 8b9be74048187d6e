/* SPDX-License-Identifier: MIT */
/* Calls of the daemon, on the system bus or on the bus of --bus.
 *
 * Every wait is bounded. A call never activates the daemon, because only a running one has producers. The
 * type of each body is checked before it is unpacked.
 */
#include "producerbus.h"
#include "command.h"

#include <array>
#include <span>

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

constexpr gchar ABSENT[] = "The daemon is not on the bus: '" PRODUCER_BUS_NAME "' has no owner.";

constexpr gchar NO_STATUS[] = "The daemon does not tell its status: it is older than this tessardctl.";

/* Those of the daemon's status, which earlier daemons and their policies do not have. */
constexpr std::array STATUS_FAILURES = {
    BusFailure{"org.freedesktop.DBus.Error.UnknownMethod", EXIT_STATUS_REFUSED, NO_STATUS},
    BusFailure{"org.freedesktop.DBus.Error.UnknownInterface", EXIT_STATUS_REFUSED, NO_STATUS},
    BusFailure{"org.freedesktop.DBus.Error.UnknownObject", EXIT_STATUS_REFUSED, NO_STATUS},
    BusFailure{"org.freedesktop.DBus.Error.AccessDenied", EXIT_STATUS_REFUSED,
               "The bus policy refused the call: it does not let this user read the daemon's status."},
};

constexpr std::array BUS_FAILURES = {
    BusFailure{"org.freedesktop.DBus.Error.ServiceUnknown", EXIT_STATUS_NO_CONNECTION, ABSENT},
    BusFailure{"org.freedesktop.DBus.Error.NameHasNoOwner", EXIT_STATUS_NO_CONNECTION, ABSENT},
    BusFailure{"org.freedesktop.DBus.Error.NoReply", EXIT_STATUS_ENDED, "The daemon left without a reply."},
};

gboolean
on_connect_time_out(gpointer user_data)
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
  const gboolean timed_out = g_error_matches(cause, G_IO_ERROR, G_IO_ERROR_CANCELLED);

  g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_NO_CONNECTION, "Could not connect to the bus: %s.",
              timed_out ? "No reply in time" : cause->message);
}

/* The process that listens at the address can be anything, and never reply. */
GDBusConnection *
connect_in_time(const gchar *address, GError **error)
{
  g_autoptr(GCancellable) cancellable = g_cancellable_new();
  g_autoptr(GAsyncResult) result = nullptr;
  /* GLib can shorten a time-out in seconds by rounding. */
  const guint time_out = g_timeout_add(PRODUCER_BUS_TIMEOUT_SECONDS * 1000, on_connect_time_out, cancellable);

  producer_bus_connect_async(address, cancellable, on_connected, &result);
  while (result == nullptr) {
    g_main_context_iteration(nullptr, TRUE);
  }
  g_source_remove(time_out);

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

/* NULL when the failure is none of these. */
GError *
find_failure(std::span<const BusFailure> failures, const gchar *name)
{
  for (const BusFailure &failure : failures) {
    if (g_strcmp0(failure.name, name) == 0) {
      return g_error_new_literal(TESSARDCTL_ERROR, failure.status, failure.text);
    }
  }
  return nullptr;
}

GError *
convert_remote_failure(const GError *cause)
{
  g_autofree gchar *name = g_dbus_error_get_remote_error(cause);
  g_autoptr(GError) stripped = g_error_copy(cause);
  GError *known = find_failure(BUS_FAILURES, name);

  if (known != nullptr) {
    return known;
  }
  g_dbus_error_strip_remote_error(stripped);
  return g_error_new_literal(TESSARDCTL_ERROR, EXIT_STATUS_REFUSED,
                             *stripped->message != '\0' ? stripped->message : name);
}

} // namespace

/**
 * producer_bus_connect_async:
 * @address: (transfer none): the bus
 * @cancellable: (transfer none): ends the attempt, which has no time limit
 * @callback: for g_dbus_connection_new_for_address_finish()
 * @user_data: for @callback
 *
 * Opens a private connection; the process survives its end.
 */
void
producer_bus_connect_async(const gchar *address, GCancellable *cancellable, GAsyncReadyCallback callback,
                           gpointer user_data)
{
  g_dbus_connection_new_for_address(address, CONNECTION_FLAGS, nullptr, cancellable, callback, user_data);
}

/**
 * producer_bus_connect:
 * @address: (transfer none) (nullable): the bus, %NULL for the system bus
 * @error: return location for an error of %TESSARDCTL_ERROR
 *
 * Opens a private connection; the process survives its end. Blocks for at most %PRODUCER_BUS_TIMEOUT_SECONDS
 * and runs the default main context meanwhile.
 *
 * Returns: (transfer full) (nullable): the connection
 */
GDBusConnection *
producer_bus_connect(const gchar *address, GError **error)
{
  if (address != nullptr) {
    return connect_in_time(address, error);
  }

  g_autoptr(GError) cause = nullptr;
  g_autofree gchar *system_address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, &cause);
  if (system_address == nullptr) {
    set_no_connection(error, cause);
    return nullptr;
  }
  return connect_in_time(system_address, error);
}

/**
 * producer_bus_call:
 * @connection: (transfer none): the connection
 * @path: (transfer none): the object's path
 * @interface: (transfer none): the interface
 * @method: (transfer none): its method
 * @arguments: (transfer floating) (nullable): the method's arguments
 * @reply_type: (transfer none): the type of a valid reply
 * @change_count: how many channels the method changes
 * @error: return location for an error of %TESSARDCTL_ERROR
 *
 * Calls a method of the daemon and blocks until its reply or the time limit.
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

  if (reply == nullptr) {
    g_propagate_error(error, producer_bus_convert_call_failure(interface, cause, seconds));
    return nullptr;
  }
  return producer_bus_check_type(reply, method, reply_type, error) ? g_steal_pointer(&reply) : nullptr;
}

/**
 * producer_bus_check_type:
 * @body: (transfer none): the body of a reply or a signal
 * @what: (transfer none): the method or signal
 * @type: (transfer none): the type of a valid body
 * @error: return location for an error of %TESSARDCTL_ERROR
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
 * producer_bus_convert_call_failure:
 * @interface: (transfer none): the interface of the method that was called
 * @cause: (transfer none): the error of GDBus for the call
 * @seconds: the time limit of the call
 *
 * Returns: (transfer full): the error of producer_bus_convert_failure(), or that for a refusal of the bus
 * policy, or for a daemon without the interface of the status
 */
GError *
producer_bus_convert_call_failure(const gchar *interface, const GError *cause, guint seconds)
{
  if (g_str_equal(interface, PRODUCER_BUS_STATUS)) {
    g_autofree gchar *name = g_dbus_error_get_remote_error(cause);
    GError *known = find_failure(STATUS_FAILURES, name);
    return known != nullptr ? known : producer_bus_convert_failure(cause, seconds);
  }
  if (is_refused_by_policy(interface, cause)) {
    return g_error_new_literal(TESSARDCTL_ERROR, EXIT_STATUS_REFUSED, NOT_ALLOWED);
  }
  return producer_bus_convert_failure(cause, seconds);
}

/**
 * producer_bus_is_refusal_of_daemon:
 * @error: (transfer none) (nullable): the error of producer_bus_call()
 *
 * Returns: whether the daemon itself refused the call; %FALSE when the bus policy did
 */
gboolean
producer_bus_is_refusal_of_daemon(const GError *error)
{
  return g_error_matches(error, TESSARDCTL_ERROR, EXIT_STATUS_REFUSED) &&
         !g_str_equal(error->message, NOT_ALLOWED);
}

/**
 * producer_bus_convert_failure:
 * @cause: (transfer none): the error of GDBus for a call of the daemon
 * @seconds: the time limit of the call
 *
 * Returns: (transfer full): the error of %TESSARDCTL_ERROR for it, whose message is the daemon's own when the
 *   daemon refused
 */
GError *
producer_bus_convert_failure(const GError *cause, guint seconds)
{
  if (g_dbus_error_is_remote_error(cause)) {
    return convert_remote_failure(cause);
  }
  if (g_error_matches(cause, G_IO_ERROR, G_IO_ERROR_TIMED_OUT)) {
    return g_error_new(TESSARDCTL_ERROR, EXIT_STATUS_TIMED_OUT, "No reply within %u seconds.", seconds);
  }
  if (g_error_matches(cause, G_IO_ERROR, G_IO_ERROR_CLOSED)) {
    return g_error_new_literal(TESSARDCTL_ERROR, EXIT_STATUS_ENDED, "The bus closed the connection.");
  }
  return g_error_new(TESSARDCTL_ERROR, EXIT_STATUS_LOCAL, "Could not ask the daemon: %s.", cause->message);
}
