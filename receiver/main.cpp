/* SPDX-License-Identifier: MIT */
/* Start-up of tessard-receiver. */
#include "eventservice.h"
#include "memory.h"
#include "registryservice.h"

#include <clocale>
#include <csignal>
#include <cstdlib>
#include <glib-unix.h>
#include <syslog.h>

namespace
{

constexpr int EXIT_USAGE = 2;

struct Run {
  GMainLoop *loop;
  int status = EXIT_SUCCESS;
};

/* A closed connection also loses the name; only the first reason is logged. */
void
fail(Run *run, const char *message)
{
  if (run->status != EXIT_SUCCESS) {
    return;
  }
  syslog(LOG_ERR, "%s", message);
  g_printerr("tessard-receiver: %s\n", message);
  run->status = EXIT_FAILURE;
  g_main_loop_quit(run->loop);
}

gboolean
on_signal(gpointer user_data)
{
  g_main_loop_quit(static_cast<GMainLoop *>(user_data));
  return G_SOURCE_CONTINUE;
}

void
on_connection_closed(GDBusConnection *connection, gboolean remote_peer_vanished, GError *error,
                     gpointer user_data)
{
  fail(static_cast<Run *>(user_data), "The connection to the bus is closed.");
}

void
on_name_acquired(GDBusConnection *connection, const gchar *name, gpointer user_data)
{
  syslog(LOG_INFO, "Ready.");
}

void
on_name_lost(GDBusConnection *connection, const gchar *name, gpointer user_data)
{
  fail(static_cast<Run *>(user_data),
       "The name com.quon.MetadataReceiver1 has another owner, or the bus policy refuses it.");
}

/* Runs the main loop until a signal arrives, or the name or the connection is lost. */
int
serve(GDBusConnection *connection)
{
  g_autoptr(GMainLoop) loop = g_main_loop_new(nullptr, FALSE);
  Run run = {loop};
  const gulong closed = g_signal_connect(connection, "closed", G_CALLBACK(on_connection_closed), &run);
  const guint name =
      g_bus_own_name_on_connection(connection, receiver::BUS_NAME, G_BUS_NAME_OWNER_FLAGS_DO_NOT_QUEUE,
                                   on_name_acquired, on_name_lost, &run, nullptr);
  const guint interrupted = g_unix_signal_add(SIGINT, on_signal, loop);
  const guint terminated = g_unix_signal_add(SIGTERM, on_signal, loop);

  g_main_loop_run(loop);

  g_source_remove(terminated);
  g_source_remove(interrupted);
  g_bus_unown_name(name);
  g_signal_handler_disconnect(connection, closed);
  return run.status;
}

int
usage_error(const char *message)
{
  g_printerr("tessard-receiver: %s\nTry 'tessard-receiver --help'.\n", message);
  return EXIT_USAGE;
}

gboolean
parse_options(gboolean *version, int *argc, char ***argv, GError **error)
{
  const GOptionEntry entries[] = {
      {"version", 'V', 0, G_OPTION_ARG_NONE, version, "Print the version and exit", nullptr},
      {},
  };
  g_autoptr(GOptionContext) context = g_option_context_new(nullptr);

  g_option_context_set_summary(context, "Lets applications be producers of analytics metadata.");
  g_option_context_add_main_entries(context, entries, nullptr);
  return g_option_context_parse(context, argc, argv, error);
}

int
run()
{
  g_autoptr(GError) error = nullptr;
  g_autoptr(GDBusConnection) connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);

  if (connection == nullptr) {
    g_printerr("tessard-receiver: There is no connection to the system bus: %s\n", error->message);
    return EXIT_FAILURE;
  }
  g_dbus_connection_set_exit_on_close(connection, FALSE);
  receiver::Directory directory;
  receiver::Registry registry(&directory);
  receiver::RegistryService service(&registry, connection);
  receiver::Events events(registry.budget());
  receiver::EventService event_service(&events, connection);
  directory.set_connection(connection);
  if (!service.publish(&error) || !event_service.publish(&error)) {
    g_printerr("tessard-receiver: %s\n", error->message);
    return EXIT_FAILURE;
  }
  return serve(connection);
}

} // namespace

int
main(int argc, char **argv)
{
  gboolean version = FALSE;
  g_autoptr(GError) error = nullptr;

  memory_set_up();
  setlocale(LC_ALL, "");
  g_set_prgname("tessard-receiver");
  signal(SIGPIPE, SIG_IGN); /* the reader of a stream can close its end at any time */

  if (!parse_options(&version, &argc, &argv, &error)) {
    return usage_error(error->message);
  }
  if (argc > 1) {
    return usage_error("Too many arguments.");
  }
  if (version) {
    g_print("tessard-receiver %s\n", TESSARD_VERSION);
    return EXIT_SUCCESS;
  }
  return run();
}
