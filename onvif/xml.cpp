/* SPDX-License-Identifier: MIT */
#include "xml.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstring>
#include <utility>

namespace onvif
{

namespace
{

constexpr gsize FIRST_ALLOCATION = 1024;
constexpr gsize USUAL_DEPTH = 16;

constexpr std::string_view REPLACEMENT_CHARACTER = "\xef\xbf\xbd";

/* Long enough for every integer of 64 bits. */
constexpr gsize INTEGER_SIZE = 20;

/* Long enough for every double with XML_DECIMALS_MAX decimals. */
constexpr gsize NUMBER_SIZE = 352;

constexpr std::array<double, XML_DECIMALS_MAX + 1> POWERS_OF_TEN = {1,   1e1, 1e2, 1e3, 1e4,
                                                                    1e5, 1e6, 1e7, 1e8, 1e9};

/* Below this, a double is less than TIE_MARGIN away from the exact product that it stands for. */
constexpr double SCALED_END = 1e9;
constexpr double TIE_MARGIN = 1e-6;

/* The bytes that are written as they are. */
constexpr std::array<bool, 256>
plain_bytes()
{
  std::array<bool, 256> plain = {};
  for (gsize byte = ' '; byte < 0x80; byte++) {
    plain.at(byte) = byte != '&' && byte != '<' && byte != '>' && byte != '"';
  }
  return plain;
}

constexpr std::array<bool, 256> PLAIN = plain_bytes();

bool
is_plain(char byte)
{
  return PLAIN[static_cast<guchar>(byte)];
}

bool
is_allowed(gunichar character)
{
  return character == '\t' || character == '\n' || character == '\r' ||
         (character >= 0x20 && character <= 0xd7ff) || (character >= 0xe000 && character <= 0xfffd) ||
         (character >= 0x10000 && character <= 0x10ffff);
}

struct Character {
  gsize size;      /* in bytes */
  bool is_allowed; /* in XML; a byte of invalid UTF-8 is a character that is not */
};

Character
first_character(std::string_view text)
{
  gunichar character = g_utf8_get_char_validated(text.data(), static_cast<gssize>(text.size()));
  if (character > G_MAXINT32) {
    return {.size = 1, .is_allowed = false};
  }
  return {.size = static_cast<gsize>(g_unichar_to_utf8(character, nullptr)),
          .is_allowed = is_allowed(character)};
}

/* Returns: the reference to an ASCII character that must be escaped and that XML allows; empty for others */
std::string_view
reference_to(char character)
{
  switch (character) {
  case '&':
    return "&amp;";
  case '<':
    return "&lt;";
  case '>':
    return "&gt;";
  case '"':
    return "&quot;";
  case '\t':
    return "&#9;";
  case '\n':
    return "&#10;";
  case '\r':
    return "&#13;";
  default:
    return {};
  }
}

/* Writes the last @digits digits of @number. Returns: their end */
char *
put_digits(char *at, guint64 number, int digits)
{
  for (int i = digits - 1; i >= 0; i--) {
    at[i] = static_cast<char>('0' + number % 10);
    number /= 10;
  }
  return at + digits;
}

/* Writes a finite number, correctly rounded. Numbers that round to zero have no sign. Returns: its end */
char *
put_any_number(char *at, double value, int decimals)
{
  char *end = std::to_chars(at, at + NUMBER_SIZE, value, std::chars_format::fixed, decimals).ptr;
  std::string_view number(at, static_cast<gsize>(end - at));
  if (number.front() == '-' && number.find_first_not_of("-0.") == number.npos) {
    return std::copy(at + 1, end, at);
  }
  return end;
}

/* Like put_any_number(), but faster for most numbers. Scaling rounds, so numbers that may be half-way between
 * two results are left to put_any_number(). */
char *
put_number(char *at, double value, int decimals)
{
  double scaled = std::abs(value) * POWERS_OF_TEN[static_cast<gsize>(decimals)];
  if (!(scaled < SCALED_END)) {
    return put_any_number(at, value, decimals);
  }
  double fraction = scaled - std::floor(scaled);
  if (std::abs(fraction - 0.5) < TIE_MARGIN) {
    return put_any_number(at, value, decimals);
  }
  guint64 digits = static_cast<guint64>(scaled) + (fraction > 0.5 ? 1 : 0);
  if (value < 0 && digits > 0) {
    *at++ = '-';
  }
  auto power = static_cast<guint64>(POWERS_OF_TEN[static_cast<gsize>(decimals)]);
  at = std::to_chars(at, at + INTEGER_SIZE, digits / power).ptr;
  if (decimals > 0) {
    *at++ = '.';
  }
  return put_digits(at, digits, decimals);
}

} // namespace

/**
 * XmlWriter:
 *
 * A writer with an empty text.
 */
XmlWriter::XmlWriter() : text_(static_cast<char *>(g_malloc(FIRST_ALLOCATION))), allocated_(FIRST_ALLOCATION)
{
  open_.reserve(USUAL_DEPTH);
}

XmlWriter::~XmlWriter()
{
  g_free(text_);
}

/* Returns: room for @size bytes at the end of the text; the caller adds to size_ what it uses */
inline char *
XmlWriter::room(gsize size)
{
  if (allocated_ - size_ < size) {
    allocated_ = std::max(2 * allocated_, size_ + size);
    text_ = static_cast<char *>(g_realloc(text_, allocated_));
  }
  return text_ + size_;
}

inline void
XmlWriter::append(std::string_view text)
{
  memcpy(room(text.size()), text.data(), text.size());
  size_ += text.size();
}

inline void
XmlWriter::append(char character)
{
  *room(1) = character;
  size_++;
}

inline void
XmlWriter::append_name(const Element &element)
{
  append(element.prefix);
  append(':');
  append(element.name);
}

void
XmlWriter::append_escaped(std::string_view text)
{
  while (!text.empty()) {
    auto special = std::find_if_not(text.begin(), text.end(), is_plain);
    append(std::string_view(text.begin(), special));
    text = std::string_view(special, text.end());
    if (text.empty()) {
      return;
    }
    std::string_view reference = reference_to(text.front());
    if (!reference.empty()) {
      append(reference);
      text.remove_prefix(1);
      continue;
    }
    Character character = first_character(text);
    append(character.is_allowed ? text.substr(0, character.size) : REPLACEMENT_CHARACTER);
    text.remove_prefix(character.size);
  }
}

inline void
XmlWriter::append_number(double value, int decimals)
{
  char *at = room(NUMBER_SIZE);
  size_ += static_cast<gsize>(put_number(at, value, decimals) - at);
}

inline void
XmlWriter::begin_value(std::string_view name)
{
  append(' ');
  append(name);
  append("=\"");
}

inline void
XmlWriter::close_start_tag()
{
  if (std::exchange(is_in_start_tag_, false)) {
    append('>');
  }
}

/**
 * XmlWriter::start:
 * @element_namespace: the element's namespace, declared on this or an outer element
 * @name: the element's local name
 *
 * Opens an element; end() closes it.
 */
void
XmlWriter::start(const XmlNamespace &element_namespace, std::string_view name)
{
  close_start_tag();
  open_.push_back({.prefix = element_namespace.prefix, .name = name});
  append('<');
  append_name(open_.back());
  is_in_start_tag_ = true;
}

/**
 * XmlWriter::attribute:
 * @name: the attribute's name
 * @value: its value
 *
 * Adds an attribute without a namespace to the element that was just opened.
 */
void
XmlWriter::attribute(std::string_view name, std::string_view value)
{
  begin_value(name);
  append_escaped(value);
  append('"');
}

/**
 * XmlWriter::attribute_number:
 * @name: the attribute's name
 * @value: its value, a finite number
 * @decimals: the number of decimals, at most %XML_DECIMALS_MAX
 *
 * Adds an attribute without a namespace to the element that was just opened. Numbers that round to zero have
 * no sign; the locale has no influence.
 */
void
XmlWriter::attribute_number(std::string_view name, double value, int decimals)
{
  begin_value(name);
  append_number(value, decimals);
  append('"');
}

/**
 * XmlWriter::attribute_integer:
 * @name: the attribute's name
 * @value: its value
 *
 * Adds an attribute without a namespace to the element that was just opened.
 */
void
XmlWriter::attribute_integer(std::string_view name, gint64 value)
{
  begin_value(name);
  char *at = room(INTEGER_SIZE);
  size_ += static_cast<gsize>(std::to_chars(at, at + INTEGER_SIZE, value).ptr - at);
  append('"');
}

/**
 * XmlWriter::text:
 * @text: the text
 *
 * Adds text to the open element.
 */
void
XmlWriter::text(std::string_view text)
{
  close_start_tag();
  append_escaped(text);
}

/**
 * XmlWriter::element:
 * @element_namespace: the element's namespace, declared on an outer element
 * @name: the element's local name
 * @text: its text
 *
 * Adds an element that contains only text.
 */
void
XmlWriter::element(const XmlNamespace &element_namespace, std::string_view name, std::string_view text)
{
  start(element_namespace, name);
  this->text(text);
  end();
}

/**
 * XmlWriter::element_number:
 * @element_namespace: the element's namespace, declared on an outer element
 * @name: the element's local name
 * @value: a finite number
 * @decimals: the number of decimals, at most %XML_DECIMALS_MAX
 *
 * Adds an element that contains only a number, in the form of attribute_number().
 */
void
XmlWriter::element_number(const XmlNamespace &element_namespace, std::string_view name, double value,
                          int decimals)
{
  start(element_namespace, name);
  close_start_tag();
  append_number(value, decimals);
  end();
}

/**
 * XmlWriter::declare:
 * @declared: the namespace
 *
 * Declares a namespace on the element that was just opened.
 */
void
XmlWriter::declare(const XmlNamespace &declared)
{
  append(" xmlns:");
  append(declared.prefix);
  append("=\"");
  append_escaped(declared.uri);
  append('"');
}

/**
 * XmlWriter::end:
 *
 * Closes the innermost open element.
 */
void
XmlWriter::end()
{
  if (std::exchange(is_in_start_tag_, false)) {
    append("/>");
  } else {
    append("</");
    append_name(open_.back());
    append('>');
  }
  open_.pop_back();
}

/**
 * XmlWriter::written:
 *
 * Returns: the text; valid until more is written
 */
std::string_view
XmlWriter::written() const
{
  return {text_, size_};
}

/**
 * XmlWriter::take:
 * @size: (out): the length of the text
 *
 * Takes the text out of the writer, which must not be used any more.
 *
 * Returns: (transfer full): the text, without a NUL at its end, in memory of its size
 */
char *
XmlWriter::take(gsize *size)
{
  *size = size_;
  return static_cast<char *>(g_realloc(std::exchange(text_, nullptr), size_));
}

/**
 * xml_beginning:
 * @text: any bytes
 * @max_characters: the maximum length; each byte of invalid UTF-8 counts as a character
 *
 * Returns: the beginning of @text
 */
std::string_view
xml_beginning(std::string_view text, gsize max_characters)
{
  if (text.size() <= max_characters) {
    return text;
  }
  gsize end = 0;
  for (gsize count = 0; count < max_characters && end < text.size(); count++) {
    end += first_character(text.substr(end)).size;
  }
  return text.substr(0, end);
}

/**
 * xml_date_time:
 * @utc: microseconds since 1970, from the years 0 to 9999
 *
 * Returns: @utc as an xs:dateTime in UTC
 */
std::string
xml_date_time(gint64 utc)
{
  std::chrono::sys_time<std::chrono::microseconds> time{std::chrono::microseconds(utc)};
  auto day = std::chrono::floor<std::chrono::days>(time);
  std::chrono::year_month_day date(day);
  std::chrono::hh_mm_ss clock(time - day);
  struct {
    guint64 value;
    int digits;
    char end;
  } const parts[] = {
      {static_cast<guint64>(static_cast<int>(date.year())), 4, '-'},
      {static_cast<guint>(date.month()), 2, '-'},
      {static_cast<guint>(date.day()), 2, 'T'},
      {static_cast<guint64>(clock.hours().count()), 2, ':'},
      {static_cast<guint64>(clock.minutes().count()), 2, ':'},
      {static_cast<guint64>(clock.seconds().count()), 2, '.'},
      {static_cast<guint64>(clock.subseconds().count()), 6, 'Z'},
  };
  std::array<char, 27> text;
  char *at = text.data();
  for (const auto &part : parts) {
    at = put_digits(at, part.value, part.digits);
    *at++ = part.end;
  }
  return std::string(text.data(), at);
}

} // namespace onvif
