/* SPDX-License-Identifier: MIT */
#include "eventvalue.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <glib.h>

/* The lexical forms of XML Schema. White space around a value, which XML Schema removes, is refused. */

namespace receiver
{

namespace
{

constexpr std::array<int, 12> DAYS = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};

bool
is_digit(char c)
{
  return g_ascii_isdigit(c);
}

/* The bytes of one value, from its start. */
class Reader
{
public:
  explicit Reader(std::string_view text) : rest_(text)
  {
  }

  bool is_at_end() const
  {
    return rest_.empty();
  }

  bool skip(char c)
  {
    if (!rest_.starts_with(c)) {
      return false;
    }
    rest_.remove_prefix(1);
    return true;
  }

  bool skip_sign()
  {
    return skip('-') || skip('+');
  }

  /* Returns: the number of digits */
  size_t skip_digits()
  {
    const auto end = std::find_if_not(rest_.begin(), rest_.end(), is_digit);
    const auto count = static_cast<size_t>(end - rest_.begin());

    rest_.remove_prefix(count);
    return count;
  }

  /* Takes exactly @digits digits of a number from @first to @last. */
  bool take_number(size_t digits, int first, int last, int *number)
  {
    const std::string_view taken = rest_.substr(0, digits);

    if (taken.size() < digits || !std::all_of(taken.begin(), taken.end(), is_digit)) {
      return false;
    }
    std::from_chars(taken.data(), taken.data() + digits, *number);
    rest_.remove_prefix(digits);
    return *number >= first && *number <= last;
  }

private:
  std::string_view rest_;
};

bool
is_forbidden_control(char c)
{
  return static_cast<unsigned char>(c) < 0x20 && c != '\t' && c != '\n' && c != '\r';
}

/* The characters of XML 1.0; @value is UTF-8. */
bool
is_text(std::string_view value)
{
  return std::none_of(value.begin(), value.end(), is_forbidden_control) &&
         value.find("\xEF\xBF\xBE") == value.npos && value.find("\xEF\xBF\xBF") == value.npos;
}

bool
is_boolean(std::string_view value)
{
  return value == "true" || value == "false" || value == "1" || value == "0";
}

bool
is_integer(std::string_view value)
{
  Reader reader(value);

  reader.skip_sign();
  return reader.skip_digits() > 0 && reader.is_at_end();
}

bool
is_int(std::string_view value)
{
  gint32 number = 0;

  if (!is_integer(value)) {
    return false;
  }
  if (value.front() == '+') {
    value.remove_prefix(1);
  }
  return std::from_chars(value.data(), value.data() + value.size(), number).ec == std::errc();
}

bool
is_floating(std::string_view value)
{
  Reader reader(value);

  if (value == "INF" || value == "-INF" || value == "NaN") {
    return true;
  }
  reader.skip_sign();
  const size_t before = reader.skip_digits();
  const size_t after = reader.skip('.') ? reader.skip_digits() : 0;
  if (before + after == 0) {
    return false;
  }
  if (reader.skip('e') || reader.skip('E')) {
    reader.skip_sign();
    return reader.skip_digits() > 0 && reader.is_at_end();
  }
  return reader.is_at_end();
}

/* Years have four digits here. */
bool
read_date(Reader *reader)
{
  int year = 0;
  int month = 0;
  int day = 0;

  if (!reader->take_number(4, 1, 9999, &year) || !reader->skip('-') ||
      !reader->take_number(2, 1, 12, &month) || !reader->skip('-') ||
      !reader->take_number(2, 1, DAYS.at(static_cast<size_t>(month) - 1), &day)) {
    return false;
  }
  return month != 2 || day < 29 || g_date_is_leap_year(static_cast<GDateYear>(year));
}

bool
read_time(Reader *reader)
{
  int hour = 0;
  int minute = 0;
  int second = 0;

  return reader->take_number(2, 0, 23, &hour) && reader->skip(':') &&
         reader->take_number(2, 0, 59, &minute) && reader->skip(':') &&
         reader->take_number(2, 0, 59, &second) && (!reader->skip('.') || reader->skip_digits() > 0);
}

bool
read_zone(Reader *reader)
{
  int hours = 0;
  int minutes = 0;

  if (reader->is_at_end() || reader->skip('Z')) {
    return true;
  }
  return reader->skip_sign() && reader->take_number(2, 0, 14, &hours) && reader->skip(':') &&
         reader->take_number(2, 0, hours == 14 ? 0 : 59, &minutes);
}

bool
is_date_time(std::string_view value)
{
  Reader reader(value);

  return read_date(&reader) && reader.skip('T') && read_time(&reader) && read_zone(&reader) &&
         reader.is_at_end();
}

struct Type {
  std::string_view name;
  bool (*allows)(std::string_view value);
};

constexpr std::array<Type, 6> TYPES = {{
    {"xs:boolean", is_boolean},
    {"xs:int", is_int},
    {"xs:integer", is_integer},
    {"xs:float", is_floating},
    {"xs:double", is_floating},
    {"xs:dateTime", is_date_time},
}};

} // namespace

/**
 * event_value_check:
 * @type: the type of an item
 * @value: a value, in UTF-8
 *
 * Values of the types that are not in TYPES are texts.
 *
 * Returns: whether @type allows @value
 */
bool
event_value_check(std::string_view type, std::string_view value)
{
  const auto found =
      std::find_if(TYPES.begin(), TYPES.end(), [type](const Type &known) { return known.name == type; });

  return found != TYPES.end() ? found->allows(value) : is_text(value);
}

} // namespace receiver
