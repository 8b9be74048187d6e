/* SPDX-License-Identifier: MIT */
#pragma once

#include <string>
#include <string_view>

/* Scalars of JSON that come from XML. */

namespace onvif
{

enum class ScalarType { STRING, NUMBER, BOOLEAN };

void json_append_string(std::string *json, std::string_view text);
void json_append_scalar(std::string *json, ScalarType type, std::string_view text);

} // namespace onvif
