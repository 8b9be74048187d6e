/* Start-up, and nothing else. What happens when is the order of the steps in main() and run(). */
#include "eventsourcefactory.h"
#include "server.h"

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

constexpr const char *DEFAULT_RUN_DIR = "/run/tessard";
constexpr int RUN_DIR_MODE = 0771;
constexpr mode_t PROCESS_UMASK = 002;

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

/* A write to a client that has gone then fails with an error, instead of ending the daemon. */
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

/* Where a platform puts what it must do before anything of the daemon's is set up. Deliberately empty and
 * kept: the place in the order is what it is for. */
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

/* By the name of the plug-in, not of an element in it. */
gboolean
has_plugin(const gchar *name)
{
  g_autoptr(GstPlugin) plugin = gst_registry_find_plugin(gst_registry_get(), name);

  return plugin != nullptr;
}

/* Takes the factory over. */
void
register_factory(Server *server, gpointer factory)
{
  server_register_source_factory(server, SOURCE_FACTORY(factory));
  g_object_unref(factory);
}

void
add_event_factory(Server *server)
{
  if (!has_plugin("onvifeventsrc")) {
    syslog(LOG_INFO, "Events not enabled, not adding event factory.");
    return;
  }
  syslog(LOG_INFO, "Adding event source factory.");
  register_factory(server, event_source_factory_new());
}

/* Nothing in the daemon quits the loop: it runs until a signal ends the process. */
int
run(const gchar *run_dir)
{
  syslog(LOG_INFO, "Starting.");
  if (!create_run_dir(run_dir)) {
    return EXIT_FAILURE;
  }
  g_autoptr(GMainLoop) loop = g_main_loop_new(nullptr, FALSE);
  g_autoptr(Server) server = TESSARD_SERVER(g_object_new(server_get_type(), "run-dir", run_dir, nullptr));

  /* The order of registration is the order of the sources in every client's pipeline. */
  add_event_factory(server);

  if (!server_start(server)) {
    syslog(LOG_ERR, "Could not start server.");
    return EXIT_FAILURE;
  }
  g_main_loop_run(loop);

  server_stop(server);
  return EXIT_SUCCESS;
}

} // namespace

int
main(int argc, char **argv)
{
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
  if (options.version) {
    print_version();
    return EXIT_SUCCESS;
  }
  tessard_init();
  return run(options.run_dir != nullptr ? options.run_dir : DEFAULT_RUN_DIR);
}
