/* SPDX-License-Identifier: MIT */
#include "oraclefragment.h"

#include "metadatalimits.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <libxml/chvalid.h>
#include <libxml/xmlwriter.h>
#include <string>

G_DEFINE_AUTOPTR_CLEANUP_FUNC(xmlBuffer, xmlBufferFree)
G_DEFINE_AUTOPTR_CLEANUP_FUNC(xmlTextWriter, xmlFreeTextWriter)

namespace oracle
{

namespace
{

using namespace onvif;
using namespace plugins;

constexpr gunichar REPLACEMENT_CHARACTER = 0xfffd;

const xmlChar *
as_xml(const char *text)
{
  return reinterpret_cast<const xmlChar *>(text);
}

/* Independent of the locale. Numbers that round to zero have no sign. */
std::string
number_text(double value, int decimals)
{
  /* Long enough for every double with up to 9 decimals. */
  std::array<char, 352> text;
  char *end =
      std::to_chars(text.data(), text.data() + text.size(), value, std::chars_format::fixed, decimals).ptr;
  std::string number(text.data(), end);
  return number.find_first_not_of("-0.") == number.npos && number.front() == '-' ? number.substr(1) : number;
}

void
xml_start(xmlTextWriter *writer, const XmlNamespace &element_namespace, const char *name)
{
  xmlTextWriterStartElementNS(writer, as_xml(element_namespace.prefix), as_xml(name), nullptr);
}

void
xml_attribute(xmlTextWriter *writer, const char *name, const char *value)
{
  xmlTextWriterWriteAttribute(writer, as_xml(name), as_xml(value));
}

void
xml_attribute_number(xmlTextWriter *writer, const char *name, double value, int decimals)
{
  xml_attribute(writer, name, number_text(value, decimals).c_str());
}

void
xml_text(xmlTextWriter *writer, const char *text)
{
  xmlTextWriterWriteString(writer, as_xml(text));
}

void
xml_end(xmlTextWriter *writer)
{
  xmlTextWriterEndElement(writer);
}

void
xml_element(xmlTextWriter *writer, const XmlNamespace &element_namespace, const char *name, const char *text)
{
  xml_start(writer, element_namespace, name);
  xml_text(writer, text);
  xml_end(writer);
}

void
xml_element_number(xmlTextWriter *writer, const XmlNamespace &element_namespace, const char *name,
                   double value, int decimals)
{
  xml_element(writer, element_namespace, name, number_text(value, decimals).c_str());
}

void
xml_declare(xmlTextWriter *writer, const XmlNamespace &declared)
{
  xmlTextWriterWriteAttributeNS(writer, as_xml("xmlns"), as_xml(declared.prefix), nullptr,
                                as_xml(declared.uri));
}

char *
xml_clean_text(const char *text)
{
  g_autofree char *valid = g_utf8_make_valid(text, -1);
  GString *clean = g_string_new(nullptr);
  for (const char *at = valid; *at != '\0'; at = g_utf8_next_char(at)) {
    gunichar character = g_utf8_get_char(at);
    g_string_append_unichar(clean, xmlIsCharQ(character) ? character : REPLACEMENT_CHARACTER);
  }
  return g_string_free(clean, FALSE);
}

char *
xml_clean_beginning(const char *text, glong max_characters)
{
  g_autofree char *clean = xml_clean_text(text);
  return g_utf8_substring(clean, 0, std::min(g_utf8_strlen(clean, -1), max_characters));
}

char *
xml_date_time(gint64 utc)
{
  g_autoptr(GDateTime) origin = g_date_time_new_from_unix_utc(0);
  g_autoptr(GDateTime) time = g_date_time_add(origin, utc);
  return g_date_time_format(time, "%Y-%m-%dT%H:%M:%S.%fZ");
}

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

/* Common to all items of a frame. */
struct FrameContext {
  const ProducerView &view;
  const char *source; /* nullptr for the start of a stream */
  gint64 arrival;
};

Point
centre_of(const ProducerObject &object)
{
  const Box &box = *object.box;
  return object.centre.value_or(Point{(box.left + box.right) / 2, (box.bottom + box.top) / 2});
}

void
write_type(xmlTextWriter *writer, const ProducerObject &object)
{
  g_autofree char *type = xml_clean_text(object.type->c_str());
  frame_write_class(writer, type, object.likelihood);
}

/* ONVIF requires a box in a shape. */
void
write_appearance(xmlTextWriter *writer, const ProducerObject &object, const ProducerView &view)
{
  if (!object.box.has_value() && !object.type.has_value()) {
    return;
  }
  xml_start(writer, TT, "Appearance");
  if (object.box.has_value()) {
    frame_write_shape(writer, *object.box, centre_of(object),
                      view.polygon ? object.polygon : std::vector<Point>());
  }
  if (object.type.has_value()) {
    write_type(writer, object);
  }
  xml_end(writer);
}

void
write_object(xmlTextWriter *writer, const ProducerObject &object, const ProducerView &view)
{
  xml_start(writer, TT, "Object");
  xml_attribute(writer, "ObjectId", std::to_string(object.id).c_str());
  write_appearance(writer, object, view);
  xml_end(writer);
}

/* Writes the attributes and content of the open tt:Frame or tt:SampleFrame. */
void
write_item(xmlTextWriter *writer, const ProducerItem &item, const FrameContext &context)
{
  g_autofree char *utc = xml_date_time(item.utc.value_or(context.arrival));
  xml_attribute(writer, "UtcTime", utc);
  if (context.source != nullptr) {
    xml_attribute(writer, "Source", context.source);
  }
  for (const ProducerObject &object : item.objects) {
    write_object(writer, object, context.view);
  }
  frame_write_deleted(writer, item.deleted);
}

void
write_sample(xmlTextWriter *writer, const ProducerFrame &frame, const FrameContext &context)
{
  xml_start(writer, TT, "SampleFrame");
  xml_declare(writer, TT);
  write_item(writer, frame.items.front(), context);
  xml_end(writer);
}

void
write_frames(xmlTextWriter *writer, const ProducerFrame &frame, const FrameContext &context)
{
  xml_start(writer, TT, "VideoAnalytics");
  xml_declare(writer, TT);
  for (const ProducerItem &item : frame.items) {
    xml_start(writer, TT, "Frame");
    write_item(writer, item, context);
    xml_end(writer);
  }
  xml_end(writer);
}

/* Takes the text, which is not copied. */
GstBuffer *
wrap(xmlBuffer *text)
{
  gsize size = static_cast<gsize>(xmlBufferLength(text));
  xmlChar *bytes = xmlBufferDetach(text);
  return gst_buffer_new_wrapped_full(static_cast<GstMemoryFlags>(0), bytes, size, 0, size, bytes, xmlFree);
}

} // namespace

/**
 * frame_to_fragment:
 * @frame: the frame, with at least one item
 * @view: the parts to show
 * @arrival: the time of arrival in microseconds since 1970, for items without a time
 *
 * Returns: (transfer full): what producer_frame_to_fragment() returns, written with libxml2
 */
GstBuffer *
frame_to_fragment(const ProducerFrame &frame, const ProducerView &view, gint64 arrival)
{
  bool is_start = frame.source == STREAM_START_SOURCE;
  g_autofree char *source = xml_clean_beginning(frame.source.c_str(), static_cast<glong>(SOURCE_NAME_MAX));
  FrameContext context = {.view = view, .source = is_start ? nullptr : source, .arrival = arrival};
  g_autoptr(xmlBuffer) text = xmlBufferCreate();
  g_autoptr(xmlTextWriter) writer = xmlNewTextWriterMemory(text, 0);
  if (view.sample) {
    write_sample(writer, frame, context);
  } else {
    write_frames(writer, frame, context);
  }
  xmlTextWriterFlush(writer);
  return wrap(text);
}

} // namespace oracle
