/* SPDX-License-Identifier: MIT */
#include "sceneitem.h"

#include "xml.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>

namespace sim
{

namespace
{

constexpr double NUMBER_PARTS = 10000;
constexpr gsize NUMBER_SIZE = 32; /* for coordinates in the picture */

/* The time of the example. */
constexpr gint64 EXAMPLE_UTC = G_GINT64_CONSTANT(1704067200) * G_USEC_PER_SEC;

constexpr std::array<Object, 2> EXAMPLE_OBJECTS = {{
    {.id = 1, .type = ObjectType::HUMAN, .centre = {-0.4, 0}, .width = 0.12, .height = 0.42},
    {.id = 2, .type = ObjectType::VEHICLE, .centre = {0.4, 0}, .width = 0.44, .height = 0.28},
}};

/* The shortest form, with at most four decimals, independent of the locale. */
std::string
number_text(double value)
{
  std::array<char, NUMBER_SIZE> text = {};
  const double rounded = std::round(value * NUMBER_PARTS) / NUMBER_PARTS + 0.0; /* converts -0 to 0 */
  const auto [end, error] = std::to_chars(text.begin(), text.end(), rounded, std::chars_format::fixed);

  return {text.begin(), end};
}

/* A JSON array of all parts. */
template <typename Part, typename MakeText>
std::string
list_text(const std::vector<Part> &parts, MakeText make_text)
{
  std::string list;

  for (const Part &part : parts) {
    list.append(list.empty() ? "" : ",").append(make_text(part));
  }
  return "[" + list + "]";
}

std::string
box_text(const Box &box)
{
  return R"({"Left":)" + number_text(box.left) + R"(,"Top":)" + number_text(box.top) + R"(,"Right":)" +
         number_text(box.right) + R"(,"Bottom":)" + number_text(box.bottom) + "}";
}

std::string
point_text(const Point &point)
{
  return "[" + number_text(point.x) + "," + number_text(point.y) + "]";
}

std::string
object_text(const SceneObject &object)
{
  std::string text = R"({"Id":)" + std::to_string(object.id);

  if (object.box.has_value()) {
    text += R"(,"BoundingBox":)" + box_text(*object.box);
  }
  if (!object.polygon.empty()) {
    text += R"(,"Polygon":)" + list_text(object.polygon, point_text);
  }
  return text + R"(,"Type":")" + scene_type_name(object.type) + R"(","Likelihood":)" +
         number_text(object.likelihood) + "}";
}

} // namespace

/**
 * scene_to_item:
 * @scene: a scene
 *
 * Returns: @scene as an item of a producer, one line of JSON
 */
std::string
scene_to_item(const Scene &scene)
{
  return R"({"UtcTime":")" + onvif::xml_date_time(scene.utc) + R"(","Objects":)" +
         list_text(scene.objects, object_text) + R"(,"Deleted":)" +
         list_text(scene.deleted, [](gint64 id) { return std::to_string(id); }) + "}";
}

/**
 * scene_example_item:
 * @only: the only type of objects to include; all types if unset
 * @polygons: whether the objects have polygons
 *
 * Returns: an example of an item; constant
 */
std::string
scene_example_item(std::optional<ObjectType> only, bool polygons)
{
  std::vector<Object> objects(EXAMPLE_OBJECTS.begin(), EXAMPLE_OBJECTS.end());

  if (only.has_value()) {
    std::erase_if(objects, [only](const Object &object) { return object.type != *only; });
  }
  const SceneDetails details = {.polygons = polygons};
  return scene_to_item({.utc = EXAMPLE_UTC, .objects = scene_objects(objects, details), .deleted = {}});
}

} // namespace sim
