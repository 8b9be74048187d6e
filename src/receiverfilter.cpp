/* What stands between a service's object manager and GLib's client of it. That takes for granted that what it
 * is told has the types that it should, and does not survive anything else: a wrong reply or signal would end
 * the daemon. So every such message is looked at before GLib is.
 *
 * All of this runs on GDBus' own thread, for every message of the connection.
 */
#include "receiverfilter.h"

#include <array>
#include <set>
#include <syslog.h>

namespace
{

constexpr const char *OBJECT_MANAGER_INTERFACE = "org.freedesktop.DBus.ObjectManager";
constexpr const char *OBJECTS_SIGNATURE = "a{oa{sa{sv}}}";

struct Signal {
  const gchar *interface;
  const gchar *name;
  const gchar *signature;
};

constexpr std::array SIGNALS = {
    Signal{OBJECT_MANAGER_INTERFACE, "InterfacesAdded", "oa{sa{sv}}"},
    Signal{OBJECT_MANAGER_INTERFACE, "InterfacesRemoved", "oas"},
    Signal{"org.freedesktop.DBus.Properties", "PropertiesChanged", "sa{sv}as"},
};

/* A service that gives its name up and takes it again is asked once more, and may answer both questions. The
 * bus limits how many wait for an answer. */
struct Filter {
  gchar *root_path;
  std::set<guint32> objects_serials; /* of the questions for all objects that wait */
};

void
free_filter(gpointer data)
{
  auto *filter = static_cast<Filter *>(data);

  g_free(filter->root_path);
  delete filter;
}

gboolean
has_signature(GDBusMessage *message, const gchar *signature)
{
  return g_strcmp0(g_dbus_message_get_signature(message), signature) == 0;
}

gboolean
is_objects_call(const Filter *filter, GDBusMessage *message)
{
  return g_dbus_message_get_message_type(message) == G_DBUS_MESSAGE_TYPE_METHOD_CALL &&
         g_strcmp0(g_dbus_message_get_path(message), filter->root_path) == 0 &&
         g_strcmp0(g_dbus_message_get_member(message), "GetManagedObjects") == 0;
}

/* The first answer to a question is the only one that anybody gets. */
gboolean
is_wrong_objects_reply(Filter *filter, GDBusMessage *message)
{
  return filter->objects_serials.erase(g_dbus_message_get_reply_serial(message)) > 0 &&
         g_dbus_message_get_message_type(message) == G_DBUS_MESSAGE_TYPE_METHOD_RETURN &&
         !has_signature(message, OBJECTS_SIGNATURE);
}

gboolean
is_wrong_signal(const Filter *filter, GDBusMessage *message)
{
  if (g_dbus_message_get_message_type(message) != G_DBUS_MESSAGE_TYPE_SIGNAL ||
      !g_str_has_prefix(g_dbus_message_get_path(message), filter->root_path)) {
    return FALSE;
  }
  for (const Signal &signal : SIGNALS) {
    if (g_strcmp0(g_dbus_message_get_interface(message), signal.interface) == 0 &&
        g_strcmp0(g_dbus_message_get_member(message), signal.name) == 0) {
      return !has_signature(message, signal.signature);
    }
  }
  return FALSE;
}

/* A failure in place of a reply, so that nobody waits for one. */
GDBusMessage *
make_failure(GDBusMessage *reply)
{
  GDBusMessage *failure = g_dbus_message_new();

  g_dbus_message_set_message_type(failure, G_DBUS_MESSAGE_TYPE_ERROR);
  g_dbus_message_set_serial(failure, g_dbus_message_get_serial(reply));
  g_dbus_message_set_reply_serial(failure, g_dbus_message_get_reply_serial(reply));
  g_dbus_message_set_sender(failure, g_dbus_message_get_sender(reply));
  g_dbus_message_set_error_name(failure, "org.freedesktop.DBus.Error.InvalidSignature");
  g_dbus_message_set_body(failure, g_variant_new("(s)", "The reply has the wrong type"));
  return failure;
}

} // namespace

static GDBusMessage *
on_message(GDBusConnection *, GDBusMessage *message, gboolean incoming, gpointer user_data)
{
  auto *filter = static_cast<Filter *>(user_data);

  if (!incoming) {
    if (is_objects_call(filter, message)) {
      filter->objects_serials.insert(g_dbus_message_get_serial(message));
    }
    return message;
  }
  if (is_wrong_objects_reply(filter, message)) {
    GDBusMessage *failure = make_failure(message);
    g_object_unref(message);
    return failure;
  }
  if (is_wrong_signal(filter, message)) {
    syslog(LOG_WARNING, "left out a signal of the metadata receiver: it has the wrong type");
    g_object_unref(message);
    return nullptr;
  }
  return message;
}

/**
 * receiver_filter_add:
 * @connection: (transfer none): a connection to a bus
 * @root_path: (transfer none): the path of an object manager whose client is to be protected
 *
 * Lets nothing through that the object manager or one of its objects tells in a wrong type: a signal is
 * dropped, a reply becomes a failure. Any thread.
 *
 * Warnings: "left out a signal of the metadata receiver: it has the wrong type", on GDBus' thread
 *
 * Returns: what g_dbus_connection_remove_filter() takes
 */
guint
receiver_filter_add(GDBusConnection *connection, const gchar *root_path)
{
  auto *filter = new Filter{g_strdup(root_path), {}};

  return g_dbus_connection_add_filter(connection, on_message, filter, free_filter);
}
