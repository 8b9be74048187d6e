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

#include <array>
#include <cmath>
#include <cstring>

namespace
{

constexpr gchar STANDARD_OUTPUT[] = "-";

constexpr gdouble MIN_TIMEOUT_SECONDS = 0.001;
constexpr gdouble MAX_TIMEOUT_SECONDS = 30.0 * 24 * 60 * 60;

constexpr gchar PARAGRAPH_SEPARATOR[] = "\xe2\x80\xa9";

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

enum class ValueKind {
  TEXT,  /* sent escaped, so any bytes are valid */
  PLAIN, /* sent unchanged */
};

struct RequestKey {
  const gchar *key;
  const gchar *option;
  gchar *StreamOptions::*value;
  ValueKind kind;
};

constexpr std::array REQUEST_KEYS = {
    RequestKey{"event_topic", "--event-topic", &StreamOptions::event_topic, ValueKind::TEXT},
    RequestKey{"event_content", "--event-content", &StreamOptions::event_content, ValueKind::TEXT},
    RequestKey{"analytics", "--analytics", &StreamOptions::analytics, ValueKind::PLAIN},
    RequestKey{"video_channel", "--channel", &StreamOptions::channel, ValueKind::PLAIN},
    RequestKey{"ptz", "--ptz", &StreamOptions::ptz, ValueKind::PLAIN},
    RequestKey{"ptz_pantilt_coordinate_space", "--pantilt-space", &StreamOptions::pantilt_space,
               ValueKind::PLAIN},
    RequestKey{"ptz_zoom_coordinate_space", "--zoom-space", &StreamOptions::zoom_space, ValueKind::PLAIN},
};

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
      {"event", 0, 0, G_OPTION_ARG_NONE, &options->event, "Ask for events", nullptr},
      {"event-topic", 0, 0, G_OPTION_ARG_FILENAME, &options->event_topic,
       "Ask for events that match a topic expression", "TEXT"},
      {"event-content", 0, 0, G_OPTION_ARG_FILENAME, &options->event_content,
       "Ask for events that match a message content filter", "TEXT"},
      {"analytics", 0, 0, G_OPTION_ARG_FILENAME, &options->analytics,
       "Ask for detected objects: 1 with bounding boxes, 2 with polygons too", "N"},
      {"ptz", 0, 0, G_OPTION_ARG_FILENAME, &options->ptz,
       "Ask for pan, tilt and zoom: 1 status and position, 2 position, 3 status", "N"},
      {"pantilt-space", 0, 0, G_OPTION_ARG_FILENAME, &options->pantilt_space,
       "Coordinate space of pan and tilt, 0 to 2", "N"},
      {"zoom-space", 0, 0, G_OPTION_ARG_FILENAME, &options->zoom_space, "Coordinate space of zoom, 0 to 2",
       "N"},
      {"channel", 0, 0, G_OPTION_ARG_FILENAME, &options->channel, "Video channel of --analytics and --ptz",
       "N"},
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
  g_option_context_add_main_entries(context, entries, nullptr);
  return g_option_context_parse(context, argc, argv, error);
}

/* For the daemon, a carriage return and a paragraph separator end a line too. */
gboolean
check_one_line(const gchar *option, const gchar *value, GError **error)
{
  if (value != nullptr &&
      (strpbrk(value, "\r\n") != nullptr || strstr(value, PARAGRAPH_SEPARATOR) != nullptr)) {
    g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_USAGE, "The value of %s has more than one line.",
                option);
    return FALSE;
  }
  return TRUE;
}

gboolean
check_values(const StreamOptions *options, GError **error)
{
  for (const RequestKey &key : REQUEST_KEYS) {
    const gchar *value = options->*key.value;
    if (key.kind == ValueKind::PLAIN &&
        (!command_check_not_empty(key.option, value, error) || !check_one_line(key.option, value, error))) {
      return FALSE;
    }
  }
  return command_check_not_empty("--socket", options->socket_path, error) &&
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

gboolean
parse_timeout(const gchar *text, guint *timeout_ms, GError **error)
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

} // namespace

StreamOptions::~StreamOptions()
{
  g_free(event_topic);
  g_free(event_content);
  g_free(analytics);
  g_free(ptz);
  g_free(pantilt_space);
  g_free(zoom_space);
  g_free(channel);
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
         parse_timeout(numbers.timeout, &options->timeout_ms, error);
}

/**
 * stream_options_build_request:
 * @options: (transfer none): parsed options
 *
 * A filter of events requests events as well.
 *
 * Returns: (transfer full): the request's text, from "OPEN" to the empty line
 */
gchar *
stream_options_build_request(const StreamOptions *options)
{
  GString *request = metadata_request_new();

  if (options->event || options->event_topic != nullptr || options->event_content != nullptr) {
    metadata_request_add(request, "event", "1");
  }
  for (const RequestKey &key : REQUEST_KEYS) {
    const gchar *value = options->*key.value;
    if (value != nullptr) {
      const auto add = key.kind == ValueKind::TEXT ? metadata_request_add_text : metadata_request_add;
      add(request, key.key, value);
    }
  }
  return metadata_request_finish(request);
}
