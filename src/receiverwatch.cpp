/* Watches what the platform's metadata receiver says of its objects.
 *
 * GLib has a client for object managers, which is of no use here: it makes main contexts on the main thread
 * whenever an object appears, and ends the process when it has no descriptor for one; it takes the types of
 * all messages for granted; and it keeps everything that it is told. This watch keeps nothing. It subscribes
 * to the signals, asks for all objects when the receiver gets its name, and passes on what has the right
 * type.
 *
 * Signals are taken from the connection that owns the receiver's name, and from no other. The watch
 * subscribes before it asks, so that no object is missed in between; an object may be reported twice.
 *
 * A question that fails is asked again, after a time that doubles with each failure.
 *
 * Main thread.
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

/* The receiver sends as many signals as it wants. */
RateLimitedLog wrong_type_log = RATE_LIMITED_LOG_INIT(RATE_LIMITED_LOG_INTERVAL_US);

struct Watch {
  GDBusConnection *connection; /* NULL as long as nothing is watched */
  const ReceiverWatchFuncs *funcs;
  guint name_watch_id;
  gchar *owner; /* the unique name of the receiver, NULL as long as there is none */
  std::array<guint, 3> subscription_ids;
  GCancellable *question; /* the one that is under way, or NULL */
  guint next_question_id; /* the time-out before the next one, or 0 */
  guint retry_s;
};

Watch watch;

void ask();

gboolean
on_time_to_ask(gpointer)
{
  watch.next_question_id = 0;
  ask();
  return G_SOURCE_REMOVE;
}

void
ask_later()
{
  if (watch.next_question_id == 0) {
    watch.next_question_id = g_timeout_add_seconds(watch.retry_s, on_time_to_ask, nullptr);
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

  /* Whoever cancelled the question has put another one in its place, or none. */
  if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED)) {
    return;
  }
  g_clear_object(&watch.question);
  if (reply == nullptr) {
    receiver_watch_log_failure(error);
    ask_later();
    watch.retry_s = std::min<guint>(2 * watch.retry_s, RECEIVER_WATCH_LAST_RETRY_S);
    return;
  }
  watch.retry_s = RECEIVER_WATCH_FIRST_RETRY_S;
  report_objects(reply);
  /* A long answer was taken apart into a great many small blocks. */
  memory_trim_later();
}

void
ask()
{
  watch.question = g_cancellable_new();
  g_dbus_connection_call(watch.connection, watch.owner, RECEIVER_PRODUCERS_PATH, OBJECT_MANAGER_INTERFACE,
                         "GetManagedObjects", nullptr, G_VARIANT_TYPE(OBJECTS_TYPE), G_DBUS_CALL_FLAGS_NONE,
                         DEFAULT_TIMEOUT, watch.question, on_objects, nullptr);
}

/* FALSE for a signal that is dropped, with a line in the log. */
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

/* With %NULL for @path: of every object. */
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
  ask();
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
  if (watch.question != nullptr) {
    g_cancellable_cancel(watch.question);
    g_clear_object(&watch.question);
  }
  g_clear_handle_id(&watch.next_question_id, g_source_remove);
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
 * @funcs: (transfer none): what to call; lives as long as the watch
 *
 * Begins to watch the receiver, and has the bus start it if it can. Whoever comes and goes as the receiver is
 * watched in turn. Main thread; once until receiver_watch_stop().
 *
 * Warnings: "Failed to connect to metadata-receiver over DBus: %s", later and possibly more than once; "left
 * out a signal of the metadata receiver: it has the wrong type"
 */
void
receiver_watch_start(GDBusConnection *connection, const ReceiverWatchFuncs *funcs)
{
  g_return_if_fail(watch.connection == nullptr);

  watch.connection = G_DBUS_CONNECTION(g_object_ref(connection));
  watch.funcs = funcs;
  watch.name_watch_id =
      g_bus_watch_name_on_connection(connection, RECEIVER_NAME, G_BUS_NAME_WATCHER_FLAGS_AUTO_START,
                                     on_name_appeared, on_name_vanished, nullptr, nullptr);
}

/**
 * receiver_watch_ask_again:
 *
 * Asks the receiver for all its objects once more, a little later, unless it is being asked already or is not
 * there. Main thread.
 */
void
receiver_watch_ask_again(void)
{
  if (watch.owner != nullptr && watch.question == nullptr) {
    ask_later();
  }
}

/**
 * receiver_watch_stop:
 *
 * Ends the watch, if there is one, and lets go of the connection. Nothing is called any more. Main thread.
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
 * @error: (transfer none): why the receiver or its bus cannot be asked
 *
 * Any thread.
 *
 * Warnings: "Failed to connect to metadata-receiver over DBus: %s"
 */
void
receiver_watch_log_failure(const GError *error)
{
  g_autofree gchar *message = log_text_clip(error->message);

  syslog(LOG_WARNING, "Failed to connect to metadata-receiver over DBus: %s", message);
}
