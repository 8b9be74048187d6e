#pragma once

#include "ptzstatus.h"
#include "scenemodel.h"

#include <gst/gst.h>
#include <string>

/* What scenes look like as ONVIF metadata. */

namespace sim
{

/* What a converter was asked for. */
struct SceneView {
  std::optional<std::string> source_name; /* characters that XML allows */
  guint rotation = 0;                     /* degrees clockwise; one that scene_can_rotate() allows */
  bool polygon = false;
  bool velocity = false;
  bool geolocation = false;
  PtzView ptz;
};

bool scene_can_rotate(guint rotation);
GstBuffer *scene_to_fragment(const Scene &scene, const SceneView &view, const std::optional<Ptz> &ptz);

} /* namespace sim */
