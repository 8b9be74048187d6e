/* SPDX-License-Identifier: MIT */
#include "eventmessage.h"

#include "metadata.h"

namespace onvif
{

namespace
{

constexpr const char *TOPIC_DIALECT = "http://www.onvif.org/ver10/tev/topicExpression/ConcreteSet";

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

/* Writes the content of the open tt:Message. */
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

} // namespace

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
 * @messages: the events; may be empty
 * @topics: the namespaces of topics that are not in ONVIF's own tree
 *
 * Returns: (transfer full): one tt:Event element with all of @messages, with the caps %FRAGMENT_CAPS
 */
GstBuffer *
event_messages_to_fragment(const std::vector<EventMessage> &messages, std::span<const XmlNamespace> topics)
{
  g_autoptr(xmlBuffer) text = xmlBufferCreate();
  g_autoptr(xmlTextWriter) writer = xmlNewTextWriterMemory(text, 0);
  xml_start(writer, TT, "Event");
  for (const XmlNamespace &declared : {TT, WSNT, TNS1}) {
    xml_declare(writer, declared);
  }
  for (const XmlNamespace &declared : topics) {
    xml_declare(writer, declared);
  }
  for (const EventMessage &message : messages) {
    write_notification(writer, message);
  }
  xml_end(writer);
  xmlTextWriterFlush(writer);
  return fragment_to_buffer(text);
}

} // namespace onvif
