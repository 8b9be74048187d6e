#include "eventmessage.h"

namespace sim
{

namespace
{

constexpr const char *TOPIC_DIALECT = "http://www.onvif.org/ver10/tev/topicExpression/ConcreteSet";

constexpr const char *INPUT_TOPIC = "tns1:Device/Trigger/DigitalInput";
constexpr const char *MOTION_TOPIC = "tns1:VideoSource/MotionAlarm";
constexpr const char *CROSSING_TOPIC = "tns1:VideoAnalytics/tnsimcam:LineDetector/Crossed";

constexpr const char *VIDEO_SOURCE = "VideoSource_1";
constexpr const char *VIDEO_SOURCE_CONFIGURATION = "VideoSourceConfiguration_1";
constexpr const char *LINE_RULE = "Line_1";

constexpr const char *INITIALIZED = "Initialized";
constexpr const char *CHANGED = "Changed";

const char *
boolean_text(bool value)
{
  return value ? "true" : "false";
}

const char *
direction_text(Direction direction)
{
  return direction == Direction::LEFT_TO_RIGHT ? "LeftToRight" : "RightToLeft";
}

EventMessage
input_message(unsigned input, bool state, const char *operation, gint64 utc)
{
  return {.topic = INPUT_TOPIC,
          .operation = operation,
          .utc = utc,
          .source = {{"InputToken", "DigitalInput_" + std::to_string(input + 1)}},
          .data = {{"LogicalState", boolean_text(state)}}};
}

EventMessage
motion_message(bool state, const char *operation, gint64 utc)
{
  return {.topic = MOTION_TOPIC,
          .operation = operation,
          .utc = utc,
          .source = {{"Source", VIDEO_SOURCE}},
          .data = {{"State", boolean_text(state)}}};
}

EventMessage
crossing_message(gint64 object_id, Direction direction, gint64 utc)
{
  return {
      .topic = CROSSING_TOPIC,
      .operation = nullptr,
      .utc = utc,
      .source = {{"VideoSourceConfigurationToken", VIDEO_SOURCE_CONFIGURATION}, {"Rule", LINE_RULE}},
      .data = {{"ObjectId", std::to_string(object_id)}, {"Direction", direction_text(direction)}},
  };
}

void
write_items(xmlTextWriter *writer, const char *list, const std::vector<EventItem> &items)
{
  xml_start(writer, TT, list);
  for (const EventItem &item : items) {
    xml_start(writer, TT, "SimpleItem");
    xml_attribute(writer, "Name", item.name);
    xml_attribute(writer, "Value", item.value.c_str());
    xml_end(writer);
  }
  xml_end(writer);
}

/* The inside of a tt:Message that the caller has opened. */
void
write_message_content(xmlTextWriter *writer, const EventMessage &message)
{
  g_autofree char *utc = xml_date_time(message.utc);
  xml_attribute(writer, "UtcTime", utc);
  if (message.operation != nullptr) {
    xml_attribute(writer, "PropertyOperation", message.operation);
  }
  write_items(writer, "Source", message.source);
  write_items(writer, "Data", message.data);
}

void
write_notification(xmlTextWriter *writer, const EventMessage &message)
{
  xml_start(writer, WSNT, "NotificationMessage");
  xml_start(writer, WSNT, "Topic");
  xml_attribute(writer, "Dialect", TOPIC_DIALECT);
  xml_text(writer, message.topic);
  xml_end(writer);
  xml_start(writer, WSNT, "Message");
  xml_start(writer, TT, "Message");
  write_message_content(writer, message);
  xml_end(writer);
  xml_end(writer);
  xml_end(writer);
}

} /* namespace */

/**
 * event_message_from_change:
 * @change: what happened in the world
 * @settings: places the world's time on the wall clock
 *
 * Returns: the event that tells @change; nothing for a move of the PTZ head, which the PTZ status shows
 */
std::optional<EventMessage>
event_message_from_change(const Change &change, const Settings &settings)
{
  gint64 utc = settings_utc(settings, change.time);
  switch (change.type) {
  case ChangeType::INPUT:
    return input_message(change.input, change.state, CHANGED, utc);
  case ChangeType::MOTION:
    return motion_message(change.state, CHANGED, utc);
  case ChangeType::CROSSING:
    return crossing_message(change.object_id, change.direction, utc);
  case ChangeType::PAN_TILT:
  case ChangeType::ZOOM:
    return std::nullopt;
  }
  g_assert_not_reached();
}

/**
 * event_messages_of_state:
 * @world: the world
 * @time: the moment to look at
 * @settings: places the world's time on the wall clock
 *
 * Returns: one event for every property, with its state at @time
 */
std::vector<EventMessage>
event_messages_of_state(const World &world, WorldTime time, const Settings &settings)
{
  gint64 utc = settings_utc(settings, time);
  std::vector<EventMessage> messages;
  for (unsigned input = 0; input < World::INPUT_COUNT; input++) {
    messages.push_back(input_message(input, world.input_at(input, time), INITIALIZED, utc));
  }
  messages.push_back(motion_message(world.motion_at(time), INITIALIZED, utc));
  return messages;
}

/**
 * event_message_examples:
 *
 * Returns: one event of every topic, for trying out whether a filter works at all
 */
std::vector<EventMessage>
event_message_examples()
{
  return {input_message(0, true, CHANGED, 0), motion_message(true, CHANGED, 0),
          crossing_message(1, Direction::LEFT_TO_RIGHT, 0)};
}

/**
 * event_message_to_document:
 * @message: the event
 *
 * Returns: (transfer full): a document whose root is the event's tt:Message
 */
xmlDoc *
event_message_to_document(const EventMessage &message)
{
  xmlDoc *document = nullptr;
  g_autoptr(xmlTextWriter) writer = xmlNewTextWriterDoc(&document, 0);
  xmlTextWriterStartDocument(writer, nullptr, nullptr, nullptr);
  xml_start(writer, TT, "Message");
  xml_declare(writer, TT);
  write_message_content(writer, message);
  xmlTextWriterEndDocument(writer);
  return document;
}

/**
 * event_messages_to_fragment:
 * @messages: any number of events, also none
 *
 * Returns: (transfer full): one tt:Event element with all of @messages, with the caps %FRAGMENT_CAPS
 */
GstBuffer *
event_messages_to_fragment(const std::vector<EventMessage> &messages)
{
  g_autoptr(xmlBuffer) text = xmlBufferCreate();
  g_autoptr(xmlTextWriter) writer = xmlNewTextWriterMemory(text, 0);
  xml_start(writer, TT, "Event");
  for (const XmlNamespace &declared : {TT, WSNT, TNS1, TNSIMCAM}) {
    xml_declare(writer, declared);
  }
  for (const EventMessage &message : messages) {
    write_notification(writer, message);
  }
  xml_end(writer);
  xmlTextWriterFlush(writer);
  return xml_to_gst_buffer(text);
}

} /* namespace sim */
