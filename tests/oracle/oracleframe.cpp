/* SPDX-License-Identifier: MIT */
#include "oracleframe.h"

#include "jsonform.h"
#include "metadatalimits.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <json-glib/json-glib.h>
#include <set>

namespace oracle
{

namespace
{

using namespace plugins;

constexpr guint FRAME_MEMBERS = 2; /* "Source" and "Data" */
constexpr guint DATA_MEMBERS = 1;  /* "Item" */
constexpr guint POINTS_MIN = 3;
constexpr guint COORDINATES = 2;

/* A date and a time, with the highest digit at each position. */
constexpr std::string_view TIME_SHAPE = "9999-19-39T29:59:59";
constexpr gsize TIME_FRACTION_DIGITS = 9;

/* The first number beyond the integers of 64 bits; a double represents it exactly. */
constexpr double INTEGERS_END = 9223372036854775808.0;

/* A part of an object, and the function that reads it; if that fails, `flaw` is the error. */
struct Part {
  const char *name;
  bool required;
  bool (*read)(JsonNode *value, ProducerObject *object);
  const char *flaw;
};

bool
is_control_character(char character)
{
  return static_cast<guchar>(character) < ' ';
}

bool
read_number(JsonNode *node, double low, double high, double *number)
{
  if (!JSON_NODE_HOLDS_VALUE(node) ||
      (json_node_get_value_type(node) != G_TYPE_INT64 && json_node_get_value_type(node) != G_TYPE_DOUBLE)) {
    return false;
  }
  *number = json_node_get_double(node);
  return *number >= low && *number <= high;
}

/* Returns: (transfer none) (nullable): the text, if it is one */
const char *
get_text(JsonNode *node)
{
  return JSON_NODE_HOLDS_VALUE(node) ? json_node_get_string(node) : nullptr;
}

/* A whole number may come with a fraction of zero, or with an exponent. */
bool
read_integer(JsonNode *node, gint64 *integer)
{
  double number = 0;
  if (!read_number(node, -INTEGERS_END, INTEGERS_END, &number)) {
    return false;
  }
  if (json_node_get_value_type(node) == G_TYPE_INT64) {
    *integer = json_node_get_int(node);
    return true;
  }
  if (number == INTEGERS_END || std::trunc(number) != number) {
    return false;
  }
  *integer = static_cast<gint64>(number);
  return true;
}

bool
read_coordinate(JsonNode *node, double *coordinate)
{
  return read_number(node, -1, 1, coordinate);
}

bool
read_point(JsonNode *node, onvif::Point *point)
{
  if (!JSON_NODE_HOLDS_ARRAY(node)) {
    return false;
  }
  JsonArray *pair = json_node_get_array(node);
  return json_array_get_length(pair) == COORDINATES &&
         read_coordinate(json_array_get_element(pair, 0), &point->x) &&
         read_coordinate(json_array_get_element(pair, 1), &point->y);
}

bool
read_side(JsonObject *box, const char *name, double *side)
{
  JsonNode *node = json_object_get_member(box, name);
  return node != nullptr && read_coordinate(node, side);
}

bool
read_id(JsonNode *node, ProducerObject *object)
{
  return read_integer(node, &object->id);
}

bool
read_box(JsonNode *node, ProducerObject *object)
{
  if (!JSON_NODE_HOLDS_OBJECT(node)) {
    return false;
  }
  JsonObject *sides = json_node_get_object(node);
  onvif::Box box;
  if (!read_side(sides, "Left", &box.left) || !read_side(sides, "Top", &box.top) ||
      !read_side(sides, "Right", &box.right) || !read_side(sides, "Bottom", &box.bottom)) {
    return false;
  }
  object->box = box;
  return box.left <= box.right && box.bottom <= box.top;
}

bool
read_centre(JsonNode *node, ProducerObject *object)
{
  onvif::Point centre;
  if (!read_point(node, &centre)) {
    return false;
  }
  object->centre = centre;
  return true;
}

bool
read_polygon(JsonNode *node, ProducerObject *object)
{
  if (!JSON_NODE_HOLDS_ARRAY(node)) {
    return false;
  }
  JsonArray *points = json_node_get_array(node);
  guint count = json_array_get_length(points);
  if (count < POINTS_MIN || count > PRODUCER_POINTS_MAX) {
    return false;
  }
  object->polygon.resize(count);
  for (guint i = 0; i < count; i++) {
    if (!read_point(json_array_get_element(points, i), &object->polygon[i])) {
      return false;
    }
  }
  return true;
}

/* A line break would be written unchanged, but fragments have no line breaks. */
bool
read_type(JsonNode *node, ProducerObject *object)
{
  const char *type = get_text(node);
  if (type == nullptr || *type == '\0' || static_cast<gsize>(g_utf8_strlen(type, -1)) > PRODUCER_TYPE_MAX ||
      std::any_of(type, type + strlen(type), is_control_character)) {
    return false;
  }
  object->type = type;
  return true;
}

bool
read_likelihood(JsonNode *node, ProducerObject *object)
{
  double likelihood = 0;
  if (!read_number(node, 0, 1, &likelihood)) {
    return false;
  }
  object->likelihood = likelihood;
  return true;
}

constexpr std::array<Part, 6> PARTS = {{
    {"Id", true, read_id, "an object's \"Id\" is missing or no whole number of 64 bits"},
    {"BoundingBox", false, read_box, "a \"BoundingBox\" is none, or not in the picture"},
    {"CenterOfGravity", false, read_centre, "a \"CenterOfGravity\" is no point in the picture"},
    {"Polygon", false, read_polygon, "a \"Polygon\" is none, not in the picture or has too many points"},
    {"Type", false, read_type, "a \"Type\" is no text, empty, too long or has control characters"},
    {"Likelihood", false, read_likelihood, "a \"Likelihood\" is not from 0 to 1"},
}};

bool
refuse(ProducerFlaws *flaws, const char *flaw)
{
  flaws->fatal = flaw;
  return false;
}

void
leave_out(ProducerFlaws *flaws, const char *flaw)
{
  if (flaws->partial == nullptr) {
    flaws->partial = flaw;
  }
}

/* Returns: (nullable): the error of the object */
const char *
read_object(JsonNode *node, ProducerObject *object)
{
  if (!JSON_NODE_HOLDS_OBJECT(node)) {
    return "an object is none";
  }
  JsonObject *members = json_node_get_object(node);
  for (const Part &part : PARTS) {
    JsonNode *value = json_object_get_member(members, part.name);
    if (value == nullptr ? part.required : !part.read(value, object)) {
      return part.flaw;
    }
  }
  return nullptr;
}

/* Returns: (transfer none) (nullable): the array, which is empty if there is none at all */
bool
get_list(JsonObject *item, const char *name, JsonArray **list)
{
  *list = nullptr;
  JsonNode *node = json_object_get_member(item, name);
  if (node == nullptr) {
    return true;
  }
  if (!JSON_NODE_HOLDS_ARRAY(node)) {
    return false;
  }
  *list = json_node_get_array(node);
  return json_array_get_length(*list) <= PRODUCER_OBJECTS_MAX;
}

guint
length_of(JsonArray *list)
{
  return list != nullptr ? json_array_get_length(list) : 0;
}

/* Of two objects with the same id, the second is dropped: receivers would treat them as one. */
void
read_objects(JsonArray *list, ProducerItem *item, ProducerFlaws *flaws)
{
  std::set<gint64> ids;
  for (guint i = 0; i < length_of(list); i++) {
    ProducerObject object = {};
    const char *flaw = read_object(json_array_get_element(list, i), &object);
    if (flaw == nullptr && !ids.insert(object.id).second) {
      flaw = "an object's \"Id\" is there twice";
    }
    if (flaw != nullptr) {
      leave_out(flaws, flaw);
    } else {
      item->objects.push_back(std::move(object));
    }
  }
}

void
read_deleted(JsonArray *list, ProducerItem *item, ProducerFlaws *flaws)
{
  for (guint i = 0; i < length_of(list); i++) {
    gint64 id = 0;
    if (read_integer(json_array_get_element(list, i), &id)) {
      item->deleted.push_back(id);
    } else {
      leave_out(flaws, "one of \"Deleted\" is no whole number of 64 bits");
    }
  }
}

/* Whether the fraction of the seconds has no more digits than GLib can parse. */
bool
has_fit_fraction(std::string_view rest)
{
  return std::min(rest.find_first_not_of("0123456789", 1), rest.size()) <= 1 + TIME_FRACTION_DIGITS;
}

/* Whether it is a date and a time with dashes and colons, without a leap second. GLib accepts more formats,
 * for example weeks. */
bool
has_shape_of_time(std::string_view text)
{
  return text.size() > TIME_SHAPE.size() &&
         std::equal(TIME_SHAPE.begin(), TIME_SHAPE.end(), text.begin(),
                    [](char shape, char character) {
                      return g_ascii_isdigit(shape) ? character >= '0' && character <= shape
                                                    : character == shape;
                    }) &&
         has_fit_fraction(text.substr(TIME_SHAPE.size()));
}

std::optional<gint64>
read_time(JsonNode *node)
{
  const char *text = get_text(node);
  if (text == nullptr || !has_shape_of_time(text)) {
    return std::nullopt;
  }
  g_autoptr(GDateTime) time = g_date_time_new_from_iso8601(text, nullptr);
  if (time == nullptr) {
    return std::nullopt;
  }
  gint64 utc = g_date_time_to_unix(time) * G_USEC_PER_SEC + g_date_time_get_microsecond(time);
  return utc >= 0 && utc <= onvif::LATEST_UTC ? std::optional<gint64>(utc) : std::nullopt;
}

void
read_item_time(JsonObject *members, ProducerItem *item, ProducerFlaws *flaws)
{
  JsonNode *node = json_object_get_member(members, "UtcTime");
  if (node == nullptr) {
    return;
  }
  item->utc = read_time(node);
  if (!item->utc.has_value()) {
    leave_out(flaws, "a \"UtcTime\" is no ISO 8601 time with a zone from 1970 to 2099");
  }
}

bool
read_item(JsonNode *node, ProducerItem *item, ProducerFlaws *flaws)
{
  if (!JSON_NODE_HOLDS_OBJECT(node)) {
    return refuse(flaws, "an item is no object");
  }
  JsonObject *members = json_node_get_object(node);
  JsonArray *objects = nullptr;
  JsonArray *deleted = nullptr;
  if (!get_list(members, "Objects", &objects) || !get_list(members, "Deleted", &deleted)) {
    return refuse(flaws, "\"Objects\" or \"Deleted\" of an item is no array or too long");
  }
  read_item_time(members, item, flaws);
  read_objects(objects, item, flaws);
  read_deleted(deleted, item, flaws);
  return true;
}

bool
read_items(JsonArray *list, ProducerFrame *frame, ProducerFlaws *flaws)
{
  guint count = json_array_get_length(list);
  if (count == 0 || count > PRODUCER_ITEMS_MAX) {
    return refuse(flaws, "there is no item, or too many");
  }
  frame->items.resize(count);
  for (guint i = 0; i < count; i++) {
    if (!read_item(json_array_get_element(list, i), &frame->items[i], flaws)) {
      return false;
    }
  }
  return true;
}

/* Returns: (transfer none) (nullable): the items */
JsonArray *
find_items(JsonObject *members)
{
  JsonNode *data = json_object_get_member(members, "Data");
  if (data == nullptr || !JSON_NODE_HOLDS_OBJECT(data)) {
    return nullptr;
  }
  JsonNode *items = json_object_get_member(json_node_get_object(data), "Item");
  return items != nullptr && JSON_NODE_HOLDS_ARRAY(items) ? json_node_get_array(items) : nullptr;
}

bool
read_frame(JsonNode *root, ProducerFrame *frame, ProducerFlaws *flaws)
{
  if (!JSON_NODE_HOLDS_OBJECT(root)) {
    return refuse(flaws, "it is no object");
  }
  JsonObject *members = json_node_get_object(root);
  JsonNode *source_node = json_object_get_member(members, "Source");
  const char *source = source_node != nullptr ? get_text(source_node) : nullptr;
  JsonArray *items = find_items(members);
  if (source == nullptr || items == nullptr) {
    return refuse(flaws, "it has no \"Source\" or no \"Data\" with \"Item\"");
  }
  frame->source = source;
  return read_items(items, frame, flaws);
}

/* Otherwise a producer could close the frame that its text is inserted into and open one with another source.
 */
bool
is_one_frame(const JsonForm &form)
{
  return form.members[0] == FRAME_MEMBERS && form.members[1] == DATA_MEMBERS;
}

} // namespace

/**
 * read_frame_text:
 * @text: any bytes
 * @reading: (out): the errors, and the form of the text
 *
 * Reads a frame of the daemon with json-glib.
 *
 * Returns: the valid parts of @text; unset if there is a fatal error
 */
std::optional<ProducerFrame>
read_frame_text(std::string text, Reading *reading)
{
  *reading = {};
  if (text.size() > PRODUCER_FRAME_BYTES_MAX) {
    refuse(&reading->flaws, "it is too long");
    return std::nullopt;
  }
  std::optional<JsonForm> form = json_form_check(&text);
  g_autoptr(JsonParser) parser = json_parser_new();
  if (!form.has_value() ||
      !json_parser_load_from_data(parser, text.data(), static_cast<gssize>(text.size()), nullptr)) {
    refuse(&reading->flaws, "it is no JSON, or beyond the limits");
    return std::nullopt;
  }
  reading->has_huge_number = form->has_huge_number;
  if (!is_one_frame(*form)) {
    refuse(&reading->flaws, "it is not one frame with one source");
    return std::nullopt;
  }
  ProducerFrame frame;
  return read_frame(json_parser_get_root(parser), &frame, &reading->flaws) ? std::optional(std::move(frame))
                                                                           : std::nullopt;
}

} // namespace oracle
