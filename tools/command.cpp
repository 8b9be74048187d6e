/* What all sub-commands share: one domain of errors, each of which knows the exit status that it leads to,
 * and one way of telling the user about them.
 */
#include "command.h"

namespace
{

/* The text with its control characters spelled out. A message may carry bytes from the daemon or from a file
 * name, and none of them may reach the terminal as a command. */
gchar *
make_printable(const gchar *text)
{
  g_autofree gchar *valid = g_utf8_make_valid(text, -1);
  g_autoptr(GString) printable = g_string_new(nullptr);

  for (const gchar *p = valid; *p != '\0'; p = g_utf8_next_char(p)) {
    const gunichar c = g_utf8_get_char(p);
    if (g_unichar_iscntrl(c)) {
      g_string_append_printf(printable, "\\u%04x", c);
    } else {
      g_string_append_unichar(printable, c);
    }
  }
  return g_string_free(g_steal_pointer(&printable), FALSE);
}

} // namespace

G_DEFINE_QUARK(tessardctl_error, tessardctl_error)

/**
 * command_print_error:
 * @message: (transfer none): what went wrong, in any bytes
 *
 * Writes one line to standard error. Any thread.
 */
void
command_print_error(const gchar *message)
{
  g_autofree gchar *printable = make_printable(message);

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
