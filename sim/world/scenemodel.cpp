#include "scenemodel.h"

#include <algorithm>
#include <array>

namespace sim
{

namespace
{

/* What an object of a type is called and looks like; the outline is in units of the object's width and
 * height. */
struct Look {
  ObjectType type;
  const char *name;
  double likelihood;
  std::array<Point, 6> outline;
};

constexpr std::array<Look, 2> LOOKS = {{
    {ObjectType::HUMAN,
     "Human",
     0.96,
     {{{-0.2, 0.5}, {0.2, 0.5}, {0.5, 0.1}, {0.3, -0.5}, {-0.3, -0.5}, {-0.5, 0.1}}}},
    {ObjectType::VEHICLE,
     "Vehicle",
     0.92,
     {{{-0.3, 0.5}, {0.3, 0.5}, {0.5, 0}, {0.5, -0.5}, {-0.5, -0.5}, {-0.5, 0}}}},
}};

const Look &
look_of(ObjectType type)
{
  return *std::find_if(LOOKS.begin(), LOOKS.end(), [type](const Look &look) { return look.type == type; });
}

/* An object that enters or leaves shows only a part of itself. */
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
  const Look &look = look_of(object.type);
  SceneObject seen = {
      .id = object.id, .type = object.type, .likelihood = look.likelihood, .centre = clip(object.centre)};
  if (details.boxes) {
    seen.box = box_of(object);
  }
  if (details.polygons) {
    for (const Point &part : look.outline) {
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

} /* namespace */

/**
 * scene_type_name:
 * @type: what an object is
 *
 * Returns: what ONVIF calls it
 */
const char *
scene_type_name(ObjectType type)
{
  return look_of(type).name;
}

/**
 * scene_objects:
 * @objects: objects of the world
 * @details: what is wanted of them
 *
 * Returns: how the camera sees @objects: only what is in the picture, but the radar's measures whole
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

} /* namespace sim */
