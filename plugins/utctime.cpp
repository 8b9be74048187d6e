/* SPDX-License-Identifier: MIT */
#include "utctime.h"

#include <algorithm>
#include <chrono>

/* The document is searched for its first attribute UtcTime, as XML: neither a text nor a comment nor another
 * attribute's value can contain it. The search is no parser: it accepts malformed documents, and knows no
 * entities and no document type, in which nothing is found. It reads each byte once and needs no memory. */

namespace plugins
{

namespace
{

constexpr std::string_view ATTRIBUTE = "UtcTime";
constexpr std::string_view BLANKS = " \t\r\n";

constexpr std::int64_t SECONDS_PER_DAY = 24 * 60 * 60;
constexpr std::uint64_t NANOSECONDS_PER_SECOND = 1'000'000'000;

/* xs:dateTime allows zones up to here. */
constexpr int MAX_ZONE_HOURS = 14;

/* The last year that a number of nanoseconds since 1970 holds entirely. */
constexpr int MAX_YEAR = 2553;

/* Reads a text from its start. Each function reads nothing if it returns false. */
class Reader
{
public:
  explicit Reader(std::string_view text) : rest_(text)
  {
  }

  bool at_end() const
  {
    return rest_.empty();
  }

  bool take(char expected)
  {
    if (!rest_.starts_with(expected)) {
      return false;
    }
    rest_.remove_prefix(1);
    return true;
  }

  bool take_digits(std::size_t count, int *number)
  {
    if (count_digits() < count) {
      return false;
    }
    *number = 0;
    for (char digit : rest_.substr(0, count)) {
      *number = *number * 10 + (digit - '0');
    }
    rest_.remove_prefix(count);
    return true;
  }

  /* The digits of a fraction of a second, which has any number of them. */
  bool take_nanoseconds(std::uint64_t *nanoseconds)
  {
    std::size_t count = count_digits();
    *nanoseconds = 0;
    for (std::size_t place = 0; place < 9; place++) {
      *nanoseconds = *nanoseconds * 10 + (place < count ? rest_[place] - '0' : 0);
    }
    rest_.remove_prefix(count);
    return count > 0;
  }

private:
  std::size_t count_digits() const
  {
    auto is_digit = [](char c) { return c >= '0' && c <= '9'; };
    return std::find_if_not(rest_.begin(), rest_.end(), is_digit) - rest_.begin();
  }

  std::string_view rest_;
};

/* Seconds since 1970, negative before. */
std::optional<std::int64_t>
read_date(Reader *reader)
{
  int year = 0, month = 0, day = 0;
  if (!reader->take_digits(4, &year) || !reader->take('-') || !reader->take_digits(2, &month) ||
      !reader->take('-') || !reader->take_digits(2, &day)) {
    return std::nullopt;
  }
  std::chrono::year_month_day date{std::chrono::year(year), std::chrono::month(month), std::chrono::day(day)};
  if (!date.ok() || year > MAX_YEAR) {
    return std::nullopt;
  }
  return std::chrono::sys_days(date).time_since_epoch().count() * SECONDS_PER_DAY;
}

/* The time of a day; 24:00:00 is the end of the day. */
bool
read_time(Reader *reader, std::int64_t *seconds, std::uint64_t *nanoseconds)
{
  int hour = 0, minute = 0, second = 0;
  *nanoseconds = 0;
  if (!reader->take_digits(2, &hour) || !reader->take(':') || !reader->take_digits(2, &minute) ||
      !reader->take(':') || !reader->take_digits(2, &second) ||
      (reader->take('.') && !reader->take_nanoseconds(nanoseconds))) {
    return false;
  }
  *seconds = (hour * 60 + minute) * 60 + second;
  bool ends_day = hour == 24 && minute == 0 && second == 0 && *nanoseconds == 0;
  return ends_day || (hour < 24 && minute < 60 && second < 60);
}

/* Seconds by which the zone is ahead of UTC. A time without zone is in UTC, as the attribute's name says. */
std::optional<std::int64_t>
read_zone(Reader *reader)
{
  if (reader->at_end() || reader->take('Z')) {
    return 0;
  }
  bool is_behind = reader->take('-');
  int hours = 0, minutes = 0;
  if ((!is_behind && !reader->take('+')) || !reader->take_digits(2, &hours) || !reader->take(':') ||
      !reader->take_digits(2, &minutes) || minutes > 59 || hours * 60 + minutes > MAX_ZONE_HOURS * 60) {
    return std::nullopt;
  }
  return (is_behind ? -1 : 1) * (hours * 60 + minutes) * 60;
}

std::string_view
without_blanks(std::string_view text)
{
  text.remove_prefix(std::min(text.find_first_not_of(BLANKS), text.size()));
  return text.substr(0, text.find_last_not_of(BLANKS) + 1);
}

void
skip_to(std::string_view *text, std::size_t position)
{
  text->remove_prefix(std::min(position, text->size()));
}

/* Removes everything up to the text and with it. */
void
skip_behind(std::string_view *text, std::string_view end)
{
  std::size_t position = text->find(end);
  skip_to(text, position == std::string_view::npos ? position : position + end.size());
}

/* The value of the attribute in a tag that begins behind its "<". Removes the tag.
 *
 * `found` says whether the tag has the attribute with a complete value. */
std::string_view
find_in_tag(std::string_view *text, bool *found)
{
  skip_to(text, text->find_first_of(" \t\r\n/>"));
  while (!text->empty() && !text->starts_with('>')) {
    skip_to(text, text->find_first_not_of(" \t\r\n/"));
    std::string_view name = text->substr(0, text->find_first_of(" \t\r\n=/>"));
    skip_to(text, name.size());
    skip_to(text, text->find_first_not_of(BLANKS));
    if (!text->starts_with('=')) {
      continue;
    }
    skip_to(text, 1);
    skip_to(text, text->find_first_not_of(BLANKS));
    if (!text->starts_with('"') && !text->starts_with('\'')) {
      continue;
    }
    char quote = text->front();
    skip_to(text, 1);
    std::string_view value = text->substr(0, text->find(quote));
    *found = name == ATTRIBUTE && value.size() < text->size();
    skip_to(text, value.size() + 1);
    if (*found) {
      return value;
    }
  }
  return {};
}

/* Removes what begins with "<" and is no element's start. Returns false for a start tag, of which nothing is
 * removed but the "<". */
bool
skip_markup(std::string_view *text)
{
  skip_to(text, 1);
  if (text->starts_with("!--")) {
    skip_to(text, 3);
    skip_behind(text, "-->");
  } else if (text->starts_with("![CDATA[")) {
    skip_behind(text, "]]>");
  } else if (text->starts_with("?")) {
    skip_behind(text, "?>");
  } else if (text->starts_with("!")) {
    *text = {};
  } else if (text->starts_with("/")) {
    skip_behind(text, ">");
  } else {
    return false;
  }
  return true;
}

} // namespace

/**
 * parse_utc_time:
 * @text: a time in the form of xs:dateTime, with or without blanks around it
 *
 * A time without a zone is in UTC. Digits behind the nanosecond are dropped.
 *
 * Returns: the nanoseconds since the begin of 1970 in UTC; nothing for another text, and for times before
 * 1970 or after 2553
 */
std::optional<std::uint64_t>
parse_utc_time(std::string_view text)
{
  Reader reader(without_blanks(text));
  std::int64_t seconds = 0;
  std::uint64_t nanoseconds = 0;
  std::optional<std::int64_t> date = read_date(&reader);
  if (!date.has_value() || !reader.take('T') || !read_time(&reader, &seconds, &nanoseconds)) {
    return std::nullopt;
  }
  std::optional<std::int64_t> zone = read_zone(&reader);
  if (!zone.has_value() || !reader.at_end()) {
    return std::nullopt;
  }
  seconds += *date - *zone;
  if (seconds < 0) {
    return std::nullopt;
  }
  return static_cast<std::uint64_t>(seconds) * NANOSECONDS_PER_SECOND + nanoseconds;
}

/**
 * find_utc_time:
 * @document: a document in XML, not trusted
 *
 * Searches at most %UTC_TIME_MAX_SEARCHED_BYTES of the document for its first attribute UtcTime.
 *
 * Returns: the attribute's value as parse_utc_time() returns it; nothing if the document has none
 */
std::optional<std::uint64_t>
find_utc_time(std::string_view document)
{
  std::string_view text = document.substr(0, UTC_TIME_MAX_SEARCHED_BYTES);
  for (skip_to(&text, text.find('<')); !text.empty(); skip_to(&text, text.find('<'))) {
    if (skip_markup(&text)) {
      continue;
    }
    bool found = false;
    std::string_view value = find_in_tag(&text, &found);
    if (found) {
      return parse_utc_time(value);
    }
  }
  return std::nullopt;
}

} // namespace plugins
