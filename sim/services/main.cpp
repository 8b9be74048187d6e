/* SPDX-License-Identifier: MIT */
/* simcamera, which runs the simulated camera's D-Bus services, and "simcamera tell", which controls a running
 * one.
 */
#include "bus.h"
#include "control.h"
#include "memory.h"
#include "verbs.h"

#include <clocale>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <glib-unix.h>
#include <unistd.h>

namespace
{

constexpr int EXIT_USAGE = 2;

struct Options {
  ~Options()
  {
    g_free(bus);
    g_free(services);
    g_free(channels);
    g_free(move_capabilities);
    g_strfreev(rotations);
    g_strfreev(faults);
    g_free(producers);
    g_strfreev(recordings);
    g_free(rate);
  }

  gchar *bus = nullptr;
  gchar *services = nullptr;
  gchar *channels = nullptr;
  gchar *move_capabilities = nullptr;
  gchar **rotations = nullptr;
  gchar **faults = nullptr;
  gchar *producers = nullptr;
  gchar **recordings = nullptr;
  gchar *rate = nullptr;
  gboolean once = FALSE;
};

struct Run {
  GMainLoop *loop;
  int status = EXIT_SUCCESS;
};

void
print_error(const char *message)
{
  g_printerr("simcamera: %s\n", message);
}

int
usage_error(const char *message)
{
  print_error(message);
  g_printerr("Try '%s --help'.\n", g_get_prgname());
  return EXIT_USAGE;
}

int
failure(const GError *error)
{
  print_error(error->message);
  return EXIT_FAILURE;
}

/* Options are not converted from the locale's encoding: the bus carries UTF-8. */
gboolean
parse_options(Options *options, int *argc, char ***argv, GError **error)
{
  const GOptionEntry entries[] = {
      {"bus", 0, 0, G_OPTION_ARG_FILENAME, &options->bus, "The bus (default: the system bus)", "ADDRESS"},
      {"services", 0, 0, G_OPTION_ARG_FILENAME, &options->services,
       "The services to run, comma-separated (default: all)", "LIST"},
      {"channels", 0, 0, G_OPTION_ARG_FILENAME, &options->channels, "Number of video channels (default: 2)",
       "N"},
      {"rotation", 0, 0, G_OPTION_ARG_FILENAME_ARRAY, &options->rotations,
       "Rotation of a channel; none: not in its settings", "CHANNEL=DEGREES"},
      {"move-capabilities", 0, 0, G_OPTION_ARG_FILENAME, &options->move_capabilities,
       "Move capabilities of the PTZ driver (default: 7)", "N"},
      {"fault", 0, 0, G_OPTION_ARG_FILENAME_ARRAY, &options->faults, "Injects a fault into a service",
       "SERVICE=FAULT[:ARGUMENT]"},
      {"producers", 0, 0, G_OPTION_ARG_FILENAME, &options->producers,
       "The built-in producers to run, comma-separated (default: all)", "LIST"},
      {"producer", 0, 0, G_OPTION_ARG_FILENAME_ARRAY, &options->recordings,
       "Adds a producer that replays a file of JSON lines; -: standard input", "NAME=FILE"},
      {"rate", 0, 0, G_OPTION_ARG_FILENAME, &options->rate,
       "Messages per second of replays; 0: as fast as the reader takes them (default: as recorded)", "N"},
      {"once", 0, 0, G_OPTION_ARG_NONE, &options->once, "End a stream after its recording", nullptr},
      {},
  };
  g_autoptr(GOptionContext) context = g_option_context_new(nullptr);
  g_autofree gchar *description =
      g_strdup_printf("'simcamera tell [--bus ADDRESS] VERB [ARGUMENT…]' controls a running simcamera.\n\n%s",
                      sim::verbs_describe().c_str());

  g_option_context_set_summary(context, "Simulates the D-Bus services of a camera's platform.");
  g_option_context_set_description(context, description);
  g_option_context_add_main_entries(context, entries, nullptr);
  return g_option_context_parse(context, argc, argv, error);
}

gboolean
parse_tell_options(gchar **bus, int *argc, char ***argv, GError **error)
{
  const GOptionEntry entries[] = {
      {"bus", 0, 0, G_OPTION_ARG_FILENAME, bus, "The bus (default: the system bus)", "ADDRESS"},
      {},
  };
  g_autoptr(GOptionContext) context = g_option_context_new("VERB [ARGUMENT…]");
  const std::string description = sim::verbs_describe();

  g_option_context_set_summary(context,
                               "Controls a running simcamera. Returns when the verb has taken effect.");
  g_option_context_set_description(context, description.c_str());
  g_option_context_set_strict_posix(context, TRUE);
  g_option_context_add_main_entries(context, entries, nullptr);
  return g_option_context_parse(context, argc, argv, error);
}

bool
check_no_more(int argc, char **argv, GError **error)
{
  return argc < 2 || sim::refuse(error, "unexpected argument '%s'", argv[1]);
}

bool
run_verb(sim::Platform *platform, const sim::Arguments &command, GError **error)
{
  return sim::verbs_run(platform, command, error).has_value();
}

/* Runs a verb for each value of an option. Values have the form A=B or A=B:C. */
bool
run_verbs(sim::Platform *platform, const char *verb, const char *const *values, const char *separators,
          GError **error)
{
  for (; values != nullptr && *values != nullptr; values++) {
    sim::Arguments command = {verb};
    std::string rest = *values;
    for (const char *separator = separators; *separator != '\0'; separator++) {
      const gsize end = rest.find(*separator);
      if (end == std::string::npos) {
        break;
      }
      command.push_back(rest.substr(0, end));
      rest.erase(0, end + 1);
    }
    command.push_back(rest);
    if (!run_verb(platform, command, error)) {
      return false;
    }
  }
  return true;
}

bool
apply_options(sim::Platform *platform, const Options &options, GError **error)
{
  return (options.services == nullptr || platform->choose_services(options.services, error)) &&
         (options.channels == nullptr || run_verb(platform, {"channels", options.channels}, error)) &&
         (options.move_capabilities == nullptr ||
          run_verb(platform, {"move-capabilities", options.move_capabilities}, error)) &&
         run_verbs(platform, "rotation", options.rotations, "=", error) &&
         run_verbs(platform, "inject-fault", options.faults, "=:", error) &&
         (options.producers == nullptr || platform->receiver->choose_producers(options.producers, error)) &&
         (options.rate == nullptr || run_verb(platform, {"rate", options.rate}, error)) &&
         (!options.once || run_verb(platform, {"once", "yes"}, error)) &&
         run_verbs(platform, "add-producer", options.recordings, "=", error);
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
  auto *run = static_cast<Run *>(user_data);

  print_error("the connection to the bus is closed");
  run->status = EXIT_FAILURE;
  g_main_loop_quit(run->loop);
}

/* Runs the main loop until a signal arrives or the connection closes. */
int
serve(GDBusConnection *connection)
{
  g_autoptr(GMainLoop) loop = g_main_loop_new(nullptr, FALSE);
  Run run = {loop};
  const gulong closed = g_signal_connect(connection, "closed", G_CALLBACK(on_connection_closed), &run);
  const guint interrupted = g_unix_signal_add(SIGINT, on_signal, loop);
  const guint terminated = g_unix_signal_add(SIGTERM, on_signal, loop);

  g_print("ready\n");
  g_main_loop_run(loop);

  g_source_remove(terminated);
  g_source_remove(interrupted);
  g_signal_handler_disconnect(connection, closed);
  return run.status;
}

/* Exported objects refer to the platform, so the connection closes before the platform is destroyed. */
int
run_camera(int argc, char **argv)
{
  sim::Platform platform;
  Options options;
  g_autoptr(GError) error = nullptr;

  if (!parse_options(&options, &argc, &argv, &error) || !check_no_more(argc, argv, &error) ||
      !apply_options(&platform, options, &error)) {
    return usage_error(error->message);
  }

  g_autoptr(GDBusConnection) connection = sim::bus_connect(options.bus, &error);
  if (connection == nullptr || !platform.publish(connection, &error) ||
      !sim::control_publish(&platform, connection, &error)) {
    return failure(error);
  }
  const int status = serve(connection);
  g_dbus_connection_close_sync(connection, nullptr, nullptr);
  return status;
}

int
run_tell(int argc, char **argv)
{
  g_autofree gchar *bus = nullptr;
  g_autofree gchar *result = nullptr;
  g_autoptr(GError) error = nullptr;

  g_set_prgname("simcamera tell");
  if (!parse_tell_options(&bus, &argc, &argv, &error)) {
    return usage_error(error->message);
  }
  if (argc < 2) {
    return usage_error("no verb given");
  }

  const char *const *command = argv + 1;
  g_autoptr(GDBusConnection) connection = sim::bus_connect(bus, &error);
  if (connection == nullptr || !sim::control_tell(connection, command, &result, &error)) {
    return failure(error);
  }
  if (*result != '\0') {
    g_print("%s\n", result);
  }
  return EXIT_SUCCESS;
}

/* If standard input is closed, the next descriptor would take its number, and a producer would read it. */
void
ensure_standard_input()
{
  if (fcntl(STDIN_FILENO, F_GETFD) < 0) {
    open("/dev/null", O_RDONLY);
  }
}

} // namespace

int
main(int argc, char **argv)
{
  memory_set_up();
  ensure_standard_input();
  setlocale(LC_ALL, "");
  g_set_prgname("simcamera");
  signal(SIGPIPE, SIG_IGN); /* a stream's reader may close its end at any time */

  if (argc > 1 && g_str_equal(argv[1], "tell")) {
    return run_tell(argc - 1, argv + 1);
  }
  return run_camera(argc, argv);
}
