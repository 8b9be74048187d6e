/* SPDX-License-Identifier: MIT */
#include "scenemodel.h"

#include <algorithm>
#include <array>

namespace sim
{

namespace
{

/* The name and appearance of a type of objects; the outline is in units of the object's width and height. */
struct Appearance {
  ObjectType type;
  const char *name;
  double likelihood;
  std::array<Point, 6> outline;
};

constexpr std::array<Appearance, OBJECT_TYPE_COUNT> APPEARANCES = {{
    {ObjectType::HUMAN,
     "Human",
     0.96,
     {{{-0.2, 0.5}, {0.2, 0.5}, {0.5, 0.1}, {0.3, -0.5}, {-0.3, -0.5}, {-0.5, 0.1}}}},
    {ObjectType::VEHICLE,
     "Vehicle",
     0.92,
     {{{-0.3, 0.5}, {0.3, 0.5}, {0.5, 0}, {0.5, -0.5}, {-0.5, -0.5}, {-0.5, 0}}}},
}};

const Appearance &
appearance_of(ObjectType type)
{
  return *std::find_if(APPEARANCES.begin(), APPEARANCES.end(),
                       [type](const Appearance &appearance) { return appearance.type == type; });
}

/* Of an object that enters or leaves, only the part in the picture is visible. */
Point
clip(const Point &point)
{
  return {std::clamp(point.x, -1.0, 1.0), std::clamp(point.y, -1.0, 1.0)};
}

Point
point_of(const Object &object, const Point &part)
{
  return clip({object.centre.x + part.x * object.width, object.centre.y + part.y * object.height});
}

Box
box_of(const Object &object)
{
  Point top_left = point_of(object, {-0.5, 0.5});
  Point bottom_right = point_of(object, {0.5, -0.5});
  return {.left = top_left.x, .top = top_left.y, .right = bottom_right.x, .bottom = bottom_right.y};
}

SceneObject
scene_object(const Object &object, const SceneDetails &details)
{
  const Appearance &appearance = appearance_of(object.type);
  SceneObject seen = {.id = object.id,
                      .type = object.type,
                      .likelihood = appearance.likelihood,
                      .centre = clip(object.centre)};
  if (details.boxes) {
    seen.box = box_of(object);
  }
  if (details.polygons) {
    for (const Point &part : appearance.outline) {
      seen.polygon.push_back(point_of(object, part));
    }
  }
  if (details.velocities) {
    seen.velocity = ground_velocity(object);
  }
  if (details.radar) {
    seen.radar = {.position = ground_position(object), .size = ground_size(object)};
  }
  return seen;
}

} // namespace

/**
 * scene_type_name:
 * @type: a type of objects
 *
 * Returns: its name in ONVIF
 */
const char *
scene_type_name(ObjectType type)
{
  return appearance_of(type).name;
}

/**
 * scene_objects:
 * @objects: objects of the world
 * @details: the parts to include
 *
 * Returns: @objects as the camera detects them, clipped to the picture; the radar's measurements are not
 * clipped
 */
std::vector<SceneObject>
scene_objects(const std::vector<Object> &objects, const SceneDetails &details)
{
  std::vector<SceneObject> seen;
  seen.reserve(objects.size());
  for (const Object &object : objects) {
    seen.push_back(scene_object(object, details));
  }
  return seen;
}

} // namespace sim
