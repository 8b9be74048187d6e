/* SPDX-License-Identifier: MIT */
#include "viewoptions.h"

#include "gatewayprogram.h"
#include "metadataclient.h"
#include "viewlimits.h"

namespace view
{

namespace
{

constexpr gint DEFAULT_PORT = 8480;

constexpr const char *SUMMARY =
    "Shows the metadata of tessard in a browser on this machine: objects, events, PTZ and producers.\n"
    "Without an option of the request, all kinds of metadata are shown.";

constexpr const char *DESCRIPTION =
    "Examples:\n"
    "  tessard-view\n"
    "      all metadata, on http://127.0.0.1:8480/\n"
    "  tessard-view --control --video test\n"
    "      with switches for the producers, and a test picture\n"
    "  tessard-view --channels 2 --analytics 2 --video 'v4l2src device=/dev/video0' --video test\n"
    "      the objects of two channels, each with a picture\n";

bool
parse_command_line(Options *options, int *argc, char ***argv, GError **error)
{
  const GOptionEntry entries[] = {
      {"socket", 0, 0, G_OPTION_ARG_FILENAME, &options->socket_path,
       "The daemon's socket (default: $" METADATA_CLIENT_SOCKET_VARIABLE
       ", or " METADATA_CLIENT_DEFAULT_SOCKET ")",
       "PATH"},
      {"bus", 0, 0, G_OPTION_ARG_STRING, &options->bus_address,
       "The bus of the daemon (default: the system bus)", "ADDRESS"},
      {"port", 0, 0, G_OPTION_ARG_INT, &options->port,
       "The port at 127.0.0.1 (default: 8480); 0 for any that is free", "N"},
      {"listen", 0, 0, G_OPTION_ARG_FILENAME, &options->listen_path,
       "Serve at a UNIX socket instead of a port", "PATH"},
      {"channels", 0, 0, G_OPTION_ARG_INT, &options->channels, "The number of video channels (default: 1)",
       "N"},
      {"video", 0, 0, G_OPTION_ARG_STRING_ARRAY, &options->videos,
       "The video of a channel, in the syntax of gst-launch-1.0, or 'test' for a test picture; the first one "
       "is for channel 1",
       "LINE"},
      {"control", 0, 0, G_OPTION_ARG_NONE, &options->control,
       "Let the page switch producers, for browsers that know the printed address", nullptr},
      {"version", 'V', 0, G_OPTION_ARG_NONE, &options->version, "Print the version and exit", nullptr},
      {},
  };
  g_autoptr(GOptionContext) context = g_option_context_new(nullptr);
  g_option_context_set_summary(context, SUMMARY);
  g_option_context_set_description(context, DESCRIPTION);
  request_options_add(&options->request, context);
  g_option_context_add_main_entries(context, entries, nullptr);
  return g_option_context_parse(context, argc, argv, error) != FALSE;
}

/* What is not asked for is not shown. */
void
set_default_kinds(RequestOptions *request)
{
  if (!request_options_has_kind(request)) {
    request->event = TRUE;
    request->analytics = g_strdup("2");
    request->ptz = g_strdup("1");
  }
}

bool
check(const Options &options, GError **error)
{
  if (options.listen_path != nullptr && options.port != NO_PORT) {
    return gateway::refuse_option("--port and --listen exclude each other.", error);
  }
  if (options.port != NO_PORT &&
      !gateway::check_option_number("--port", options.port, 0, G_MAXUINT16, error)) {
    return false;
  }
  if (!gateway::check_option_number("--channels", options.channels, 1, VIEW_CHANNELS_MAX, error)) {
    return false;
  }
  if (options.videos != nullptr && g_strv_length(options.videos) > static_cast<guint>(options.channels)) {
    return gateway::refuse_option("There are more videos than channels.", error);
  }
  return true;
}

} // namespace

Options::~Options()
{
  g_free(socket_path);
  g_free(bus_address);
  g_free(listen_path);
  g_strfreev(videos);
}

/**
 * parse_options:
 * @options: as constructed; filled in
 * @argc: the number of arguments
 * @argv: the arguments
 * @error: return location for an error of %G_OPTION_ERROR, whose message is for the user
 *
 * Parses the command line. "--help" prints the help and exits.
 *
 * Returns: %FALSE if the command line is wrong
 */
bool
parse_options(Options *options, int *argc, char ***argv, GError **error)
{
  if (!parse_command_line(options, argc, argv, error)) {
    return false;
  }
  if (options->version) {
    return true;
  }
  if (*argc > 1) {
    return gateway::refuse_option("Too many arguments.", error);
  }
  if (!request_options_check(&options->request, error) || !check(*options, error)) {
    return false;
  }
  set_default_kinds(&options->request);
  if (options->socket_path == nullptr) {
    options->socket_path = g_strdup(metadata_client_get_default_socket());
  }
  if (options->port == NO_PORT) {
    options->port = DEFAULT_PORT;
  }
  return true;
}

} // namespace view
