/* SPDX-License-Identifier: MIT */
/* The options of "tessardctl snapshot".
 *
 * The request is that of "tessardctl stream". A command line without a request asks for all objects of the
 * first channel.
 */
#include "snapshotoptions.h"
#include "command.h"
#include "metadataclient.h"

namespace
{

constexpr gchar STANDARD_OUTPUT[] = "-";

constexpr gchar DEFAULT_ANALYTICS[] = "2";
constexpr gchar DEFAULT_CHANNEL[] = "1";

constexpr gchar SUMMARY[] =
    "Draws the objects of one metadata document as SVG, for bug reports; '-' is standard output.\n"
    "Without a request, the document is the first one with objects on channel 1.";

constexpr gchar DESCRIPTION[] = "Examples:\n"
                                "  tessardctl snapshot scene.svg\n"
                                "      the next scene of the first channel\n"
                                "  tessardctl snapshot --analytics 2 --channel 2 --timeout 60 scene.svg\n"
                                "      the next scene of the second one, within a minute\n"
                                "  tessardctl snapshot --input scenes.xml -\n"
                                "      a document that was saved before\n"
                                "\n"
                                "Exit status:\n"
                                "  0  the file was written\n"
                                "  1  the daemon refused the request\n"
                                "  2  wrong usage\n"
                                "  3  no connection to the daemon\n"
                                "  4  no document with objects in time\n"
                                "  5  the daemon ended the connection\n"
                                "  6  the document is malformed or has no scene\n"
                                "  7  a file could not be read or written";

gboolean
parse_command_line(SnapshotOptions *options, gchar **timeout, int *argc, char ***argv, GError **error)
{
  const GOptionEntry entries[] = {
      {"channel", 0, 0, G_OPTION_ARG_FILENAME, &options->stream.request.channel,
       "Video channel of --analytics (default: 1)", "N"},
      {"socket", 0, 0, G_OPTION_ARG_FILENAME, &options->stream.socket_path,
       "The daemon's socket (default: $" METADATA_CLIENT_SOCKET_VARIABLE
       ", or " METADATA_CLIENT_DEFAULT_SOCKET ")",
       "PATH"},
      {"timeout", 0, 0, G_OPTION_ARG_FILENAME, timeout, "Fail after SECONDS without a scene (default: 30)",
       "SECONDS"},
      {"input", 0, 0, G_OPTION_ARG_FILENAME, &options->input_path,
       "Read the document from a file, not from the daemon; '-' is standard input", "FILE"},
      {},
  };
  g_autoptr(GOptionContext) context = g_option_context_new("FILE");

  g_option_context_set_summary(context, SUMMARY);
  g_option_context_set_description(context, DESCRIPTION);
  request_options_add(&options->stream.request, context);
  g_option_context_add_main_entries(context, entries, nullptr);
  return g_option_context_parse(context, argc, argv, error);
}

gboolean
take_file(SnapshotOptions *options, int argc, char **argv, GError **error)
{
  if (argc < 2) {
    g_set_error_literal(error, TESSARDCTL_ERROR, EXIT_STATUS_USAGE, "Missing argument FILE.");
    return FALSE;
  }
  if (argc > 2) {
    g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_USAGE, "Unexpected argument '%s'.", argv[2]);
    return FALSE;
  }
  if (!g_str_equal(argv[1], STANDARD_OUTPUT)) {
    options->stream.output_path = g_strdup(argv[1]);
  }
  return command_check_not_empty("FILE", argv[1], error);
}

void
count_key(const gchar *key, const gchar *value, gboolean is_text, gpointer user_data)
{
  (*static_cast<guint *>(user_data))++;
}

guint
count_keys(const RequestOptions *request)
{
  guint count = 0;

  request_options_foreach(request, count_key, &count);
  return count;
}

/* Also checks that only one source is given. */
gboolean
complete_source(SnapshotOptions *options, GError **error)
{
  RequestOptions &request = options->stream.request;

  if (options->input_path != nullptr && count_keys(&request) > 0) {
    g_set_error_literal(error, TESSARDCTL_ERROR, EXIT_STATUS_USAGE,
                        "Only one of --input and a request is allowed.");
    return FALSE;
  }
  if (request.channel == nullptr) {
    request.channel = g_strdup(DEFAULT_CHANNEL);
  }
  if (count_keys(&request) == 1) {
    request.analytics = g_strdup(DEFAULT_ANALYTICS);
  }
  if (options->stream.socket_path == nullptr) {
    options->stream.socket_path = g_strdup(metadata_client_get_default_socket());
  }
  return TRUE;
}

} // namespace

SnapshotOptions::~SnapshotOptions()
{
  g_free(input_path);
}

/**
 * snapshot_options_parse:
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
snapshot_options_parse(SnapshotOptions *options, int argc, char **argv, GError **error)
{
  g_autofree gchar *timeout = nullptr;

  options->stream.timeout_ms = SNAPSHOT_TIMEOUT_MS;
  return parse_command_line(options, &timeout, &argc, &argv, error) &&
         take_file(options, argc, argv, error) && request_options_check(&options->stream.request, error) &&
         command_check_not_empty("--socket", options->stream.socket_path, error) &&
         command_check_not_empty("--input", options->input_path, error) && complete_source(options, error) &&
         stream_options_parse_timeout(timeout, &options->stream.timeout_ms, error);
}
