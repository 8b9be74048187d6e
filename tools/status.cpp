/* SPDX-License-Identifier: MIT */
/* The command that prints the daemon's status. The daemon has counters and no rates: the table's rates are
 * the difference of two readings. */
#include "status.h"
#include "arguments.h"
#include "command.h"
#include "output.h"
#include "producerbus.h"
#include "statusjson.h"
#include "statusmetrics.h"
#include "statustable.h"

namespace
{

constexpr ArgumentRules STATUS_RULES = {
    "",
    "Prints the clients of the daemon, its external producers, and how much of its limits is in use.\n"
    "The table has the rates of one second.",
    "Example:\n"
    "  tessardctl status --metrics > tessard.prom.new && mv tessard.prom.new tessard.prom\n"
    "      in the textfile folder of a node exporter\n"
    "\n",
};

struct StatusOptions {
  gboolean json = FALSE;
  gboolean metrics = FALSE;
};

gboolean
parse_status(Arguments *arguments, StatusOptions *options, int argc, char **argv, GError **error)
{
  const GOptionEntry entries[] = {
      {"json", 0, 0, G_OPTION_ARG_NONE, &options->json, "Print JSON", nullptr},
      {"metrics", 0, 0, G_OPTION_ARG_NONE, &options->metrics, "Print OpenMetrics text", nullptr},
      {},
  };

  if (!arguments_parse(arguments, &STATUS_RULES, entries, argc, argv, error)) {
    return FALSE;
  }
  if (options->json && options->metrics) {
    g_set_error_literal(error, TESSARDCTL_ERROR, EXIT_STATUS_USAGE,
                        "Only one of --json and --metrics is allowed.");
    return FALSE;
  }
  return TRUE;
}

gchar *
format_table(GDBusConnection *connection, const DaemonStatus &earlier, GError **error)
{
  g_usleep(STATUS_INTERVAL_MS * G_TIME_SPAN_MILLISECOND);
  const std::optional<DaemonStatus> status = daemon_status_fetch(connection, error);

  return status.has_value() ? status_table_format(earlier, *status) : nullptr;
}

gchar *
format_status(GDBusConnection *connection, const StatusOptions *options, GError **error)
{
  const std::optional<DaemonStatus> status = daemon_status_fetch(connection, error);

  if (!status.has_value()) {
    return nullptr;
  }
  if (options->json) {
    return status_json_format(*status);
  }
  return options->metrics ? status_metrics_format(*status) : format_table(connection, *status, error);
}

gboolean
print_status(const gchar *bus_address, const StatusOptions *options, GError **error)
{
  g_autoptr(GDBusConnection) connection = producer_bus_connect(bus_address, error);
  g_autofree gchar *text = connection != nullptr ? format_status(connection, options, error) : nullptr;

  return text != nullptr && output_write(text, error);
}

} // namespace

/**
 * status_command_run:
 * @argc: number of arguments
 * @argv: (transfer none): the arguments, from the command's name on
 *
 * Runs "tessardctl status". SIGPIPE must be ignored.
 *
 * Returns: the exit status
 */
int
status_command_run(int argc, char **argv)
{
  Arguments arguments;
  StatusOptions options;
  g_autoptr(GError) error = nullptr;

  if (!parse_status(&arguments, &options, argc, argv, &error)) {
    return command_usage_error(error->message);
  }
  print_status(arguments.bus_address, &options, &error);
  return command_report_outcome(error);
}
