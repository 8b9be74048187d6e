/* SPDX-License-Identifier: MIT */
#include "jsonform.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <string_view>

/* json-glib is not safe for untrusted text. It recurses for each level of nesting until the stack is
 * exhausted; a repeated member takes time in proportion to the number of members; it accepts comments,
 * leading zeros and unpaired surrogates; integers beyond 64 bits wrap around.
 *
 * So a text is checked against JSON's grammar before, in constant memory. A text that passes is JSON of
 * bounded size and depth. */

namespace oracle
{

namespace
{

/* Replaces an integer that is too large; beyond the limits of all members. */
constexpr std::string_view HUGE_NUMBER = "1e99";

constexpr std::array<std::string_view, 3> LITERALS = {"true", "false", "null"};

constexpr std::string_view SIMPLE_ESCAPES = "\"\\/bfnrt";
constexpr std::string_view BLANKS = " \t\r\n";

constexpr int HEXADECIMAL = 16;
constexpr gsize UNIT_DIGITS = 4; /* of an escape like \u00e9 */

enum class Expected {
  VALUE,
  FIRST_VALUE, /* or the end of the array */
  MEMBER,
  FIRST_MEMBER, /* or the end of the object */
  COLON,
  NEXT, /* a comma, or the end of what is open */
  NOTHING,
};

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

class Walk
{
public:
  explicit Walk(std::string *text) : at_(text->data()), end_(text->data() + text->size())
  {
  }

  bool to_the_end();

  const JsonForm &form() const
  {
    return form_;
  }

private:
  bool token();
  bool begin_value();
  bool end_value();
  bool open(char closing);
  bool close(char closing);
  bool comma();
  bool colon();
  bool quoted();
  bool skip_string();
  bool skip_escape();
  guint unit();
  bool scalar();
  bool literal();
  bool number();
  bool digits();
  bool fraction();
  bool exponent();
  void replace_huge(char *first);
  bool take(char wanted);

  char *at_;
  char *end_; /* where a NUL stands, which is in no token */
  Expected expected_ = Expected::VALUE;
  guint depth_ = 0;
  guint values_ = 0;
  std::array<char, JSON_DEPTH_MAX> closing_ = {};
  JsonForm form_ = {};
};

bool
Walk::to_the_end()
{
  while (at_ < end_) {
    if (BLANKS.find(*at_) != BLANKS.npos) {
      at_++;
    } else if (!token()) {
      return false;
    }
  }
  return expected_ == Expected::NOTHING;
}

bool
Walk::token()
{
  switch (*at_) {
  case '{':
    return open('}');
  case '[':
    return open(']');
  case '}':
  case ']':
    return close(*at_);
  case ',':
    return comma();
  case ':':
    return colon();
  case '"':
    return quoted();
  default:
    return scalar();
  }
}

bool
Walk::begin_value()
{
  return (expected_ == Expected::VALUE || expected_ == Expected::FIRST_VALUE) && ++values_ <= JSON_VALUES_MAX;
}

bool
Walk::end_value()
{
  expected_ = depth_ == 0 ? Expected::NOTHING : Expected::NEXT;
  return true;
}

bool
Walk::open(char closing)
{
  if (!begin_value() || depth_ == JSON_DEPTH_MAX) {
    return false;
  }
  at_++;
  closing_[depth_] = closing;
  form_.members[depth_] = 0;
  depth_++;
  expected_ = closing == '}' ? Expected::FIRST_MEMBER : Expected::FIRST_VALUE;
  return true;
}

bool
Walk::close(char closing)
{
  Expected nothing_yet = closing == '}' ? Expected::FIRST_MEMBER : Expected::FIRST_VALUE;
  if (expected_ != Expected::NEXT && expected_ != nothing_yet) {
    return false;
  }
  if (closing_[depth_ - 1] != closing) {
    return false;
  }
  at_++;
  depth_--;
  return end_value();
}

bool
Walk::comma()
{
  if (expected_ != Expected::NEXT) {
    return false;
  }
  at_++;
  expected_ = closing_[depth_ - 1] == '}' ? Expected::MEMBER : Expected::VALUE;
  return true;
}

bool
Walk::colon()
{
  if (expected_ != Expected::COLON) {
    return false;
  }
  at_++;
  expected_ = Expected::VALUE;
  return true;
}

bool
Walk::quoted()
{
  if (expected_ != Expected::MEMBER && expected_ != Expected::FIRST_MEMBER) {
    return begin_value() && skip_string() && end_value();
  }
  expected_ = Expected::COLON;
  return ++form_.members[depth_ - 1] <= JSON_MEMBERS_MAX && skip_string();
}

bool
Walk::skip_string()
{
  at_++;
  while (at_ < end_ && *at_ != '"') {
    if (static_cast<guchar>(*at_) < ' ') {
      return false;
    }
    if (*at_ != '\\') {
      at_++;
    } else if (!skip_escape()) {
      return false;
    }
  }
  return take('"');
}

/* The escapes of NUL and of unpaired surrogates are invalid. */
bool
Walk::skip_escape()
{
  at_++;
  if (!take('u')) {
    return at_ < end_ && SIMPLE_ESCAPES.find(*at_++) != SIMPLE_ESCAPES.npos;
  }
  guint first = unit();
  if (!is_first_of_pair(first)) {
    return first != 0 && !is_second_of_pair(first);
  }
  return take('\\') && take('u') && is_second_of_pair(unit());
}

/* Returns: the 16 bits that the digits stand for, 0 if there are too few */
guint
Walk::unit()
{
  guint value = 0;
  gsize size = std::min(UNIT_DIGITS, static_cast<gsize>(end_ - at_));
  auto [end, error] = std::from_chars(at_, at_ + size, value, HEXADECIMAL);
  if (error != std::errc() || end != at_ + UNIT_DIGITS) {
    return 0;
  }
  at_ += UNIT_DIGITS;
  return value;
}

bool
Walk::scalar()
{
  return begin_value() && (literal() || number()) && end_value();
}

bool
Walk::literal()
{
  std::string_view rest(at_, static_cast<gsize>(end_ - at_));
  for (std::string_view known : LITERALS) {
    if (rest.starts_with(known)) {
      at_ += known.size();
      return true;
    }
  }
  return false;
}

/* A character directly after a number that is not part of it is an error of the next token. */
bool
Walk::number()
{
  char *first = at_;
  take('-');
  if (!take('0') && !digits()) {
    return false;
  }
  char *whole_end = at_;
  if (!fraction() || !exponent()) {
    return false;
  }
  if (at_ == whole_end) {
    replace_huge(first);
  } else {
    form_.has_huge_number |= std::isinf(g_ascii_strtod(first, nullptr));
  }
  return true;
}

bool
Walk::digits()
{
  char *first = at_;
  while (g_ascii_isdigit(*at_)) {
    at_++;
  }
  return at_ > first;
}

bool
Walk::fraction()
{
  return !take('.') || digits();
}

bool
Walk::exponent()
{
  if (!take('e') && !take('E')) {
    return true;
  }
  if (!take('+')) {
    take('-');
  }
  return digits();
}

/* Replaces an integer beyond 64 bits by a shorter number. */
void
Walk::replace_huge(char *first)
{
  gint64 value = 0;
  if (std::from_chars(first, at_, value).ec == std::errc()) {
    return;
  }
  guint64 unsigned_value = 0;
  form_.has_huge_number |= std::from_chars(first, at_, unsigned_value).ec != std::errc();
  char *rest = std::copy(HUGE_NUMBER.begin(), HUGE_NUMBER.end(), first);
  std::fill(rest, at_, ' ');
}

/* Whether this was the next character. */
bool
Walk::take(char wanted)
{
  if (at_ == end_ || *at_ != wanted) {
    return false;
  }
  at_++;
  return true;
}

} // namespace

/**
 * json_form_check:
 * @text: (inout): any bytes
 *
 * Checks that @text is one JSON value in valid UTF-8, nested no deeper than %JSON_DEPTH_MAX, of at most
 * %JSON_VALUES_MAX values, with at most %JSON_MEMBERS_MAX members in each object. Takes time in proportion to
 * the length of @text and constant memory.
 *
 * Replaces integers beyond 64 bits by 1e99, because parsers differ on them.
 *
 * Returns: the form of @text; unset if the check fails
 */
std::optional<JsonForm>
json_form_check(std::string *text)
{
  if (!g_utf8_validate(text->data(), static_cast<gssize>(text->size()), nullptr)) {
    return std::nullopt;
  }
  Walk walk(text);
  return walk.to_the_end() ? std::optional<JsonForm>(walk.form()) : std::nullopt;
}

} // namespace oracle
