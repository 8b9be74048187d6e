/* SPDX-License-Identifier: MIT */
#include "eventmessage.h"

#include "metadata.h"

#include <libxml/parser.h>

namespace onvif
{

namespace
{

constexpr const char *TOPIC_DIALECT = "http://www.onvif.org/ver10/tev/topicExpression/ConcreteSet";

void
write_items(XmlWriter *writer, const char *list, const std::vector<EventItem> &items)
{
  writer->start(TT, list);
  for (const EventItem &item : items) {
    writer->start(TT, "SimpleItem");
    writer->attribute("Name", item.name);
    writer->attribute("Value", item.value);
    writer->end();
  }
  writer->end();
}

/* Writes the content of the open tt:Message. */
void
write_message_content(XmlWriter *writer, const EventMessage &message)
{
  writer->attribute("UtcTime", xml_date_time(message.utc));
  if (!message.operation.empty()) {
    writer->attribute("PropertyOperation", message.operation);
  }
  write_items(writer, "Source", message.source);
  write_items(writer, "Data", message.data);
}

void
write_notification(XmlWriter *writer, const EventMessage &message)
{
  writer->start(WSNT, "NotificationMessage");
  writer->start(WSNT, "Topic");
  writer->attribute("Dialect", TOPIC_DIALECT);
  writer->text(message.topic);
  writer->end();
  writer->start(WSNT, "Message");
  writer->start(TT, "Message");
  write_message_content(writer, message);
  writer->end();
  writer->end();
  writer->end();
}

} // namespace

/**
 * event_message_examples:
 *
 * Returns: an event of a property and one without a state, for checking filters of a source whose topics are
 * not known
 */
std::vector<EventMessage>
event_message_examples()
{
  const std::vector<EventItem> source = {{"Source", "1"}};
  return {{"tns1:VideoSource/MotionAlarm", "Changed", 0, source, {{"State", "true"}}},
          {"tns1:RuleEngine/LineDetector/Crossed", "", 0, source, {{"ObjectId", "1"}}}};
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
  XmlWriter writer;
  writer.start(TT, "Message");
  writer.declare(TT);
  write_message_content(&writer, message);
  writer.end();
  std::string_view text = writer.written();
  return xmlReadMemory(text.data(), static_cast<int>(text.size()), nullptr, "UTF-8", XML_PARSE_NONET);
}

/**
 * event_messages_to_fragment:
 * @messages: the events; may be empty
 * @topics: the namespaces of topics that are not in ONVIF's own tree
 *
 * Returns: (transfer full): one tt:Event element with all of @messages, with the caps %FRAGMENT_CAPS
 */
GstBuffer *
event_messages_to_fragment(const std::vector<EventMessage> &messages, std::span<const XmlNamespace> topics)
{
  XmlWriter writer;
  writer.start(TT, "Event");
  for (const XmlNamespace &declared : {TT, WSNT, TNS1}) {
    writer.declare(declared);
  }
  for (const XmlNamespace &declared : topics) {
    writer.declare(declared);
  }
  for (const EventMessage &message : messages) {
    write_notification(&writer, message);
  }
  writer.end();
  return fragment_to_buffer(&writer);
}

} // namespace onvif
