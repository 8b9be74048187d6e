#include "bus.h"

#include <cstring>

/* GLib's g_bus_own_name() tells later, by a callback, and waits in a queue for a name that is taken. Here
 * whoever asks has to know at once, and a name that is taken is an error, so the bus itself is asked. */

namespace sim
{

namespace
{

/* Values of the bus' own protocol. */
constexpr guint32 DO_NOT_QUEUE = 4;
constexpr guint32 PRIMARY_OWNER = 1;
constexpr guint32 ALREADY_OWNER = 4;

bool
ask_bus(GDBusConnection *connection, const char *method, GVariant *arguments, guint32 *answer, GError **error)
{
  g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
      connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", method, arguments,
      G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, error);

  if (reply == nullptr) {
    return false;
  }
  g_variant_get(reply, "(u)", answer);
  return true;
}

} /* namespace */

/**
 * bus_connect:
 * @address: (nullable): a bus, the system's if unset
 * @error: set if there is no such bus
 *
 * Opens a connection of its own, the end of which is not the end of the process.
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
 * Maybe types are none of the bus. GDBus finds those inside of variants when it writes the message, but takes
 * a body for granted.
 *
 * Returns: whether @body can be a message's
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
 * @body: (transfer floating): the reply's body, a tuple of whatever type
 * @fds: (nullable): the reply's descriptors
 *
 * Replies. GDBus would hold a method's result against the interface and drop what does not fit, so this is
 * sent as a message.
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
 * @path: where the object is
 * @xml: introspection data of its one interface, which the program brings and which is therefore right
 * @vtable: what answers; must stay
 * @user_data: for @vtable
 * @error: set if there is an object already
 *
 * Puts an object on the bus for as long as the connection lasts.
 *
 * Returns: whether it is there
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
 * @error: set if the name is somebody else's, or the bus does not give it
 *
 * Takes the name, from which only bus_name_release() or the connection's end parts it. Blocks until the bus
 * has answered.
 *
 * Returns: whether the name is owned
 */
bool
bus_name_own(GDBusConnection *connection, const char *name, GError **error)
{
  guint32 answer = 0;

  if (!ask_bus(connection, "RequestName", g_variant_new("(su)", name, DO_NOT_QUEUE), &answer, error)) {
    return false;
  }
  if (answer != PRIMARY_OWNER && answer != ALREADY_OWNER) {
    g_set_error(error, G_IO_ERROR, G_IO_ERROR_EXISTS, "the name %s is taken", name);
    return false;
  }
  return true;
}

/**
 * bus_name_release:
 * @connection: a connection to a bus
 * @name: a well-known name
 * @error: set if the bus does not answer
 *
 * Gives the name up, if it is owned. Blocks until the bus has answered.
 *
 * Returns: whether the name is not owned any more
 */
bool
bus_name_release(GDBusConnection *connection, const char *name, GError **error)
{
  guint32 answer = 0;

  return ask_bus(connection, "ReleaseName", g_variant_new("(s)", name), &answer, error);
}

} /* namespace sim */
