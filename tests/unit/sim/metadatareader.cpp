#include "metadatareader.h"

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

} /* namespace */

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

std::vector<ReadEvent>
read_events(const std::string &xml)
{
  std::vector<ReadEvent> events;
  g_autoptr(xmlDoc) document = parse(xml);
  EXPECT_NE(document, nullptr) << xml;
  if (document == nullptr) {
    return events;
  }
  g_autoptr(xmlXPathContext) context = xmlXPathNewContext(document);
  xmlXPathRegisterNs(context, as_xml("tt"), as_xml("http://www.onvif.org/ver10/schema"));
  xmlXPathRegisterNs(context, as_xml("wsnt"), as_xml("http://docs.oasis-open.org/wsn/b-2"));
  for (xmlNode *notification :
       find(context, xmlDocGetRootElement(document), "//tt:Event/wsnt:NotificationMessage")) {
    events.push_back(read_event(context, notification));
  }
  return events;
}

void
PrintTo(const ReadEvent &event, std::ostream *stream)
{
  *stream << event.topic << " " << event.operation << " " << event.utc;
  for (const auto &[name, value] : event.items) {
    *stream << " " << name << "=" << value;
  }
}
