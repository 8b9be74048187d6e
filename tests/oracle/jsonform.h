/* SPDX-License-Identifier: MIT */
#pragma once

#include "jsonlimits.h"

#include <array>
#include <glib.h>
#include <optional>
#include <string>

/* A check of a text before json-glib parses it. */

namespace oracle
{

using plugins::JSON_DEPTH_MAX;
using plugins::JSON_MEMBERS_MAX;
using plugins::JSON_VALUES_MAX;

struct JsonForm {
  /* For each depth, of the last object, or 0 for an array; the outermost value is at 0. */
  std::array<guint, JSON_DEPTH_MAX> members;
  bool has_huge_number; /* beyond a double, or a whole one beyond 64 bits, signed or unsigned */
};

std::optional<JsonForm> json_form_check(std::string *text);

} // namespace oracle
