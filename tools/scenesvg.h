/* SPDX-License-Identifier: MIT */
#pragma once

#include "scene.h"

/* All functions can be called on any thread. */

std::string scene_svg_write(const Scene &scene);
