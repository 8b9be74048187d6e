/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>
#include <string>
#include <string_view>
#include <vector>

/* XML that elements write. */

namespace onvif
{

struct XmlNamespace {
  const char *prefix;
  const char *uri;
};

constexpr XmlNamespace TT = {"tt", "http://www.onvif.org/ver10/schema"};
constexpr XmlNamespace WSNT = {"wsnt", "http://docs.oasis-open.org/wsn/b-2"};
constexpr XmlNamespace TNS1 = {"tns1", "http://www.onvif.org/ver10/topics"};

/* The most decimals of a number. */
constexpr int XML_DECIMALS_MAX = 9;

/* Writes elements into one growing text without line breaks. Texts and values of attributes can be any bytes:
 * they are escaped, and invalid UTF-8 and characters that XML does not allow become U+FFFD. The names of
 * elements, attributes and prefixes are written as they are, and must stay valid as long as the writer. */
class XmlWriter
{
public:
  XmlWriter();
  ~XmlWriter();
  XmlWriter(const XmlWriter &) = delete;
  XmlWriter &operator=(const XmlWriter &) = delete;

  void start(const XmlNamespace &element_namespace, std::string_view name);
  void attribute(std::string_view name, std::string_view value);
  void attribute_number(std::string_view name, double value, int decimals);
  void attribute_integer(std::string_view name, gint64 value);
  void text(std::string_view text);
  void element(const XmlNamespace &element_namespace, std::string_view name, std::string_view text);
  void element_number(const XmlNamespace &element_namespace, std::string_view name, double value,
                      int decimals);
  void declare(const XmlNamespace &declared);
  void end();
  std::string_view written() const;
  char *take(gsize *size);

private:
  struct Element {
    std::string_view prefix;
    std::string_view name;
  };

  char *room(gsize size);
  void append(std::string_view text);
  void append(char character);
  void append_name(const Element &element);
  void append_escaped(std::string_view text);
  void append_number(double value, int decimals);
  void begin_value(std::string_view name);
  void close_start_tag();

  char *text_;
  gsize size_ = 0;
  gsize allocated_;
  bool is_in_start_tag_ = false;
  std::vector<Element> open_;
};

std::string_view xml_beginning(std::string_view text, gsize max_characters);
std::string xml_date_time(gint64 utc);

} // namespace onvif
