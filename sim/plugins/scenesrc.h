/* SPDX-License-Identifier: MIT */
#pragma once

#include "sceneplugin.h"

namespace sim
{

GTypeInfo scene_src_type_info(const ScenePlugin *description);

} // namespace sim
