/* SPDX-License-Identifier: MIT */
#pragma once

#include "jsonlimits.h"

#include <optional>
#include <simdjson.h>
#include <string_view>

/* JSON of untrusted origin. */

namespace plugins
{

std::optional<simdjson::dom::element> json_text_parse(simdjson::dom::parser *parser, std::string_view text);

} // namespace plugins
