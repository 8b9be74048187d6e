/* SPDX-License-Identifier: MIT */
#pragma once

#include "text.h"

#include <optional>
#include <string>
#include <vector>

namespace sim
{

/* The recorded messages of a producer: lines of JSON, one item each. */
struct Recording {
  static constexpr gsize MAX_BYTES = 64 * 1024 * 1024;
  static constexpr gsize MAX_LINES = 100000;

  /* The time of a line, and its place in the text. */
  struct Stamp {
    gsize offset;
    gsize size;
    gint64 utc; /* microseconds since 1970 */
  };

  struct Line {
    SharedText text;
    std::optional<Stamp> stamp;
  };

  std::vector<Line> lines; /* at least one */
};

std::optional<Recording::Stamp> recording_find_stamp(std::string_view line);
std::shared_ptr<const Recording> recording_load(const std::string &path, GError **error);

} // namespace sim
