/* SPDX-License-Identifier: MIT */
/* Start-up of tessard-mqtt. */
#include "gatewayprogram.h"
#include "mqttoptions.h"
#include "publisher.h"

#include <cstdlib>
#include <syslog.h>
#include <unistd.h>

namespace
{

int
run(const mqtt::Options &options)
{
  g_autoptr(GError) error = nullptr;
  mqtt::Config config;
  if (!mqtt::load_config(options.config_path, &config, &error)) {
    return gateway::fail(gateway::EXIT_USAGE, error->message);
  }
  mqtt::Publisher publisher(&config, options.socket_path);
  if (!publisher.check_broker(&error)) {
    return gateway::fail(gateway::EXIT_USAGE, error->message);
  }
  if (options.check_config) {
    return EXIT_SUCCESS;
  }
  if (!publisher.check_streams(&error)) {
    return gateway::fail(gateway::EXIT_USAGE, error->message);
  }
  gateway::MainLoop loop;
  publisher.start();
  syslog(LOG_INFO, "Publishes to %s with the prefix %s.", config.broker.address.c_str(),
         config.prefix.c_str());
  loop.run();
  if (!publisher.stop()) {
    _exit(EXIT_SUCCESS); /* a thread waits for the network, with no way to end it */
  }
  return EXIT_SUCCESS;
}

} // namespace

int
main(int argc, char **argv)
{
  mqtt::Options options;
  g_autoptr(GError) error = nullptr;

  gateway::set_up_process("tessard-mqtt");
  if (!mqtt::parse_options(&options, &argc, &argv, &error)) {
    return gateway::fail(gateway::EXIT_USAGE, error->message);
  }
  if (options.version) {
    return gateway::print_version(TESSARD_VERSION);
  }
  gst_init(nullptr, nullptr);
  mosquitto_lib_init();
  const int status = run(options);
  mosquitto_lib_cleanup();
  return status;
}
