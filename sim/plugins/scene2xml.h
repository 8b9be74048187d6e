/* SPDX-License-Identifier: MIT */
#pragma once

#include "sceneplugin.h"

namespace sim
{

GTypeInfo scene_converter_type_info(const ScenePlugin *description);

} // namespace sim
