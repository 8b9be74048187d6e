/* The commands that ask the daemon one thing and end: what producers there are, and to enable or disable
 * them.
 *
 * Each reads its command line, connects, asks and prints, and stops at the first of these that fails.
 */
#include "producercommands.h"
#include "applyfile.h"
#include "arguments.h"
#include "command.h"
#include "output.h"
#include "producerbus.h"
#include "producertable.h"

namespace
{

constexpr ArgumentRules PRODUCERS_RULES = {
    "",
    "Lists the analytics producers and the channels that they support.",
    nullptr,
};

constexpr ArgumentRules SHOW_RULES = {
    "NAME",
    "Prints all about one analytics producer, with its sample frame.",
    nullptr,
};

constexpr ArgumentRules ENABLE_RULES = {
    "NAME CHANNEL CONFIGURATION",
    "Enables an analytics producer on a video channel, under the name of a configuration.",
    "Example:\n"
    "  tessardctl enable VideoMotionTracker 1 profile1\n"
    "\n",
};

constexpr ArgumentRules DISABLE_RULES = {
    "NAME CHANNEL",
    "Disables an analytics producer on a video channel.",
    "Example:\n"
    "  tessardctl disable VideoMotionTracker 1\n"
    "\n",
};

constexpr ArgumentRules APPLY_RULES = {
    "FILE",
    "Enables and disables many at once, as the file says; '-' is standard input.\n"
    "The file has the form that 'tessardctl producers --json' prints. Channels that are\n"
    "not in it stay as they are. Where one of them is wrong the daemon changes none.",
    "Example:\n"
    "  tessardctl producers --json > before.json\n"
    "  tessardctl apply before.json\n"
    "      back to how things were\n"
    "\n",
};

struct ProducersOptions {
  ProducersOptions() = default;
  ProducersOptions(const ProducersOptions &) = delete;
  ProducersOptions &operator=(const ProducersOptions &) = delete;
  ~ProducersOptions()
  {
    g_free(channels_of);
  }

  gboolean json = FALSE;
  gboolean names = FALSE;
  gchar *channels_of = nullptr;
};

gboolean
parse_producers(Arguments *arguments, ProducersOptions *options, int argc, char **argv, GError **error)
{
  const GOptionEntry entries[] = {
      {"json", 0, 0, G_OPTION_ARG_NONE, &options->json, "Print JSON, which 'tessardctl apply' takes",
       nullptr},
      {"names", 0, 0, G_OPTION_ARG_NONE, &options->names, "Print the names alone", nullptr},
      {"channels", 0, 0, G_OPTION_ARG_FILENAME, &options->channels_of,
       "Print the numbers of one producer's channels alone", "NAME"},
      {},
  };

  if (!arguments_parse(arguments, &PRODUCERS_RULES, entries, argc, argv, error)) {
    return FALSE;
  }
  if ((options->json ? 1 : 0) + (options->names ? 1 : 0) + (options->channels_of != nullptr ? 1 : 0) > 1) {
    g_set_error_literal(error, TESSARDCTL_ERROR, EXIT_STATUS_USAGE,
                        "Only one of --json, --names and --channels is allowed.");
    return FALSE;
  }
  return TRUE;
}

gchar *
format_channels_of(const Producers &producers, const gchar *name, GError **error)
{
  const Producer *producer = producers_find(producers, name, error);

  return producer != nullptr ? producer_table_format_channels(*producer) : nullptr;
}

gchar *
format_producers(const Producers &producers, const ProducersOptions *options, GError **error)
{
  if (options->json) {
    return producer_table_format_json(producers);
  }
  if (options->names) {
    return producer_table_format_names(producers);
  }
  if (options->channels_of != nullptr) {
    return format_channels_of(producers, options->channels_of, error);
  }
  return producer_table_format(producers);
}

gboolean
print_producers(const gchar *bus_address, const ProducersOptions *options, GError **error)
{
  g_autoptr(GDBusConnection) connection = producer_bus_connect(bus_address, error);
  if (connection == nullptr) {
    return FALSE;
  }
  const std::optional<Producers> producers = producers_fetch(connection, error);
  if (!producers.has_value()) {
    return FALSE;
  }
  g_autofree gchar *text = format_producers(*producers, options, error);
  return text != nullptr && output_write(text, error);
}

gboolean
print_producer(const gchar *bus_address, const gchar *name, GError **error)
{
  g_autoptr(GDBusConnection) connection = producer_bus_connect(bus_address, error);
  if (connection == nullptr) {
    return FALSE;
  }
  const std::optional<Producers> producers = producers_fetch(connection, error);
  const Producer *producer = producers.has_value() ? producers_find(*producers, name, error) : nullptr;
  if (producer == nullptr) {
    return FALSE;
  }
  g_autofree gchar *text = producer_table_format_one(*producer);
  return output_write(text, error);
}

/* The object is looked up, not put together from the name: what is not there then has a name in the error,
 * and no name needs to be a path. */
gboolean
set_channel_enabled(const gchar *bus_address, const gchar *name, const ProducerChannel &channel,
                    GError **error)
{
  g_autoptr(GDBusConnection) connection = producer_bus_connect(bus_address, error);
  if (connection == nullptr) {
    return FALSE;
  }
  const std::optional<Producers> producers = producers_fetch(connection, error);
  const Producer *producer = producers.has_value() ? producers_find(*producers, name, error) : nullptr;
  if (producer == nullptr) {
    return FALSE;
  }

  GVariant *tuple = g_variant_new("(ibs)", channel.channel, channel.enabled, channel.configuration.c_str());
  GVariant *channels = g_variant_new_array(G_VARIANT_TYPE("(ibs)"), &tuple, 1);
  g_autoptr(GVariant) reply =
      producer_bus_call(connection, producer->path.c_str(), PRODUCER_BUS_PRODUCER, "SetChannelsEnabled",
                        g_variant_new_tuple(&channels, 1), G_VARIANT_TYPE_UNIT, 1, error);
  return reply != nullptr;
}

gboolean
apply_request(const gchar *bus_address, GVariant *request, gsize change_count, GError **error)
{
  g_autoptr(GDBusConnection) connection = producer_bus_connect(bus_address, error);
  if (connection == nullptr) {
    return FALSE;
  }
  g_autoptr(GVariant) reply =
      producer_bus_call(connection, PRODUCER_BUS_ROOT, PRODUCER_BUS_MANAGER, "SetProducersEnabled",
                        g_variant_new_tuple(&request, 1), G_VARIANT_TYPE_UNIT, change_count, error);
  return reply != nullptr;
}

} // namespace

/**
 * producers_command_run:
 * @argc: number of arguments
 * @argv: (transfer none): the arguments, from the sub-command's name on
 *
 * Runs "tessardctl producers". SIGPIPE must be ignored. Main thread.
 *
 * Returns: the exit status
 */
int
producers_command_run(int argc, char **argv)
{
  Arguments arguments;
  ProducersOptions options;
  g_autoptr(GError) error = nullptr;

  if (!parse_producers(&arguments, &options, argc, argv, &error)) {
    return command_usage_error(error->message);
  }
  print_producers(arguments.bus_address, &options, &error);
  return command_report_outcome(error);
}

/**
 * show_command_run:
 * @argc: number of arguments
 * @argv: (transfer none): the arguments, from the sub-command's name on
 *
 * Runs "tessardctl show". SIGPIPE must be ignored. Main thread.
 *
 * Returns: the exit status
 */
int
show_command_run(int argc, char **argv)
{
  Arguments arguments;
  g_autoptr(GError) error = nullptr;

  if (!arguments_parse(&arguments, &SHOW_RULES, nullptr, argc, argv, &error)) {
    return command_usage_error(error->message);
  }
  print_producer(arguments.bus_address, arguments.words[0], &error);
  return command_report_outcome(error);
}

/**
 * enable_command_run:
 * @argc: number of arguments
 * @argv: (transfer none): the arguments, from the sub-command's name on
 *
 * Runs "tessardctl enable". Main thread.
 *
 * Returns: the exit status
 */
int
enable_command_run(int argc, char **argv)
{
  Arguments arguments;
  ProducerChannel channel;
  g_autoptr(GError) error = nullptr;

  if (!arguments_parse(&arguments, &ENABLE_RULES, nullptr, argc, argv, &error) ||
      !arguments_parse_channel(arguments.words[1], &channel.channel, &error) ||
      !arguments_check_configuration(arguments.words[2], &error)) {
    return command_usage_error(error->message);
  }
  channel.enabled = TRUE;
  channel.configuration = arguments.words[2];
  set_channel_enabled(arguments.bus_address, arguments.words[0], channel, &error);
  return command_report_outcome(error);
}

/**
 * disable_command_run:
 * @argc: number of arguments
 * @argv: (transfer none): the arguments, from the sub-command's name on
 *
 * Runs "tessardctl disable". Main thread.
 *
 * Returns: the exit status
 */
int
disable_command_run(int argc, char **argv)
{
  Arguments arguments;
  ProducerChannel channel;
  g_autoptr(GError) error = nullptr;

  if (!arguments_parse(&arguments, &DISABLE_RULES, nullptr, argc, argv, &error) ||
      !arguments_parse_channel(arguments.words[1], &channel.channel, &error)) {
    return command_usage_error(error->message);
  }
  set_channel_enabled(arguments.bus_address, arguments.words[0], channel, &error);
  return command_report_outcome(error);
}

/**
 * apply_command_run:
 * @argc: number of arguments
 * @argv: (transfer none): the arguments, from the sub-command's name on
 *
 * Runs "tessardctl apply". Main thread.
 *
 * Returns: the exit status
 */
int
apply_command_run(int argc, char **argv)
{
  Arguments arguments;
  gsize change_count = 0;
  g_autoptr(GError) error = nullptr;

  if (!arguments_parse(&arguments, &APPLY_RULES, nullptr, argc, argv, &error)) {
    return command_usage_error(error->message);
  }
  g_autoptr(GVariant) request = apply_file_read(arguments.words[0], &change_count, &error);
  if (request != nullptr) {
    apply_request(arguments.bus_address, request, change_count, &error);
  }
  return command_report_outcome(error);
}
