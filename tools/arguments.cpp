/* SPDX-License-Identifier: MIT */
/* The command lines of the commands that call the daemon over the bus.
 *
 * The daemon validates names and channels. A usage error is only what the bus cannot carry, and a
 * configuration name that the daemon accepts but that breaks frames.
 */
#include "arguments.h"
#include "command.h"
#include "configurationname.h"

namespace
{

constexpr gchar EXIT_STATUSES[] =
    "Exit status:\n"
    "  0  done\n"
    "  1  the daemon, the receiver or the bus policy refused\n"
    "  2  wrong usage\n"
    "  3  no connection to the bus, or the daemon or the receiver is not on it\n"
    "  4  no reply in time\n"
    "  5  the other side or the bus went away before the reply\n"
    "  6  the other side sent something of a wrong type\n"
    "  7  a file could not be read, or the output not written";

gboolean
parse_command_line(Arguments *arguments, const ArgumentRules *rules, const GOptionEntry *options, int argc,
                   char **argv, GError **error)
{
  const GOptionEntry entries[] = {
      {"bus", 0, 0, G_OPTION_ARG_FILENAME, &arguments->bus_address, "The bus (default: the system's)",
       "ADDRESS"},
      {G_OPTION_REMAINING, 0, 0, G_OPTION_ARG_FILENAME_ARRAY, &arguments->words, nullptr,
       *rules->names != '\0' ? rules->names : nullptr},
      {},
  };
  g_autoptr(GOptionContext) context = g_option_context_new(nullptr);
  g_autofree gchar *description =
      g_strconcat(rules->description != nullptr ? rules->description : "", EXIT_STATUSES, nullptr);

  g_option_context_set_summary(context, rules->summary);
  g_option_context_set_description(context, description);
  if (options != nullptr) {
    g_option_context_add_main_entries(context, options, nullptr);
  }
  g_option_context_add_main_entries(context, entries, nullptr);
  return g_option_context_parse(context, &argc, &argv, error);
}

gboolean
check_word_count(const Arguments *arguments, const gchar *names, GError **error)
{
  g_auto(GStrv) wanted = g_strsplit(names, " ", -1);
  const guint wanted_count = g_strv_length(wanted);
  const guint count = arguments->words != nullptr ? g_strv_length(arguments->words) : 0;

  if (count < wanted_count) {
    g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_USAGE, "Missing argument %s.", wanted[count]);
    return FALSE;
  }
  if (count > wanted_count) {
    g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_USAGE, "Unexpected argument '%s'.",
                arguments->words[wanted_count]);
    return FALSE;
  }
  return TRUE;
}

} // namespace

Arguments::~Arguments()
{
  g_free(bus_address);
  g_strfreev(words);
}

/**
 * arguments_parse:
 * @arguments: (transfer none): as constructed; filled in
 * @rules: (transfer none): the arguments of the command, and its help
 * @options: (transfer none) (nullable): options in addition to "--bus", to be filled in
 * @argc: number of arguments
 * @argv: (transfer none): the arguments, from the command's name on
 * @error: return location for an error, whose message is for the user
 *
 * Parses the command line. "--help" prints the help and exits.
 *
 * Returns: %FALSE when the command line is wrong
 */
gboolean
arguments_parse(Arguments *arguments, const ArgumentRules *rules, const GOptionEntry *options, int argc,
                char **argv, GError **error)
{
  return parse_command_line(arguments, rules, options, argc, argv, error) &&
         command_check_not_empty("--bus", arguments->bus_address, error) &&
         check_word_count(arguments, rules->names, error);
}

/**
 * arguments_check_configuration:
 * @text: (transfer none): the argument CONFIGURATION
 * @error: return location for an error, whose message is for the user
 *
 * Returns: whether the bus can carry @text, and producers can have it in their frames
 */
gboolean
arguments_check_configuration(const gchar *text, GError **error)
{
  if (!g_utf8_validate(text, -1, nullptr)) {
    g_set_error_literal(error, TESSARDCTL_ERROR, EXIT_STATUS_USAGE,
                        "The argument CONFIGURATION is not UTF-8.");
    return FALSE;
  }
  g_autofree gchar *fault = configuration_name_describe_fault(text);
  if (fault != nullptr) {
    g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_USAGE, "The argument CONFIGURATION %s.", fault);
    return FALSE;
  }
  return TRUE;
}

/**
 * arguments_parse_channel:
 * @text: (transfer none): the argument CHANNEL
 * @channel: (out): the channel's number
 * @error: return location for an error, whose message is for the user
 *
 * Parses a decimal number. The daemon decides whether that channel exists.
 *
 * Returns: %FALSE when the bus cannot carry the number
 */
gboolean
arguments_parse_channel(const gchar *text, gint32 *channel, GError **error)
{
  gint64 number = 0;

  if (!g_ascii_string_to_signed(text, 10, G_MININT32, G_MAXINT32, &number, nullptr)) {
    g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_USAGE,
                "The argument CHANNEL is '%s', not a whole number of 32 bits.", text);
    return FALSE;
  }
  *channel = static_cast<gint32>(number);
  return TRUE;
}
