/* SPDX-License-Identifier: MIT */
#include "frame.h"

#include <algorithm>
#include <array>
#include <string>

namespace onvif
{

namespace
{

constexpr int PICTURE_DIGITS = 4;

/* A type that ONVIF's older enumeration has, and its name there. All other types are "Other". */
struct ClassNames {
  const char *name;
  const char *candidate;
};

constexpr std::array<ClassNames, 4> CLASS_NAMES = {{
    {"Animal", "Animal"},
    {"Face", "Face"},
    {"Human", "Human"},
    {"Vehicle", "Vehical"},
}};

constexpr const char *OTHER_CANDIDATE = "Other";

const char *
candidate_of(const char *type)
{
  auto found = std::find_if(CLASS_NAMES.begin(), CLASS_NAMES.end(),
                            [type](const ClassNames &names) { return g_str_equal(names.name, type); });
  return found != CLASS_NAMES.end() ? found->candidate : OTHER_CANDIDATE;
}

void
write_point(xmlTextWriter *writer, const char *name, const Point &point)
{
  xml_start(writer, TT, name);
  xml_attribute_number(writer, "x", point.x, PICTURE_DIGITS);
  xml_attribute_number(writer, "y", point.y, PICTURE_DIGITS);
  xml_end(writer);
}

void
write_box(xmlTextWriter *writer, const Box &box)
{
  xml_start(writer, TT, "BoundingBox");
  xml_attribute_number(writer, "left", box.left, PICTURE_DIGITS);
  xml_attribute_number(writer, "top", box.top, PICTURE_DIGITS);
  xml_attribute_number(writer, "right", box.right, PICTURE_DIGITS);
  xml_attribute_number(writer, "bottom", box.bottom, PICTURE_DIGITS);
  xml_end(writer);
}

void
write_candidate(xmlTextWriter *writer, const char *type, double likelihood)
{
  xml_start(writer, TT, "ClassCandidate");
  xml_element(writer, TT, "Type", candidate_of(type));
  xml_element_number(writer, TT, "Likelihood", likelihood, MEASURE_DIGITS);
  xml_end(writer);
}

} // namespace

/**
 * frame_write_shape:
 * @writer: the writer, with an appearance open
 * @box: the object's bounding box
 * @centre: its centre of gravity
 * @polygon: its outline: empty, or at least three points
 *
 * Adds a shape.
 */
void
frame_write_shape(xmlTextWriter *writer, const Box &box, const Point &centre,
                  const std::vector<Point> &polygon)
{
  xml_start(writer, TT, "Shape");
  write_box(writer, box);
  write_point(writer, "CenterOfGravity", centre);
  if (!polygon.empty()) {
    xml_start(writer, TT, "Polygon");
    for (const Point &point : polygon) {
      write_point(writer, "Point", point);
    }
    xml_end(writer);
  }
  xml_end(writer);
}

/**
 * frame_write_class:
 * @writer: the writer, with an appearance open
 * @type: the object's type; only characters that XML allows
 * @likelihood: the likelihood of the type, from 0 to 1
 *
 * Adds a class in the newer form and, if there is a likelihood, in the older form, which requires one.
 */
void
frame_write_class(xmlTextWriter *writer, const char *type, std::optional<double> likelihood)
{
  xml_start(writer, TT, "Class");
  if (likelihood.has_value()) {
    write_candidate(writer, type, *likelihood);
  }
  xml_start(writer, TT, "Type");
  if (likelihood.has_value()) {
    xml_attribute_number(writer, "Likelihood", *likelihood, MEASURE_DIGITS);
  }
  xml_text(writer, type);
  xml_end(writer);
  xml_end(writer);
}

/**
 * frame_write_deleted:
 * @writer: the writer, with a frame open after its objects
 * @deleted: the ids of objects that have left
 *
 * Adds an object tree with the deleted objects, unless there are none.
 */
void
frame_write_deleted(xmlTextWriter *writer, const std::vector<gint64> &deleted)
{
  if (deleted.empty()) {
    return;
  }
  xml_start(writer, TT, "ObjectTree");
  for (gint64 id : deleted) {
    xml_start(writer, TT, "Delete");
    xml_attribute(writer, "ObjectId", std::to_string(id).c_str());
    xml_end(writer);
  }
  xml_end(writer);
}

} // namespace onvif
