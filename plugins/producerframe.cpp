/* SPDX-License-Identifier: MIT */
#include "producerframe.h"

#include "jsontext.h"
#include "metadatalimits.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <set>
#include <vector>

/* The daemon inserts a producer's text and name into a frame without checking them. Nothing in a frame is
 * trusted, not even that it is one frame with one source.
 *
 * An error inside an object drops that object only. An error outside of the objects drops the frame. */

namespace plugins
{

namespace
{

namespace dom = simdjson::dom;

constexpr gsize POINTS_MIN = 3;
constexpr gsize COORDINATES = 2;

/* A date and a time, with the highest digit at each position. */
constexpr std::string_view TIME_SHAPE = "9999-19-39T29:59:59";
constexpr gsize TIME_FRACTION_DIGITS = 9;

/* The first number beyond the integers of 64 bits; a double represents it exactly. */
constexpr double INTEGERS_END = 9223372036854775808.0;

/* A part of an object, and the function that reads it; if that fails, `flaw` is the error. */
struct Part {
  std::string_view name;
  bool required;
  bool (*read)(dom::element value, ProducerObject *object);
  const char *flaw;
};

/* The values of those members of an object that have one of the names, in the order of the names. Of several
 * members with one name the last counts. */
template <gsize COUNT> using Members = std::array<std::optional<dom::element>, COUNT>;

template <gsize COUNT>
Members<COUNT>
find_members(dom::object object, const std::array<std::string_view, COUNT> &names)
{
  Members<COUNT> found;
  for (dom::key_value_pair member : object) {
    auto name = std::find(names.begin(), names.end(), member.key);
    if (name != names.end()) {
      found[static_cast<gsize>(name - names.begin())] = member.value;
    }
  }
  return found;
}

/* Returns: @value as a T, unset if it is none or missing */
template <typename T>
std::optional<T>
get(const std::optional<dom::element> &value)
{
  T got = {};
  return value.has_value() && value->get(got) == simdjson::SUCCESS ? std::optional<T>(got) : std::nullopt;
}

bool
is_control_character(char character)
{
  return static_cast<guchar>(character) < ' ';
}

bool
read_number(const std::optional<dom::element> &value, double low, double high, double *number)
{
  std::optional<double> got = get<double>(value);
  *number = got.value_or(0);
  return got.has_value() && *number >= low && *number <= high;
}

/* A whole number may come with a fraction of zero, or with an exponent. */
bool
read_integer(dom::element value, gint64 *integer)
{
  if (value.is_int64()) {
    *integer = value.get_int64().value_unsafe();
    return true;
  }
  double number = 0;
  if (!value.is_double() || !read_number(value, -INTEGERS_END, INTEGERS_END, &number) ||
      number == INTEGERS_END || std::trunc(number) != number) {
    return false;
  }
  *integer = static_cast<gint64>(number);
  return true;
}

bool
read_coordinate(const std::optional<dom::element> &value, double *coordinate)
{
  return read_number(value, -1, 1, coordinate);
}

bool
read_point(dom::element value, onvif::Point *point)
{
  std::optional<dom::array> pair = get<dom::array>(value);
  if (!pair.has_value() || pair->size() != COORDINATES) {
    return false;
  }
  dom::array::iterator at = pair->begin();
  return read_coordinate(*at, &point->x) && read_coordinate(*++at, &point->y);
}

bool
read_id(dom::element value, ProducerObject *object)
{
  return read_integer(value, &object->id);
}

constexpr std::array<std::string_view, 4> SIDES = {"Left", "Top", "Right", "Bottom"};

bool
read_box(dom::element value, ProducerObject *object)
{
  std::optional<dom::object> members = get<dom::object>(value);
  if (!members.has_value()) {
    return false;
  }
  auto [left, top, right, bottom] = find_members(*members, SIDES);
  onvif::Box box;
  if (!read_coordinate(left, &box.left) || !read_coordinate(top, &box.top) ||
      !read_coordinate(right, &box.right) || !read_coordinate(bottom, &box.bottom)) {
    return false;
  }
  object->box = box;
  return box.left <= box.right && box.bottom <= box.top;
}

bool
read_centre(dom::element value, ProducerObject *object)
{
  onvif::Point centre;
  if (!read_point(value, &centre)) {
    return false;
  }
  object->centre = centre;
  return true;
}

bool
read_polygon(dom::element value, ProducerObject *object)
{
  std::optional<dom::array> points = get<dom::array>(value);
  if (!points.has_value() || points->size() < POINTS_MIN || points->size() > PRODUCER_POINTS_MAX) {
    return false;
  }
  object->polygon.reserve(points->size());
  for (dom::element point : *points) {
    if (!read_point(point, &object->polygon.emplace_back())) {
      return false;
    }
  }
  return true;
}

gsize
count_characters(std::string_view text)
{
  return static_cast<gsize>(g_utf8_strlen(text.data(), static_cast<gssize>(text.size())));
}

bool
read_type(dom::element value, ProducerObject *object)
{
  std::optional<std::string_view> type = get<std::string_view>(value);
  if (!type.has_value() || type->empty() || count_characters(*type) > PRODUCER_TYPE_MAX ||
      std::any_of(type->begin(), type->end(), is_control_character)) {
    return false;
  }
  object->type = *type;
  return true;
}

bool
read_likelihood(dom::element value, ProducerObject *object)
{
  double likelihood = 0;
  if (!read_number(value, 0, 1, &likelihood)) {
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

constexpr std::array<std::string_view, PARTS.size()>
part_names()
{
  std::array<std::string_view, PARTS.size()> names;
  std::transform(PARTS.begin(), PARTS.end(), names.begin(), [](const Part &part) { return part.name; });
  return names;
}

constexpr std::array<std::string_view, PARTS.size()> PART_NAMES = part_names();

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
read_object(dom::element value, ProducerObject *object)
{
  std::optional<dom::object> members = get<dom::object>(value);
  if (!members.has_value()) {
    return "an object is none";
  }
  Members<PARTS.size()> values = find_members(*members, PART_NAMES);
  for (gsize i = 0; i < PARTS.size(); i++) {
    const Part &part = PARTS[i];
    if (values[i].has_value() ? !part.read(*values[i], object) : part.required) {
      return part.flaw;
    }
  }
  return nullptr;
}

/* Of two objects with the same id, the second is dropped: receivers would treat them as one. */
void
read_objects(dom::array list, ProducerItem *item, ProducerFlaws *flaws)
{
  std::set<gint64> ids;
  item->objects.reserve(list.size());
  for (dom::element element : list) {
    ProducerObject &object = item->objects.emplace_back();
    const char *flaw = read_object(element, &object);
    if (flaw == nullptr && !ids.insert(object.id).second) {
      flaw = "an object's \"Id\" is there twice";
    }
    if (flaw != nullptr) {
      leave_out(flaws, flaw);
      item->objects.pop_back();
    }
  }
}

void
read_deleted(dom::array list, ProducerItem *item, ProducerFlaws *flaws)
{
  for (dom::element element : list) {
    gint64 id = 0;
    if (read_integer(element, &id)) {
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
read_time(dom::element value)
{
  std::optional<std::string_view> text = get<std::string_view>(value);
  if (!text.has_value() || !has_shape_of_time(*text)) {
    return std::nullopt;
  }
  g_autoptr(GDateTime) time = g_date_time_new_from_iso8601(std::string(*text).c_str(), nullptr);
  if (time == nullptr) {
    return std::nullopt;
  }
  gint64 utc = g_date_time_to_unix(time) * G_USEC_PER_SEC + g_date_time_get_microsecond(time);
  return utc >= 0 && utc <= onvif::LATEST_UTC ? std::optional<gint64>(utc) : std::nullopt;
}

void
read_item_time(const std::optional<dom::element> &value, ProducerItem *item, ProducerFlaws *flaws)
{
  if (!value.has_value()) {
    return;
  }
  item->utc = read_time(*value);
  if (!item->utc.has_value()) {
    leave_out(flaws, "a \"UtcTime\" is no ISO 8601 time with a zone from 1970 to 2099");
  }
}

/* Whether it is missing, or an array that is not too long. */
bool
is_list(const std::optional<dom::element> &value)
{
  return !value.has_value() ||
         (value->is_array() && value->get_array().value_unsafe().size() <= PRODUCER_OBJECTS_MAX);
}

constexpr std::array<std::string_view, 3> ITEM_MEMBERS = {"UtcTime", "Objects", "Deleted"};

bool
read_item(dom::element value, ProducerItem *item, ProducerFlaws *flaws)
{
  std::optional<dom::object> members = get<dom::object>(value);
  if (!members.has_value()) {
    return refuse(flaws, "an item is no object");
  }
  auto [time, objects, deleted] = find_members(*members, ITEM_MEMBERS);
  if (!is_list(objects) || !is_list(deleted)) {
    return refuse(flaws, "\"Objects\" or \"Deleted\" of an item is no array or too long");
  }
  read_item_time(time, item, flaws);
  if (objects.has_value()) {
    read_objects(objects->get_array().value_unsafe(), item, flaws);
  }
  if (deleted.has_value()) {
    read_deleted(deleted->get_array().value_unsafe(), item, flaws);
  }
  return true;
}

bool
read_items(dom::array list, ProducerFrame *frame, ProducerFlaws *flaws)
{
  if (list.size() == 0 || list.size() > PRODUCER_ITEMS_MAX) {
    return refuse(flaws, "there is no item, or too many");
  }
  frame->items.reserve(list.size());
  for (dom::element item : list) {
    if (!read_item(item, &frame->items.emplace_back(), flaws)) {
      return false;
    }
  }
  return true;
}

constexpr std::array<std::string_view, 2> FRAME_MEMBERS = {"Source", "Data"};
constexpr std::array<std::string_view, 1> DATA_MEMBERS = {"Item"};

bool
read_data(const std::optional<std::string_view> &source, const std::optional<dom::object> &data,
          ProducerFrame *frame, ProducerFlaws *flaws)
{
  std::optional<dom::array> items;
  if (data.has_value()) {
    items = get<dom::array>(find_members(*data, DATA_MEMBERS)[0]);
  }
  if (!source.has_value() || !items.has_value()) {
    return refuse(flaws, "it has no \"Source\" or no \"Data\" with \"Item\"");
  }
  frame->source = *source;
  return read_items(*items, frame, flaws);
}

/* A frame has no other members, and each of its own once. Otherwise a producer could close the frame that its
 * text is inserted into and open one with another source. */
bool
read_frame(dom::element root, ProducerFrame *frame, ProducerFlaws *flaws)
{
  std::optional<dom::object> members = get<dom::object>(root);
  if (!members.has_value() || members->size() != FRAME_MEMBERS.size()) {
    return refuse(flaws, "it is not one frame with one source");
  }
  auto [source_value, data_value] = find_members(*members, FRAME_MEMBERS);
  std::optional<dom::object> data = get<dom::object>(data_value);
  if (data_value.has_value() && (!data.has_value() || data->size() != DATA_MEMBERS.size())) {
    return refuse(flaws, "it is not one frame with one source");
  }
  return read_data(get<std::string_view>(source_value), data, frame, flaws);
}

} // namespace

/* The memory for parsing; frames have copies of their values. */
struct ProducerReader::Memory {
  dom::parser parser;
  std::vector<char> text;
};

/**
 * ProducerReader:
 *
 * A reader that holds no memory until it reads a frame.
 */
ProducerReader::ProducerReader() = default;

ProducerReader::~ProducerReader() = default;

/* Returns: (nullable): the place for a frame of @size bytes, nullptr if that is too long */
char *
ProducerReader::prepare(gsize size, ProducerFlaws *flaws)
{
  *flaws = {};
  if (size > PRODUCER_FRAME_BYTES_MAX) {
    refuse(flaws, "it is too long");
    return nullptr;
  }
  if (memory_ == nullptr) {
    memory_ = std::make_unique<Memory>();
  }
  memory_->text.resize(size + simdjson::SIMDJSON_PADDING);
  return memory_->text.data();
}

std::optional<ProducerFrame>
ProducerReader::parse(gsize size, ProducerFlaws *flaws)
{
  std::optional<dom::element> root = json_text_parse(&memory_->parser, {memory_->text.data(), size});
  ProducerFrame frame;
  if (!root.has_value()) {
    refuse(flaws, "it is no JSON, or beyond the limits");
  } else {
    read_frame(*root, &frame, flaws);
  }
  if (size > PRODUCER_FRAME_BYTES_KEPT) {
    memory_.reset();
  }
  return flaws->fatal == nullptr ? std::optional(std::move(frame)) : std::nullopt;
}

/**
 * ProducerReader::read:
 * @buffer: any bytes
 * @flaws: (out): the errors found
 *
 * Parses a frame of the daemon with a producer's text.
 *
 * Returns: the valid parts of @buffer; unset if @flaws has a fatal error
 */
std::optional<ProducerFrame>
ProducerReader::read(GstBuffer *buffer, ProducerFlaws *flaws)
{
  gsize size = gst_buffer_get_size(buffer);
  char *text = prepare(size, flaws);
  if (text == nullptr) {
    return std::nullopt;
  }
  gst_buffer_extract(buffer, 0, text, size);
  return parse(size, flaws);
}

/**
 * ProducerReader::read:
 * @bytes: any bytes
 * @flaws: (out): the errors found
 *
 * The same for bytes that are not in a buffer.
 *
 * Returns: the valid parts of @bytes; unset if @flaws has a fatal error
 */
std::optional<ProducerFrame>
ProducerReader::read(std::string_view bytes, ProducerFlaws *flaws)
{
  char *text = prepare(bytes.size(), flaws);
  if (text == nullptr) {
    return std::nullopt;
  }
  std::copy(bytes.begin(), bytes.end(), text);
  return parse(bytes.size(), flaws);
}

} // namespace plugins
