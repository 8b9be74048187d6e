#pragma once

#include "message.h"

#include <optional>
#include <string>
#include <vector>

namespace sim
{

/* What a producer said some time: lines of JSON, an item each. */
struct Recording {
  static constexpr gsize MAX_BYTES = 64 * 1024 * 1024;
  static constexpr gsize MAX_LINES = 100000;

  /* Where a line tells its time. */
  struct Stamp {
    gsize offset;
    gsize size;
    gint64 utc; /* microseconds since 1970 */
  };

  struct Line {
    SharedText text;
    std::optional<Stamp> stamp;
  };

  std::vector<Line> lines; /* one at least */
};

std::optional<Recording::Stamp> recording_find_stamp(std::string_view line);
std::shared_ptr<const Recording> recording_load(const std::string &path, GError **error);

} /* namespace sim */
