/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

/* command_usage_error() and command_report_outcome() are for the main thread, the other functions for any. */

/* The exit statuses, the same for every command. An error of TESSARDCTL_ERROR has one of them as its code. */
enum ExitStatus : int {
  EXIT_STATUS_SUCCESS = 0,
  EXIT_STATUS_REFUSED = 1,
  EXIT_STATUS_USAGE = 2,
  EXIT_STATUS_NO_CONNECTION = 3,
  EXIT_STATUS_TIMED_OUT = 4,
  EXIT_STATUS_ENDED = 5,
  EXIT_STATUS_MALFORMED = 6,
  EXIT_STATUS_LOCAL = 7,
};

/* One command. @run gets the arguments from the command's name on and returns an ExitStatus. */
struct Command {
  const gchar *name;
  const gchar *summary;
  int (*run)(int argc, char **argv);
};

#define TESSARDCTL_ERROR (tessardctl_error_quark())

GQuark tessardctl_error_quark(void);
void command_print_error(const gchar *message);
int command_usage_error(const gchar *message);
int command_report_outcome(const GError *outcome);
gboolean command_check_not_empty(const gchar *option, const gchar *value, GError **error);
