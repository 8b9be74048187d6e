/* SPDX-License-Identifier: MIT */
#pragma once

#include "platform.h"

namespace sim
{

std::optional<std::string> verbs_run(Platform *platform, const Arguments &command, GError **error);
std::string verbs_describe();

} // namespace sim
