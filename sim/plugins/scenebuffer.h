/* SPDX-License-Identifier: MIT */
#pragma once

#include "scenemodel.h"

#include <gst/gst.h>

/* The serialised form of scenes between a source and its converter. */

namespace sim
{

/* Limits of a scene; a larger one is malformed. */
constexpr gsize SCENE_OBJECTS_MAX = 64;
constexpr gsize SCENE_POINTS_MAX = 32;
constexpr gsize SCENE_BYTES_MAX = 65536;

GstBuffer *scene_to_buffer(const Scene &scene);
std::optional<Scene> scene_from_buffer(GstBuffer *buffer);

} // namespace sim
