/* SPDX-License-Identifier: MIT */
/* Start-up of tessardctl: finds the command and passes it the rest of the command line. Each command parses
 * its own options and is one row of the table below.
 */
#include "command.h"
#include "emit.h"
#include "memory.h"
#include "monitor.h"
#include "produce.h"
#include "producercommands.h"
#include "snapshot.h"
#include "status.h"
#include "stream.h"
#include "topics.h"

#include <array>
#include <clocale>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace
{

int help_command_run(int argc, char **argv);

constexpr std::array COMMANDS = {
    Command{"stream", "Print the metadata that the daemon streams", stream_command_run},
    Command{"snapshot", "Draw the objects of one document as SVG", snapshot_command_run},
    Command{"producers", "List the analytics producers", producers_command_run},
    Command{"list", "The same as producers", producers_command_run},
    Command{"show", "Print all about one producer", show_command_run},
    Command{"enable", "Enable a producer on a video channel", enable_command_run},
    Command{"disable", "Disable a producer on a video channel", disable_command_run},
    Command{"apply", "Enable and disable many at once, from a file", apply_command_run},
    Command{"monitor", "Print changes of the producers as they happen", monitor_command_run},
    Command{"status", "Print the clients, producers and limits of the daemon", status_command_run},
    Command{"produce", "Pass detections from standard input to clients", produce_command_run},
    Command{"emit", "Emit an event, or those of the lines on standard input", emit_command_run},
    Command{"topics", "List the topics of events", topics_command_run},
    Command{"help", "Print this help, or that of a command", help_command_run},
};

/* A descriptor below 3 that the caller closed would go to the next socket or file that is opened, and output
 * would end up there. Each gets a stand-in on which reading or writing fails as it does on a closed one. */
void
occupy_standard_descriptors(void)
{
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; fd++) {
    if (fcntl(fd, F_GETFD) < 0) {
      open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
    }
  }
}

gchar *
describe_commands(void)
{
  g_autoptr(GString) text = g_string_new("Commands:\n");

  for (const Command &command : COMMANDS) {
    g_string_append_printf(text, "  %-10s %s\n", command.name, command.summary);
  }
  g_string_append(text, "\n'tessardctl help COMMAND' prints the options of a command.");
  return g_string_free(g_steal_pointer(&text), FALSE);
}

/* Parses the options in front of the command and removes them from the arguments. "--help" exits. */
gboolean
parse_options(int *argc, char ***argv, gboolean *version, GError **error)
{
  const GOptionEntry entries[] = {
      {"version", 'V', 0, G_OPTION_ARG_NONE, version, "Print the version and exit", nullptr},
      {},
  };
  g_autoptr(GOptionContext) context = g_option_context_new("COMMAND [ARGUMENT…]");
  g_autofree gchar *description = describe_commands();

  g_option_context_set_summary(context, "Talks to tessard, the camera's metadata daemon.");
  g_option_context_set_description(context, description);
  g_option_context_set_strict_posix(context, TRUE);
  g_option_context_add_main_entries(context, entries, nullptr);
  return g_option_context_parse(context, argc, argv, error);
}

const Command *
find_command(const gchar *name)
{
  for (const Command &command : COMMANDS) {
    if (g_str_equal(command.name, name)) {
      return &command;
    }
  }
  return nullptr;
}

int
run_command(int argc, char **argv)
{
  const Command *command = find_command(argv[0]);
  if (command == nullptr) {
    g_autofree gchar *message = g_strdup_printf("Unknown command '%s'.", argv[0]);
    return command_usage_error(message);
  }

  g_autofree gchar *words = g_strdup_printf("tessardctl %s", command->name);
  g_set_prgname(words);
  return command->run(argc, argv);
}

/* GLib's parser prints the help on "--help" and exits with success. @command is NULL for tessardctl itself.
 */
int
print_help(char *command)
{
  char program[] = "tessardctl";
  char help[] = "--help";
  std::array<char *, 3> words = {command != nullptr ? command : program, help, nullptr};
  int argc = words.size() - 1;
  char **argv = words.data();
  gboolean version = FALSE;

  if (command != nullptr) {
    return run_command(argc, argv);
  }
  parse_options(&argc, &argv, &version, nullptr);
  return EXIT_STATUS_SUCCESS;
}

int
help_command_run(int argc, char **argv)
{
  g_autoptr(GOptionContext) context = g_option_context_new("[COMMAND]");
  g_autoptr(GError) error = nullptr;

  g_option_context_set_summary(context, "Prints the commands of tessardctl, or the options of one command.");
  if (!g_option_context_parse(context, &argc, &argv, &error)) {
    return command_usage_error(error->message);
  }
  if (argc > 2) {
    g_autofree gchar *message = g_strdup_printf("Unexpected argument '%s'.", argv[2]);
    return command_usage_error(message);
  }
  g_set_prgname("tessardctl");
  return print_help(argc == 2 ? argv[1] : nullptr);
}

} // namespace

int
main(int argc, char **argv)
{
  gboolean version = FALSE;
  g_autoptr(GError) error = nullptr;

  memory_set_up();
  occupy_standard_descriptors();
  /* A reader of our output that has gone is an error of the write, not the end of the process. */
  signal(SIGPIPE, SIG_IGN);
  setlocale(LC_ALL, "");
  g_set_prgname("tessardctl");

  if (!parse_options(&argc, &argv, &version, &error)) {
    return command_usage_error(error->message);
  }
  if (version) {
    g_print("tessardctl version %s\n", TESSARDCTL_VERSION);
    return EXIT_STATUS_SUCCESS;
  }
  if (argc < 2) {
    return command_usage_error("No command given.");
  }
  return run_command(argc - 1, argv + 1);
}
