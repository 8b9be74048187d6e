/* SPDX-License-Identifier: MIT */
#include "streamtext.h"

#include "jsonscalar.h"
#include "viewlimits.h"

namespace view
{

namespace
{

const char *
operation_name(onvif::PropertyOperation operation)
{
  switch (operation) {
  case onvif::PropertyOperation::INITIALIZED:
    return "Initialized";
  case onvif::PropertyOperation::CHANGED:
    return "Changed";
  case onvif::PropertyOperation::DELETED:
    return "Deleted";
  default:
    return "";
  }
}

Text
notification_text(const onvif::MetadataText &text, onvif::PropertyOperation operation)
{
  std::string json = "{\"topic\":";
  onvif::json_append_string(&json, text.topic);
  json += ",\"operation\":";
  onvif::json_append_string(&json, operation_name(operation));
  json += ",\"source\":[";
  for (const std::string &value : text.source_values) {
    if (json.back() != '[') {
      json += ',';
    }
    onvif::json_append_string(&json, value);
  }
  json += "],\"message\":" + text.json + "}";
  return event_text("event", json);
}

/* The lengths keep two properties with other values apart. */
std::string
property_key(const onvif::MetadataText &text)
{
  std::string key = text.topic;
  for (const std::string &value : text.source_values) {
    key += "\n" + std::to_string(value.size()) + ":" + value;
  }
  return key;
}

StreamItem
notification_item(const onvif::MetadataText &text)
{
  StreamItem item = {ItemKind::EVENT, {}, notification_text(text, text.operation), nullptr};
  if (text.operation == onvif::PropertyOperation::NONE) {
    return item;
  }
  item.key = property_key(text);
  item.kind =
      text.operation == onvif::PropertyOperation::DELETED ? ItemKind::DELETED_PROPERTY : ItemKind::PROPERTY;
  item.state = notification_text(text, onvif::PropertyOperation::INITIALIZED);
  return item;
}

StreamItem
item_of(const onvif::MetadataText &text)
{
  switch (text.kind) {
  case onvif::MetadataKind::FRAME:
    return {ItemKind::FRAME, "frame " + text.source, event_text("frame", text.json), nullptr};
  case onvif::MetadataKind::PTZ_STATUS:
    return {ItemKind::PTZ, "ptz", event_text("ptz", text.json), nullptr};
  default:
    return notification_item(text);
  }
}

} // namespace

/**
 * event_text:
 * @name: the event
 * @json: a JSON text of one line
 *
 * Returns: a server-sent event
 */
Text
event_text(std::string_view name, std::string_view json)
{
  auto text = std::make_shared<std::string>("event: ");
  text->append(name).append("\ndata: ").append(json).append("\n\n");
  return text;
}

/**
 * connection_text:
 * @is_connected: whether the daemon's stream runs
 *
 * Returns: the server-sent event that tells it
 */
Text
connection_text(bool is_connected)
{
  return event_text("state", is_connected ? "{\"connected\":true}" : "{\"connected\":false}");
}

/**
 * connection_item:
 * @is_connected: whether the daemon's stream runs
 *
 * Returns: the item that tells it
 */
StreamItem
connection_item(bool is_connected)
{
  return {is_connected ? ItemKind::CONNECTED : ItemKind::DISCONNECTED,
          {},
          connection_text(is_connected),
          nullptr};
}

/**
 * items_of:
 * @texts: the texts of a document
 *
 * Leaves out texts of more than %VIEW_EVENT_BYTES_MAX.
 *
 * Returns: their items
 */
std::vector<StreamItem>
items_of(const onvif::MetadataTexts &texts)
{
  std::vector<StreamItem> items;
  for (const onvif::MetadataText &text : texts.texts) {
    if (text.json.size() <= VIEW_EVENT_BYTES_MAX) {
      items.push_back(item_of(text));
    }
  }
  return items;
}

} // namespace view
