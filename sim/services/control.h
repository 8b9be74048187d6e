/* SPDX-License-Identifier: MIT */
#pragma once

#include "platform.h"

namespace sim
{

bool control_publish(Platform *platform, GDBusConnection *connection, GError **error);
bool control_tell(GDBusConnection *connection, const char *const *command, char **result, GError **error);

} // namespace sim
