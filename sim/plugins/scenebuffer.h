#pragma once

#include "scenemodel.h"

#include <gst/gst.h>

/* The form in which a scene travels from its source to its converter. */

namespace sim
{

/* What a receiver accepts; a larger scene is none of ours. */
constexpr gsize SCENE_OBJECTS_MAX = 64;
constexpr gsize SCENE_POINTS_MAX = 32;
constexpr gsize SCENE_BYTES_MAX = 65536;

GstBuffer *scene_to_buffer(const Scene &scene);
std::optional<Scene> scene_from_buffer(GstBuffer *buffer);

} /* namespace sim */
