/* SPDX-License-Identifier: MIT */
#pragma once

#include "sendqueue.h"

#include <string_view>

namespace view
{

Text page_file(std::string_view path);

} // namespace view
