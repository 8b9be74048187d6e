/* SPDX-License-Identifier: MIT */
#pragma once

#include "geometry.h"
#include "ground.h"

#include <optional>
#include <vector>

/* A scene: the objects that the camera detects at one time. */

namespace sim
{

/* The measurements that only the radar has. */
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
  std::vector<Point> polygon; /* empty, or at least three points */
  std::optional<Velocity> velocity;
  std::optional<RadarEcho> radar;
};

struct Scene {
  gint64 utc; /* microseconds since 1970 */
  std::vector<SceneObject> objects;
  std::vector<gint64> deleted; /* ids of objects that have left since the previous scene */
};

/* The parts that the objects of a scene have. */
struct SceneDetails {
  bool boxes = true;
  bool polygons = true;
  bool velocities = true;
  bool radar = false;
};

const char *scene_type_name(ObjectType type);
std::vector<SceneObject> scene_objects(const std::vector<Object> &objects, const SceneDetails &details);

} // namespace sim
