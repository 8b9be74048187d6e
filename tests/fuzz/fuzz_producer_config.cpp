/* SPDX-License-Identifier: MIT */
/* Two lines, a producer's name and a configuration name for it, and then a producers' file of arbitrary
 * bytes. GLib reads its groups and values; a simple model interprets them.
 */
#include "fuzz.h"
#include "producerconfig.h"
#include "producersfile.h"
#include "ratelimitedlog.h"
#include "saves.h"

#include <algorithm>
#include <cstdarg>
#include <optional>
#include <set>
#include <string>
#include <syslog.h>
#include <utility>

namespace
{

constexpr std::string_view WRITE_FAILURE = "could not write name to producerconfig: ";
constexpr std::string_view LONG_NAME = "configuration name longer than 256 bytes in producers.conf: ";
constexpr std::string_view INVALID_GROUP = "invalid format of group in producers.conf: ";

using Lines = std::vector<std::string>;

Lines syslog_lines;

Lines
take_syslog()
{
  return std::exchange(syslog_lines, {});
}

std::string
text_of(std::string_view line)
{
  return std::string(line.substr(0, line.find('\0')));
}

/* Removes the first line. */
std::string
take_line(std::string_view *input)
{
  const size_t end = input->find('\n');
  const std::string_view line = input->substr(0, end);

  *input = end == input->npos ? "" : input->substr(end + 1);
  return text_of(line);
}

/* The index that the text is; an empty text is the first. */
std::optional<guint32>
parse_index(std::string_view text)
{
  constexpr std::string_view LAST = "2147483647";
  if (text.empty()) {
    return 0;
  }

  text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
  const bool negative = text.starts_with('-');
  text.remove_prefix(negative || text.starts_with('+') ? 1 : 0);
  if (text.empty() || text.find_first_not_of("0123456789") != text.npos) {
    return std::nullopt;
  }
  text.remove_prefix(std::min(text.find_first_not_of('0'), text.size()));
  if (text.empty()) {
    return 0;
  }
  const bool too_high = text.size() > LAST.size() || (text.size() == LAST.size() && text > LAST);
  return negative || too_high ? std::nullopt : std::optional<guint32>(std::stoul(std::string(text)));
}

std::optional<guint32>
parse_group(const std::string &group)
{
  const size_t begin = group.find('.') + 1;
  const size_t end = group.find('.', begin);

  return end != group.npos ? parse_index(std::string_view(group).substr(begin, end - begin)) : std::nullopt;
}

/* A warning for each group of a producer's channel with a long name. */
Lines
long_name_lines(GKeyFile *key_file)
{
  g_auto(GStrv) groups = g_key_file_get_groups(key_file, nullptr);
  std::set<std::string> seen;
  Lines lines;

  for (gchar **group = groups; *group != nullptr; group++) {
    g_autofree gchar *name = g_key_file_get_string(key_file, *group, "Name", nullptr);
    const bool is_long = name != nullptr && std::string_view(name).size() > PRODUCER_CONFIG_MAX_NAME_BYTES;
    if (std::string_view(*group).starts_with("Producers.") && seen.insert(*group).second && is_long) {
      lines.push_back(std::string(LONG_NAME) + *group);
    }
  }
  return lines;
}

/* As the log has them: the first ones, and the last one with the count of those between. */
Lines
limited(Lines lines)
{
  if (lines.size() > RATE_LIMITED_LOG_BURST) {
    const gsize left_out = lines.size() - RATE_LIMITED_LOG_BURST - 1;
    const std::string count = " (" + std::to_string(left_out) + " more since the last such line)";
    const std::string last = lines.back() + (left_out > 0 ? count : "");
    lines.resize(RATE_LIMITED_LOG_BURST);
    lines.push_back(last);
  }
  return lines;
}

/* Compares the channels and the warnings, and returns the channels. */
std::vector<guint32>
check_supported_channels(GKeyFile *key_file, const std::string &producer)
{
  g_auto(GStrv) groups = g_key_file_get_groups(key_file, nullptr);
  std::vector<guint32> expected;
  Lines expected_lines;
  for (gchar **group = groups; *group != nullptr; group++) {
    if (!std::string_view(*group).ends_with("." + producer)) {
      continue;
    }
    const std::optional<guint32> index = parse_group(*group);
    if (index.has_value()) {
      expected.push_back(*index + 1);
    } else {
      expected_lines.push_back(std::string(INVALID_GROUP) + *group);
    }
  }

  g_autoptr(GArray) array = producer_config_get_supported_channels(producer.c_str());
  const auto *first = reinterpret_cast<const guint32 *>(array->data);
  fuzz::require(std::vector<guint32>(first, first + array->len) == expected, "the channels are the model's");
  fuzz::require(take_syslog() == expected_lines, "the warnings are the model's");
  return expected;
}

std::string
stored_name(GKeyFile *key_file, const std::string &producer, guint32 channel)
{
  const std::string group = "Producers." + std::to_string(channel - 1) + "." + producer;
  g_autofree gchar *name = g_key_file_get_string(key_file, group.c_str(), "Name", nullptr);

  return name != nullptr ? name : "";
}

void
check_name(const std::string &producer, guint32 channel, const std::string &expected)
{
  g_autofree gchar *name = producer_config_get_name(producer.c_str(), channel);

  fuzz::require(name == nullptr || *name != '\0', "a name is never empty");
  fuzz::require((name != nullptr ? name : "") == expected, "the name is the model's");
}

bool
is_text(const std::string &text)
{
  return g_utf8_validate(text.c_str(), static_cast<gssize>(text.size()), nullptr);
}

bool
can_be_stored(const std::string &producer, const std::string &name)
{
  for (const char c : producer) {
    if (c == '[' || c == ']' || (c >= 0 && c < ' ') || c == '\x7f') {
      return false;
    }
  }
  return is_text(producer) && is_text(name);
}

void
check_change(const std::string &producer, guint32 channel, const std::string &name,
             const std::string &old_name)
{
  const bool stored = can_be_stored(producer, name);

  saves::set_name(producer.c_str(), channel, name.c_str());
  const Lines lines = take_syslog();
  fuzz::require(lines.size() == 1 && lines[0].starts_with(WRITE_FAILURE), "one warning");
  fuzz::require(is_text(lines[0]), "a warning is text");
  check_name(producer, channel, stored ? name : old_name);

  saves::set_name(producer.c_str(), channel, nullptr);
  fuzz::require(take_syslog().size() == 1, "one warning");
  check_name(producer, channel, can_be_stored(producer, "") ? "" : old_name);
}

void
check_loaded(GKeyFile *key_file, const std::string &producer, const std::string &name)
{
  std::vector<guint32> channels = check_supported_channels(key_file, producer);
  channels.insert(channels.begin(), {0, 1, G_MAXUINT32});

  for (const guint32 channel : channels) {
    check_name(producer, channel, stored_name(key_file, producer, channel));
  }
  const guint32 changed = channels.back();
  check_change(producer, changed, name, stored_name(key_file, producer, changed));
}

} // namespace

/* Checks the log lines of the code under test. */
extern "C" void
syslog(int priority, const char *format, ...)
{
  va_list args;
  va_start(args, format);
  g_autofree gchar *line = g_strdup_vprintf(format, args);
  va_end(args);

  fuzz::require(priority == LOG_WARNING, "a log line is a warning");
  syslog_lines.emplace_back(line);
}

int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
  static const fuzz::ProducersFile file;
  g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_FATAL_MASK | G_LOG_LEVEL_CRITICAL));
  std::string_view input = fuzz::as_text(data, size);
  const std::string producer = take_line(&input);
  const std::string name = take_line(&input);
  g_autoptr(GKeyFile) key_file = g_key_file_new();

  file.write(input);
  const bool good = g_key_file_load_from_file(key_file, file.path(), G_KEY_FILE_NONE, nullptr);
  fuzz::require(producer_config_setup(file.path()) == good, "a file is loaded when GLib takes it");
  rate_limited_log_flush();
  const Lines lines = take_syslog();
  fuzz::require(good ? lines == limited(long_name_lines(key_file)) : lines.size() == 1,
                "the warnings are the model's");
  if (good) {
    check_loaded(key_file, producer, name);
    producer_config_free();
  }
  return 0;
}
