/* SPDX-License-Identifier: MIT */
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace fuzz
{

// Reports a finding, also in builds without assert().
inline void
require(bool holds, const char *what)
{
  if (!holds) {
    fprintf(stderr, "Does not hold: %s\n", what);
    abort();
  }
}

inline std::string_view
as_text(const uint8_t *data, size_t size)
{
  return {reinterpret_cast<const char *>(data), size};
}

// Cuts the data into at most max_pieces pieces of random lengths. The data seeds the random numbers, so an
// input is always cut the same way and needs no bytes for it.
inline std::vector<std::string_view>
cut_into_pieces(std::string_view data, size_t max_pieces)
{
  std::minstd_rand random(static_cast<unsigned>(std::hash<std::string_view>()(data)));
  std::vector<std::string_view> pieces;
  while (!data.empty() && pieces.size() + 1 < max_pieces) {
    pieces.push_back(data.substr(0, 1 + random() % data.size()));
    data.remove_prefix(pieces.back().size());
  }
  if (!data.empty())
    pieces.push_back(data);
  return pieces;
}

inline std::vector<std::string>
split(std::string_view text, char separator)
{
  std::vector<std::string> parts;
  for (size_t end = text.find(separator); end != text.npos; end = text.find(separator)) {
    parts.emplace_back(text.substr(0, end));
    text.remove_prefix(end + 1);
  }
  parts.emplace_back(text);
  return parts;
}

} // namespace fuzz
