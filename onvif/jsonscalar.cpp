/* SPDX-License-Identifier: MIT */
#include "jsonscalar.h"

#include "metadatajson.h"

#include <algorithm>
#include <cmath>

namespace onvif
{

namespace
{

/* JSON's readers hold larger integers only approximately. */
constexpr double EXACT_INTEGER_MAX = 9007199254740991.0;

constexpr std::string_view BLANKS = " \t\r\n";
constexpr std::string_view DIGITS = "0123456789";

std::string_view
trim(std::string_view text)
{
  gsize begin = text.find_first_not_of(BLANKS);
  if (begin == text.npos) {
    return {};
  }
  return text.substr(begin, text.find_last_not_of(BLANKS) + 1 - begin);
}

/* Takes the characters of @set from the beginning of @text. */
std::string_view
take(std::string_view *text, std::string_view set)
{
  std::string_view taken = text->substr(0, std::min(text->find_first_not_of(set), text->size()));
  text->remove_prefix(taken.size());
  return taken;
}

bool
take_one(std::string_view *text, std::string_view set)
{
  if (text->empty() || set.find(text->front()) == set.npos) {
    return false;
  }
  text->remove_prefix(1);
  return true;
}

/* Takes the exponent with its letter. Returns: false if it is incomplete */
bool
take_exponent(std::string_view *text, std::string_view *exponent)
{
  std::string_view before = *text;
  if (!take_one(text, "eE")) {
    return true;
  }
  take_one(text, "+-");
  if (take(text, DIGITS).empty()) {
    return false;
  }
  *exponent = before.substr(0, before.size() - text->size());
  return true;
}

/* JSON has neither a plus sign nor leading zeros, and digits on both sides of the point. Returns: the number
 * as JSON, with the digits of @text; empty if @text is none */
std::string
normalised(std::string_view text)
{
  bool is_negative = text.starts_with('-');
  take_one(&text, "+-");
  std::string_view whole = take(&text, DIGITS);
  bool has_point = take_one(&text, ".");
  std::string_view fraction = has_point ? take(&text, DIGITS) : std::string_view();
  std::string_view exponent;
  if ((whole.empty() && fraction.empty()) || !take_exponent(&text, &exponent) || !text.empty()) {
    return {};
  }
  whole.remove_prefix(std::min(whole.find_first_not_of('0'), whole.size()));
  std::string number = is_negative ? "-" : "";
  number += whole.empty() ? "0" : whole;
  if (!fraction.empty()) {
    (number += '.') += fraction;
  }
  return number += exponent;
}

/* Returns: whether a reader of @number, which is JSON, gets its value */
bool
is_held(const std::string &number)
{
  double value = g_ascii_strtod(number.c_str(), nullptr);
  bool is_integer = number.find_first_of(".eE") == number.npos;
  return std::isfinite(value) && (!is_integer || std::abs(value) <= EXACT_INTEGER_MAX);
}

bool
append_number(std::string *json, std::string_view text)
{
  if (text.size() > METADATA_JSON_NUMBER_MAX) {
    return false;
  }
  std::string number = normalised(text);
  if (number.empty() || !is_held(number)) {
    return false;
  }
  *json += number;
  return true;
}

bool
append_boolean(std::string *json, std::string_view text)
{
  if (text == "true" || text == "True" || text == "1") {
    *json += "true";
    return true;
  }
  if (text == "false" || text == "False" || text == "0") {
    *json += "false";
    return true;
  }
  return false;
}

void
append_escaped(std::string *json, char character)
{
  constexpr std::string_view HEXADECIMAL = "0123456789abcdef";
  switch (character) {
  case '"':
  case '\\':
    (*json += '\\') += character;
    return;
  case '\n':
    *json += "\\n";
    return;
  case '\r':
    *json += "\\r";
    return;
  case '\t':
    *json += "\\t";
    return;
  default:
    *json += "\\u00";
    (*json += HEXADECIMAL[static_cast<guchar>(character) >> 4]) += HEXADECIMAL[character & 0xf];
  }
}

bool
is_escaped(char character)
{
  return static_cast<guchar>(character) < ' ' || character == '"' || character == '\\';
}

} // namespace

/**
 * json_append_string:
 * @json: the text that grows
 * @text: valid UTF-8
 *
 * Appends a string with its quotes.
 */
void
json_append_string(std::string *json, std::string_view text)
{
  *json += '"';
  while (!text.empty()) {
    auto special = std::find_if(text.begin(), text.end(), is_escaped);
    json->append(text.begin(), special);
    text = std::string_view(special, text.end());
    if (!text.empty()) {
      append_escaped(json, text.front());
      text.remove_prefix(1);
    }
  }
  *json += '"';
}

/**
 * json_append_scalar:
 * @json: the text that grows
 * @type: the type that the schema gives to @text
 * @text: valid UTF-8
 *
 * Appends @text as a value of this type. Numbers keep their digits. A text that is no such value, and a
 * number that JSON's readers cannot hold, such as "INF" and integers above 2^53, is appended as a string.
 */
void
json_append_scalar(std::string *json, ScalarType type, std::string_view text)
{
  if (type == ScalarType::NUMBER && append_number(json, trim(text))) {
    return;
  }
  if (type == ScalarType::BOOLEAN && append_boolean(json, trim(text))) {
    return;
  }
  json_append_string(json, text);
}

} // namespace onvif
