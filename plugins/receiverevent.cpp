/* SPDX-License-Identifier: MIT */
#include "receiverevent.h"

#include "metadatalimits.h"
#include "topicexpression.h"
#include "utctime.h"

#include <libxml/tree.h>

/* The receiver checks what applications send. Nothing here relies on it: all text that becomes markup is
 * checked, and the XML writer escapes the rest. Members with other names are ignored. */

namespace plugins
{

namespace
{

namespace dom = simdjson::dom;

/* The prefixes of the element around events, which have their own namespaces. */
constexpr std::string_view RESERVED_PREFIXES[] = {"tt", "wsnt", "tns1", "xml", "xmlns"};

std::optional<std::string>
get_text(dom::object object, std::string_view name)
{
  std::string_view text;
  if (object.at_key(name).get(text) != simdjson::SUCCESS) {
    return std::nullopt;
  }
  return std::string(text);
}

bool
is_prefix(const std::string &text)
{
  return std::find(std::begin(RESERVED_PREFIXES), std::end(RESERVED_PREFIXES), text) ==
             std::end(RESERVED_PREFIXES) &&
         xmlValidateNCName(reinterpret_cast<const xmlChar *>(text.c_str()), 0) == 0;
}

bool
read_namespaces(dom::object object, std::map<std::string, std::string> *namespaces)
{
  dom::object members;
  if (object.at_key("Namespaces").get(members) != simdjson::SUCCESS) {
    return false;
  }
  for (const auto &[name, value] : members) {
    std::string_view uri;
    if (value.get(uri) != simdjson::SUCCESS || uri.empty() || !is_prefix(std::string(name)) ||
        !namespaces->emplace(name, uri).second) {
      return false;
    }
  }
  return true;
}

/* Reads [["Name","Value"], ...]. */
bool
read_items(dom::object object, std::string_view name, std::vector<onvif::EventItem> *items)
{
  dom::array list;
  if (object.at_key(name).get(list) != simdjson::SUCCESS) {
    return false;
  }
  for (const dom::element entry : list) {
    dom::array pair;
    std::string_view texts[2];
    if (entry.get(pair) != simdjson::SUCCESS || pair.size() != 2 ||
        pair.at(0).get(texts[0]) != simdjson::SUCCESS || pair.at(1).get(texts[1]) != simdjson::SUCCESS) {
      return false;
    }
    items->push_back({std::string(texts[0]), std::string(texts[1])});
  }
  return true;
}

bool
read_operation(dom::object object, std::string *operation)
{
  bool is_property = false;
  const std::optional<std::string> text = get_text(object, "Operation");
  if (object.at_key("Property").get(is_property) != simdjson::SUCCESS || !text.has_value()) {
    return false;
  }
  *operation = *text;
  return is_property
             ? *text == OPERATION_INITIALIZED || *text == OPERATION_CHANGED || *text == OPERATION_DELETED
             : text->empty();
}

bool
read_time(dom::object object, gint64 *utc)
{
  const std::optional<std::string> text = get_text(object, "UtcTime");
  const std::optional<std::uint64_t> time = text.has_value() ? parse_utc_time(*text) : std::nullopt;
  if (!time.has_value() || *time / 1000 > static_cast<std::uint64_t>(onvif::LATEST_UTC)) {
    return false;
  }
  *utc = static_cast<gint64>(*time / 1000);
  return true;
}

/* A prefix of the topic has a namespace. */
bool
has_namespaces(const ReceiverEvent &event)
{
  std::string_view rest = event.message.topic;
  while (!rest.empty()) {
    const std::string_view name = rest.substr(0, rest.find('/'));
    const gsize colon = name.find(':');
    if (colon != name.npos && name.substr(0, colon) != onvif::TNS1.prefix &&
        !event.namespaces.contains(std::string(name.substr(0, colon)))) {
      return false;
    }
    rest.remove_prefix(std::min(name.size() + 1, rest.size()));
  }
  return true;
}

/* No text has a NUL. */
std::string
property_of(const onvif::EventMessage &message)
{
  std::string property = message.topic;
  for (const onvif::EventItem &item : message.source) {
    property += '\0' + item.name + '\0' + item.value;
  }
  return property;
}

gsize
size_of(const ReceiverEvent &event)
{
  gsize size = event.message.topic.size();
  for (const auto *items : {&event.message.source, &event.message.data}) {
    for (const onvif::EventItem &item : *items) {
      size += item.name.size() + item.value.size();
    }
  }
  for (const auto &[prefix, uri] : event.namespaces) {
    size += prefix.size() + uri.size();
  }
  return size;
}

bool
read_event(dom::object object, ReceiverEvent *event)
{
  onvif::EventMessage &message = event->message;
  const std::optional<std::string> topic = get_text(object, "Topic");
  if (!topic.has_value() || !onvif::TopicExpression::is_topic(*topic)) {
    return false;
  }
  message.topic = *topic;
  if (!read_namespaces(object, &event->namespaces) || !has_namespaces(*event) ||
      !read_operation(object, &message.operation) || !read_time(object, &message.utc) ||
      !read_items(object, "Source", &message.source) || !read_items(object, "Data", &message.data)) {
    return false;
  }
  event->property = message.operation.empty() ? "" : property_of(message);
  event->size = size_of(*event);
  return true;
}

bool
is_mark(dom::object object, std::string_view name)
{
  bool value = false;
  return object.size() == 1 && object.at_key(name).get(value) == simdjson::SUCCESS && value;
}

} // namespace

/**
 * receiver_message_parse:
 * @parser: its memory is used again
 * @text: the text of a message, any bytes
 *
 * Returns: the message; unset if @text is not one
 */
std::optional<ReceiverMessage>
receiver_message_parse(dom::parser *parser, std::string_view text)
{
  dom::object object;
  const std::optional<dom::element> root = json_text_parse(parser, text);
  if (text.size() > RECEIVER_EVENT_MAX_BYTES || !root.has_value() || root->get(object) != simdjson::SUCCESS) {
    return std::nullopt;
  }
  if (is_mark(object, "Current")) {
    return ReceiverMessage{ReceiverMessage::Kind::CURRENT, nullptr};
  }
  if (is_mark(object, "Resync")) {
    return ReceiverMessage{ReceiverMessage::Kind::RESYNC, nullptr};
  }
  auto event = std::make_shared<ReceiverEvent>();
  if (!read_event(object, event.get())) {
    return std::nullopt;
  }
  return ReceiverMessage{ReceiverMessage::Kind::EVENT, std::move(event)};
}

} // namespace plugins
