/* SPDX-License-Identifier: MIT */
// The key file of tessard-mqtt. What is accepted can be used without a further check.
#include "fuzz.h"
#include "mqttconfig.h"
#include "mqttlimits.h"
#include "mqtttopic.h"

#include <set>

namespace
{

bool
is_number(const gchar *option, char last)
{
  return option != nullptr && option[0] >= '0' && option[0] <= last && option[1] == '\0';
}

bool
is_level(const std::string &text)
{
  return !text.empty() && mqtt::topic_level(text) == text;
}

void
check_broker(const mqtt::BrokerConfig &broker)
{
  const std::string scheme = broker.is_tls ? "mqtts://" : "mqtt://";
  fuzz::require(g_ascii_strncasecmp(broker.address.c_str(), scheme.c_str(), scheme.size()) == 0 &&
                    !broker.host.empty() && broker.port > 0,
                "the address is complete");
  fuzz::require(broker.address.find_first_of(" \n\r\t") == std::string::npos, "the address is one word");
  fuzz::require(broker.qos >= 0 && broker.qos <= 2 && broker.keepalive >= 5,
                "numbers are within their range");
  fuzz::require(!broker.client_id.empty(), "there is a client id");
  fuzz::require(broker.password.empty() || !broker.user.empty(), "a password has a user");
}

void
check_channels(const mqtt::Config &config)
{
  std::set<guint> numbers;
  std::set<std::string> profiles;
  for (const mqtt::Channel &channel : config.channels) {
    fuzz::require(channel.number > 0 && numbers.insert(channel.number).second, "channels differ");
    fuzz::require(is_level(channel.profile) && profiles.insert(channel.profile).second, "profiles differ");
    fuzz::require(is_level(channel.ptz_configuration), "a PTZ configuration is a level");
  }
  fuzz::require(!numbers.empty() && numbers.size() <= MQTT_CHANNELS_MAX, "channels are bounded");
}

void
check_accepted(const mqtt::Config &config)
{
  check_broker(config.broker);
  check_channels(config);
  fuzz::require(mqtt::prefix_fault(config.prefix) == nullptr, "the prefix is valid");
  fuzz::require(is_number(config.metadata.analytics, '2') && is_number(config.metadata.ptz, '3'),
                "the request has valid numbers");
  fuzz::require(config.max_frame_rate >= 0 && config.max_frame_rate <= MQTT_FRAME_RATE_MAX,
                "the rate is bounded");
  fuzz::require(config.publishes_events || config.publishes_metadata, "something is published");
}

} // namespace

int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
  mqtt::Config config;
  g_autoptr(GError) error = nullptr;
  if (mqtt::parse_config(fuzz::as_text(data, size), &config, &error)) {
    check_accepted(config);
  } else {
    fuzz::require(error != nullptr && *error->message != '\0', "a refusal has a reason");
  }
  return 0;
}
