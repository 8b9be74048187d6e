/* SPDX-License-Identifier: MIT */
#pragma once

#include <string_view>

namespace receiver
{

bool event_value_check(std::string_view type, std::string_view value);

} // namespace receiver
