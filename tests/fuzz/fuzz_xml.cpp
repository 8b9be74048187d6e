/* SPDX-License-Identifier: MIT */
// Arbitrary bytes as a text and as the value of an attribute: libxml2 reads the same characters, with U+FFFD
// in place of those that XML does not allow. The first bytes are a number, which is written correctly
// rounded.
#include "fuzz.h"
#include "libxml.h"
#include "xml.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <libxml/chvalid.h>
#include <libxml/parser.h>
#include <string>

namespace
{

// The characters that a receiver reads.
std::string
expected_text(std::string_view bytes)
{
  g_autofree char *valid = g_utf8_make_valid(bytes.data(), static_cast<gssize>(bytes.size()));
  std::string expected;
  for (const char *at = valid; *at != '\0'; at = g_utf8_next_char(at)) {
    gunichar character = g_utf8_get_char(at);
    std::array<char, 6> encoded;
    int size = g_unichar_to_utf8(xmlIsCharQ(character) ? character : 0xfffd, encoded.data());
    expected.append(encoded.data(), static_cast<size_t>(size));
  }
  return expected;
}

// Its first @count characters.
std::string
beginning(const std::string &text, glong count)
{
  return text.substr(
      0, static_cast<size_t>(
             g_utf8_offset_to_pointer(text.c_str(), std::min(count, g_utf8_strlen(text.c_str(), -1))) -
             text.c_str()));
}

std::string
expected_number(double value, int decimals)
{
  std::array<char, 352> text;
  char *end =
      std::to_chars(text.data(), text.data() + text.size(), value, std::chars_format::fixed, decimals).ptr;
  std::string number(text.data(), end);
  bool is_zero = number.find_first_not_of("-0.") == number.npos;
  return is_zero && number.front() == '-' ? number.substr(1) : number;
}

std::string
attribute(xmlNode *element, const char *name)
{
  xmlChar *value = xmlGetNoNsProp(element, reinterpret_cast<const xmlChar *>(name));
  fuzz::require(value != nullptr, "an attribute is there");
  std::string copy(reinterpret_cast<const char *>(value));
  xmlFree(value);
  return copy;
}

std::string
content(xmlNode *element)
{
  xmlChar *value = xmlNodeGetContent(element);
  std::string copy(reinterpret_cast<const char *>(value));
  xmlFree(value);
  return copy;
}

void
check(double number, int decimals, std::string_view bytes)
{
  onvif::XmlWriter writer;
  writer.start(onvif::TT, "Root");
  writer.declare(onvif::TT);
  writer.attribute("Text", bytes);
  writer.attribute("Beginning", onvif::xml_beginning(bytes, 3));
  writer.attribute_number("Number", number, decimals);
  writer.element(onvif::TT, "Text", bytes);
  writer.element_number(onvif::TT, "Number", number, decimals);
  writer.end();

  std::string_view text = writer.written();
  fuzz::require(text.find_first_of("\n\r\t") == text.npos, "there are no line breaks");
  g_autoptr(xmlDoc) document = xmlReadMemory(text.data(), static_cast<int>(text.size()), nullptr, "UTF-8",
                                             XML_PARSE_NONET | XML_PARSE_HUGE);
  fuzz::require(document != nullptr, "it is well-formed");
  xmlNode *root = xmlDocGetRootElement(document);
  fuzz::require(xmlChildElementCount(root) == 2, "nothing is added");
  xmlNode *first = xmlFirstElementChild(root);
  std::string expected = expected_text(bytes);
  fuzz::require(attribute(root, "Text") == expected, "an attribute is read as it was written");
  fuzz::require(attribute(root, "Beginning") == beginning(expected, 3), "its beginning is read");
  fuzz::require(content(first) == expected, "a text is read as it was written");
  fuzz::require(attribute(root, "Number") == expected_number(number, decimals), "a number is rounded");
  fuzz::require(content(xmlNextElementSibling(first)) == expected_number(number, decimals),
                "a number is rounded");
}

} // namespace

int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
  double number = 0;
  if (size <= sizeof(number))
    return 0;
  memcpy(&number, data, sizeof(number));
  int decimals = data[sizeof(number)] % (onvif::XML_DECIMALS_MAX + 1);
  std::string_view bytes = fuzz::as_text(data, size).substr(sizeof(number) + 1);
  check(std::isfinite(number) ? number : 0, decimals, bytes);
  // Numbers in the range of coordinates, and those half-way between two results.
  double small = std::fmod(std::isfinite(number) ? number : 0, 2);
  check(small, decimals, "");
  check(std::round(small * 1e4) / 1e4 + 5e-5, 4, "");
  return 0;
}
