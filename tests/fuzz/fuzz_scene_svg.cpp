/* SPDX-License-Identifier: MIT */
// Arbitrary bytes as a document to draw: a document is either drawn or refused with an error, its scene is
// bounded, and the drawing is well-formed and has one group for each object.
#include "fuzz.h"
#include "scene.h"
#include "scenesvg.h"

#include <cmath>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xmlerror.h>

namespace
{

void
check_text(const std::string &text)
{
  fuzz::require(g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr), "texts are UTF-8");
  fuzz::require(g_utf8_strlen(text.data(), static_cast<gssize>(text.size())) <= SCENE_MAX_TEXT_CHARACTERS,
                "texts are bounded");
}

void
check_point(const ScenePoint &point, double limit)
{
  fuzz::require(std::abs(point.x) <= limit && std::abs(point.y) <= limit, "coordinates are bounded");
}

void
check_object(const SceneObject &object)
{
  gsize points = 0;
  check_text(object.id);
  check_text(object.type);
  for (const std::vector<ScenePoint> &polygon : object.polygons) {
    points += polygon.size();
    for (const ScenePoint &point : polygon)
      check_point(point, SCENE_MAX_COORDINATE);
  }
  fuzz::require(points <= SCENE_MAX_POINTS, "points are bounded");
  if (object.box.has_value())
    check_point(object.box->left_top, SCENE_MAX_COORDINATE);
  if (object.ground.has_value())
    check_point(*object.ground, SCENE_MAX_METRES);
}

gsize
count_groups(const xmlNode *element)
{
  gsize count = 0;
  for (const xmlNode *node = element; node != nullptr; node = node->next) {
    count += node->type == XML_ELEMENT_NODE && g_str_equal(node->name, "g") ? 1 : 0;
    count += node->type == XML_ELEMENT_NODE ? count_groups(node->children) : 0;
  }
  return count;
}

void
check_drawing(const std::string &svg, gsize objects)
{
  xmlDoc *drawing = xmlReadMemory(svg.data(), static_cast<int>(svg.size()), nullptr, nullptr,
                                  XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
  fuzz::require(drawing != nullptr, "the drawing is well-formed");
  fuzz::require(count_groups(xmlDocGetRootElement(drawing)) == objects, "each object has a group");
  xmlFreeDoc(drawing);
}

} // namespace

int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
  g_autoptr(GError) error = nullptr;
  std::optional<Scene> scene = scene_read(fuzz::as_text(data, size), &error);
  xmlResetLastError();
  fuzz::require(scene.has_value() != (error != nullptr), "either a scene or an error");
  if (!scene.has_value())
    return 0;
  gsize objects = 0;
  for (const SceneFrame &frame : scene->frames) {
    check_text(frame.source);
    check_text(frame.time);
    objects += frame.objects.size();
    for (const SceneObject &object : frame.objects)
      check_object(object);
  }
  fuzz::require(objects == scene->objects && objects <= SCENE_MAX_OBJECTS, "objects are bounded and counted");
  check_drawing(scene_svg_write(*scene), objects);
  return 0;
}
