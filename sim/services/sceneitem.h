/* SPDX-License-Identifier: MIT */
#pragma once

#include "scenemodel.h"

#include <string>

namespace sim
{

std::string scene_to_item(const Scene &scene);
std::string scene_example_item(std::optional<ObjectType> only, bool polygons);

} // namespace sim
