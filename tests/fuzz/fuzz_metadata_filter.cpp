/* SPDX-License-Identifier: MIT */
// A metadata filter. The lines of the input are patterns; the last one is a path. GLib's patterns are the
// model.
#include "fuzz.h"
#include "metadatafilter.h"
#include "mqttlimits.h"

#include <algorithm>
#include <string>

namespace
{

// GLib's matcher takes a time that grows with each star.
constexpr long MODEL_STARS_MAX = 6;

bool
matches(const std::string &pattern, const std::vector<std::string> &levels)
{
  const std::vector<std::string> globs = fuzz::split(pattern, '/');
  for (size_t i = 0; i < globs.size(); i++) {
    if (i >= levels.size() || !g_pattern_match_simple(globs[i].c_str(), levels[i].c_str()))
      return false;
  }
  return true;
}

} // namespace

int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
  const std::string text(fuzz::as_text(data, size));
  // A key file has only such texts.
  if (!g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr))
    return 0;
  std::vector<std::string> lines = fuzz::split(text, '\n');
  const std::string path = lines.back();
  const std::vector<std::string> levels = fuzz::split(path, '/');
  lines.pop_back();
  mqtt::MetadataFilter filter;
  bool selects = false;
  size_t accepted = 0;
  for (const std::string &line : lines) {
    g_autoptr(GError) error = nullptr;
    const bool is_accepted = filter.add(line, &error);
    fuzz::require(is_accepted == (error == nullptr), "a refusal has a reason");
    if (is_accepted && std::count(line.begin(), line.end(), '*') > MODEL_STARS_MAX) {
      filter.selects(path);
      return 0;
    }
    accepted += is_accepted ? 1 : 0;
    selects = selects || (is_accepted && matches(line, levels));
  }
  fuzz::require(accepted <= MQTT_PATTERNS_MAX, "patterns are bounded");
  fuzz::require(filter.selects(path) == (selects || accepted == 0), "one pattern matches");
  return 0;
}
