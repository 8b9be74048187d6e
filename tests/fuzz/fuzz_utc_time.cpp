/* SPDX-License-Identifier: MIT */
// The search for a document's time reads any bytes. Valid times survive being written again.
#include "fuzz.h"
#include "utctime.h"

#include <array>
#include <ctime>
#include <string>

namespace
{

constexpr uint64_t NANOSECONDS = 1000000000;

std::string
write_time(uint64_t time)
{
  const auto seconds = static_cast<time_t>(time / NANOSECONDS);
  std::array<char, 64> text = {};
  struct tm fields = {};
  gmtime_r(&seconds, &fields);
  snprintf(text.data(), text.size(), "%04d-%02d-%02dT%02d:%02d:%02d.%09luZ", fields.tm_year + 1900,
           fields.tm_mon + 1, fields.tm_mday, fields.tm_hour, fields.tm_min, fields.tm_sec,
           time % NANOSECONDS);
  return text.data();
}

} // namespace

int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
  const std::string_view text = fuzz::as_text(data, size);
  const std::string_view start = text.substr(0, plugins::UTC_TIME_MAX_SEARCHED_BYTES);
  fuzz::require(plugins::find_utc_time(text) == plugins::find_utc_time(start), "only the begin counts");

  const std::optional<uint64_t> time = plugins::parse_utc_time(text);
  if (time.has_value() && *time < 18429292800 * NANOSECONDS) {
    fuzz::require(plugins::parse_utc_time(write_time(*time)) == time,
                  "a time is the same when written again");
    const std::string document = "<a UtcTime=\"" + std::string(text) + "\"/>";
    fuzz::require(plugins::find_utc_time(document) == time, "a time is found in a document");
  }
  return 0;
}
