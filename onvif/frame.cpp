/* SPDX-License-Identifier: MIT */
#include "frame.h"

#include <algorithm>
#include <array>

namespace onvif
{

namespace
{

constexpr int PICTURE_DIGITS = 4;

/* A type that ONVIF's older enumeration has, and its name there. All other types are "Other". */
struct ClassNames {
  std::string_view name;
  std::string_view candidate;
};

constexpr std::array<ClassNames, 4> CLASS_NAMES = {{
    {"Animal", "Animal"},
    {"Face", "Face"},
    {"Human", "Human"},
    {"Vehicle", "Vehical"},
}};

constexpr std::string_view OTHER_CANDIDATE = "Other";

std::string_view
candidate_of(std::string_view type)
{
  auto found = std::find_if(CLASS_NAMES.begin(), CLASS_NAMES.end(),
                            [type](const ClassNames &names) { return names.name == type; });
  return found != CLASS_NAMES.end() ? found->candidate : OTHER_CANDIDATE;
}

void
write_point(XmlWriter *writer, std::string_view name, const Point &point)
{
  writer->start(TT, name);
  writer->attribute_number("x", point.x, PICTURE_DIGITS);
  writer->attribute_number("y", point.y, PICTURE_DIGITS);
  writer->end();
}

void
write_box(XmlWriter *writer, const Box &box)
{
  writer->start(TT, "BoundingBox");
  writer->attribute_number("left", box.left, PICTURE_DIGITS);
  writer->attribute_number("top", box.top, PICTURE_DIGITS);
  writer->attribute_number("right", box.right, PICTURE_DIGITS);
  writer->attribute_number("bottom", box.bottom, PICTURE_DIGITS);
  writer->end();
}

void
write_candidate(XmlWriter *writer, std::string_view type, double likelihood)
{
  writer->start(TT, "ClassCandidate");
  writer->element(TT, "Type", candidate_of(type));
  writer->element_number(TT, "Likelihood", likelihood, MEASURE_DIGITS);
  writer->end();
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
frame_write_shape(XmlWriter *writer, const Box &box, const Point &centre, std::span<const Point> polygon)
{
  writer->start(TT, "Shape");
  write_box(writer, box);
  write_point(writer, "CenterOfGravity", centre);
  if (!polygon.empty()) {
    writer->start(TT, "Polygon");
    for (const Point &point : polygon) {
      write_point(writer, "Point", point);
    }
    writer->end();
  }
  writer->end();
}

/**
 * frame_write_class:
 * @writer: the writer, with an appearance open
 * @type: the object's type
 * @likelihood: the likelihood of the type, from 0 to 1
 *
 * Adds a class in the newer form and, if there is a likelihood, in the older form, which requires one.
 */
void
frame_write_class(XmlWriter *writer, std::string_view type, std::optional<double> likelihood)
{
  writer->start(TT, "Class");
  if (likelihood.has_value()) {
    write_candidate(writer, type, *likelihood);
  }
  writer->start(TT, "Type");
  if (likelihood.has_value()) {
    writer->attribute_number("Likelihood", *likelihood, MEASURE_DIGITS);
  }
  writer->text(type);
  writer->end();
  writer->end();
}

/**
 * frame_write_deleted:
 * @writer: the writer, with a frame open after its objects
 * @deleted: the ids of objects that have left
 *
 * Adds an object tree with the deleted objects, unless there are none.
 */
void
frame_write_deleted(XmlWriter *writer, std::span<const gint64> deleted)
{
  if (deleted.empty()) {
    return;
  }
  writer->start(TT, "ObjectTree");
  for (gint64 id : deleted) {
    writer->start(TT, "Delete");
    writer->attribute_integer("ObjectId", id);
    writer->end();
  }
  writer->end();
}

} // namespace onvif
