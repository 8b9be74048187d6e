/* SPDX-License-Identifier: MIT */
#include "mqtttopic.h"

#include "mqttlimits.h"

namespace mqtt
{

namespace
{

/* Code points that Unicode has for no character. */
bool
is_noncharacter(gunichar character)
{
  return (character >= 0xfdd0 && character <= 0xfdef) || (character & 0xfffe) == 0xfffe;
}

bool
is_control(gunichar character)
{
  return character < 0x20 || (character >= 0x7f && character < 0xa0);
}

/* Brokers may close the connection for the others. */
bool
is_allowed(gunichar character)
{
  return character != '+' && character != '#' && !is_control(character) && !is_noncharacter(character);
}

/* Returns: the first character of @text, which is not empty; G_MAXUINT32 for an invalid byte. @size: (out):
 * its bytes */
gunichar
first_character(std::string_view text, gsize *size)
{
  gunichar character = g_utf8_get_char_validated(text.data(), static_cast<gssize>(text.size()));
  bool is_valid = character < static_cast<gunichar>(-2);
  *size = is_valid ? static_cast<gsize>(g_unichar_to_utf8(character, nullptr)) : 1;
  return is_valid ? character : G_MAXUINT32;
}

/* Returns: @text without the characters that a topic cannot have, and without those of @others */
std::string
allowed_text(std::string_view text, std::string_view others)
{
  std::string allowed;
  while (!text.empty()) {
    gsize size;
    gunichar character = first_character(text, &size);
    std::string_view bytes = text.substr(0, size);
    if (character != G_MAXUINT32 && is_allowed(character) && others.find(bytes) == others.npos) {
      allowed += bytes;
    }
    text.remove_prefix(size);
  }
  return allowed;
}

/* Returns: @topic; empty if it is too long */
std::string
within_limit(std::string topic)
{
  return topic.size() <= MQTT_TOPIC_BYTES_MAX ? std::move(topic) : std::string();
}

} // namespace

/**
 * prefix_fault:
 * @prefix: what the topics should begin with
 *
 * Returns: (nullable): what is wrong with it, in words that follow "The prefix"; %NULL if it is valid
 */
const char *
prefix_fault(std::string_view prefix)
{
  if (prefix.empty()) {
    return "is empty";
  }
  if (prefix.size() > MQTT_PREFIX_BYTES_MAX) {
    return "is too long";
  }
  if (prefix.front() == '$') {
    return "begins with $, which is the broker's";
  }
  if (prefix.front() == '/' || prefix.back() == '/' || prefix.find("//") != prefix.npos) {
    return "has an empty level";
  }
  if (allowed_text(prefix, {}) != prefix) {
    return "has a character that is not allowed";
  }
  return nullptr;
}

/**
 * topic_level:
 * @text: any bytes
 *
 * Returns: @text as one level of a topic, without the characters that it cannot have
 */
std::string
topic_level(std::string_view text)
{
  return allowed_text(text, "/");
}

/**
 * status_topic:
 * @prefix: a valid prefix
 *
 * Returns: the topic that says whether the gateway is connected
 */
std::string
status_topic(const std::string &prefix)
{
  return prefix + "/status";
}

/**
 * event_topic:
 * @prefix: a valid prefix
 * @topic: the ONVIF topic, without the prefix of ONVIF's namespace
 * @source_values: the values of the event's source, in their order
 *
 * Returns: the topic of an event; empty if it would be too long
 */
std::string
event_topic(const std::string &prefix, std::string_view topic, const std::vector<std::string> &source_values)
{
  std::string path = prefix + "/onvif-ej/" + allowed_text(topic, {});
  const char *separator = "/&";
  for (const std::string &value : source_values) {
    path += separator + topic_level(value);
    separator = "/";
  }
  return within_limit(std::move(path));
}

/**
 * metadata_path:
 * @kind: "VideoAnalytics" or "PTZ"
 * @profile: the media profile
 * @producer: the module, or the PTZ configuration; any bytes
 *
 * Returns: the part of a topic of metadata that says what it has; empty if @producer has no character that a
 * topic can have
 */
std::string
metadata_path(std::string_view kind, std::string_view profile, std::string_view producer)
{
  std::string last = topic_level(producer);
  if (last.empty()) {
    return {};
  }
  std::string path(kind);
  ((path += '/') += profile) += '/';
  return path + last;
}

/**
 * metadata_topic:
 * @prefix: a valid prefix
 * @path: the result of metadata_path()
 *
 * Returns: the topic of metadata; empty if it would be too long
 */
std::string
metadata_topic(const std::string &prefix, const std::string &path)
{
  return within_limit(prefix + "/onvif-mj/" + path);
}

} // namespace mqtt
