/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>
#include <libxml/tree.h>
#include <libxml/xmlwriter.h>
#include <libxml/xpath.h>

G_DEFINE_AUTOPTR_CLEANUP_FUNC(xmlBuffer, xmlBufferFree)
G_DEFINE_AUTOPTR_CLEANUP_FUNC(xmlDoc, xmlFreeDoc)
G_DEFINE_AUTOPTR_CLEANUP_FUNC(xmlTextWriter, xmlFreeTextWriter)
G_DEFINE_AUTOPTR_CLEANUP_FUNC(xmlXPathCompExpr, xmlXPathFreeCompExpr)
G_DEFINE_AUTOPTR_CLEANUP_FUNC(xmlXPathContext, xmlXPathFreeContext)
G_DEFINE_AUTOPTR_CLEANUP_FUNC(xmlXPathObject, xmlXPathFreeObject)

namespace onvif
{

struct XmlNamespace {
  const char *prefix;
  const char *uri;
};

constexpr XmlNamespace TT = {"tt", "http://www.onvif.org/ver10/schema"};
constexpr XmlNamespace WSNT = {"wsnt", "http://docs.oasis-open.org/wsn/b-2"};
constexpr XmlNamespace TNS1 = {"tns1", "http://www.onvif.org/ver10/topics"};

void xml_start(xmlTextWriter *writer, const XmlNamespace &element_namespace, const char *name);
void xml_attribute(xmlTextWriter *writer, const char *name, const char *value);
void xml_attribute_number(xmlTextWriter *writer, const char *name, double value, int decimals);
void xml_text(xmlTextWriter *writer, const char *text);
void xml_element(xmlTextWriter *writer, const XmlNamespace &element_namespace, const char *name,
                 const char *text);
void xml_element_number(xmlTextWriter *writer, const XmlNamespace &element_namespace, const char *name,
                        double value, int decimals);
void xml_declare(xmlTextWriter *writer, const XmlNamespace &declared);
void xml_end(xmlTextWriter *writer);
char *xml_clean_text(const char *text);
char *xml_clean_beginning(const char *text, glong max_characters);
char *xml_date_time(gint64 utc);

} // namespace onvif
