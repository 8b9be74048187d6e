/* SPDX-License-Identifier: MIT */
/* "tessardctl monitor": prints a line for each change of the producers.
 *
 * The last known state is kept while the daemon is away; after its return the lines show the differences.
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
#include "producerwatch.h"

#include <glib-unix.h>
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
  ProducerWatch *watch = nullptr;
  gboolean has_state = FALSE; /* whether changes can be computed */
  ProducersByPath producers;  /* the last known */

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
update_producer(Session *session, const Producer &producer)
{
  const auto position = session->producers.find(producer.path);

  if (position != session->producers.end() && position->second.name == producer.name) {
    print_channel_changes(session, position->second, producer);
    position->second.channels = producer.channels;
    return;
  }
  if (position != session->producers.end()) {
    remove_producer(session, position);
  }
  print_line(session, "added %s: %s", producer.name.c_str(), producer.nice_name.c_str());
  print_channel_changes(session, Producer(), producer);
  session->producers.emplace(producer.path, producer);
}

void
update_all(Session *session, const ProducersByPath &current)
{
  for (auto position = session->producers.begin(); position != session->producers.end();) {
    const auto known = position++;
    if (!current.contains(known->first)) {
      remove_producer(session, known);
    }
  }
  for (const auto &[path, producer] : current) {
    update_producer(session, producer);
  }
}

void
handle_present(Session *session, const ProducersByPath &current)
{
  print_line(session, "daemon present, producers: %" G_GSIZE_FORMAT, current.size());
  if (!session->has_state) {
    session->producers = current;
  }
  session->has_state = TRUE;
  update_all(session, current);
}

void
handle_absent(Session *session)
{
  session->has_state = TRUE;
  print_line(session, "daemon absent");
}

ProducerWatch::Callbacks
callbacks_of(Session *session)
{
  return {
      .on_present = [session](const ProducersByPath &current) { handle_present(session, current); },
      .on_changed = [session](const ProducersByPath &current) { update_all(session, current); },
      .on_absent = [session]() { handle_absent(session); },
      .on_failed = [session](GError *error) { finish(session, error); },
  };
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
      watch(new ProducerWatch(connection, callbacks_of(this)))
{
}

Session::~Session()
{
  delete watch;
  g_signal_handler_disconnect(connection, closed);
  g_source_remove(terminated);
  g_source_remove(interrupted);
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
