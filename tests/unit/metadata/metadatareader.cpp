/* SPDX-License-Identifier: MIT */
#include "metadatareader.h"

#include "libxml.h"
#include "xml.h"

#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <libxml/xpathInternals.h>
#include <memory>

namespace
{

const xmlChar *
as_xml(const char *text)
{
  return reinterpret_cast<const xmlChar *>(text);
}

xmlDoc *
parse(const std::string &xml)
{
  return xmlReadMemory(xml.data(), static_cast<int>(xml.size()), nullptr, nullptr, XML_PARSE_NONET);
}

xmlXPathContext *
new_context(xmlDoc *document)
{
  xmlXPathContext *context = xmlXPathNewContext(document);
  xmlXPathRegisterNs(context, as_xml("tt"), as_xml("http://www.onvif.org/ver10/schema"));
  xmlXPathRegisterNs(context, as_xml("wsnt"), as_xml("http://docs.oasis-open.org/wsn/b-2"));
  xmlXPathRegisterNs(context, as_xml("qurt"), as_xml("urn:tessard:simulated-camera:radar"));
  return context;
}

std::vector<xmlNode *>
find(xmlXPathContext *context, xmlNode *from, const char *path)
{
  context->node = from;
  g_autoptr(xmlXPathObject) found = xmlXPathEval(as_xml(path), context);
  EXPECT_NE(found, nullptr) << path;
  if (found == nullptr || found->nodesetval == nullptr) {
    return {};
  }
  return {found->nodesetval->nodeTab, found->nodesetval->nodeTab + found->nodesetval->nodeNr};
}

std::string
find_text(xmlXPathContext *context, xmlNode *from, const char *path)
{
  context->node = from;
  g_autoptr(xmlXPathObject) found = xmlXPathEval(as_xml(path), context);
  EXPECT_NE(found, nullptr) << path;
  std::unique_ptr<xmlChar, xmlFreeFunc> text(xmlXPathCastToString(found), xmlFree);
  return reinterpret_cast<const char *>(text.get());
}

ReadEvent
read_event(xmlXPathContext *context, xmlNode *notification)
{
  ReadEvent event;
  event.topic = find_text(context, notification, "string(wsnt:Topic)");
  event.operation = find_text(context, notification, "string(wsnt:Message/tt:Message/@PropertyOperation)");
  event.utc = find_text(context, notification, "string(wsnt:Message/tt:Message/@UtcTime)");
  for (xmlNode *item : find(context, notification, "wsnt:Message/tt:Message/*/tt:SimpleItem")) {
    event.items.emplace_back(find_text(context, item, "string(@Name)"),
                             find_text(context, item, "string(@Value)"));
  }
  return event;
}

ReadPtzStatus
read_ptz_status(xmlXPathContext *context, xmlNode *status)
{
  return {
      .pan = find_text(context, status, "string(tt:Position/tt:PanTilt/@x)"),
      .tilt = find_text(context, status, "string(tt:Position/tt:PanTilt/@y)"),
      .pan_tilt_space = find_text(context, status, "string(tt:Position/tt:PanTilt/@space)"),
      .zoom = find_text(context, status, "string(tt:Position/tt:Zoom/@x)"),
      .zoom_space = find_text(context, status, "string(tt:Position/tt:Zoom/@space)"),
      .pan_tilt_status = find_text(context, status, "string(tt:MoveStatus/tt:PanTilt)"),
      .zoom_status = find_text(context, status, "string(tt:MoveStatus/tt:Zoom)"),
      .utc = find_text(context, status, "string(tt:UtcTime)"),
  };
}

template <typename Item>
std::vector<Item>
read_all(const std::string &xml, const char *path, Item (*read)(xmlXPathContext *context, xmlNode *node))
{
  std::vector<Item> items;
  g_autoptr(xmlDoc) document = parse(xml);
  EXPECT_NE(document, nullptr) << xml;
  if (document == nullptr) {
    return items;
  }
  g_autoptr(xmlXPathContext) context = new_context(document);
  for (xmlNode *node : find(context, xmlDocGetRootElement(document), path)) {
    items.push_back(read(context, node));
  }
  return items;
}

} // namespace

std::string
buffer_text(GstBuffer *buffer)
{
  std::string text(gst_buffer_get_size(buffer), '\0');
  gst_buffer_extract(buffer, 0, text.data(), text.size());
  return text;
}

/* The namespace and local name of the root element. */
std::string
root_name(const std::string &xml)
{
  g_autoptr(xmlDoc) document = parse(xml);
  EXPECT_NE(document, nullptr) << xml;
  if (document == nullptr) {
    return {};
  }
  xmlNode *root = xmlDocGetRootElement(document);
  return std::string(reinterpret_cast<const char *>(root->ns->href)) + " " +
         reinterpret_cast<const char *>(root->name);
}

/* The value of an XPath expression as text. */
std::string
evaluate(const std::string &xml, const std::string &path)
{
  g_autoptr(xmlDoc) document = parse(xml);
  EXPECT_NE(document, nullptr) << xml;
  if (document == nullptr) {
    return {};
  }
  g_autoptr(xmlXPathContext) context = new_context(document);
  return find_text(context, xmlDocGetRootElement(document), path.c_str());
}

std::vector<ReadEvent>
read_events(const std::string &xml)
{
  return read_all(xml, "//tt:Event/wsnt:NotificationMessage", read_event);
}

std::vector<ReadPtzStatus>
read_ptz_statuses(const std::string &xml)
{
  return read_all(xml, "//tt:PTZStatus", read_ptz_status);
}

/* Microseconds since 1970. */
gint64
parse_utc(const std::string &text)
{
  g_autoptr(GDateTime) time = g_date_time_new_from_iso8601(text.c_str(), nullptr);
  EXPECT_NE(time, nullptr) << text;
  return time != nullptr ? g_date_time_to_unix(time) * G_USEC_PER_SEC + g_date_time_get_microsecond(time) : 0;
}

void
PrintTo(const ReadEvent &event, std::ostream *stream)
{
  *stream << event.topic << " " << event.operation << " " << event.utc;
  for (const auto &[name, value] : event.items) {
    *stream << " " << name << "=" << value;
  }
}
