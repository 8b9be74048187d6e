/* SPDX-License-Identifier: MIT */
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

/* The time of a document. */

namespace plugins
{

/* How much of a document is searched. The first frame or message, with its time, follows the root element. */
inline constexpr std::size_t UTC_TIME_MAX_SEARCHED_BYTES = 64 * 1024;

std::optional<std::uint64_t> parse_utc_time(std::string_view text);
std::optional<std::uint64_t> find_utc_time(std::string_view document);

} // namespace plugins
