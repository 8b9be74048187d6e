/* SPDX-License-Identifier: MIT */
/* "tessardctl monitor": prints a line for each change of the producers.
 *
 * Producers are identified by object path. When the daemon appears, the monitor subscribes to the signals of
 * that owner of the name and then requests all objects. The bus keeps the order: the reply already includes
 * every signal that arrives before it, so those are ignored, and every later one is a change. The last known
 * state is kept while the daemon is away; after its return the lines show the differences.
 *
 * The first word of a line is always one of the monitor's own, never a name.
 *
 * Everything runs on the main thread.
 */
#include "monitor.h"
#include "arguments.h"
#include "command.h"
#include "linewriter.h"
#include "printable.h"
#include "producerbus.h"
#include "producers.h"

#include <array>
#include <glib-unix.h>
#include <map>
#include <unistd.h>

namespace
{

constexpr ArgumentRules RULES = {
    "",
    "Prints a line for each change of the analytics producers as it happens, until Ctrl-C.",
    "Lines:\n"
    "  daemon present, producers: N    the daemon is on the bus and has N producers\n"
    "  daemon absent                   the daemon is not on the bus\n"
    "  added NAME: NICE NAME           a producer has been added\n"
    "  removed NAME                    a producer has been removed\n"
    "  enabled NAME CHANNEL: CONFIGURATION\n"
    "  disabled NAME CHANNEL\n"
    "\n",
};

using ProducersByPath = std::map<std::string, Producer>;

struct Session {
  explicit Session(GDBusConnection *bus_connection);
  Session(const Session &) = delete;
  Session &operator=(const Session &) = delete;
  ~Session();

  GDBusConnection *connection;
  GMainLoop *loop;
  LineWriter *lines;
  guint interrupted = 0;
  guint terminated = 0;
  gulong closed = 0;
  guint watch = 0;

  guint subscription = 0;          /* to the owner's signals; 0 while the daemon is absent */
  GCancellable *loading = nullptr; /* while the call for all producers is pending */
  guint pending_replies = 0;       /* includes those of cancelled calls */
  gboolean has_state = FALSE;      /* whether changes can be computed */
  ProducersByPath producers;       /* the last known */

  gboolean finished = FALSE;
  GError *outcome = nullptr;
};

/* Ends the session, with success when @outcome is NULL. Takes @outcome. Only the first call counts. */
void
finish(Session *session, GError *outcome)
{
  g_autoptr(GError) owned = outcome;

  if (session->finished) {
    return;
  }
  session->finished = TRUE;
  session->outcome = g_steal_pointer(&owned);
  g_main_loop_quit(session->loop);
}

void
on_output_end(GError *outcome, gpointer user_data)
{
  finish(static_cast<Session *>(user_data), outcome);
}

void print_line(Session *session, const gchar *format, ...) G_GNUC_PRINTF(2, 3);

void
print_line(Session *session, const gchar *format, ...)
{
  va_list args;

  va_start(args, format);
  g_autofree gchar *line = g_strdup_vprintf(format, args);
  va_end(args);
  g_autofree gchar *printable = printable_line(line);
  session->lines->write(printable);
}

/* NULL, for a channel that is missing, counts as disabled. */
void
print_channel_change(Session *session, const Producer &producer, const ProducerChannel *before,
                     const ProducerChannel *after)
{
  const gboolean was_enabled = before != nullptr && before->enabled;
  const gboolean is_enabled = after != nullptr && after->enabled;

  if (is_enabled && (!was_enabled || before->configuration != after->configuration)) {
    print_line(session, "enabled %s %d: %s", producer.name.c_str(), after->channel,
               after->configuration.c_str());
  } else if (was_enabled && !is_enabled) {
    print_line(session, "disabled %s %d", producer.name.c_str(), before->channel);
  }
}

void
print_channel_changes(Session *session, const Producer &before, const Producer &after)
{
  for (const ProducerChannel &channel : before.channels) {
    if (producer_find_channel(after, channel.channel) == nullptr) {
      print_channel_change(session, after, &channel, nullptr);
    }
  }
  for (const ProducerChannel &channel : after.channels) {
    print_channel_change(session, after, producer_find_channel(before, channel.channel), &channel);
  }
}

void
remove_producer(Session *session, ProducersByPath::iterator position)
{
  print_line(session, "removed %s", position->second.name.c_str());
  session->producers.erase(position);
}

/* Adds a producer, or compares it with its last known state. */
void
update_producer(Session *session, Producer producer)
{
  const auto position = session->producers.find(producer.path);

  if (position != session->producers.end() && position->second.name == producer.name) {
    print_channel_changes(session, position->second, producer);
    position->second = std::move(producer);
    return;
  }
  if (position != session->producers.end()) {
    remove_producer(session, position);
  }
  print_line(session, "added %s: %s", producer.name.c_str(), producer.nice_name.c_str());
  print_channel_changes(session, Producer(), producer);
  session->producers.emplace(producer.path, std::move(producer));
}

void
update_all(Session *session, Producers producers)
{
  ProducersByPath current;

  for (const Producer &producer : producers) {
    current.emplace(producer.path, producer);
  }
  for (auto position = session->producers.begin(); position != session->producers.end();) {
    const auto known = position++;
    if (!current.contains(known->first)) {
      remove_producer(session, known);
    }
  }
  for (Producer &producer : producers) {
    update_producer(session, std::move(producer));
  }
}

void
on_interfaces_added(Session *session, const gchar *object_path, GVariant *body)
{
  const gchar *path = nullptr;
  g_autoptr(GVariant) interfaces = nullptr;
  g_autoptr(GError) error = nullptr;

  g_variant_get(body, "(&o@a{sa{sv}})", &path, &interfaces);
  g_autoptr(GVariant) properties = g_variant_lookup_value(interfaces, PRODUCER_BUS_PRODUCER, nullptr);
  if (properties == nullptr) {
    return;
  }
  std::optional<Producer> producer = producer_read(path, properties, &error);
  if (!producer.has_value()) {
    finish(session, g_steal_pointer(&error));
    return;
  }
  if (session->producers.size() >= PRODUCERS_MAX && !session->producers.contains(path)) {
    finish(session, g_error_new(TESSARDCTL_ERROR, EXIT_STATUS_MALFORMED,
                                "The daemon has more than %d producers.", PRODUCERS_MAX));
    return;
  }
  update_producer(session, std::move(*producer));
}

void
on_interfaces_removed(Session *session, const gchar *object_path, GVariant *body)
{
  const gchar *path = nullptr;
  g_autofree const gchar **interfaces = nullptr;

  g_variant_get(body, "(&o^a&s)", &path, &interfaces);
  const auto position = session->producers.find(path);
  if (position != session->producers.end() && g_strv_contains(interfaces, PRODUCER_BUS_PRODUCER)) {
    remove_producer(session, position);
  }
}

/* A producer's other properties are constant. */
void
on_properties_changed(Session *session, const gchar *object_path, GVariant *body)
{
  const auto position = session->producers.find(object_path);
  const gchar *interface = nullptr;
  g_autoptr(GVariant) properties = nullptr;
  g_autoptr(GError) error = nullptr;

  g_variant_get(body, "(&s@a{sv}@as)", &interface, &properties, nullptr);
  if (position == session->producers.end() || !g_str_equal(interface, PRODUCER_BUS_PRODUCER) ||
      !g_variant_lookup(properties, "ChannelsEnabled", "*", nullptr)) {
    return;
  }
  std::optional<std::vector<ProducerChannel>> channels =
      producer_read_channels(object_path, properties, &error);
  if (!channels.has_value()) {
    finish(session, g_steal_pointer(&error));
    return;
  }
  Producer changed = position->second;
  changed.channels = std::move(*channels);
  update_producer(session, std::move(changed));
}

struct SignalHandler {
  const gchar *interface;
  const gchar *signal;
  const gchar *type;
  void (*handle)(Session *session, const gchar *object_path, GVariant *body);
};

constexpr std::array SIGNAL_HANDLERS = {
    SignalHandler{PRODUCER_BUS_OBJECT_MANAGER, "InterfacesAdded", "(oa{sa{sv}})", on_interfaces_added},
    SignalHandler{PRODUCER_BUS_OBJECT_MANAGER, "InterfacesRemoved", "(oas)", on_interfaces_removed},
    SignalHandler{"org.freedesktop.DBus.Properties", "PropertiesChanged", "(sa{sv}as)",
                  on_properties_changed},
};

void
on_daemon_signal(GDBusConnection *connection, const gchar *sender_name, const gchar *object_path,
                 const gchar *interface_name, const gchar *signal_name, GVariant *body, gpointer user_data)
{
  auto *session = static_cast<Session *>(user_data);
  g_autoptr(GError) error = nullptr;

  if (session->loading != nullptr || session->finished) {
    return;
  }
  for (const SignalHandler &handler : SIGNAL_HANDLERS) {
    if (!g_str_equal(interface_name, handler.interface) || !g_str_equal(signal_name, handler.signal)) {
      continue;
    }
    if (!producer_bus_check_type(body, signal_name, G_VARIANT_TYPE(handler.type), &error)) {
      finish(session, g_steal_pointer(&error));
      return;
    }
    handler.handle(session, object_path, body);
  }
}

/* A daemon that has left the bus is no error here: the watch on its name reports that, and its return. */
void
handle_load_failure(Session *session, const GError *cause)
{
  g_autoptr(GError) error = producer_bus_convert_failure(cause, PRODUCER_BUS_TIMEOUT_SECONDS);

  if (error->code != EXIT_STATUS_NO_CONNECTION && error->code != EXIT_STATUS_ENDED) {
    finish(session, g_steal_pointer(&error));
  }
}

void
take_objects(Session *session, GVariant *objects)
{
  g_autoptr(GError) error = nullptr;
  std::optional<Producers> producers;

  if (producer_bus_check_type(objects, "GetManagedObjects", PRODUCER_BUS_OBJECTS_TYPE, &error)) {
    producers = producers_read(objects, &error);
  }
  if (!producers.has_value()) {
    finish(session, g_steal_pointer(&error));
    return;
  }

  print_line(session, "daemon present, producers: %" G_GSIZE_FORMAT, producers->size());
  if (!session->has_state) {
    for (const Producer &producer : *producers) {
      session->producers.emplace(producer.path, producer);
    }
  }
  session->has_state = TRUE;
  update_all(session, std::move(*producers));
}

void
on_objects_loaded(GObject *source_object, GAsyncResult *result, gpointer user_data)
{
  auto *session = static_cast<Session *>(user_data);
  g_autoptr(GError) cause = nullptr;
  g_autoptr(GVariant) objects =
      g_dbus_connection_call_finish(G_DBUS_CONNECTION(source_object), result, &cause);

  session->pending_replies--;
  if (g_error_matches(cause, G_IO_ERROR, G_IO_ERROR_CANCELLED) || session->finished) {
    return;
  }
  if (objects == nullptr) {
    handle_load_failure(session, cause);
    return;
  }
  g_clear_object(&session->loading);
  take_objects(session, objects);
}

void
on_daemon_appeared(GDBusConnection *connection, const gchar *name, const gchar *owner, gpointer user_data)
{
  auto *session = static_cast<Session *>(user_data);

  session->subscription =
      g_dbus_connection_signal_subscribe(connection, owner, nullptr, nullptr, nullptr, nullptr,
                                         G_DBUS_SIGNAL_FLAGS_NONE, on_daemon_signal, session, nullptr);
  session->loading = g_cancellable_new();
  session->pending_replies++;
  g_dbus_connection_call(connection, owner, PRODUCER_BUS_ROOT, PRODUCER_BUS_OBJECT_MANAGER,
                         "GetManagedObjects", nullptr, nullptr, G_DBUS_CALL_FLAGS_NO_AUTO_START,
                         PRODUCER_BUS_TIMEOUT_SECONDS * 1000, session->loading, on_objects_loaded, session);
}

void
forget_owner(Session *session)
{
  if (session->loading != nullptr) {
    g_cancellable_cancel(session->loading);
    g_clear_object(&session->loading);
  }
  if (session->subscription != 0) {
    g_dbus_connection_signal_unsubscribe(session->connection, session->subscription);
    session->subscription = 0;
  }
}

/* Also called when the bus closes the connection, which says nothing about the daemon. */
void
on_daemon_vanished(GDBusConnection *connection, const gchar *name, gpointer user_data)
{
  auto *session = static_cast<Session *>(user_data);

  forget_owner(session);
  if (!g_dbus_connection_is_closed(session->connection)) {
    session->has_state = TRUE;
    print_line(session, "daemon absent");
  }
}

void
on_bus_closed(GDBusConnection *connection, gboolean remote_peer_vanished, GError *error, gpointer user_data)
{
  finish(static_cast<Session *>(user_data),
         g_error_new_literal(TESSARDCTL_ERROR, EXIT_STATUS_ENDED, "The bus closed the connection."));
}

gboolean
on_signal(gpointer user_data)
{
  finish(static_cast<Session *>(user_data), nullptr);
  return G_SOURCE_CONTINUE;
}

Session::Session(GDBusConnection *bus_connection)
    : connection(bus_connection), loop(g_main_loop_new(nullptr, FALSE)),
      lines(new LineWriter(STDOUT_FILENO, on_output_end, this)),
      interrupted(g_unix_signal_add(SIGINT, on_signal, this)),
      terminated(g_unix_signal_add(SIGTERM, on_signal, this)),
      closed(g_signal_connect(connection, "closed", G_CALLBACK(on_bus_closed), this)),
      watch(g_bus_watch_name_on_connection(connection, PRODUCER_BUS_NAME, G_BUS_NAME_WATCHER_FLAGS_NONE,
                                           on_daemon_appeared, on_daemon_vanished, this, nullptr))
{
}

/* No callback can run afterwards, not even that of a cancelled call. */
Session::~Session()
{
  g_bus_unwatch_name(watch);
  g_signal_handler_disconnect(connection, closed);
  g_source_remove(terminated);
  g_source_remove(interrupted);
  forget_owner(this);
  while (pending_replies > 0) {
    g_main_context_iteration(nullptr, TRUE);
  }
  delete lines;
  g_main_loop_unref(loop);
  g_clear_error(&outcome);
}

} // namespace

/**
 * monitor_command_run:
 * @argc: number of arguments
 * @argv: (transfer none): the arguments, from the command's name on
 *
 * Runs "tessardctl monitor" until an interrupt, or until the reader of its output hangs up. SIGPIPE must be
 * ignored.
 *
 *
 * Returns: the exit status
 */
int
monitor_command_run(int argc, char **argv)
{
  Arguments arguments;
  g_autoptr(GError) error = nullptr;

  if (!arguments_parse(&arguments, &RULES, nullptr, argc, argv, &error)) {
    return command_usage_error(error->message);
  }
  g_autoptr(GDBusConnection) connection = producer_bus_connect(arguments.bus_address, &error);
  if (connection == nullptr) {
    return command_report_outcome(error);
  }

  Session session(connection);
  g_main_loop_run(session.loop);
  return command_report_outcome(session.outcome);
}
