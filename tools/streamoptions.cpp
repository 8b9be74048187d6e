/* SPDX-License-Identifier: MIT */
/* The options of "tessardctl stream" and the request that they form.
 *
 * The daemon validates the request. A usage error is only a value that does not fit one header line, and a
 * wrong value of an option that the daemon does not get. All texts are raw bytes, not in the locale's
 * encoding, because the daemon gets exactly the bytes of the command line.
 */
#include "streamoptions.h"
#include "command.h"
#include "metadataclient.h"
#include "metadatarequest.h"

#include <cmath>

namespace
{

constexpr gchar STANDARD_OUTPUT[] = "-";

constexpr gdouble MIN_TIMEOUT_SECONDS = 0.001;
constexpr gdouble MAX_TIMEOUT_SECONDS = 30.0 * 24 * 60 * 60;

constexpr gchar SUMMARY[] =
    "Requests metadata from tessard and prints it as it arrives: ONVIF documents, one per line.\n"
    "A request names at least one kind of metadata; the daemon validates the values.";

constexpr gchar DESCRIPTION[] =
    "Examples:\n"
    "  tessardctl stream --event\n"
    "      every event, until Ctrl-C\n"
    "  tessardctl stream --event-topic 'tns1:Device//.|tns1:VideoSource//.' --count 1 --pretty\n"
    "      the first event of two families of topics, indented\n"
    "  tessardctl stream --analytics 2 --ptz 1 --channel 1 --timeout 60 --output scenes.xml\n"
    "      objects with polygons and the camera head's position, for a minute, into a file\n"
    "\n"
    "Exit status:\n"
    "  0  the stream was printed until --count or --timeout, Ctrl-C, SIGTERM, or until its reader hung up\n"
    "  1  the daemon refused the request\n"
    "  2  wrong usage\n"
    "  3  no connection to the daemon\n"
    "  4  --timeout expired before the daemon's reply, or before --count documents had arrived\n"
    "  5  the daemon ended the connection\n"
    "  6  the daemon sent a malformed reply or stream\n"
    "  7  the output could not be written";

/* Numbers that GLib's parser would read in octal, or accept as infinite, are parsed from text. */
struct NumberTexts {
  NumberTexts() = default;
  NumberTexts(const NumberTexts &) = delete;
  NumberTexts &operator=(const NumberTexts &) = delete;
  ~NumberTexts()
  {
    g_free(count);
    g_free(timeout);
  }

  gchar *count = nullptr;
  gchar *timeout = nullptr;
};

gboolean
parse_command_line(StreamOptions *options, NumberTexts *numbers, int *argc, char ***argv, GError **error)
{
  const GOptionEntry entries[] = {
      {"channel", 0, 0, G_OPTION_ARG_FILENAME, &options->request.channel,
       "Video channel of --analytics and --ptz", "N"},
      {"socket", 0, 0, G_OPTION_ARG_FILENAME, &options->socket_path,
       "The daemon's socket (default: $" METADATA_CLIENT_SOCKET_VARIABLE
       ", or " METADATA_CLIENT_DEFAULT_SOCKET ")",
       "PATH"},
      {"count", 0, 0, G_OPTION_ARG_FILENAME, &numbers->count, "Stop after N documents", "N"},
      {"timeout", 0, 0, G_OPTION_ARG_FILENAME, &numbers->timeout,
       "Stop after SECONDS, including the time to connect; fractions are allowed", "SECONDS"},
      {"sync", 0, 0, G_OPTION_ARG_NONE, &options->sync,
       "Once the stream has started, ask for the current state of everything", nullptr},
      {"pretty", 0, 0, G_OPTION_ARG_NONE, &options->pretty, "Print indented XML, several lines per document",
       nullptr},
      {"output", 0, 0, G_OPTION_ARG_FILENAME, &options->output_path,
       "Write to a file instead of standard output; '-' is standard output", "FILE"},
      {},
  };
  g_autoptr(GOptionContext) context = g_option_context_new(nullptr);

  g_option_context_set_summary(context, SUMMARY);
  g_option_context_set_description(context, DESCRIPTION);
  request_options_add(&options->request, context);
  g_option_context_add_main_entries(context, entries, nullptr);
  return g_option_context_parse(context, argc, argv, error);
}

gboolean
check_values(const StreamOptions *options, GError **error)
{
  return request_options_check(&options->request, error) &&
         command_check_not_empty("--socket", options->socket_path, error) &&
         command_check_not_empty("--output", options->output_path, error);
}

gboolean
parse_count(const gchar *text, guint64 *count, GError **error)
{
  if (text == nullptr || g_ascii_string_to_unsigned(text, 10, 1, G_MAXINT64, count, nullptr)) {
    return TRUE;
  }
  g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_USAGE,
              "The value of --count is '%s', not a whole number from 1 on.", text);
  return FALSE;
}

void
add_key(const gchar *key, const gchar *value, gboolean is_text, gpointer user_data)
{
  const auto add = is_text ? metadata_request_add_text : metadata_request_add;
  add(static_cast<GString *>(user_data), key, value);
}

} // namespace

StreamOptions::~StreamOptions()
{
  g_free(socket_path);
  g_free(output_path);
}

/**
 * stream_options_parse:
 * @options: (transfer none): as constructed; filled in
 * @argc: number of arguments
 * @argv: (transfer none): the arguments, from the command's name on
 * @error: return location for an error, whose message is for the user
 *
 * Parses the command line. "--help" prints the help and exits.
 *
 * Returns: %FALSE when the command line is wrong
 */
gboolean
stream_options_parse(StreamOptions *options, int argc, char **argv, GError **error)
{
  NumberTexts numbers;

  if (!parse_command_line(options, &numbers, &argc, &argv, error)) {
    return FALSE;
  }
  if (argc > 1) {
    g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_USAGE, "Unexpected argument '%s'.", argv[1]);
    return FALSE;
  }
  if (options->socket_path == nullptr) {
    options->socket_path = g_strdup(metadata_client_get_default_socket());
  }
  if (g_strcmp0(options->output_path, STANDARD_OUTPUT) == 0) {
    g_clear_pointer(&options->output_path, g_free);
  }
  return check_values(options, error) && parse_count(numbers.count, &options->count, error) &&
         stream_options_parse_timeout(numbers.timeout, &options->timeout_ms, error);
}

/**
 * stream_options_parse_timeout:
 * @text: (transfer none) (nullable): the value of --timeout, %NULL without the option
 * @timeout_ms: (inout): the time in milliseconds; unchanged without the option
 * @error: return location for an error, whose message is for the user
 *
 * Returns: %FALSE when the value is not a number of seconds in the range
 */
gboolean
stream_options_parse_timeout(const gchar *text, guint *timeout_ms, GError **error)
{
  if (text == nullptr) {
    return TRUE;
  }

  gchar *end = nullptr;
  const gdouble seconds = g_ascii_strtod(text, &end);
  if (end == text || *end != '\0' || !(seconds >= MIN_TIMEOUT_SECONDS && seconds <= MAX_TIMEOUT_SECONDS)) {
    g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_USAGE,
                "The value of --timeout is '%s', not a number of seconds from %g to %.0f.", text,
                MIN_TIMEOUT_SECONDS, MAX_TIMEOUT_SECONDS);
    return FALSE;
  }
  *timeout_ms = static_cast<guint>(std::lround(seconds * 1000));
  return TRUE;
}

/**
 * stream_options_build_request:
 * @options: (transfer none): parsed options
 *
 * Returns: (transfer full): the request's text, from "OPEN" to the empty line
 */
gchar *
stream_options_build_request(const StreamOptions *options)
{
  GString *request = metadata_request_new();

  request_options_foreach(&options->request, add_key, request);
  return metadata_request_finish(request);
}
