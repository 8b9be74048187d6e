/* SPDX-License-Identifier: MIT */
/* Draws a scene as SVG: the picture, a map of the ground beside it if there are objects of a radar, and a
 * legend with a colour for each source.
 *
 * Each object is one group with its id, class and source as data attributes, which a reader of a bug report
 * can search. libxml2 escapes all texts.
 */
#include "scenesvg.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <libxml/tree.h>

namespace
{

/* The size of the picture, 16 to 9, and of the map beside it. */
constexpr double PICTURE_WIDTH = 960;
constexpr double PICTURE_HEIGHT = 540;
constexpr double MAP_SIZE = 540;
constexpr double MARGIN = 20;

/* Readable on the dark background, and by people who see no red or no green. Further sources share them. */
constexpr std::array COLOURS = {"#56b4e9", "#e69f00", "#2fc79a", "#f0e442",
                                "#e58fbf", "#ff7043", "#9fa8ff", "#d0d0d0"};

constexpr gchar BACKGROUND_COLOUR[] = "#10161d";
constexpr gchar PANEL_COLOUR[] = "#1b242e";
constexpr gchar LINE_COLOUR[] = "#44525f";
constexpr gchar LINE_TEXT_COLOUR[] = "#8b98a5";
constexpr gchar TEXT_COLOUR[] = "#e6edf3";

constexpr double LEGEND_LINE = 22;
constexpr double TEXT_SIZE = 14;
constexpr double LABEL_GAP = 4;
constexpr double LABEL_TURN = 1.5; /* times half of the width */
constexpr double DOT = 5;

constexpr int RINGS = 4;
constexpr double MIN_RANGE_METRES = 10;

const xmlChar *
as_xml(const std::string &text)
{
  return reinterpret_cast<const xmlChar *>(text.c_str());
}

std::string
format_number(double value)
{
  std::array<gchar, G_ASCII_DTOSTR_BUF_SIZE> text;

  /* The sum has no negative zero. */
  return g_ascii_formatd(text.data(), text.size(), "%.2f", value + 0.0);
}

xmlNode *
add(xmlNode *parent, const gchar *name)
{
  return xmlNewChild(parent, nullptr, reinterpret_cast<const xmlChar *>(name), nullptr);
}

void
set(xmlNode *element, const gchar *name, const std::string &value)
{
  xmlNewProp(element, reinterpret_cast<const xmlChar *>(name), as_xml(value));
}

void
set(xmlNode *element, const gchar *name, double value)
{
  set(element, name, format_number(value));
}

void
set_size(xmlNode *element, double width, double height)
{
  set(element, "width", width);
  set(element, "height", height);
}

xmlNode *
add_rect(xmlNode *parent, double x, double y, double width, double height)
{
  xmlNode *rect = add(parent, "rect");

  set(rect, "x", x);
  set(rect, "y", y);
  set_size(rect, width, height);
  return rect;
}

xmlNode *
add_circle(xmlNode *parent, ScenePoint centre, double radius)
{
  xmlNode *circle = add(parent, "circle");

  set(circle, "cx", centre.x);
  set(circle, "cy", centre.y);
  set(circle, "r", radius);
  return circle;
}

xmlNode *
add_text(xmlNode *parent, double x, double y, const gchar *colour, const std::string &content)
{
  xmlNode *text =
      xmlNewTextChild(parent, nullptr, reinterpret_cast<const xmlChar *>("text"), as_xml(content));

  set(text, "x", x);
  set(text, "y", y);
  set(text, "fill", colour);
  return text;
}

/* A part of the drawing that cuts off what is outside, and where points of the scene are in it. */
struct Panel {
  xmlNode *element;
  ScenePoint origin; /* of the scene's coordinates */
  ScenePoint unit;   /* the length of one of them; y is upwards */

  ScenePoint place(ScenePoint point) const
  {
    return {.x = origin.x + point.x * unit.x, .y = origin.y - point.y * unit.y};
  }
};

/* What the map has to show, in metres: the radar, the objects, and a strip ahead of the radar. */
struct Ground {
  double beside = MIN_RANGE_METRES / 2; /* to both sides */
  double ahead = MIN_RANGE_METRES;
  double behind = 0;

  void include(ScenePoint point)
  {
    beside = std::max(beside, std::abs(point.x));
    ahead = std::max(ahead, point.y);
    behind = std::max(behind, -point.y);
  }
};

/* Returns: nothing if no object is of a radar */
std::optional<Ground>
measure_ground(const Scene &scene)
{
  std::optional<Ground> ground;

  for (const SceneFrame &frame : scene.frames) {
    for (const SceneObject &object : frame.objects) {
      if (object.ground.has_value()) {
        ground = ground.value_or(Ground());
        ground->include(*object.ground);
      }
    }
  }
  return ground;
}

/* Returns: the smallest of 1, 2 and 5 times a power of ten that is not below @value */
double
round_up(double value)
{
  const double power = std::pow(10, std::floor(std::log10(value)));

  for (const double digit : {1.0, 2.0, 5.0}) {
    if (digit * power >= value) {
      return digit * power;
    }
  }
  return 10 * power;
}

std::string
describe(const SceneObject &object)
{
  std::string text = object.id;

  if (!object.type.empty()) {
    text += " " + object.type;
  }
  if (object.likelihood.has_value()) {
    g_autofree gchar *percent = g_strdup_printf(" %.0f %%", std::clamp(*object.likelihood, 0.0, 1.0) * 100);
    text += percent;
  }
  return text;
}

void
add_box(xmlNode *group, const Panel &panel, const SceneBox &box)
{
  const ScenePoint first = panel.place(box.left_top), second = panel.place(box.right_bottom);

  add_rect(group, std::min(first.x, second.x), std::min(first.y, second.y), std::abs(second.x - first.x),
           std::abs(second.y - first.y));
}

void
add_polygon(xmlNode *group, const Panel &panel, const std::vector<ScenePoint> &polygon, const gchar *colour)
{
  std::string points;

  for (const ScenePoint &point : polygon) {
    const ScenePoint at = panel.place(point);
    points += (points.empty() ? "" : " ") + format_number(at.x) + "," + format_number(at.y);
  }
  xmlNode *element = add(group, "polygon");
  set(element, "points", points);
  set(element, "fill", colour);
  set(element, "fill-opacity", "0.25");
}

/* The object's text, to the right or to the left of a place. */
struct Label {
  ScenePoint at;
  gboolean ends_there;
};

/* In the right part of a panel the text is to the left, so that it is not cut off. */
Label
place_label(const Panel &panel, double left, double right, double y)
{
  const gboolean ends_there = left > panel.origin.x * LABEL_TURN;

  return {
      .at = {.x = ends_there ? std::min(right, 2 * panel.origin.x - LABEL_GAP) : std::max(left, LABEL_GAP),
             .y = y},
      .ends_there = ends_there};
}

Label
place_beside(const Panel &panel, ScenePoint point)
{
  const ScenePoint at = panel.place(point);

  return place_label(panel, at.x + 2 * DOT, at.x - 2 * DOT, at.y + DOT);
}

Label
place_above(const Panel &panel, const SceneBox &box)
{
  const ScenePoint first = panel.place(box.left_top), second = panel.place(box.right_bottom);

  return place_label(panel, std::min(first.x, second.x), std::max(first.x, second.x),
                     std::max(std::min(first.y, second.y) - LABEL_GAP, TEXT_SIZE));
}

/* Returns: nothing for an object without a place */
std::optional<Label>
find_label(const Panel &panel, const SceneObject &object)
{
  if (object.ground.has_value()) {
    return place_beside(panel, *object.ground);
  }
  if (object.box.has_value()) {
    return place_above(panel, *object.box);
  }
  return object.centre.has_value() ? std::optional(place_beside(panel, *object.centre)) : std::nullopt;
}

/* An object of a radar is a point on the map, another one a box or a point in the picture. */
void
add_shapes(xmlNode *group, const Panel &panel, const SceneObject &object, const gchar *colour)
{
  if (object.ground.has_value()) {
    add_circle(group, panel.place(*object.ground), DOT);
    return;
  }
  for (const std::vector<ScenePoint> &polygon : object.polygons) {
    add_polygon(group, panel, polygon, colour);
  }
  if (object.box.has_value()) {
    add_box(group, panel, *object.box);
  } else if (object.centre.has_value()) {
    add_circle(group, panel.place(*object.centre), DOT);
  }
}

/* Draws one scene. */
class SvgDrawing
{
public:
  explicit SvgDrawing(const Scene &drawn_scene);
  ~SvgDrawing();
  SvgDrawing(const SvgDrawing &) = delete;
  SvgDrawing &operator=(const SvgDrawing &) = delete;

  void draw();
  std::string dump() const;

private:
  const gchar *colour_of(const std::string &source);
  xmlNode *add_panel(const gchar *name, double left, double width, double height);
  Panel add_picture();
  Panel add_map(const Ground &ground);
  void add_rings(const Panel &map, const Ground &ground);
  void add_object(const Panel &panel, const SceneFrame &frame, const SceneObject &object);
  void add_objects(const Panel &picture, const std::optional<Panel> &map);
  double add_legend();

  const Scene &scene_;
  xmlDoc *document_;
  xmlNode *root_;
  std::vector<std::string> sources_; /* in the order of their colours */
};

SvgDrawing::SvgDrawing(const Scene &drawn_scene)
    : scene_(drawn_scene), document_(xmlNewDoc(reinterpret_cast<const xmlChar *>("1.0"))),
      root_(xmlNewDocNode(document_, nullptr, reinterpret_cast<const xmlChar *>("svg"), nullptr))
{
  xmlDocSetRootElement(document_, root_);
  xmlSetNs(root_, xmlNewNs(root_, reinterpret_cast<const xmlChar *>("http://www.w3.org/2000/svg"), nullptr));
}

SvgDrawing::~SvgDrawing()
{
  xmlFreeDoc(document_);
}

const gchar *
SvgDrawing::colour_of(const std::string &source)
{
  const auto found = std::find(sources_.begin(), sources_.end(), source);
  const gsize number = found - sources_.begin();

  if (found == sources_.end()) {
    sources_.push_back(source);
  }
  return COLOURS.at(number % COLOURS.size());
}

xmlNode *
SvgDrawing::add_panel(const gchar *name, double left, double width, double height)
{
  xmlNode *panel = add(root_, "svg");

  set(panel, "class", name);
  set(panel, "x", left);
  set(panel, "y", MARGIN);
  set_size(panel, width, height);
  xmlNode *background = add_rect(panel, 0, 0, width, height);
  set(background, "fill", PANEL_COLOUR);
  set(background, "stroke", LINE_COLOUR);
  return panel;
}

Panel
SvgDrawing::add_picture()
{
  return {.element = add_panel("picture", MARGIN, PICTURE_WIDTH, PICTURE_HEIGHT),
          .origin = {.x = PICTURE_WIDTH / 2, .y = PICTURE_HEIGHT / 2},
          .unit = {.x = PICTURE_WIDTH / 2, .y = PICTURE_HEIGHT / 2}};
}

void
SvgDrawing::add_rings(const Panel &map, const Ground &ground)
{
  const double range = std::hypot(ground.beside, std::max(ground.ahead, ground.behind));
  const double step = round_up(range / RINGS);

  for (int ring = 1; ring <= RINGS; ring++) {
    const double radius = ring * step * map.unit.y;
    xmlNode *circle = add_circle(map.element, map.origin, radius);
    set(circle, "fill", "none");
    set(circle, "stroke", LINE_COLOUR);
    g_autofree gchar *text = g_strdup_printf("%g m", ring * step);
    add_text(map.element, map.origin.x + LABEL_GAP, map.origin.y - radius - LABEL_GAP, LINE_TEXT_COLOUR,
             text);
  }
}

/* The radar is a triangle that points ahead. */
Panel
SvgDrawing::add_map(const Ground &ground)
{
  constexpr double INNER = MAP_SIZE - 2 * MARGIN;
  const double unit = std::min(INNER / 2 / ground.beside, INNER / (ground.ahead + ground.behind));
  const double left = 2 * MARGIN + PICTURE_WIDTH;
  const Panel map = {.element = add_panel("map", left, MAP_SIZE, MAP_SIZE),
                     .origin = {.x = MAP_SIZE / 2, .y = MAP_SIZE - MARGIN - ground.behind * unit},
                     .unit = {.x = unit, .y = unit}};

  add_rings(map, ground);
  xmlNode *radar = add(map.element, "path");
  set(radar, "d",
      "M" + format_number(map.origin.x) + " " + format_number(map.origin.y - 2 * DOT) + " l" +
          format_number(DOT) + " " + format_number(2 * DOT) + " h" + format_number(-2 * DOT) + " z");
  set(radar, "fill", TEXT_COLOUR);
  return map;
}

void
SvgDrawing::add_object(const Panel &panel, const SceneFrame &frame, const SceneObject &object)
{
  const gchar *colour = colour_of(frame.source);
  const std::optional<Label> label = find_label(panel, object);
  xmlNode *group = add(panel.element, "g");

  set(group, "class", "object");
  set(group, "data-id", object.id);
  set(group, "data-class", object.type);
  set(group, "data-source", frame.source);
  set(group, "fill", object.ground.has_value() ? colour : "none");
  set(group, "stroke", colour);
  set(group, "stroke-width", "2");
  add_shapes(group, panel, object, colour);
  if (label.has_value()) {
    xmlNode *text = add_text(group, label->at.x, label->at.y, colour, describe(object));
    set(text, "stroke", "none");
    set(text, "text-anchor", label->ends_there ? "end" : "start");
  }
}

void
SvgDrawing::add_objects(const Panel &picture, const std::optional<Panel> &map)
{
  for (const SceneFrame &frame : scene_.frames) {
    for (const SceneObject &object : frame.objects) {
      add_object(object.ground.has_value() ? map.value() : picture, frame, object);
    }
  }
}

/* Returns: the height of the drawing */
double
SvgDrawing::add_legend()
{
  double y = 2 * MARGIN + PICTURE_HEIGHT + TEXT_SIZE;

  for (const SceneFrame &frame : scene_.frames) {
    const gchar *colour = colour_of(frame.source);
    set(add_rect(root_, MARGIN, y - TEXT_SIZE + 2, TEXT_SIZE, TEXT_SIZE), "fill", colour);
    g_autofree gchar *text = g_strdup_printf("%s, %s, %" G_GSIZE_FORMAT " objects",
                                             frame.source.empty() ? "no source" : frame.source.c_str(),
                                             frame.time.c_str(), frame.objects.size());
    add_text(root_, MARGIN + 2 * TEXT_SIZE, y, TEXT_COLOUR, text);
    y += LEGEND_LINE;
  }
  if (scene_.left_out > 0) {
    g_autofree gchar *text =
        g_strdup_printf("%" G_GSIZE_FORMAT " more objects are left out", scene_.left_out);
    add_text(root_, MARGIN, y, TEXT_COLOUR, text);
    y += LEGEND_LINE;
  }
  return y;
}

void
SvgDrawing::draw()
{
  const std::optional<Ground> ground = measure_ground(scene_);
  xmlNode *background = add(root_, "rect");
  const Panel picture = add_picture();
  std::optional<Panel> map;

  if (ground.has_value()) {
    map = add_map(*ground);
  }
  add_objects(picture, map);
  const double width = 2 * MARGIN + PICTURE_WIDTH + (map.has_value() ? MARGIN + MAP_SIZE : 0);
  const double height = add_legend();
  set_size(background, width, height);
  set(background, "fill", BACKGROUND_COLOUR);
  set_size(root_, width, height);
  set(root_, "viewBox", "0 0 " + format_number(width) + " " + format_number(height));
  set(root_, "font-family", "sans-serif");
  set(root_, "font-size", TEXT_SIZE);
}

std::string
SvgDrawing::dump() const
{
  xmlChar *text = nullptr;
  int size = 0;

  xmlDocDumpFormatMemoryEnc(document_, &text, &size, "UTF-8", 1);
  std::string result(reinterpret_cast<const gchar *>(text), size);
  xmlFree(text);
  return result;
}

} // namespace

/**
 * scene_svg_write:
 * @scene: (transfer none): the scene of one document
 *
 * Draws the picture, and the map if objects of a radar are there.
 *
 * Returns: the text of an SVG document in UTF-8
 */
std::string
scene_svg_write(const Scene &scene)
{
  SvgDrawing drawing(scene);

  drawing.draw();
  return drawing.dump();
}
