#pragma once

#include "geometry.h"
#include "ground.h"

#include <optional>
#include <vector>

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

const char *scene_type_name(ObjectType type);
std::vector<SceneObject> scene_objects(const std::vector<Object> &objects, const SceneDetails &details);

} /* namespace sim */
