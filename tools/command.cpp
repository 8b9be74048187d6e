/* SPDX-License-Identifier: MIT */
/* The common part of all commands: one error domain, whose codes are exit statuses, and one way to report
 * errors.
 */
#include "command.h"
#include "printable.h"

G_DEFINE_QUARK(tessardctl_error, tessardctl_error)

/**
 * command_print_error:
 * @message: (transfer none): the error, in any bytes
 *
 * Writes one line to standard error. The message can contain bytes from the daemon or of a file name; control
 * characters are escaped, so none of them reaches the terminal.
 */
void
command_print_error(const gchar *message)
{
  g_autofree gchar *printable = printable_line(message);

  g_printerr("tessardctl: %s\n", printable);
}

/**
 * command_usage_error:
 * @message: (transfer none): the fault of the command line
 *
 * Writes the message to standard error, and the command that prints the help. The program name of GLib must
 * be "tessardctl" with the command parsed so far.
 *
 * Returns: the exit status for it
 */
int
command_usage_error(const gchar *message)
{
  command_print_error(message);
  g_printerr("Try '%s --help'.\n", g_get_prgname());
  return EXIT_STATUS_USAGE;
}

/**
 * command_report_outcome:
 * @outcome: (transfer none) (nullable): the error of %TESSARDCTL_ERROR that ended the command; %NULL for
 * success
 *
 * Writes the error, if there is one, to standard error.
 *
 * Returns: the exit status for it
 */
int
command_report_outcome(const GError *outcome)
{
  if (outcome == nullptr) {
    return EXIT_STATUS_SUCCESS;
  }
  command_print_error(outcome->message);
  return outcome->code;
}

/**
 * command_check_not_empty:
 * @option: (transfer none): the option's name
 * @value: (transfer none) (nullable): its value, %NULL when the option is absent
 * @error: return location for an error, whose message is for the user
 *
 * Returns: %FALSE when the value is empty
 */
gboolean
command_check_not_empty(const gchar *option, const gchar *value, GError **error)
{
  if (value != nullptr && *value == '\0') {
    g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_USAGE, "The value of %s is empty.", option);
    return FALSE;
  }
  return TRUE;
}
