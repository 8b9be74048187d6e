/* SPDX-License-Identifier: MIT */
#include "mqttoptions.h"

#include "metadataclient.h"

namespace mqtt
{

namespace
{

constexpr const char *DEFAULT_CONFIG = "/etc/tessard/mqtt.conf";

constexpr const char *SUMMARY = "Publishes the events and metadata of tessard to an MQTT broker, as JSON.";

constexpr const char *DESCRIPTION =
    "The file sets the broker's address, the prefix of topics, and what to publish; each key has a default.\n"
    "Example:\n"
    "  [Broker]\n"
    "  address=mqtt://127.0.0.1:1883";

} // namespace

Options::~Options()
{
  g_free(socket_path);
  g_free(config_path);
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
 * Returns: false if the command line is wrong
 */
bool
parse_options(Options *options, int *argc, char ***argv, GError **error)
{
  const GOptionEntry entries[] = {
      {"socket", 0, 0, G_OPTION_ARG_FILENAME, &options->socket_path,
       "The daemon's socket (default: $" METADATA_CLIENT_SOCKET_VARIABLE
       ", or " METADATA_CLIENT_DEFAULT_SOCKET ")",
       "PATH"},
      {"config", 0, 0, G_OPTION_ARG_FILENAME, &options->config_path,
       "The key file (default: /etc/tessard/mqtt.conf, if it exists)", "FILE"},
      {"check-config", 0, 0, G_OPTION_ARG_NONE, &options->check_config, "Only check the key file", nullptr},
      {"version", 'V', 0, G_OPTION_ARG_NONE, &options->version, "Print the version and exit", nullptr},
      {},
  };
  g_autoptr(GOptionContext) context = g_option_context_new(nullptr);
  g_option_context_set_summary(context, SUMMARY);
  g_option_context_set_description(context, DESCRIPTION);
  g_option_context_add_main_entries(context, entries, nullptr);
  if (!g_option_context_parse(context, argc, argv, error)) {
    return false;
  }
  if (*argc > 1) {
    g_set_error_literal(error, G_OPTION_ERROR, G_OPTION_ERROR_FAILED, "Too many arguments.");
    return false;
  }
  if (options->socket_path == nullptr) {
    options->socket_path = g_strdup(metadata_client_get_default_socket());
  }
  if (options->config_path == nullptr && g_file_test(DEFAULT_CONFIG, G_FILE_TEST_EXISTS)) {
    options->config_path = g_strdup(DEFAULT_CONFIG);
  }
  return true;
}

} // namespace mqtt
