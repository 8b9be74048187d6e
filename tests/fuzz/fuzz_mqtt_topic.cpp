/* SPDX-License-Identifier: MIT */
// Topics of any event and any source. The lines of the input are the prefix, the ONVIF topic, and the values
// of the source. A topic is one that brokers accept, and a value stays within its level.
#include "fuzz.h"
#include "mqttlimits.h"
#include "mqtttopic.h"

#include <algorithm>
#include <mosquitto.h>

namespace
{

// The broker's own check. It also refuses an empty topic.
void
check_topic(const std::string &topic, const std::string &prefix)
{
  if (topic.empty())
    return;
  fuzz::require(topic.size() <= MQTT_TOPIC_BYTES_MAX, "the length is bounded");
  fuzz::require(topic.starts_with(prefix + "/"), "the prefix is first");
  fuzz::require(mosquitto_pub_topic_check2(topic.data(), topic.size()) == MOSQ_ERR_SUCCESS,
                "it is a topic to publish");
  fuzz::require(mosquitto_validate_utf8(topic.data(), static_cast<int>(topic.size())) == MOSQ_ERR_SUCCESS,
                "it is valid UTF-8");
}

void
check_level(const std::string &value)
{
  const std::string level = mqtt::topic_level(value);
  fuzz::require(level.find('/') == level.npos && mqtt::topic_level(level) == level, "it is one level");
  fuzz::require(level.size() <= value.size(), "it has nothing new");
  const bool is_plain = std::all_of(value.begin(), value.end(), [](char character) {
    return g_ascii_isprint(character) && std::string_view("/+#").find(character) == std::string_view::npos;
  });
  fuzz::require(!is_plain || level == value, "plain text stays");
}

} // namespace

int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
  std::vector<std::string> lines = fuzz::split(fuzz::as_text(data, size), '\n');
  lines.resize(std::max<size_t>(lines.size(), 2));
  const bool is_valid = mqtt::prefix_fault(lines[0]) == nullptr;
  const std::string prefix = is_valid ? lines[0] : "p";
  const std::vector<std::string> values(lines.begin() + 2, lines.end());
  const std::string topic = mqtt::event_topic(prefix, lines[1], values);
  check_topic(topic, prefix);
  check_topic(mqtt::status_topic(prefix), prefix);
  for (const std::string &value : values) {
    check_level(value);
    const std::string path = mqtt::metadata_path("PTZ", "1", value);
    fuzz::require(path.empty() == mqtt::topic_level(value).empty(), "a module has a path");
    if (!path.empty())
      check_topic(mqtt::metadata_topic(prefix, path), prefix);
  }
  if (!topic.empty()) {
    const auto levels = static_cast<size_t>(std::count(topic.begin(), topic.end(), '/'));
    const auto expected = static_cast<size_t>(std::count(prefix.begin(), prefix.end(), '/') +
                                              std::count(lines[1].begin(), lines[1].end(), '/'));
    fuzz::require(levels == expected + 2 + values.size(), "each value is a level");
  }
  return 0;
}
