/* SPDX-License-Identifier: MIT */
/* Reads the objects of a metadata document's frames, in the coordinates of the picture or of the ground.
 *
 * Documents are not trusted: parsing one opens no file and no connection, everything in it is bounded, and an
 * attribute that is not a number counts as absent.
 */
#include "scene.h"
#include "command.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <numbers>

G_DEFINE_AUTOPTR_CLEANUP_FUNC(xmlDoc, xmlFreeDoc)

namespace
{

constexpr int PARSE_OPTIONS = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING;

constexpr gchar TT[] = "http://www.onvif.org/ver10/schema";

constexpr double RADIANS_PER_DEGREE = std::numbers::pi / 180;
constexpr double METRES_PER_DEGREE = 40075017.0 / 360;

/* A tt:Transformation: a coordinate times the scale, plus the translation, is one of the parent. */
struct Transformation {
  ScenePoint scale = {.x = 1, .y = 1};
  ScenePoint translate = {.x = 0, .y = 0};
};

struct GeoPoint {
  double lon;
  double lat;
};

gboolean
is_named(const xmlNode *node, const gchar *name)
{
  return node->type == XML_ELEMENT_NODE && g_str_equal(reinterpret_cast<const gchar *>(node->name), name);
}

gboolean
is_onvif(const xmlNode *node, const gchar *name)
{
  return is_named(node, name) && node->ns != nullptr &&
         g_str_equal(reinterpret_cast<const gchar *>(node->ns->href), TT);
}

/* Returns: @node or the first sibling after it that is this element */
const xmlNode *
find_from(const xmlNode *node, const gchar *name)
{
  while (node != nullptr && !is_onvif(node, name)) {
    node = node->next;
  }
  return node;
}

/* Both return NULL for a parent that is NULL. */
const xmlNode *
find_child(const xmlNode *parent, const gchar *name)
{
  return parent == nullptr ? nullptr : find_from(parent->children, name);
}

const xmlNode *
find_next(const xmlNode *element, const gchar *name)
{
  return find_from(element->next, name);
}

std::string
cut(const gchar *text)
{
  const glong characters = std::min<glong>(g_utf8_strlen(text, -1), SCENE_MAX_TEXT_CHARACTERS);

  return std::string(text, g_utf8_offset_to_pointer(text, characters) - text);
}

std::string
read_text(const xmlNode *element)
{
  xmlChar *content = element == nullptr ? nullptr : xmlNodeGetContent(element);
  std::string text = content == nullptr ? "" : cut(g_strstrip(reinterpret_cast<gchar *>(content)));

  xmlFree(content);
  return text;
}

std::string
read_attribute(const xmlNode *element, const gchar *name)
{
  xmlChar *value =
      element == nullptr ? nullptr : xmlGetNoNsProp(element, reinterpret_cast<const xmlChar *>(name));
  std::string text = value == nullptr ? "" : cut(reinterpret_cast<const gchar *>(value));

  xmlFree(value);
  return text;
}

std::optional<double>
to_number(const std::string &text)
{
  gchar *end = nullptr;
  const double number = g_ascii_strtod(text.c_str(), &end);

  if (end == text.c_str() || *end != '\0' || !std::isfinite(number)) {
    return std::nullopt;
  }
  return number;
}

std::optional<double>
read_number(const xmlNode *element, const gchar *name)
{
  return to_number(read_attribute(element, name));
}

std::optional<ScenePoint>
read_point(const xmlNode *element, const gchar *x_name, const gchar *y_name)
{
  const std::optional<double> x = read_number(element, x_name), y = read_number(element, y_name);

  if (!x.has_value() || !y.has_value()) {
    return std::nullopt;
  }
  return ScenePoint{.x = *x, .y = *y};
}

Transformation
read_transformation(const xmlNode *parent)
{
  const xmlNode *element = find_child(parent, "Transformation");
  const Transformation identity;

  return {.scale = read_point(find_child(element, "Scale"), "x", "y").value_or(identity.scale),
          .translate = read_point(find_child(element, "Translate"), "x", "y").value_or(identity.translate)};
}

ScenePoint
apply(const Transformation &transformation, ScenePoint point)
{
  return {.x = point.x * transformation.scale.x + transformation.translate.x,
          .y = point.y * transformation.scale.y + transformation.translate.y};
}

Transformation
combine(const Transformation &outer, const Transformation &inner)
{
  return {.scale = {.x = outer.scale.x * inner.scale.x, .y = outer.scale.y * inner.scale.y},
          .translate = apply(outer, inner.translate)};
}

/* Products of large numbers can be infinite, and differences of those not a number. */
double
limit(double value, double maximum)
{
  return std::isnan(value) ? 0 : std::clamp(value, -maximum, maximum);
}

ScenePoint
to_picture(const Transformation &transformation, ScenePoint point)
{
  const ScenePoint moved = apply(transformation, point);

  return {.x = limit(moved.x, SCENE_MAX_COORDINATE), .y = limit(moved.y, SCENE_MAX_COORDINATE)};
}

ScenePoint
to_ground(double x, double y)
{
  return {.x = limit(x, SCENE_MAX_METRES), .y = limit(y, SCENE_MAX_METRES)};
}

std::optional<SceneBox>
read_box(const xmlNode *shape, const Transformation &transformation)
{
  const xmlNode *element = find_child(shape, "BoundingBox");
  const std::optional<ScenePoint> left_top = read_point(element, "left", "top");
  const std::optional<ScenePoint> right_bottom = read_point(element, "right", "bottom");

  if (!left_top.has_value() || !right_bottom.has_value()) {
    return std::nullopt;
  }
  return SceneBox{.left_top = to_picture(transformation, *left_top),
                  .right_bottom = to_picture(transformation, *right_bottom)};
}

/* Reads at most @room points. */
std::vector<ScenePoint>
read_polygon(const xmlNode *polygon, const Transformation &transformation, gsize room)
{
  std::vector<ScenePoint> points;

  for (const xmlNode *element = find_child(polygon, "Point"); element != nullptr && points.size() < room;
       element = find_next(element, "Point")) {
    const std::optional<ScenePoint> point = read_point(element, "x", "y");
    if (point.has_value()) {
      points.push_back(to_picture(transformation, *point));
    }
  }
  return points;
}

void
read_polygons(SceneObject *object, const xmlNode *shape, const Transformation &transformation)
{
  gsize room = SCENE_MAX_POINTS;

  for (const xmlNode *polygon = find_child(shape, "Polygon"); polygon != nullptr && room > 0;
       polygon = find_next(polygon, "Polygon")) {
    std::vector<ScenePoint> points = read_polygon(polygon, transformation, room);
    if (!points.empty()) {
      room -= points.size();
      object->polygons.push_back(std::move(points));
    }
  }
}

/* Takes the class if it is the first one, or more likely than the others. */
void
offer_class(SceneObject *object, std::string type, std::optional<double> likelihood)
{
  if (!type.empty() && (object->type.empty() || likelihood.value_or(0) > object->likelihood.value_or(0))) {
    object->type = std::move(type);
    object->likelihood = likelihood;
  }
}

/* The older form of classes counts only without the newer one. */
void
read_class(SceneObject *object, const xmlNode *appearance)
{
  const xmlNode *classes = find_child(appearance, "Class");

  for (const xmlNode *type = find_child(classes, "Type"); type != nullptr; type = find_next(type, "Type")) {
    offer_class(object, read_text(type), read_number(type, "Likelihood"));
  }
  if (!object->type.empty()) {
    return;
  }
  for (const xmlNode *candidate = find_child(classes, "ClassCandidate"); candidate != nullptr;
       candidate = find_next(candidate, "ClassCandidate")) {
    offer_class(object, read_text(find_child(candidate, "Type")),
                to_number(read_text(find_child(candidate, "Likelihood"))));
  }
}

/* Radars put it into an element of their own namespace. */
const xmlNode *
find_polar(const xmlNode *extension)
{
  for (const xmlNode *info = extension == nullptr ? nullptr : extension->children; info != nullptr;
       info = info->next) {
    for (const xmlNode *node = info->type == XML_ELEMENT_NODE ? info->children : nullptr; node != nullptr;
         node = node->next) {
      if (is_named(node, "PolarCoordinate")) {
        return node;
      }
    }
  }
  return nullptr;
}

/* The angle is clockwise from straight ahead. */
std::optional<ScenePoint>
read_polar(const xmlNode *appearance)
{
  const xmlNode *element = find_polar(find_child(appearance, "Extension"));
  const std::optional<double> angle = read_number(element, "angle"), range = read_number(element, "range");

  if (!angle.has_value() || !range.has_value()) {
    return std::nullopt;
  }
  return to_ground(*range * std::sin(*angle * RADIANS_PER_DEGREE),
                   *range * std::cos(*angle * RADIANS_PER_DEGREE));
}

/* The azimuth is counter-clockwise from the right. */
std::optional<ScenePoint>
read_spherical(const xmlNode *appearance)
{
  const xmlNode *element = find_child(appearance, "SphericalCoordinate");
  const std::optional<double> distance = read_number(element, "Distance");
  const std::optional<double> azimuth = read_number(element, "AzimuthAngle");

  if (!distance.has_value() || !azimuth.has_value()) {
    return std::nullopt;
  }
  const double elevation = read_number(element, "ElevationAngle").value_or(0) * RADIANS_PER_DEGREE;
  const double along = *distance * std::cos(elevation);
  return to_ground(along * std::cos(*azimuth * RADIANS_PER_DEGREE),
                   along * std::sin(*azimuth * RADIANS_PER_DEGREE));
}

/* An object with a box has its place in the picture. */
std::optional<GeoPoint>
read_location(const SceneObject &object, const xmlNode *appearance)
{
  const std::optional<ScenePoint> point = read_point(find_child(appearance, "GeoLocation"), "lon", "lat");

  if (!point.has_value() || object.box.has_value() || object.ground.has_value()) {
    return std::nullopt;
  }
  return GeoPoint{.lon = point->x, .lat = point->y};
}

/* Reads the frames of one document. */
class SceneReader
{
public:
  void read_frame(const xmlNode *element);

  Scene scene_;

private:
  void read_object(SceneFrame *frame, const xmlNode *element, const Transformation &transformation);
  ScenePoint place(const GeoPoint &location);

  std::optional<GeoPoint> origin_; /* the first location of the document: that of the radar is not in it */
};

/* East and north of the origin. */
ScenePoint
SceneReader::place(const GeoPoint &location)
{
  if (!origin_.has_value()) {
    origin_ = location;
  }
  const double metres_per_lon = METRES_PER_DEGREE * std::cos(origin_->lat * RADIANS_PER_DEGREE);
  return to_ground((location.lon - origin_->lon) * metres_per_lon,
                   (location.lat - origin_->lat) * METRES_PER_DEGREE);
}

void
SceneReader::read_object(SceneFrame *frame, const xmlNode *element, const Transformation &transformation)
{
  if (scene_.objects == SCENE_MAX_OBJECTS) {
    scene_.left_out++;
    return;
  }
  const xmlNode *appearance = find_child(element, "Appearance");
  const xmlNode *shape = find_child(appearance, "Shape");
  const Transformation own = combine(transformation, read_transformation(appearance));
  const std::optional<ScenePoint> centre = read_point(find_child(shape, "CenterOfGravity"), "x", "y");
  SceneObject object = {.id = read_attribute(element, "ObjectId"), .box = read_box(shape, own)};

  if (centre.has_value()) {
    object.centre = to_picture(own, *centre);
  }
  read_polygons(&object, shape, own);
  read_class(&object, appearance);
  object.ground = read_polar(appearance);
  if (!object.ground.has_value()) {
    object.ground = read_spherical(appearance);
  }
  const std::optional<GeoPoint> location = read_location(object, appearance);
  if (location.has_value()) {
    object.ground = place(*location);
  }
  scene_.objects++;
  frame->objects.push_back(std::move(object));
}

void
SceneReader::read_frame(const xmlNode *element)
{
  if (scene_.frames.size() == SCENE_MAX_FRAMES) {
    return;
  }
  SceneFrame frame = {.source = read_attribute(element, "Source"),
                      .time = read_attribute(element, "UtcTime")};
  const Transformation transformation = read_transformation(element);

  for (const xmlNode *object = find_child(element, "Object"); object != nullptr;
       object = find_next(object, "Object")) {
    read_object(&frame, object, transformation);
  }
  scene_.frames.push_back(std::move(frame));
}

} // namespace

/**
 * scene_read:
 * @document: (transfer none): one metadata document
 * @error: return location for an error of %TESSARDCTL_ERROR
 *
 * Reads the frames of a tt:MetadataStream. A document with a type definition is refused.
 *
 * Returns: the scene, which has no frame if the document has none
 */
std::optional<Scene>
scene_read(std::string_view document, GError **error)
{
  if (document.size() > SCENE_MAX_DOCUMENT_BYTES) {
    g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_MALFORMED, "The document is longer than %d bytes.",
                SCENE_MAX_DOCUMENT_BYTES);
    return std::nullopt;
  }
  g_autoptr(xmlDoc) parsed =
      xmlReadMemory(document.data(), static_cast<int>(document.size()), nullptr, nullptr, PARSE_OPTIONS);
  const xmlNode *root = parsed == nullptr ? nullptr : xmlDocGetRootElement(parsed);
  if (root == nullptr || parsed->intSubset != nullptr || !is_onvif(root, "MetadataStream")) {
    g_set_error_literal(error, TESSARDCTL_ERROR, EXIT_STATUS_MALFORMED,
                        "The document is not a well-formed tt:MetadataStream.");
    return std::nullopt;
  }
  SceneReader reader;
  for (const xmlNode *part = find_child(root, "VideoAnalytics"); part != nullptr;
       part = find_next(part, "VideoAnalytics")) {
    for (const xmlNode *frame = find_child(part, "Frame"); frame != nullptr;
         frame = find_next(frame, "Frame")) {
      reader.read_frame(frame);
    }
  }
  return std::move(reader.scene_);
}
