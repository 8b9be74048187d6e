/* For a person who starts the daemon by hand. All functions are for the main thread, at the start. */
#include "terminal.h"

#include <syslog.h>
#include <unistd.h>

/**
 * terminal_show_log:
 *
 * Has every later line of the log written to standard error too, when that is a terminal. Otherwise changes
 * nothing: a service manager keeps standard error in the same log, which would then have each line twice.
 */
void
terminal_show_log(void)
{
  if (isatty(STDERR_FILENO)) {
    openlog(nullptr, LOG_PERROR, LOG_USER);
  }
}

/**
 * terminal_check_arguments:
 * @argc: how many arguments are left after the options were parsed, the program's name included
 * @argv: these arguments
 *
 * The daemon has options alone. An argument that is none is refused on standard error, with a line on the
 * usage.
 *
 * Returns: %FALSE when there is such an argument
 */
gboolean
terminal_check_arguments(int argc, char **argv)
{
  if (argc > 1) {
    const gchar *name = g_get_prgname();
    g_printerr("%s: unknown argument: %s\nUsage: %s [--run-dir=DIRECTORY] [--version] [GStreamer options]\n",
               name, argv[1], name);
  }
  return argc <= 1;
}
