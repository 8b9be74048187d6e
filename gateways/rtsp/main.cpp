/* SPDX-License-Identifier: MIT */
/* Start-up of tessard-rtsp. */
#include "gatewayprogram.h"
#include "rtspserver.h"

#include <cstdlib>
#include <syslog.h>
#include <unistd.h>

namespace
{

void
print_mounts(const rtsp::Server &server, int channels)
{
  for (int channel = 1; channel <= channels; channel++) {
    g_print("%s%d\n", server.address().c_str(), channel);
  }
  fflush(stdout);
  syslog(LOG_INFO, "Ready at %s.", server.address().c_str());
}

/* Runs the main loop until a signal arrives, and ends the process. Media is not taken apart, see
 * Server::~Server(); the kernel closes the connections. */
[[noreturn]] void
serve(gateway::MainLoop *loop)
{
  loop->run();
  _exit(EXIT_SUCCESS);
}

int
run(const rtsp::Options &options)
{
  g_autoptr(GError) error = nullptr;
  rtsp::Server server;
  if (!server.set_up(options, &error)) {
    return gateway::fail(gateway::EXIT_USAGE, error->message);
  }
  if (!server.listen(&error)) {
    return gateway::fail(EXIT_FAILURE, error->message);
  }
  gateway::MainLoop loop;
  print_mounts(server, options.channels);
  serve(&loop);
}

} // namespace

int
main(int argc, char **argv)
{
  rtsp::Options options;
  g_autoptr(GError) error = nullptr;

  gateway::set_up_process("tessard-rtsp");
  if (!rtsp::parse_options(&options, &argc, &argv, &error)) {
    return gateway::fail(gateway::EXIT_USAGE, error->message);
  }
  if (options.version) {
    return gateway::print_version(TESSARD_VERSION);
  }
  gst_init(nullptr, nullptr);
  return run(options);
}
