/* SPDX-License-Identifier: MIT */
#pragma once

#include "metadatafilter.h"
#include "requestoptions.h"

#include <string>
#include <vector>

/* The key file of tessard-mqtt. All functions are for the main thread. */

namespace mqtt
{

struct BrokerConfig {
  std::string address = "mqtt://127.0.0.1:1883"; /* as it is logged */
  std::string host = "127.0.0.1";
  guint16 port = 1883;
  bool is_tls = false;
  std::string client_id; /* empty texts are not set */
  std::string user;
  std::string password;
  std::string password_file;
  std::string ca_file;
  std::string certificate;
  std::string key;
  int keepalive = 30; /* seconds */
  int qos = 1;
};

struct Channel {
  guint number = 1;
  std::string profile;
  std::string ptz_configuration;
};

struct Config {
  BrokerConfig broker;
  std::string prefix;
  bool publishes_events = true;
  RequestOptions events; /* what to ask the daemon for */
  bool publishes_metadata = true;
  RequestOptions metadata;
  std::vector<Channel> channels;
  MetadataFilter filter;
  double max_frame_rate = 0; /* a second and module; 0 without a limit */
};

bool parse_config(std::string_view text, Config *config, GError **error);
bool load_config(const char *path, Config *config, GError **error);

} // namespace mqtt
