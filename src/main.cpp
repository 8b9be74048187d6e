/* SPDX-License-Identifier: MIT */
/* Start-up, in the order of the steps in main() and run(). */
#include "analyticsproducerlist.h"
#include "dbusclient.h"
#include "dbusserver.h"
#include "eventsourcefactory.h"
#include "externalsourcefactory.h"
#include "memory.h"
#include "neededelements.h"
#include "producerconfig.h"
#include "ptzcoordinator.h"
#include "ptzsourcefactory.h"
#include "radarscenesourcefactory.h"
#include "ratelimitedlog.h"
#include "scenemanager.h"
#include "scenesourcefactory.h"
#include "server.h"
#include "terminal.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <glib/gstdio.h>
#include <gst/gst.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

namespace
{

constexpr int EXIT_WRONG_USAGE = 2;
constexpr const char *DEFAULT_RUN_DIR = "/run/tessard";
constexpr int RUN_DIR_MODE = 0771;
constexpr mode_t PROCESS_UMASK = 002;

/* A kind of metadata that the daemon offers if the platform's plug-in for it is installed. */
struct Kind {
  const gchar *plugin;
  const gchar *adding;
  const gchar *missing;
};

constexpr Kind EVENTS = {"onvifeventsrc", "Adding event source factory.",
                         "Events not enabled, not adding event factory."};
constexpr Kind PTZ = {"statuscacheptz", "Adding PTZ source factory.",
                      "PTZ not enabled, not adding PTZ factory."};
constexpr Kind SCENES = {"scene", "Adding scene source factory.",
                         "Scenes not enabled, not adding scene factory."};
constexpr Kind RADAR_SCENES = {"radarscene", "Adding radar scene source factory.",
                               "Radar scenes not enabled, not adding radar scene factory."};

struct Options {
  gchar *run_dir = nullptr;
  gboolean version = FALSE;

  ~Options()
  {
    g_free(run_dir);
  }
};

gboolean
is_root()
{
  return getuid() == 0 || getgid() == 0;
}

void
refuse_root()
{
  g_printerr("Don't run as root. To start as non root use:\n"
             "su -c \"env GST_REGISTRY=/etc/gstreamer/registry.bin /usr/bin/tessard\" -s /bin/sh metadata\n");
}

/* Otherwise a write to a client that has hung up would end the daemon. */
void
ignore_sigpipe()
{
  struct sigaction action = {};

  action.sa_handler = SIG_IGN;
  sigemptyset(&action.sa_mask);
  sigaddset(&action.sa_mask, SIGPIPE);
  sigaction(SIGPIPE, &action, nullptr);
}

gboolean
parse_options(int *argc, char ***argv, Options *options)
{
  const GOptionEntry entries[] = {
      {"run-dir", 'd', 0, G_OPTION_ARG_STRING, &options->run_dir, "Run directory", nullptr},
      {"version", 'V', 0, G_OPTION_ARG_NONE, &options->version, "Print version information and exit",
       nullptr},
      {},
  };
  g_autoptr(GOptionContext) context = g_option_context_new("");
  g_autoptr(GError) error = nullptr;

  g_option_context_add_main_entries(context, entries, nullptr);
  g_option_context_add_group(context, gst_init_get_option_group());
  if (!g_option_context_parse(context, argc, argv, &error)) {
    g_printerr("%s\nTry -? or --help for more information.\n", error->message ? error->message : "(NULL)");
    return FALSE;
  }
  return TRUE;
}

void
print_version()
{
  g_autofree gchar *gst_version = gst_version_string();

  g_print("%s version %s\n", g_get_prgname(), TESSARD_VERSION);
  g_print("%s\n", gst_version);
}

/* A hook for ports to a platform, which runs before any other set-up. */
void
tessard_init()
{
}

gboolean
create_run_dir(const gchar *run_dir)
{
  umask(PROCESS_UMASK);
  if (g_mkdir_with_parents(run_dir, RUN_DIR_MODE) < 0) {
    syslog(LOG_ERR, "could not create directory '%s': %s", run_dir, g_strerror(errno));
    return FALSE;
  }
  return TRUE;
}

gboolean
has_plugin(const gchar *name)
{
  g_autoptr(GstPlugin) plugin = gst_registry_find_plugin(gst_registry_get(), name);

  return plugin != nullptr;
}

/* Takes ownership of the factory. */
void
register_factory(Server *server, gpointer factory)
{
  server_register_source_factory(server, SOURCE_FACTORY(factory));
  g_object_unref(factory);
}

gboolean
is_offered(const Kind &kind)
{
  const gboolean offered = has_plugin(kind.plugin);

  syslog(LOG_INFO, "%s", offered ? kind.adding : kind.missing);
  return offered;
}

/* The order of registration is the order of the sources in every client's pipeline. */
void
add_factories(Server *server, AnalyticsProducerList *producers)
{
  gint32 move_capabilities = 0;

  if (is_offered(EVENTS)) {
    register_factory(server, event_source_factory_new());
  }
  if (is_offered(PTZ)) {
    move_capabilities = ptz_coordinator_query_move_capabilities();
    register_factory(server, ptz_source_factory_new(move_capabilities));
  }
  if (is_offered(SCENES)) {
    register_factory(
        server, scene_source_factory_new(producers, move_capabilities, scene_manager_is_provider_running));
  }
  if (is_offered(RADAR_SCENES)) {
    register_factory(server, radar_scene_source_factory_new(producers));
  }
  syslog(LOG_INFO, "Adding external source factory.");
  register_factory(server, external_source_factory_new(producers));
}

gboolean
load_producer_config()
{
  if (!producer_config_setup(PRODUCERS_CONF)) {
    syslog(LOG_ERR, "could not load producer config: %s", g_strerror(errno));
    return FALSE;
  }
  return TRUE;
}

/* The loop runs until a signal ends the process. */
int
run(const gchar *run_dir)
{
  syslog(LOG_INFO, "Starting.");
  if (!create_run_dir(run_dir)) {
    return EXIT_FAILURE;
  }
  memory_start_trimming();
  g_autoptr(GMainLoop) loop = g_main_loop_new(nullptr, FALSE);
  /* Must outlive the server, whose factories borrow it. */
  g_autoptr(AnalyticsProducerList) producers = nullptr;
  g_autoptr(Server) server = TESSARD_SERVER(g_object_new(TESSARD_TYPE_SERVER, "run-dir", run_dir, nullptr));

  if (!load_producer_config()) {
    return EXIT_FAILURE;
  }
  producers = analytics_producer_list_new();
  syslog(LOG_INFO, "Setting up D-Bus server.");
  dbus_server_init(producers);
  add_factories(server, producers);
  needed_elements_check();

  if (!server_start(server)) {
    syslog(LOG_ERR, "Could not start server.");
    return EXIT_FAILURE;
  }
  syslog(LOG_INFO, "Setting up D-Bus client.");
  dbus_client_init(producers);
  g_main_loop_run(loop);

  server_stop(server);
  g_clear_object(&server);
  dbus_client_teardown();
  dbus_server_teardown();
  g_clear_pointer(&producers, analytics_producer_list_free);
  producer_config_free();
  rate_limited_log_flush();
  memory_stop_trimming();
  return EXIT_SUCCESS;
}

} // namespace

int
main(int argc, char **argv)
{
  memory_set_up();
  if (is_root()) {
    refuse_root();
    return EXIT_FAILURE;
  }
  gst_init(&argc, &argv);
  ignore_sigpipe();

  Options options;
  if (!parse_options(&argc, &argv, &options)) {
    return EXIT_FAILURE;
  }
  if (!terminal_check_arguments(argc, argv)) {
    return EXIT_WRONG_USAGE;
  }
  if (options.version) {
    print_version();
    return EXIT_SUCCESS;
  }
  tessard_init();
  terminal_show_log();
  return run(options.run_dir != nullptr ? options.run_dir : DEFAULT_RUN_DIR);
}
