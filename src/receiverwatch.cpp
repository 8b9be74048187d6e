/* SPDX-License-Identifier: MIT */
/* Watches the objects of the platform's metadata receiver and reports changes.
 *
 * GLib's client for object managers is not used: it makes a main context on the main thread for each new
 * object, and ends the process if there is no free descriptor; it does not check the types of messages; and
 * it stores all objects without a limit. This watch stores none. It subscribes to the signals, requests all
 * objects when the receiver owns its name, and reports those with the right type.
 *
 * Signals are accepted only from the owner of the receiver's name. The watch subscribes before it requests
 * the objects, so that it misses none in between; an object can therefore be reported twice.
 *
 * A failed request for the objects is repeated, after a time that doubles with each failure.
 */
#include "receiverwatch.h"

#include "logtext.h"
#include "memory.h"
#include "ratelimitedlog.h"

#include <algorithm>
#include <array>
#include <syslog.h>
#include <utility>

namespace
{

constexpr const char *OBJECT_MANAGER_INTERFACE = "org.freedesktop.DBus.ObjectManager";
constexpr const char *PROPERTIES_INTERFACE = "org.freedesktop.DBus.Properties";
constexpr const char *OBJECTS_TYPE = "(a{oa{sa{sv}}})";
constexpr gint DEFAULT_TIMEOUT = -1;

/* The receiver decides how many signals there are. */
RateLimitedLog wrong_type_log = RATE_LIMITED_LOG_INIT(RATE_LIMITED_LOG_INTERVAL_US);

struct Watch {
  GDBusConnection *connection; /* NULL while stopped */
  const ReceiverWatchFuncs *funcs;
  guint name_watch_id;
  gchar *owner; /* the receiver's unique name, or NULL */
  std::array<guint, 3> subscription_ids;
  GCancellable *request; /* the current request for the objects, or NULL */
  guint next_request_id; /* the time-out before the next one, or 0 */
  guint retry_s;
};

Watch watch;

void request_objects();

gboolean
on_request_time(gpointer)
{
  watch.next_request_id = 0;
  request_objects();
  return G_SOURCE_REMOVE;
}

void
request_objects_later()
{
  if (watch.next_request_id == 0) {
    watch.next_request_id = g_timeout_add_seconds(watch.retry_s, on_request_time, nullptr);
  }
}

void
report_objects(GVariant *reply)
{
  g_autoptr(GVariant) objects = g_variant_get_child_value(reply, 0);
  const gsize count = g_variant_n_children(objects);

  for (gsize i = 0; i < std::min<gsize>(count, RECEIVER_WATCH_MAX_OBJECTS); i++) {
    const gchar *path = nullptr;
    g_autoptr(GVariant) interfaces = nullptr;

    g_variant_get_child(objects, i, "{&o@a{sa{sv}}}", &path, &interfaces);
    watch.funcs->on_interfaces_added(path, interfaces);
  }
  if (count > RECEIVER_WATCH_MAX_OBJECTS) {
    const gchar *path = nullptr;

    g_variant_get_child(objects, RECEIVER_WATCH_MAX_OBJECTS, "{&o@a{sa{sv}}}", &path, nullptr);
    watch.funcs->on_objects_cut(path);
  }
}

void
on_objects(GObject *connection, GAsyncResult *result, gpointer)
{
  g_autoptr(GError) error = nullptr;
  g_autoptr(GVariant) reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(connection), result, &error);

  /* The code that cancelled the request has already replaced or cleared it. */
  if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED)) {
    return;
  }
  g_clear_object(&watch.request);
  if (reply == nullptr) {
    receiver_watch_log_failure(error);
    request_objects_later();
    watch.retry_s = std::min<guint>(2 * watch.retry_s, RECEIVER_WATCH_LAST_RETRY_S);
    return;
  }
  watch.retry_s = RECEIVER_WATCH_FIRST_RETRY_S;
  report_objects(reply);
  /* A long reply leaves many small free blocks. */
  memory_trim_later();
}

void
request_objects()
{
  watch.request = g_cancellable_new();
  g_dbus_connection_call(watch.connection, watch.owner, RECEIVER_PRODUCERS_PATH, OBJECT_MANAGER_INTERFACE,
                         "GetManagedObjects", nullptr, G_VARIANT_TYPE(OBJECTS_TYPE), G_DBUS_CALL_FLAGS_NONE,
                         DEFAULT_TIMEOUT, watch.request, on_objects, nullptr);
}

/* Logs a signal of another type, which is dropped. */
gboolean
has_type(GVariant *parameters, const gchar *type)
{
  if (g_variant_is_of_type(parameters, G_VARIANT_TYPE(type))) {
    return TRUE;
  }
  rate_limited_log(&wrong_type_log, LOG_WARNING,
                   "left out a signal of the metadata receiver: it has the wrong type");
  return FALSE;
}

void
on_interfaces_added(GDBusConnection *, const gchar *, const gchar *, const gchar *, const gchar *,
                    GVariant *parameters, gpointer)
{
  if (!has_type(parameters, "(oa{sa{sv}})")) {
    return;
  }
  const gchar *path = nullptr;
  g_autoptr(GVariant) interfaces = nullptr;

  g_variant_get(parameters, "(&o@a{sa{sv}})", &path, &interfaces);
  watch.funcs->on_interfaces_added(path, interfaces);
}

void
on_interfaces_removed(GDBusConnection *, const gchar *, const gchar *, const gchar *, const gchar *,
                      GVariant *parameters, gpointer)
{
  if (!has_type(parameters, "(oas)")) {
    return;
  }
  const gchar *path = nullptr;
  g_autofree const gchar **interfaces = nullptr;

  g_variant_get(parameters, "(&o^a&s)", &path, &interfaces);
  watch.funcs->on_interfaces_removed(path, interfaces);
}

void
on_properties_changed(GDBusConnection *, const gchar *, const gchar *path, const gchar *, const gchar *,
                      GVariant *parameters, gpointer)
{
  if (!has_type(parameters, "(sa{sv}as)")) {
    return;
  }
  const gchar *interface = nullptr;
  g_autoptr(GVariant) changed = nullptr;
  g_autofree const gchar **invalidated = nullptr;

  g_variant_get(parameters, "(&s@a{sv}^a&s)", &interface, &changed, &invalidated);
  if (g_str_equal(interface, RECEIVER_PRODUCER_INTERFACE)) {
    watch.funcs->on_properties_changed(path, changed, invalidated);
  }
}

/* Subscribes to the signals of one object, or of all with NULL for @path. */
guint
subscribe(const gchar *interface, const gchar *signal, const gchar *path, GDBusSignalCallback callback)
{
  return g_dbus_connection_signal_subscribe(watch.connection, watch.owner, interface, signal, path, nullptr,
                                            G_DBUS_SIGNAL_FLAGS_NONE, callback, nullptr, nullptr);
}

void
on_name_appeared(GDBusConnection *, const gchar *, const gchar *owner, gpointer)
{
  watch.owner = g_strdup(owner);
  watch.retry_s = RECEIVER_WATCH_FIRST_RETRY_S;
  watch.subscription_ids = {
      subscribe(OBJECT_MANAGER_INTERFACE, "InterfacesAdded", RECEIVER_PRODUCERS_PATH, on_interfaces_added),
      subscribe(OBJECT_MANAGER_INTERFACE, "InterfacesRemoved", RECEIVER_PRODUCERS_PATH,
                on_interfaces_removed),
      subscribe(PROPERTIES_INTERFACE, "PropertiesChanged", nullptr, on_properties_changed),
  };
  request_objects();
}

/* FALSE when there was no owner. */
gboolean
forget_owner()
{
  if (watch.owner == nullptr) {
    return FALSE;
  }
  for (const guint id : watch.subscription_ids) {
    g_dbus_connection_signal_unsubscribe(watch.connection, id);
  }
  if (watch.request != nullptr) {
    g_cancellable_cancel(watch.request);
    g_clear_object(&watch.request);
  }
  g_clear_handle_id(&watch.next_request_id, g_source_remove);
  g_clear_pointer(&watch.owner, g_free);
  return TRUE;
}

void
on_name_vanished(GDBusConnection *, const gchar *, gpointer)
{
  if (forget_owner()) {
    watch.funcs->on_vanished();
  }
}

} // namespace

/**
 * receiver_watch_start:
 * @connection: (transfer none): the system bus; kept until receiver_watch_stop()
 * @funcs: (transfer none): the callbacks; must exist until receiver_watch_stop()
 *
 * Begins to watch the receiver, and lets the bus start it. Watches each later owner of the receiver's name
 * too. Must not be called again before receiver_watch_stop().
 *
 * Warnings: "Failed to connect to metadata-receiver over DBus: %s", for each failed request; "left out a
 * signal of the metadata receiver: it has the wrong type"
 */
void
receiver_watch_start(GDBusConnection *connection, const ReceiverWatchFuncs *funcs)
{
  g_return_if_fail(watch.connection == NULL);

  watch.connection = G_DBUS_CONNECTION(g_object_ref(connection));
  watch.funcs = funcs;
  watch.name_watch_id =
      g_bus_watch_name_on_connection(connection, RECEIVER_NAME, G_BUS_NAME_WATCHER_FLAGS_AUTO_START,
                                     on_name_appeared, on_name_vanished, nullptr, nullptr);
}

/**
 * receiver_watch_ask_again:
 *
 * Requests all objects from the receiver again, after the retry time. Has no effect when a request is pending
 * or the receiver's name has no owner.
 */
void
receiver_watch_ask_again(void)
{
  if (watch.owner != nullptr && watch.request == nullptr) {
    request_objects_later();
  }
}

/**
 * receiver_watch_stop:
 *
 * Ends the watch and drops the connection. No callback is called afterwards. Has no effect while stopped.
 */
void
receiver_watch_stop(void)
{
  if (watch.connection == nullptr) {
    return;
  }
  forget_owner();
  g_bus_unwatch_name(std::exchange(watch.name_watch_id, 0));
  g_clear_object(&watch.connection);
}

/**
 * receiver_watch_log_failure:
 * @error: (transfer none): why the bus or the receiver cannot be reached
 *
 * Warnings: "Failed to connect to metadata-receiver over DBus: %s"
 */
void
receiver_watch_log_failure(const GError *error)
{
  g_autofree gchar *message = log_text_clip(error->message);

  syslog(LOG_WARNING, "Failed to connect to metadata-receiver over DBus: %s", message);
}
