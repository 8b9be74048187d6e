/* What all sub-commands share: one domain of errors, each of which knows the exit status that it leads to,
 * and one way of telling the user about them.
 */
#include "command.h"
#include "printable.h"

G_DEFINE_QUARK(tessardctl_error, tessardctl_error)

/**
 * command_print_error:
 * @message: (transfer none): what went wrong, in any bytes
 *
 * Writes one line to standard error. The message may carry bytes from the daemon or from a file name, and
 * none of them may reach the terminal as a command. Any thread.
 */
void
command_print_error(const gchar *message)
{
  g_autofree gchar *printable = printable_line(message);

  g_printerr("tessardctl: %s\n", printable);
}

/**
 * command_usage_error:
 * @message: (transfer none): what is wrong with the command line
 *
 * Writes the message to standard error, and where to read what would have been right. The program's name as
 * GLib knows it must be the words that the user typed up to here. Main thread.
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
 * @outcome: (transfer none) (nullable): what ended the command, of %TESSARDCTL_ERROR; %NULL when nothing went
 * wrong
 *
 * Tells the user what went wrong, if anything. Main thread.
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
 * @value: (transfer none) (nullable): what the user gave for it, %NULL for nothing
 * @error: return location for an error, whose message is for the user
 *
 * Any thread.
 *
 * Returns: %FALSE when the option was given without a text
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
