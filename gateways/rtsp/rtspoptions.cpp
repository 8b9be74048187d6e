/* SPDX-License-Identifier: MIT */
#include "rtspoptions.h"

#include "gatewayprogram.h"
#include "metadataclient.h"
#include "rtsplimits.h"

#include <gio/gio.h>

namespace rtsp
{

namespace
{

constexpr const char *DEFAULT_ADDRESS = "127.0.0.1";

constexpr const char *SUMMARY =
    "Serves the metadata of tessard over RTSP, beside a video: rtsp://ADDRESS:PORT/1 is video channel 1.\n"
    "The metadata of a request is the same as that of 'tessardctl stream'.";

constexpr const char *DESCRIPTION =
    "Examples:\n"
    "  tessard-rtsp --event --analytics 2\n"
    "      events and objects beside a test picture, on rtsp://127.0.0.1:8554/1\n"
    "  tessard-rtsp --analytics 2 --video 'v4l2src device=/dev/video0'\n"
    "      objects beside the picture of a camera\n"
    "  tessard-rtsp --event --no-video --address 0.0.0.0 --users users\n"
    "      events alone, for users of the network with a password";

bool
parse_command_line(Options *options, int *argc, char ***argv, GError **error)
{
  const GOptionEntry entries[] = {
      {"socket", 0, 0, G_OPTION_ARG_FILENAME, &options->socket_path,
       "The daemon's socket (default: $" METADATA_CLIENT_SOCKET_VARIABLE
       ", or " METADATA_CLIENT_DEFAULT_SOCKET ")",
       "PATH"},
      {"port", 0, 0, G_OPTION_ARG_INT, &options->port, "The port (default: 8554); 0 for any that is free",
       "N"},
      {"address", 0, 0, G_OPTION_ARG_STRING, &options->address,
       "The address of the server (default: 127.0.0.1)", "ADDRESS"},
      {"channels", 0, 0, G_OPTION_ARG_INT, &options->channels,
       "The number of video channels, each a mount: /1, /2, ... (default: 1)", "N"},
      {"video", 0, 0, G_OPTION_ARG_STRING_ARRAY, &options->videos,
       "The video of a channel, in the syntax of gst-launch-1.0 (default: a test picture); the last one is "
       "for further channels, too",
       "LINE"},
      {"no-video", 0, 0, G_OPTION_ARG_NONE, &options->no_video, "Serve the metadata alone", nullptr},
      {"gzip", 0, 0, G_OPTION_ARG_NONE, &options->gzip, "Compress the metadata", nullptr},
      {"users", 0, 0, G_OPTION_ARG_FILENAME, &options->users,
       "A file with users and passwords, as htdigest writes it for the realm tessard", "FILE"},
      {"no-authentication", 0, 0, G_OPTION_ARG_NONE, &options->no_authentication,
       "Let clients in without a password, also at another address", nullptr},
      {"certificate", 0, 0, G_OPTION_ARG_FILENAME, &options->certificate,
       "Serve over TLS, with the certificate of this PEM file", "FILE"},
      {"key", 0, 0, G_OPTION_ARG_FILENAME, &options->key, "The PEM file with the certificate's key", "FILE"},
      {"multicast", 0, 0, G_OPTION_ARG_STRING, &options->multicast,
       "Let clients ask for multicast to this group, or a group of this range", "FIRST[-LAST]"},
      {"ttl", 0, 0, G_OPTION_ARG_INT, &options->ttl, "How far multicast goes (default: 1)", "N"},
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

/* Outside of this machine, clients must have a password, unless both the address and --no-authentication say
 * otherwise. */
bool
check_address(const Options &options, GError **error)
{
  g_autoptr(GInetAddress) address = g_inet_address_new_from_string(options.address);
  if (address == nullptr) {
    return gateway::refuse_option("The value of --address is not a numeric address.", error);
  }
  if (!g_inet_address_get_is_loopback(address) && options.users == nullptr && !options.no_authentication) {
    return gateway::refuse_option("An address other than 127.0.0.1 needs --users, or --no-authentication.",
                                  error);
  }
  return true;
}

bool
check_combinations(const Options &options, GError **error)
{
  if (!request_options_has_kind(&options.request)) {
    return gateway::refuse_option("No kind of metadata is asked for.", error);
  }
  if (options.no_video && options.videos != nullptr) {
    return gateway::refuse_option("--video and --no-video exclude each other.", error);
  }
  if (options.users != nullptr && options.no_authentication) {
    return gateway::refuse_option("--users and --no-authentication exclude each other.", error);
  }
  if ((options.certificate == nullptr) != (options.key == nullptr)) {
    return gateway::refuse_option("--certificate and --key need each other.", error);
  }
  return true;
}

} // namespace

Options::~Options()
{
  g_free(socket_path);
  g_free(address);
  g_strfreev(videos);
  g_free(users);
  g_free(certificate);
  g_free(key);
  g_free(multicast);
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
  if (options->socket_path == nullptr) {
    options->socket_path = g_strdup(metadata_client_get_default_socket());
  }
  if (options->address == nullptr) {
    options->address = g_strdup(DEFAULT_ADDRESS);
  }
  return request_options_check(&options->request, error) &&
         gateway::check_option_number("--port", options->port, 0, G_MAXUINT16, error) &&
         gateway::check_option_number("--channels", options->channels, 1, RTSP_CHANNELS_MAX, error) &&
         gateway::check_option_number("--ttl", options->ttl, 0, G_MAXUINT8, error) &&
         check_combinations(*options, error) && check_address(*options, error);
}

} // namespace rtsp
