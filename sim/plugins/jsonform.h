#pragma once

#include <array>
#include <glib.h>
#include <optional>
#include <string>

/* What is looked at before a text goes to the JSON parser. */

namespace sim
{

constexpr guint JSON_DEPTH_MAX = 32;
constexpr guint JSON_VALUES_MAX = 65536;
constexpr guint JSON_MEMBERS_MAX = 64;

/* How many members the object has that came last at each depth, or 0 for an array; the outermost is at 0. */
struct JsonForm {
  std::array<guint, JSON_DEPTH_MAX> members;
};

std::optional<JsonForm> json_form_check(std::string *text);

} /* namespace sim */
