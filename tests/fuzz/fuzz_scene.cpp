/* SPDX-License-Identifier: MIT */
// A scene of arbitrary bytes for a converter: it is refused, or within the limits of the format and written
// as XML.
#include "fuzz.h"
#include "libxml.h"
#include "scenebuffer.h"
#include "scenefragment.h"

#include <libxml/parser.h>
#include <string>

namespace
{

using sim::Scene;
using sim::SceneObject;

constexpr guint ROTATIONS = 4;
constexpr gint64 END_OF_2099 = G_GINT64_CONSTANT(4102444799) * G_USEC_PER_SEC;

bool
is_within(double value, double low, double high)
{
  return value >= low && value <= high;
}

void
require_in_picture(double x, double y)
{
  fuzz::require(is_within(x, -1, 1) && is_within(y, -1, 1), "positions are in the picture");
}

void
require_measures(double angle, double measure)
{
  fuzz::require(is_within(angle, -180, 180), "angles are at most half a turn");
  fuzz::require(is_within(measure, 0, 100000), "sizes are bounded");
}

void
check_object(const SceneObject &object)
{
  fuzz::require(object.type == sim::ObjectType::HUMAN || object.type == sim::ObjectType::VEHICLE,
                "types are known");
  fuzz::require(is_within(object.likelihood, 0, 1), "likelihoods are likelihoods");
  require_in_picture(object.centre.x, object.centre.y);
  if (object.box.has_value()) {
    require_in_picture(object.box->left, object.box->top);
    require_in_picture(object.box->right, object.box->bottom);
    fuzz::require(object.box->left <= object.box->right && object.box->bottom <= object.box->top,
                  "the edges of boxes are in order");
  }
  fuzz::require(object.polygon.empty() ||
                    (object.polygon.size() >= 3 && object.polygon.size() <= sim::SCENE_POINTS_MAX),
                "polygons are polygons");
  for (const sim::Point &point : object.polygon)
    require_in_picture(point.x, point.y);
  if (object.velocity.has_value())
    require_measures(object.velocity->angle, object.velocity->speed);
  if (object.radar.has_value()) {
    require_measures(object.radar->position.angle, object.radar->position.range);
    require_measures(0, object.radar->size);
  }
}

std::string_view
read_buffer(const GstMapInfo &map)
{
  return fuzz::as_text(map.data, map.size);
}

// A scene has one form only, so its serialised form is the input.
void
check_writing(const Scene &scene, std::string_view input)
{
  g_autoptr(GstBuffer) buffer = sim::scene_to_buffer(scene);
  GstMapInfo map;
  fuzz::require(gst_buffer_map(buffer, &map, GST_MAP_READ), "a buffer can be read");
  fuzz::require(read_buffer(map) == input, "a scene is written as it was read");
  gst_buffer_unmap(buffer, &map);
}

void
check_fragment(const Scene &scene, const sim::SceneView &view)
{
  g_autoptr(GstBuffer) buffer = sim::scene_to_fragment(scene, view, std::nullopt);
  GstMapInfo map;
  fuzz::require(gst_buffer_map(buffer, &map, GST_MAP_READ), "a buffer can be read");
  std::string_view text = read_buffer(map);
  g_autoptr(xmlDoc) document =
      xmlReadMemory(text.data(), static_cast<int>(text.size()), nullptr, nullptr, XML_PARSE_NONET);
  fuzz::require(document != nullptr, "a fragment is well-formed");
  fuzz::require(text.find('\n') == text.npos, "a fragment has no line breaks");
  gst_buffer_unmap(buffer, &map);
}

} // namespace

int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
  if (!gst_is_initialized())
    gst_init(nullptr, nullptr);

  g_autoptr(GstBuffer) buffer = gst_buffer_new_allocate(nullptr, size, nullptr);
  gst_buffer_fill(buffer, 0, data, size);
  std::optional<Scene> scene = sim::scene_from_buffer(buffer);
  if (!scene.has_value())
    return 0;

  fuzz::require(size <= sim::SCENE_BYTES_MAX, "the size is bounded");
  fuzz::require(scene->objects.size() <= sim::SCENE_OBJECTS_MAX, "the number of objects is bounded");
  fuzz::require(scene->deleted.size() <= sim::SCENE_OBJECTS_MAX, "the number of deletions is bounded");
  fuzz::require(scene->utc >= 0 && scene->utc <= END_OF_2099, "the time is bounded");
  for (const SceneObject &object : scene->objects)
    check_object(object);
  check_writing(*scene, fuzz::as_text(data, size));
  for (guint turn = 0; turn < ROTATIONS; turn++)
    check_fragment(*scene, {.source_name = "fuzz",
                            .rotation = turn * 90,
                            .polygon = true,
                            .velocity = true,
                            .geolocation = true});
  return 0;
}
