/* SPDX-License-Identifier: MIT */
#include "jsontext.h"

#include <charconv>

/* simdjson checks the grammar, the encoding and the range of numbers in time in proportion to the length of
 * the text. It accepts more than json2xml does: escapes of NUL and of unpaired surrogates, which some
 * releases join with the next character, a byte order mark, and JSON of any size. */

namespace plugins
{

namespace
{

namespace dom = simdjson::dom;

constexpr std::string_view BYTE_ORDER_MARK = "\xef\xbb\xbf";

constexpr int HEXADECIMAL = 16;
constexpr gsize ESCAPE_SIZE = 2; /* like \n */
constexpr gsize UNIT_SIZE = 6;   /* like \u00e9 */

bool
is_first_of_pair(guint unit)
{
  return unit >= 0xd800 && unit <= 0xdbff;
}

bool
is_second_of_pair(guint unit)
{
  return unit >= 0xdc00 && unit <= 0xdfff;
}

/* Returns: the 16 bits that an escape like \u00e9 at the start of @text stands for, 0 if there is none */
guint
first_unit(std::string_view text)
{
  guint unit = 0;
  if (text.size() >= UNIT_SIZE && text.starts_with("\\u")) {
    std::from_chars(text.data() + ESCAPE_SIZE, text.data() + UNIT_SIZE, unit, HEXADECIMAL);
  }
  return unit;
}

/* Returns: the length of the escape at the start of @text, 0 if it stands for no character */
gsize
escape_size(std::string_view text)
{
  if (!text.starts_with("\\u")) {
    return ESCAPE_SIZE;
  }
  guint unit = first_unit(text);
  if (unit == 0 || is_second_of_pair(unit)) {
    return 0;
  }
  if (!is_first_of_pair(unit)) {
    return UNIT_SIZE;
  }
  return is_second_of_pair(first_unit(text.substr(UNIT_SIZE))) ? 2 * UNIT_SIZE : 0;
}

/* @text is JSON, so that every backslash in it begins an escape. */
bool
has_valid_escapes(std::string_view text)
{
  for (gsize at = text.find('\\'); at != text.npos; at = text.find('\\', at)) {
    gsize size = escape_size(text.substr(at));
    if (size == 0) {
      return false;
    }
    at += size;
  }
  return true;
}

bool is_within_limits(dom::element value, guint depth, guint *values);

bool
are_elements_within_limits(dom::array array, guint depth, guint *values)
{
  for (dom::element element : array) {
    if (!is_within_limits(element, depth, values)) {
      return false;
    }
  }
  return true;
}

bool
are_members_within_limits(dom::object object, guint depth, guint *values)
{
  if (object.size() > JSON_MEMBERS_MAX) {
    return false;
  }
  for (dom::key_value_pair member : object) {
    if (!is_within_limits(member.value, depth, values)) {
      return false;
    }
  }
  return true;
}

/* Calls itself for each level of nesting, no deeper than the limit. */
bool
is_within_limits(dom::element value, guint depth, guint *values)
{
  if (++*values > JSON_VALUES_MAX) {
    return false;
  }
  switch (value.type()) {
  case dom::element_type::ARRAY:
    return depth < JSON_DEPTH_MAX &&
           are_elements_within_limits(value.get_array().value_unsafe(), depth + 1, values);
  case dom::element_type::OBJECT:
    return depth < JSON_DEPTH_MAX &&
           are_members_within_limits(value.get_object().value_unsafe(), depth + 1, values);
  default:
    return true;
  }
}

} // namespace

/**
 * json_text_parse:
 * @parser: keeps its memory from text to text
 * @text: any bytes, followed by %simdjson::SIMDJSON_PADDING bytes that can be read
 *
 * Parses @text if it is one JSON value in valid UTF-8, nested no deeper than %JSON_DEPTH_MAX, of at most
 * %JSON_VALUES_MAX values, with at most %JSON_MEMBERS_MAX members in each object. Numbers must be within the
 * range of a double, and those without fraction and exponent within 64 bits, signed or unsigned. Escapes of
 * NUL and of unpaired surrogates are refused. Takes time in proportion to the length of @text.
 *
 * Returns: the value, valid until @parser is used again; unset if @text is refused
 */
std::optional<dom::element>
json_text_parse(dom::parser *parser, std::string_view text)
{
  dom::element root;
  guint values = 0;
  if (text.starts_with(BYTE_ORDER_MARK) ||
      parser->parse(text.data(), text.size(), false).get(root) != simdjson::SUCCESS ||
      !has_valid_escapes(text) || !is_within_limits(root, 0, &values)) {
    return std::nullopt;
  }
  return root;
}

} // namespace plugins
