/* SPDX-License-Identifier: MIT */
// An application's declaration of a topic and a value of each item. The lines of the input are the topic,
// then the items as name, type and value separated by tabs, then the namespaces as prefix and URI separated
// by a tab. What is accepted has ONVIF's form, and libxml2's types accept the values, too.
#include "fuzz.h"
#include "receiver/error.h"
#include "receiver/eventtopic.h"
#include "receiver/eventvalue.h"
#include "receiver/receiverlimits.h"

#include <algorithm>
#include <libxml/xmlschemastypes.h>
#include <string>

namespace
{

using receiver::EventMap;
using receiver::EventTexts;
using receiver::EventTopic;

constexpr const char *SCHEMA = "http://www.w3.org/2001/XMLSchema";
// libxml2 has no longer ones.
constexpr size_t MAX_DIGITS = 20;

const xmlChar *
as_xml(const std::string &text)
{
  return reinterpret_cast<const xmlChar *>(text.c_str());
}

bool
has_space(const std::string &value)
{
  return value.find_first_of(" \t\r\n") != value.npos;
}

// Whether XML Schema's type has the value; the types of the receiver that are texts have all.
bool
is_of_type(const std::string &type, const std::string &value)
{
  xmlSchemaTypePtr found =
      xmlSchemaGetPredefinedType(as_xml(type.substr(type.find(':') + 1)), as_xml(SCHEMA));
  return found != nullptr && xmlSchemaValidatePredefinedType(found, as_xml(value), nullptr) == 0;
}

void
check_value(const std::string &type, const std::string &value)
{
  const bool accepted = receiver::event_value_check(type, value);
  const bool is_whole = type == "xs:boolean" || type == "xs:int" || type == "xs:integer";
  const bool is_checked = is_whole || type == "xs:float" || type == "xs:double" || type == "xs:dateTime";
  if (value.size() > MAX_DIGITS || value.starts_with("+INF"))
    return;
  if (accepted && is_checked)
    fuzz::require(is_of_type(type, value), "an accepted value is of its type");
  // libxml2 also takes numbers like "1e" and years of any length.
  if (!accepted && is_whole)
    fuzz::require(has_space(value) || value.empty() || !is_of_type(type, value),
                  "a refused value is not of its type");
}

void
check_names(const EventTopic &topic)
{
  const std::vector<std::string> names = fuzz::split(topic.name, '/');
  fuzz::require(topic.name.size() <= RECEIVER_MAX_TOPIC_BYTES, "the length is bounded");
  fuzz::require(names.size() <= RECEIVER_MAX_TOPIC_LEVELS, "the depth is bounded");
  fuzz::require(names[0].find(':') != std::string::npos, "the root has a prefix");
  for (const std::string &name : names) {
    fuzz::require(xmlValidateQName(as_xml(name), 0) == 0, "a name is an XML name");
    const size_t colon = name.find(':');
    const std::string prefix = name.substr(0, colon == name.npos ? 0 : colon);
    fuzz::require(prefix.empty() || prefix == "tns1" || prefix == "tt" || prefix == "xs" ||
                      prefix == "wsnt" || topic.namespaces.contains(prefix),
                  "a prefix has a namespace");
  }
}

void
check_accepted(EventTopic topic)
{
  check_names(topic);
  fuzz::require(topic.source.size() <= RECEIVER_MAX_EVENT_ITEMS, "the items are bounded");
  for (const auto &[name, type] : topic.source) {
    fuzz::require(xmlValidateNCName(as_xml(name), 0) == 0, "an item's name is an XML name");
    fuzz::require(type.find(':') != type.npos && xmlValidateQName(as_xml(type), 0) == 0,
                  "a type has a prefix");
  }
  const EventTopic before = topic;
  fuzz::require(receiver::event_topic_check(&topic, nullptr) && topic == before, "it is accepted again");
}

void
check_values(const EventTopic &topic, const EventMap &values)
{
  EventTexts taken;
  g_autoptr(GError) error = nullptr;
  const bool accepted = receiver::event_items_take(topic.source, values, "source", &taken, &error);
  bool expected = values.size() == topic.source.size();
  for (const auto &[name, type] : topic.source)
    expected = expected && values.contains(name) && receiver::event_value_check(type, values.at(name));
  fuzz::require(accepted == expected && accepted == (error == nullptr), "all values are accepted, or none");
  for (size_t i = 0; accepted && i < taken.size(); i++)
    fuzz::require(taken[i] == values.at(topic.source[i].first), "values have the declared order");
}

} // namespace

int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
  const std::string text(fuzz::as_text(data, size));
  EventMap values;
  EventTopic topic = {};
  // D-Bus has only such texts.
  if (!g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr))
    return 0;
  for (const std::string &line : fuzz::split(text, '\n')) {
    const std::vector<std::string> parts = fuzz::split(line, '\t');
    if (parts.size() == 1) {
      topic.name = line;
    } else if (parts.size() == 2) {
      topic.namespaces[parts[0]] = parts[1];
    } else {
      topic.source.emplace_back(parts[0], parts[1]);
      values[parts[0]] = parts[2];
      check_value(parts[1], parts[2]);
    }
  }
  g_autoptr(GError) error = nullptr;
  if (receiver::event_topic_check(&topic, &error)) {
    check_accepted(topic);
    check_values(topic, values);
  } else {
    fuzz::require(error != nullptr && g_utf8_validate(error->message, -1, nullptr), "a refusal has a reason");
  }
  return 0;
}
