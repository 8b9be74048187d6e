/* SPDX-License-Identifier: MIT */
#include "scenebuffer.h"

#include "metadatalimits.h"

/* A scene is serialised as one GVariant in the byte order of the machine:
 *
 *   y                 the version of the format
 *   x                 the time in microseconds since 1970
 *   a(                the objects
 *     x                 the id
 *     y                 the type, an ObjectType
 *     d                 the likelihood of the type, from 0 to 1
 *     (dd)              the centre: x, y
 *     m(dddd)           the bounding box: left, top, right, bottom
 *     a(dd)             the points of the polygon: x, y
 *     m(dd)             the velocity: metres per second, angle in degrees
 *     m(ddd)            the radar's echo: angle in degrees, range in metres, size in metres
 *   )
 *   ax                the ids of objects that have left
 *
 * The reader checks every value. */

namespace sim
{

namespace
{

#define OBJECT_TYPE "(xyd(dd)m(dddd)a(dd)m(dd)m(ddd))"
#define SCENE_TYPE "(yxa" OBJECT_TYPE "ax)"

constexpr guint8 FORMAT_VERSION = 1;

/* The maximum of distances in metres and of speeds in metres per second. */
constexpr double LARGEST_MEASURE = 100000;

constexpr gsize POINTS_MIN = 3;

GVariant *
pack_box(const std::optional<Box> &box)
{
  GVariant *packed =
      box.has_value() ? g_variant_new("(dddd)", box->left, box->top, box->right, box->bottom) : nullptr;
  return g_variant_new_maybe(G_VARIANT_TYPE("(dddd)"), packed);
}

GVariant *
pack_polygon(const std::vector<Point> &polygon)
{
  GVariantBuilder points;
  g_variant_builder_init(&points, G_VARIANT_TYPE("a(dd)"));
  for (const Point &point : polygon) {
    g_variant_builder_add(&points, "(dd)", point.x, point.y);
  }
  return g_variant_builder_end(&points);
}

GVariant *
pack_velocity(const std::optional<Velocity> &velocity)
{
  GVariant *packed = velocity.has_value() ? g_variant_new("(dd)", velocity->speed, velocity->angle) : nullptr;
  return g_variant_new_maybe(G_VARIANT_TYPE("(dd)"), packed);
}

GVariant *
pack_radar(const std::optional<RadarEcho> &radar)
{
  GVariant *packed = radar.has_value()
                         ? g_variant_new("(ddd)", radar->position.angle, radar->position.range, radar->size)
                         : nullptr;
  return g_variant_new_maybe(G_VARIANT_TYPE("(ddd)"), packed);
}

void
pack_object(GVariantBuilder *objects, const SceneObject &object)
{
  g_variant_builder_open(objects, G_VARIANT_TYPE(OBJECT_TYPE));
  g_variant_builder_add(objects, "x", object.id);
  g_variant_builder_add(objects, "y", static_cast<guint8>(object.type));
  g_variant_builder_add(objects, "d", object.likelihood);
  g_variant_builder_add(objects, "(dd)", object.centre.x, object.centre.y);
  g_variant_builder_add_value(objects, pack_box(object.box));
  g_variant_builder_add_value(objects, pack_polygon(object.polygon));
  g_variant_builder_add_value(objects, pack_velocity(object.velocity));
  g_variant_builder_add_value(objects, pack_radar(object.radar));
  g_variant_builder_close(objects);
}

/* Also false for NaN. */
bool
is_between(double value, double low, double high)
{
  return value >= low && value <= high;
}

bool
is_in_picture(const Point &point)
{
  return is_between(point.x, -1, 1) && is_between(point.y, -1, 1);
}

bool
is_angle(double value)
{
  return is_between(value, -180, 180);
}

bool
is_measure(double value)
{
  return is_between(value, 0, LARGEST_MEASURE);
}

bool
unpack_box(GVariant *packed, std::optional<Box> *box)
{
  if (packed == nullptr) {
    return true;
  }
  Box found;
  g_variant_get(packed, "(dddd)", &found.left, &found.top, &found.right, &found.bottom);
  *box = found;
  return is_in_picture({found.left, found.top}) && is_in_picture({found.right, found.bottom}) &&
         found.left <= found.right && found.bottom <= found.top;
}

bool
unpack_polygon(GVariant *packed, std::vector<Point> *polygon)
{
  gsize count = g_variant_n_children(packed);
  if (count != 0 && (count < POINTS_MIN || count > SCENE_POINTS_MAX)) {
    return false;
  }
  for (gsize i = 0; i < count; i++) {
    Point point;
    g_variant_get_child(packed, i, "(dd)", &point.x, &point.y);
    if (!is_in_picture(point)) {
      return false;
    }
    polygon->push_back(point);
  }
  return true;
}

bool
unpack_velocity(GVariant *packed, std::optional<Velocity> *velocity)
{
  if (packed == nullptr) {
    return true;
  }
  Velocity found;
  g_variant_get(packed, "(dd)", &found.speed, &found.angle);
  *velocity = found;
  return is_measure(found.speed) && is_angle(found.angle);
}

bool
unpack_radar(GVariant *packed, std::optional<RadarEcho> *radar)
{
  if (packed == nullptr) {
    return true;
  }
  RadarEcho found;
  g_variant_get(packed, "(ddd)", &found.position.angle, &found.position.range, &found.size);
  *radar = found;
  return is_angle(found.position.angle) && is_measure(found.position.range) && is_measure(found.size);
}

bool
unpack_object(GVariant *packed, SceneObject *object)
{
  guint8 type = 0;
  g_autoptr(GVariant) box = nullptr;
  g_autoptr(GVariant) polygon = nullptr;
  g_autoptr(GVariant) velocity = nullptr;
  g_autoptr(GVariant) radar = nullptr;
  g_variant_get(packed, "(xyd(dd)m@(dddd)@a(dd)m@(dd)m@(ddd))", &object->id, &type, &object->likelihood,
                &object->centre.x, &object->centre.y, &box, &polygon, &velocity, &radar);
  if (type >= OBJECT_TYPE_COUNT || !is_between(object->likelihood, 0, 1) || !is_in_picture(object->centre)) {
    return false;
  }
  object->type = static_cast<ObjectType>(type);
  return unpack_box(box, &object->box) && unpack_polygon(polygon, &object->polygon) &&
         unpack_velocity(velocity, &object->velocity) && unpack_radar(radar, &object->radar);
}

bool
unpack_objects(GVariant *packed, std::vector<SceneObject> *objects)
{
  gsize count = g_variant_n_children(packed);
  if (count > SCENE_OBJECTS_MAX) {
    return false;
  }
  objects->resize(count);
  for (gsize i = 0; i < count; i++) {
    g_autoptr(GVariant) object = g_variant_get_child_value(packed, i);
    if (!unpack_object(object, &(*objects)[i])) {
      return false;
    }
  }
  return true;
}

bool
unpack_deleted(GVariant *packed, std::vector<gint64> *deleted)
{
  gsize count = 0;
  auto ids = static_cast<const gint64 *>(g_variant_get_fixed_array(packed, &count, sizeof(gint64)));
  if (count > SCENE_OBJECTS_MAX) {
    return false;
  }
  deleted->assign(ids, ids + count);
  return true;
}

/* Returns: (transfer full) (nullable): the content of @buffer, if it has the right type */
GVariant *
read_variant(GstBuffer *buffer)
{
  if (gst_buffer_get_size(buffer) > SCENE_BYTES_MAX) {
    return nullptr;
  }
  gpointer data = nullptr;
  gsize size = 0;
  gst_buffer_extract_dup(buffer, 0, SCENE_BYTES_MAX, &data, &size);
  g_autoptr(GBytes) bytes = g_bytes_new_take(data, size);
  g_autoptr(GVariant) variant =
      g_variant_ref_sink(g_variant_new_from_bytes(G_VARIANT_TYPE(SCENE_TYPE), bytes, FALSE));
  return g_variant_is_normal_form(variant) ? g_steal_pointer(&variant) : nullptr;
}

} // namespace

/**
 * scene_to_buffer:
 * @scene: a scene
 *
 * Returns: (transfer full): a buffer with @scene, for scene_from_buffer()
 */
GstBuffer *
scene_to_buffer(const Scene &scene)
{
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE(SCENE_TYPE));
  g_variant_builder_add(&builder, "y", FORMAT_VERSION);
  g_variant_builder_add(&builder, "x", scene.utc);
  g_variant_builder_open(&builder, G_VARIANT_TYPE("a" OBJECT_TYPE));
  for (const SceneObject &object : scene.objects) {
    pack_object(&builder, object);
  }
  g_variant_builder_close(&builder);
  g_variant_builder_add_value(&builder, g_variant_new_fixed_array(G_VARIANT_TYPE_INT64, scene.deleted.data(),
                                                                  scene.deleted.size(), sizeof(gint64)));
  g_autoptr(GVariant) packed = g_variant_ref_sink(g_variant_builder_end(&builder));
  g_autoptr(GBytes) bytes = g_variant_get_data_as_bytes(packed);
  return gst_buffer_new_wrapped_bytes(bytes);
}

/**
 * scene_from_buffer:
 * @buffer: any bytes
 *
 * Returns: the scene in @buffer, if it is in the format of scene_to_buffer() and within its limits
 */
std::optional<Scene>
scene_from_buffer(GstBuffer *buffer)
{
  g_autoptr(GVariant) packed = read_variant(buffer);
  if (packed == nullptr) {
    return std::nullopt;
  }
  Scene scene;
  guint8 version = 0;
  g_autoptr(GVariant) objects = nullptr;
  g_autoptr(GVariant) deleted = nullptr;
  g_variant_get(packed, "(yx@a" OBJECT_TYPE "@ax)", &version, &scene.utc, &objects, &deleted);
  if (version != FORMAT_VERSION || scene.utc < 0 || scene.utc > onvif::LATEST_UTC) {
    return std::nullopt;
  }
  if (!unpack_objects(objects, &scene.objects) || !unpack_deleted(deleted, &scene.deleted)) {
    return std::nullopt;
  }
  return scene;
}

} // namespace sim
