/* SPDX-License-Identifier: MIT */
#include "recording.h"

#include "arguments.h"
#include "linesplitter.h"

#include <sys/stat.h>

namespace sim
{

namespace
{

constexpr std::string_view TIME_MEMBER = "UtcTime";
constexpr gsize MAX_TIME_LENGTH = 64;

/* Returns: the offset of the closing quote of the string literal at @begin, or the end of the line */
gsize
end_of_string(std::string_view line, gsize begin)
{
  gsize end = begin + 1;

  while (end < line.size() && line[end] != '"') {
    end += line[end] == '\\' ? 2 : 1;
  }
  return std::min(end, line.size());
}

gsize
skip_blanks(std::string_view line, gsize at)
{
  while (at < line.size() && g_ascii_isspace(line[at])) {
    at++;
  }
  return at;
}

/* Returns: the offset of the value of the member whose name ends at @at, if it is a string */
std::optional<gsize>
find_string_value(std::string_view line, gsize at)
{
  at = skip_blanks(line, at);
  if (at >= line.size() || line[at] != ':') {
    return std::nullopt;
  }
  at = skip_blanks(line, at + 1);
  return at < line.size() && line[at] == '"' ? std::optional<gsize>(at) : std::nullopt;
}

std::optional<gint64>
parse_time(std::string_view text)
{
  g_autoptr(GTimeZone) utc = g_time_zone_new_utc();

  if (text.size() > MAX_TIME_LENGTH) {
    return std::nullopt;
  }
  g_autoptr(GDateTime) time = g_date_time_new_from_iso8601(std::string(text).c_str(), utc);
  if (time == nullptr) {
    return std::nullopt;
  }
  return g_date_time_to_unix(time) * G_USEC_PER_SEC + g_date_time_get_microsecond(time);
}

std::optional<Recording::Stamp>
stamp_of(std::string_view line, gsize value)
{
  const gsize end = end_of_string(line, value);
  const std::string_view text = line.substr(value + 1, end - value - 1);
  const std::optional<gint64> utc = parse_time(text);

  if (!utc.has_value()) {
    return std::nullopt;
  }
  return Recording::Stamp{.offset = value + 1, .size = text.size(), .utc = *utc};
}

bool
check_file(const std::string &path, GError **error)
{
  struct stat status = {};

  if (stat(path.c_str(), &status) != 0) {
    return refuse(error, "cannot read '%s': %s", path.c_str(), g_strerror(errno));
  }
  if (!S_ISREG(status.st_mode)) {
    return refuse(error, "'%s' is not a regular file", path.c_str());
  }
  if (static_cast<guint64>(status.st_size) > Recording::MAX_BYTES) {
    return refuse(error, "'%s' is longer than %" G_GSIZE_FORMAT " bytes", path.c_str(), Recording::MAX_BYTES);
  }
  return true;
}

bool
cut_into_lines(std::string_view content, const std::string &path, Recording *recording, GError **error)
{
  LineSplitter splitter;

  splitter.push(content);
  splitter.finish();
  while (std::optional<SharedText> line = splitter.pop()) {
    if (recording->lines.size() == Recording::MAX_LINES) {
      return refuse(error, "'%s' has more than %" G_GSIZE_FORMAT " lines", path.c_str(),
                    Recording::MAX_LINES);
    }
    recording->lines.push_back({*line, recording_find_stamp(shared_text_view(*line))});
  }
  if (splitter.dropped() > 0) {
    return refuse(error, "'%s' has a line longer than %" G_GSIZE_FORMAT " bytes", path.c_str(),
                  MAX_TEXT_BYTES);
  }
  return !recording->lines.empty() || refuse(error, "'%s' has no line", path.c_str());
}

} // namespace

/**
 * recording_find_stamp:
 * @line: any text, normally a JSON object
 *
 * Finds the member "UtcTime" of the outermost object. The rest of the line is not checked and may be
 * malformed.
 *
 * Returns: the time of the line, if it has one
 */
std::optional<Recording::Stamp>
recording_find_stamp(std::string_view line)
{
  int depth = 0;

  for (gsize at = 0; at < line.size(); at++) {
    const char c = line[at];
    if (c == '{' || c == '[') {
      depth++;
    } else if (c == '}' || c == ']') {
      depth--;
    } else if (c == '"') {
      const gsize end = end_of_string(line, at);
      const std::optional<gsize> value = find_string_value(line, end + 1);
      if (depth == 1 && line.substr(at + 1, end - at - 1) == TIME_MEMBER && value.has_value()) {
        return stamp_of(line, *value);
      }
      at = end;
    }
  }
  return std::nullopt;
}

/**
 * recording_load:
 * @path: a file
 * @error: set if the file cannot be read, has no line or more than %Recording::MAX_LINES, is longer than
 *   %Recording::MAX_BYTES, or has a line longer than %MAX_TEXT_BYTES
 *
 * Reads a file of lines. Their content is not checked.
 *
 * Returns: (nullable): the recording
 */
std::shared_ptr<const Recording>
recording_load(const std::string &path, GError **error)
{
  g_autofree gchar *content = nullptr;
  gsize size = 0;
  g_autoptr(GError) found = nullptr;
  auto recording = std::make_shared<Recording>();

  if (!check_file(path, error)) {
    return nullptr;
  }
  if (!g_file_get_contents(path.c_str(), &content, &size, &found)) {
    refuse(error, "cannot read '%s': %s", path.c_str(), found->message);
    return nullptr;
  }
  if (!cut_into_lines({content, size}, path, recording.get(), error)) {
    return nullptr;
  }
  return recording;
}

} // namespace sim
