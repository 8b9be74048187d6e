/* SPDX-License-Identifier: MIT */
/* Makes the daemon usable from a terminal. */
#include "terminal.h"

#include <syslog.h>
#include <unistd.h>

/**
 * terminal_show_log:
 *
 * Writes later lines of the log to standard error too, if that is a terminal. Otherwise standard error may go
 * to the same log, which would then have each line twice.
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
 * @argc: the number of arguments after the options were parsed, including the program's name
 * @argv: these arguments
 *
 * Refuses all arguments except options: prints the first one to standard error, with a line about the usage.
 *
 * Returns: %FALSE when there is an argument
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
