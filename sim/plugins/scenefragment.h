/* SPDX-License-Identifier: MIT */
#pragma once

#include "ptzstatus.h"
#include "scenemodel.h"

#include <gst/gst.h>
#include <string>

/* Scenes as ONVIF metadata. */

namespace sim
{

/* The parts of a scene to show, and how. */
struct SceneView {
  std::optional<std::string> source_name; /* characters that XML allows */
  guint rotation = 0;                     /* clockwise in degrees; scene_can_rotate() is true for it */
  bool polygon = false;
  bool velocity = false;
  bool geolocation = false;
  PtzView ptz;
};

bool scene_can_rotate(guint rotation);
GstBuffer *scene_to_fragment(const Scene &scene, const SceneView &view, const std::optional<Ptz> &ptz);

} // namespace sim
