#pragma once

#include "frame.h"
#include "ground.h"

#include <gst/gst.h>
#include <optional>

/* What passes between the sources of scenes and their converters. */

namespace sim
{

/* What only the radar measures. */
struct RadarEcho {
  Polar position;
  double size; /* metres */

  bool operator==(const RadarEcho &) const = default;
};

struct SceneObject {
  gint64 id;
  ObjectType type;
  double likelihood;
  Point centre;
  std::optional<Box> box;
  std::vector<Point> polygon; /* no points, or three and more */
  std::optional<Velocity> velocity;
  std::optional<RadarEcho> radar;
};

struct Scene {
  gint64 utc; /* microseconds since 1970 */
  std::vector<SceneObject> objects;
  std::vector<gint64> deleted; /* who has left since the scene before */
};

/* What the objects of a scene come with. */
struct SceneDetails {
  bool boxes = true;
  bool polygons = true;
  bool velocities = true;
  bool radar = false;
};

/* What a receiver accepts; a larger scene is none of ours. */
constexpr gsize SCENE_OBJECTS_MAX = 64;
constexpr gsize SCENE_POINTS_MAX = 32;
constexpr gsize SCENE_BYTES_MAX = 65536;

const char *scene_type_name(ObjectType type);
std::vector<SceneObject> scene_objects(const std::vector<Object> &objects, const SceneDetails &details);
GstBuffer *scene_to_buffer(const Scene &scene);
std::optional<Scene> scene_from_buffer(GstBuffer *buffer);

} /* namespace sim */
