/* SPDX-License-Identifier: MIT */
#include "scenefragment.h"

#include "frame.h"
#include "metadata.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace sim
{

namespace
{

/* The camera's own extension for measurements of the radar. */
constexpr onvif::XmlNamespace QURT = {"qurt", "urn:tessard:simulated-camera:radar"};

/* Decimals of degrees on the earth; more than the precision of the position. */
constexpr int EARTH_DIGITS = 7;

/* A clockwise rotation of the picture: (1, 0) becomes `right`, (0, 1) becomes `up`. */
struct Rotation {
  guint degrees;
  Point right;
  Point up;
};

constexpr std::array<Rotation, 4> ROTATIONS = {{
    {0, {1, 0}, {0, 1}},
    {90, {0, -1}, {1, 0}},
    {180, {-1, 0}, {0, -1}},
    {270, {0, 1}, {-1, 0}},
}};

const Rotation *
find_rotation(guint degrees)
{
  auto found = std::find_if(ROTATIONS.begin(), ROTATIONS.end(),
                            [degrees](const Rotation &rotation) { return rotation.degrees == degrees; });
  return found != ROTATIONS.end() ? &*found : nullptr;
}

Point
rotate_point(const Rotation &rotation, const Point &point)
{
  return {point.x * rotation.right.x + point.y * rotation.up.x,
          point.x * rotation.right.y + point.y * rotation.up.y};
}

Box
rotate_box(const Rotation &rotation, const Box &box)
{
  Point one = rotate_point(rotation, {box.left, box.top});
  Point other = rotate_point(rotation, {box.right, box.bottom});
  return {.left = std::min(one.x, other.x),
          .top = std::max(one.y, other.y),
          .right = std::max(one.x, other.x),
          .bottom = std::min(one.y, other.y)};
}

void
write_shape(onvif::XmlWriter *writer, const SceneObject &object, const SceneView &view,
            const Rotation &rotation)
{
  std::vector<Point> polygon;
  if (view.polygon) {
    for (const Point &point : object.polygon) {
      polygon.push_back(rotate_point(rotation, point));
    }
  }
  onvif::frame_write_shape(writer, rotate_box(rotation, *object.box), rotate_point(rotation, object.centre),
                           polygon);
}

/* The rotation of the picture does not apply to the radar. */
void
write_radar(onvif::XmlWriter *writer, const SceneObject &object, const SceneView &view)
{
  writer->start(onvif::TT, "Extension");
  writer->start(QURT, "RadarObjectInfo");
  writer->declare(QURT);
  writer->start(QURT, "PolarCoordinate");
  writer->attribute_number("angle", object.radar->position.angle, onvif::MEASURE_DIGITS);
  writer->attribute_number("range", object.radar->position.range, onvif::MEASURE_DIGITS);
  writer->end();
  if (view.velocity && object.velocity.has_value()) {
    writer->start(QURT, "Velocity");
    writer->attribute_number("m-s", object.velocity->speed, onvif::MEASURE_DIGITS);
    writer->attribute_number("angle", object.velocity->angle, onvif::MEASURE_DIGITS);
    writer->end();
  }
  writer->start(QURT, "Size");
  writer->attribute_number("m", object.radar->size, onvif::MEASURE_DIGITS);
  writer->end();
  writer->end();
  writer->end();
}

void
write_location(onvif::XmlWriter *writer, const Polar &position)
{
  GeoLocation location = ground_location(position);
  writer->start(onvif::TT, "GeoLocation");
  writer->attribute_number("lon", location.longitude, EARTH_DIGITS);
  writer->attribute_number("lat", location.latitude, EARTH_DIGITS);
  writer->attribute_number("elevation", location.elevation, onvif::MEASURE_DIGITS);
  writer->end();
}

/* ONVIF requires a box in a shape; without a box no shape is written. */
void
write_appearance(onvif::XmlWriter *writer, const SceneObject &object, const SceneView &view,
                 const Rotation &rotation)
{
  writer->start(onvif::TT, "Appearance");
  if (object.box.has_value()) {
    write_shape(writer, object, view, rotation);
  }
  onvif::frame_write_class(writer, scene_type_name(object.type), object.likelihood);
  if (object.radar.has_value()) {
    write_radar(writer, object, view);
    if (view.geolocation) {
      write_location(writer, object.radar->position);
    }
  }
  writer->end();
}

/* In a rotated picture too, 0 is to its right and 90 away from the camera. */
void
write_behaviour(onvif::XmlWriter *writer, const Velocity &velocity, const Rotation &rotation)
{
  double yaw = std::remainder(90 - velocity.angle - rotation.degrees, 360);
  writer->start(onvif::TT, "Behaviour");
  writer->element_number(onvif::TT, "Speed", velocity.speed, onvif::MEASURE_DIGITS);
  writer->start(onvif::TT, "Direction");
  writer->attribute_number("yaw", yaw, onvif::MEASURE_DIGITS);
  writer->end();
  writer->end();
}

void
write_object(onvif::XmlWriter *writer, const SceneObject &object, const SceneView &view,
             const Rotation &rotation)
{
  writer->start(onvif::TT, "Object");
  writer->attribute_integer("ObjectId", object.id);
  write_appearance(writer, object, view, rotation);
  if (view.velocity && object.velocity.has_value()) {
    write_behaviour(writer, *object.velocity, rotation);
  }
  writer->end();
}

void
write_frame(onvif::XmlWriter *writer, const Scene &scene, const SceneView &view,
            const std::optional<Ptz> &ptz)
{
  const Rotation &rotation = *find_rotation(view.rotation);
  writer->start(onvif::TT, "Frame");
  writer->attribute("UtcTime", onvif::xml_date_time(scene.utc));
  if (view.source_name.has_value()) {
    writer->attribute("Source", *view.source_name);
  }
  if (ptz.has_value()) {
    ptz_status_write(writer, *ptz, view.ptz, scene.utc);
  }
  for (const SceneObject &object : scene.objects) {
    write_object(writer, object, view, rotation);
  }
  onvif::frame_write_deleted(writer, scene.deleted);
  writer->end();
}

} // namespace

/**
 * scene_can_rotate:
 * @rotation: degrees
 *
 * Returns: whether pictures can be rotated by @rotation: 0, 90, 180 or 270
 */
bool
scene_can_rotate(guint rotation)
{
  return find_rotation(rotation) != nullptr;
}

/**
 * scene_to_fragment:
 * @scene: the scene
 * @view: the parts to show
 * @ptz: the state of the PTZ head, if it is to be shown
 *
 * Returns: (transfer full): one tt:VideoAnalytics element with one tt:Frame, with the caps %FRAGMENT_CAPS
 */
GstBuffer *
scene_to_fragment(const Scene &scene, const SceneView &view, const std::optional<Ptz> &ptz)
{
  onvif::XmlWriter writer;
  writer.start(onvif::TT, "VideoAnalytics");
  writer.declare(onvif::TT);
  write_frame(&writer, scene, view, ptz);
  writer.end();
  return onvif::fragment_to_buffer(&writer);
}

} // namespace sim
