/* SPDX-License-Identifier: MIT */
#include "xml.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <libxml/chvalid.h>
#include <string>

/* Helpers for libxml2's writer. Its functions fail only without memory or when start and end do not match, so
 * their results are not checked. */

namespace onvif
{

namespace
{

constexpr gunichar REPLACEMENT_CHARACTER = 0xfffd;

const xmlChar *
as_xml(const char *text)
{
  return reinterpret_cast<const xmlChar *>(text);
}

/* Independent of the locale. Numbers that round to zero have no sign. */
std::string
number_text(double value, int decimals)
{
  /* Long enough for every double with up to 9 decimals. */
  std::array<char, 352> text;
  char *end =
      std::to_chars(text.data(), text.data() + text.size(), value, std::chars_format::fixed, decimals).ptr;
  std::string number(text.data(), end);
  return number.find_first_not_of("-0.") == number.npos && number.front() == '-' ? number.substr(1) : number;
}

} // namespace

/**
 * xml_start:
 * @writer: the writer
 * @element_namespace: the element's namespace, declared on this or an outer element
 * @name: the element's local name
 *
 * Opens an element; xml_end() closes it.
 */
void
xml_start(xmlTextWriter *writer, const XmlNamespace &element_namespace, const char *name)
{
  xmlTextWriterStartElementNS(writer, as_xml(element_namespace.prefix), as_xml(name), nullptr);
}

/**
 * xml_attribute:
 * @writer: the writer, with an element just opened
 * @name: the attribute's name
 * @value: its value; the writer escapes it
 *
 * Adds an attribute without a namespace to the open element.
 */
void
xml_attribute(xmlTextWriter *writer, const char *name, const char *value)
{
  xmlTextWriterWriteAttribute(writer, as_xml(name), as_xml(value));
}

/**
 * xml_attribute_number:
 * @writer: the writer, with an element just opened
 * @name: the attribute's name
 * @value: its value, a finite number
 * @decimals: the number of decimals, from 0 to 9
 *
 * Adds an attribute without a namespace to the open element.
 */
void
xml_attribute_number(xmlTextWriter *writer, const char *name, double value, int decimals)
{
  xml_attribute(writer, name, number_text(value, decimals).c_str());
}

/**
 * xml_text:
 * @writer: the writer, with an element open
 * @text: the text; the writer escapes it
 *
 * Adds text to the open element.
 */
void
xml_text(xmlTextWriter *writer, const char *text)
{
  xmlTextWriterWriteString(writer, as_xml(text));
}

/**
 * xml_element:
 * @writer: the writer
 * @element_namespace: the element's namespace, declared on an outer element
 * @name: the element's local name
 * @text: its text; the writer escapes it
 *
 * Adds an element that contains only text.
 */
void
xml_element(xmlTextWriter *writer, const XmlNamespace &element_namespace, const char *name, const char *text)
{
  xml_start(writer, element_namespace, name);
  xml_text(writer, text);
  xml_end(writer);
}

/**
 * xml_element_number:
 * @writer: the writer
 * @element_namespace: the element's namespace, declared on an outer element
 * @name: the element's local name
 * @value: a finite number
 * @decimals: the number of decimals, from 0 to 9
 *
 * Adds an element that contains only a number.
 */
void
xml_element_number(xmlTextWriter *writer, const XmlNamespace &element_namespace, const char *name,
                   double value, int decimals)
{
  xml_element(writer, element_namespace, name, number_text(value, decimals).c_str());
}

/**
 * xml_declare:
 * @writer: the writer, with an element just opened
 * @declared: the namespace
 *
 * Declares a namespace on the open element.
 */
void
xml_declare(xmlTextWriter *writer, const XmlNamespace &declared)
{
  xmlTextWriterWriteAttributeNS(writer, as_xml("xmlns"), as_xml(declared.prefix), nullptr,
                                as_xml(declared.uri));
}

/**
 * xml_end:
 * @writer: the writer
 *
 * Closes the innermost open element.
 */
void
xml_end(xmlTextWriter *writer)
{
  xmlTextWriterEndElement(writer);
}

/**
 * xml_clean_text:
 * @text: any bytes
 *
 * Returns: (transfer full): @text with U+FFFD in place of invalid UTF-8 and of characters that XML does not
 * allow
 */
char *
xml_clean_text(const char *text)
{
  g_autofree char *valid = g_utf8_make_valid(text, -1);
  GString *clean = g_string_new(nullptr);
  for (const char *at = valid; *at != '\0'; at = g_utf8_next_char(at)) {
    gunichar character = g_utf8_get_char(at);
    g_string_append_unichar(clean, xmlIsCharQ(character) ? character : REPLACEMENT_CHARACTER);
  }
  return g_string_free(clean, FALSE);
}

/**
 * xml_clean_beginning:
 * @text: any bytes
 * @max_characters: the maximum length
 *
 * Returns: (transfer full): the beginning of @text, cleaned by xml_clean_text()
 */
char *
xml_clean_beginning(const char *text, glong max_characters)
{
  g_autofree char *clean = xml_clean_text(text);
  return g_utf8_substring(clean, 0, std::min(g_utf8_strlen(clean, -1), max_characters));
}

/**
 * xml_date_time:
 * @utc: microseconds since 1970
 *
 * Returns: (transfer full): @utc as an xs:dateTime in UTC
 */
char *
xml_date_time(gint64 utc)
{
  g_autoptr(GDateTime) origin = g_date_time_new_from_unix_utc(0);
  g_autoptr(GDateTime) time = g_date_time_add(origin, utc);
  return g_date_time_format(time, "%Y-%m-%dT%H:%M:%S.%fZ");
}

} // namespace onvif
