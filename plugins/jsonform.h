/* SPDX-License-Identifier: MIT */
#pragma once

#include <array>
#include <glib.h>
#include <optional>
#include <string>

/* A check of a text before it is parsed as JSON. */

namespace plugins
{

constexpr guint JSON_DEPTH_MAX = 32;
constexpr guint JSON_VALUES_MAX = 65536;
constexpr guint JSON_MEMBERS_MAX = 64;

/* For each depth, the number of members of the last object, or 0 for an array; the outermost value is at 0.
 */
struct JsonForm {
  std::array<guint, JSON_DEPTH_MAX> members;
};

std::optional<JsonForm> json_form_check(std::string *text);

} // namespace plugins
