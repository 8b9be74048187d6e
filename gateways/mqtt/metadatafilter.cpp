/* SPDX-License-Identifier: MIT */
#include "metadatafilter.h"

#include "mqttlimits.h"

#include <algorithm>
#include <string_view>

namespace mqtt
{

namespace
{

constexpr gsize LEVELS = 3;

std::vector<std::string>
split(std::string_view path)
{
  std::vector<std::string> levels;
  gsize end;
  while ((end = path.find('/')) != path.npos) {
    levels.emplace_back(path.substr(0, end));
    path.remove_prefix(end + 1);
  }
  levels.emplace_back(path);
  return levels;
}

/* Matches in a time that the product of both lengths bounds. Both texts are valid UTF-8. */
bool
glob_matches(const char *glob, const char *text)
{
  const char *after_star = nullptr;
  const char *retry = nullptr;
  while (*text != '\0') {
    if (*glob == '*') {
      after_star = ++glob;
      retry = text;
    } else if (*glob == '?') {
      glob++;
      text = g_utf8_next_char(text);
    } else if (*glob == *text) {
      glob++;
      text++;
    } else if (after_star != nullptr) {
      glob = after_star;
      text = retry = g_utf8_next_char(retry);
    } else {
      return false;
    }
  }
  while (*glob == '*') {
    glob++;
  }
  return *glob == '\0';
}

bool
matches(const std::vector<std::string> &pattern, const std::vector<std::string> &levels)
{
  return pattern.size() <= levels.size() && std::equal(pattern.begin(), pattern.end(), levels.begin(),
                                                       [](const std::string &glob, const std::string &level) {
                                                         return glob_matches(glob.c_str(), level.c_str());
                                                       });
}

} // namespace

/**
 * MetadataFilter::add:
 * @pattern: valid UTF-8
 * @error: return location for an error of %G_KEY_FILE_ERROR, whose message is for the user
 *
 * Returns: false if @pattern is malformed, or the filter has too many
 */
bool
MetadataFilter::add(const std::string &pattern, GError **error)
{
  std::vector<std::string> levels = split(pattern);
  bool has_empty_level =
      std::any_of(levels.begin(), levels.end(), [](const std::string &level) { return level.empty(); });
  if (has_empty_level || levels.size() > LEVELS || pattern.size() > MQTT_PATTERN_BYTES_MAX) {
    g_set_error(error, G_KEY_FILE_ERROR, G_KEY_FILE_ERROR_INVALID_VALUE,
                "\"%.64s\" is not KIND, KIND/PROFILE or KIND/PROFILE/MODULE.", pattern.c_str());
    return false;
  }
  if (patterns_.size() >= MQTT_PATTERNS_MAX) {
    g_set_error(error, G_KEY_FILE_ERROR, G_KEY_FILE_ERROR_INVALID_VALUE, "There are more than %d patterns.",
                MQTT_PATTERNS_MAX);
    return false;
  }
  patterns_.push_back(std::move(levels));
  return true;
}

/**
 * MetadataFilter::selects:
 * @path: the result of metadata_path()
 *
 * Returns: whether the filter is empty or one of its patterns matches
 */
bool
MetadataFilter::selects(const std::string &path) const
{
  std::vector<std::string> levels = split(path);
  return patterns_.empty() || std::any_of(patterns_.begin(), patterns_.end(), [&levels](const auto &pattern) {
           return matches(pattern, levels);
         });
}

} // namespace mqtt
