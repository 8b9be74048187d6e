/* SPDX-License-Identifier: MIT */
/* The commands with one request: to list producers, and to enable and disable them.
 *
 * Each parses its command line, connects, calls the daemon and prints, and stops at the first of these that
 * fails.
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
    "Prints all properties of an analytics producer, with its sample frame.",
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
    "Enables and disables many channels at once, from a file; '-' is standard input.\n"
    "The file has the form that 'tessardctl producers --json' prints. Channels that are\n"
    "not in it stay unchanged. If one of them is wrong, the daemon changes none.",
    "Example:\n"
    "  tessardctl producers --json > before.json\n"
    "  tessardctl apply before.json\n"
    "      restores the earlier state\n"
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

gchar *
format_channel_numbers(const Producer &producer)
{
  g_autoptr(GString) numbers = g_string_new(nullptr);

  for (const ProducerChannel &channel : producer.channels) {
    g_string_append_printf(numbers, "%s%d", numbers->len > 0 ? ", " : "", channel.channel);
  }
  return numbers->len > 0 ? g_string_free(g_steal_pointer(&numbers), FALSE) : g_strdup("none");
}

/* Appends the channels of @producer to a refusal when @channel is not one of them: the daemon's own text does
 * not name them. Returns whether it did. */
gboolean
add_channels_to_refusal(GError **error, const Producer &producer, gint32 channel)
{
  if (producer_find_channel(producer, channel) != nullptr) {
    return FALSE;
  }
  g_autofree gchar *numbers = format_channel_numbers(producer);
  g_autofree gchar *text =
      g_strdup_printf("%s. Channels of '%s': %s.", (*error)->message, producer.name.c_str(), numbers);
  g_clear_error(error);
  g_set_error_literal(error, TESSARDCTL_ERROR, EXIT_STATUS_REFUSED, text);
  return TRUE;
}

/* The same for the first such channel of a request to change many. */
void
explain_refused_request(GError **error, const Producers &producers, GVariant *request)
{
  for (gsize index = 0; index < g_variant_n_children(request); index++) {
    const gchar *name = nullptr;
    g_autoptr(GVariant) tuples = nullptr;
    g_variant_get_child(request, index, "{&s@a(ibs)}", &name, &tuples);
    const Producer *producer = producers_find(producers, name, nullptr);
    for (gsize tuple = 0; producer != nullptr && tuple < g_variant_n_children(tuples); tuple++) {
      gint32 channel = 0;
      g_variant_get_child(tuples, tuple, "(ibs)", &channel, nullptr, nullptr);
      if (add_channels_to_refusal(error, *producer, channel)) {
        return;
      }
    }
  }
}

/* The name selects the object in the daemon's list and is not part of a path: any name works, and an error
 * can name a producer that does not exist. */
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
  g_autoptr(GError) refusal = nullptr;
  g_autoptr(GVariant) reply =
      producer_bus_call(connection, producer->path.c_str(), PRODUCER_BUS_PRODUCER, "SetChannelsEnabled",
                        g_variant_new_tuple(&channels, 1), G_VARIANT_TYPE_UNIT, 1, &refusal);
  if (reply != nullptr) {
    return TRUE;
  }
  if (producer_bus_is_refusal_of_daemon(refusal)) {
    add_channels_to_refusal(&refusal, *producer, channel.channel);
  }
  g_propagate_error(error, g_steal_pointer(&refusal));
  return FALSE;
}

gboolean
apply_request(const gchar *bus_address, GVariant *request, gsize change_count, GError **error)
{
  g_autoptr(GDBusConnection) connection = producer_bus_connect(bus_address, error);
  if (connection == nullptr) {
    return FALSE;
  }
  g_autoptr(GError) refusal = nullptr;
  g_autoptr(GVariant) reply =
      producer_bus_call(connection, PRODUCER_BUS_ROOT, PRODUCER_BUS_MANAGER, "SetProducersEnabled",
                        g_variant_new_tuple(&request, 1), G_VARIANT_TYPE_UNIT, change_count, &refusal);
  if (reply != nullptr) {
    return TRUE;
  }
  const std::optional<Producers> producers =
      producer_bus_is_refusal_of_daemon(refusal) ? producers_fetch(connection, nullptr) : std::nullopt;
  if (producers.has_value()) {
    explain_refused_request(&refusal, *producers, request);
  }
  g_propagate_error(error, g_steal_pointer(&refusal));
  return FALSE;
}

} // namespace

/**
 * producers_command_run:
 * @argc: number of arguments
 * @argv: (transfer none): the arguments, from the command's name on
 *
 * Runs "tessardctl producers". SIGPIPE must be ignored.
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
 * @argv: (transfer none): the arguments, from the command's name on
 *
 * Runs "tessardctl show". SIGPIPE must be ignored.
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
 * @argv: (transfer none): the arguments, from the command's name on
 *
 * Runs "tessardctl enable".
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
 * @argv: (transfer none): the arguments, from the command's name on
 *
 * Runs "tessardctl disable".
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
 * @argv: (transfer none): the arguments, from the command's name on
 *
 * Runs "tessardctl apply".
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
