/* SPDX-License-Identifier: MIT */
/* Start-up of tessard-view. */
#include "gatewayprogram.h"
#include "webserver.h"

#include <cstdlib>
#include <syslog.h>

namespace
{

void
serve(const view::WebServer &server)
{
  gateway::MainLoop loop;
  g_print("%s%s\n", server.address().c_str(), server.fragment().c_str());
  fflush(stdout);
  syslog(LOG_INFO, "Ready at %s.", server.address().c_str());
  loop.run();
}

int
run(const view::Options &options)
{
  g_autoptr(GError) error = nullptr;
  view::WebServer server;
  if (!server.set_up(options, &error)) {
    return gateway::fail(gateway::EXIT_USAGE, error->message);
  }
  if (!server.listen(&error)) {
    return gateway::fail(EXIT_FAILURE, error->message);
  }
  serve(server);
  return EXIT_SUCCESS;
}

} // namespace

int
main(int argc, char **argv)
{
  view::Options options;
  g_autoptr(GError) error = nullptr;

  gateway::set_up_process("tessard-view");
  if (!view::parse_options(&options, &argc, &argv, &error)) {
    return gateway::fail(gateway::EXIT_USAGE, error->message);
  }
  if (options.version) {
    return gateway::print_version(TESSARD_VERSION);
  }
  gst_init(nullptr, nullptr);
  return run(options);
}
