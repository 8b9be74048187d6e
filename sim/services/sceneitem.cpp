#include "sceneitem.h"

#include "xml.h"

#include <algorithm>
#include <array>
#include <json-glib/json-glib.h>

namespace sim
{

namespace
{

/* When the example was seen. */
constexpr gint64 EXAMPLE_UTC = G_GINT64_CONSTANT(1704067200) * G_USEC_PER_SEC;

constexpr std::array<Object, 2> EXAMPLE_OBJECTS = {{
    {.id = 1, .type = ObjectType::HUMAN, .centre = {-0.4, 0}, .width = 0.12, .height = 0.42},
    {.id = 2, .type = ObjectType::VEHICLE, .centre = {0.4, 0}, .width = 0.44, .height = 0.28},
}};

struct TypeName {
  ObjectType type;
  const char *name;
};

constexpr std::array<TypeName, 2> TYPE_NAMES = {{
    {ObjectType::HUMAN, "Human"},
    {ObjectType::VEHICLE, "Vehicle"},
}};

const char *
name_of(ObjectType type)
{
  return std::find_if(TYPE_NAMES.begin(), TYPE_NAMES.end(),
                      [type](const TypeName &entry) { return entry.type == type; })
      ->name;
}

void
add_number(JsonBuilder *builder, const char *name, double value)
{
  json_builder_set_member_name(builder, name);
  json_builder_add_double_value(builder, value);
}

void
add_box(JsonBuilder *builder, const Box &box)
{
  json_builder_set_member_name(builder, "BoundingBox");
  json_builder_begin_object(builder);
  add_number(builder, "Left", box.left);
  add_number(builder, "Top", box.top);
  add_number(builder, "Right", box.right);
  add_number(builder, "Bottom", box.bottom);
  json_builder_end_object(builder);
}

void
add_polygon(JsonBuilder *builder, const std::vector<Point> &polygon)
{
  json_builder_set_member_name(builder, "Polygon");
  json_builder_begin_array(builder);
  for (const Point &point : polygon) {
    json_builder_begin_array(builder);
    json_builder_add_double_value(builder, point.x);
    json_builder_add_double_value(builder, point.y);
    json_builder_end_array(builder);
  }
  json_builder_end_array(builder);
}

void
add_object(JsonBuilder *builder, const SceneObject &object)
{
  json_builder_begin_object(builder);
  json_builder_set_member_name(builder, "Id");
  json_builder_add_int_value(builder, object.id);
  if (object.box.has_value()) {
    add_box(builder, *object.box);
  }
  if (!object.polygon.empty()) {
    add_polygon(builder, object.polygon);
  }
  json_builder_set_member_name(builder, "Type");
  json_builder_add_string_value(builder, name_of(object.type));
  add_number(builder, "Likelihood", object.likelihood);
  json_builder_end_object(builder);
}

} /* namespace */

/**
 * scene_to_item:
 * @scene: a scene
 *
 * Returns: @scene as a producer's item, one line of JSON
 */
std::string
scene_to_item(const Scene &scene)
{
  g_autoptr(JsonBuilder) builder = json_builder_new();
  g_autofree char *utc = xml_date_time(scene.utc);

  json_builder_begin_object(builder);
  json_builder_set_member_name(builder, "UtcTime");
  json_builder_add_string_value(builder, utc);
  json_builder_set_member_name(builder, "Objects");
  json_builder_begin_array(builder);
  for (const SceneObject &object : scene.objects) {
    add_object(builder, object);
  }
  json_builder_end_array(builder);
  json_builder_set_member_name(builder, "Deleted");
  json_builder_begin_array(builder);
  for (const gint64 id : scene.deleted) {
    json_builder_add_int_value(builder, id);
  }
  json_builder_end_array(builder);
  json_builder_end_object(builder);

  g_autoptr(JsonNode) root = json_builder_get_root(builder);
  g_autofree gchar *text = json_to_string(root, FALSE);
  return text;
}

/**
 * scene_example_item:
 * @only: the one type of objects to show; all if unset
 * @polygons: whether they have polygons
 *
 * Returns: an item as scene_to_item() makes it, always the same
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

} /* namespace sim */
