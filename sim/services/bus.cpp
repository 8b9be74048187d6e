/* SPDX-License-Identifier: MIT */
#include "bus.h"

#include <cstring>

/* g_bus_own_name() reports its result later, in a callback, and waits in a queue for a name that is taken. A
 * verb needs the result before it returns, and a taken name is an error, so these functions call the bus
 * directly. */

namespace sim
{

namespace
{

/* Values of the D-Bus protocol. */
constexpr guint32 DO_NOT_QUEUE = 4;
constexpr guint32 PRIMARY_OWNER = 1;
constexpr guint32 ALREADY_OWNER = 4;

bool
call_bus(GDBusConnection *connection, const char *method, GVariant *arguments, guint32 *result,
         GError **error)
{
  g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
      connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", method, arguments,
      G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, error);

  if (reply == nullptr) {
    return false;
  }
  g_variant_get(reply, "(u)", result);
  return true;
}

} // namespace

/**
 * bus_connect:
 * @address: (nullable): the address of a bus; the system bus if %NULL
 * @error: set if the connection fails
 *
 * Opens a private connection. The process does not exit when it closes.
 *
 * Returns: (transfer full) (nullable): the connection
 */
GDBusConnection *
bus_connect(const char *address, GError **error)
{
  g_autofree gchar *system_address =
      address == nullptr ? g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, error) : nullptr;

  if (address == nullptr && system_address == nullptr) {
    return nullptr;
  }
  return g_dbus_connection_new_for_address_sync(
      address != nullptr ? address : system_address,
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, error);
}

/**
 * bus_can_carry:
 * @body: a tuple
 *
 * D-Bus has no maybe types. GDBus detects them inside of variants when it serialises a message, but not in
 * the body's own type.
 *
 * Returns: whether @body can be sent as the body of a message
 */
bool
bus_can_carry(GVariant *body)
{
  g_autoptr(GDBusMessage) message = g_dbus_message_new_signal("/message", "any.Interface", "Any");
  gsize size = 0;

  if (strchr(g_variant_get_type_string(body), 'm') != nullptr) {
    return false;
  }
  g_dbus_message_set_body(message, body);
  g_autofree guchar *blob =
      g_dbus_message_to_blob(message, &size, G_DBUS_CAPABILITY_FLAGS_UNIX_FD_PASSING, nullptr);
  return blob != nullptr;
}

/**
 * bus_reply:
 * @call: (transfer full): a call
 * @body: (transfer floating): the reply's body, a tuple of any type
 * @fds: (nullable): the reply's descriptors
 *
 * Sends a reply. GDBus compares a method's result with the interface and drops one of another type, so the
 * reply is sent as a message.
 */
void
bus_reply(GDBusMethodInvocation *call, GVariant *body, GUnixFDList *fds)
{
  g_autoptr(GDBusMethodInvocation) invocation = call;
  g_autoptr(GDBusMessage) reply =
      g_dbus_message_new_method_reply(g_dbus_method_invocation_get_message(invocation));

  g_dbus_message_set_body(reply, body);
  if (fds != nullptr) {
    g_dbus_message_set_unix_fd_list(reply, fds);
  }
  g_dbus_connection_send_message(g_dbus_method_invocation_get_connection(invocation), reply,
                                 G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
}

/**
 * bus_register_object:
 * @connection: a connection to a bus
 * @path: the object's path
 * @xml: valid introspection data of its only interface
 * @vtable: (transfer none): handles its calls; must stay valid as long as the connection
 * @user_data: for @vtable
 * @error: set if there is already an object at @path
 *
 * Exports an object until the connection closes.
 *
 * Returns: whether the object is exported
 */
bool
bus_register_object(GDBusConnection *connection, const char *path, const char *xml,
                    const GDBusInterfaceVTable *vtable, gpointer user_data, GError **error)
{
  g_autoptr(GDBusNodeInfo) node = g_dbus_node_info_new_for_xml(xml, nullptr);

  return g_dbus_connection_register_object(connection, path, node->interfaces[0], vtable, user_data, nullptr,
                                           error) != 0;
}

/**
 * bus_name_own:
 * @connection: a connection to a bus
 * @name: a well-known name
 * @error: set if the name has another owner or the bus refuses it
 *
 * Acquires the name until bus_name_release() or until the connection closes. Blocks until the bus replies.
 *
 * Returns: whether the name is owned
 */
bool
bus_name_own(GDBusConnection *connection, const char *name, GError **error)
{
  guint32 result = 0;

  if (!call_bus(connection, "RequestName", g_variant_new("(su)", name, DO_NOT_QUEUE), &result, error)) {
    return false;
  }
  if (result != PRIMARY_OWNER && result != ALREADY_OWNER) {
    g_set_error(error, G_IO_ERROR, G_IO_ERROR_EXISTS, "the name %s is taken", name);
    return false;
  }
  return true;
}

/**
 * bus_name_release:
 * @connection: a connection to a bus
 * @name: a well-known name
 * @error: set if the bus does not reply
 *
 * Releases the name if it is owned. Blocks until the bus replies.
 *
 * Returns: whether the name is not owned
 */
bool
bus_name_release(GDBusConnection *connection, const char *name, GError **error)
{
  guint32 result = 0;

  return call_bus(connection, "ReleaseName", g_variant_new("(s)", name), &result, error);
}

} // namespace sim
