/* SPDX-License-Identifier: MIT */
/* An item: the detections of a producer at one moment.
 *
 * Every value is checked when it is set, by the rules of docs/producers.md. The converter drops nothing of an
 * item that was built here, and its text fits into a message.
 */
#include "tessarditem.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace
{

struct Point {
  gdouble x, y;
};

struct Box {
  gdouble left, top, right, bottom;
};

struct Object {
  gint64 id;
  std::optional<Box> box;
  std::optional<Point> center;
  std::vector<Point> polygon;
  std::string type;
  std::optional<gdouble> likelihood;
};

struct ItemState {
  std::optional<gint64> utc_time;
  std::vector<Object> objects;
  std::unordered_map<gint64, gsize> indices; /* of the objects, by their id */
  std::vector<gint64> deleted;
  gsize points = 0; /* of all polygons */
};

} // namespace

struct _TessardItem {
  GObject parent_instance;

  ItemState *state;
};

G_DEFINE_TYPE(TessardItem, tessard_item, G_TYPE_OBJECT)

namespace
{

/* The converter takes no later time: the last second of 2099. */
constexpr gint64 LAST_UTC_TIME = G_GINT64_CONSTANT(4102444799) * G_USEC_PER_SEC;

constexpr gsize MIN_POINTS = 3;
constexpr gsize COORDINATES = 2;

/* The values of the longest item without points: five of the daemon's frame and of the item, three of the
 * item's members, and for each object itself, its id, its box with four sides, its centre with two
 * coordinates, its polygon, its type and its likelihood. */
constexpr gsize VALUES_OF_FRAME = 8;
constexpr gsize VALUES_OF_OBJECT = 13;
constexpr gsize VALUES_OF_POINT = 3;

/* Also %FALSE for what is no number. */
gboolean
is_coordinate(gdouble value)
{
  return value >= -1 && value <= 1;
}

gboolean
is_point(const Point &point)
{
  return is_coordinate(point.x) && is_coordinate(point.y);
}

gsize
count_values(gsize objects, gsize deleted, gsize points)
{
  return VALUES_OF_FRAME + objects * VALUES_OF_OBJECT + deleted + points * VALUES_OF_POINT;
}

gboolean
check_values(gsize values, GError **error)
{
  if (values <= TESSARD_ITEM_MAX_VALUES) {
    return TRUE;
  }
  g_set_error(error, TESSARD_ERROR, TESSARD_ERROR_TOO_MANY_VALUES,
              "An item has at most %d values; a point of a \"Polygon\" has %" G_GSIZE_FORMAT ".",
              TESSARD_ITEM_MAX_VALUES, VALUES_OF_POINT);
  return FALSE;
}

Object *
find_object(TessardItem *self, gint64 id, GError **error)
{
  const auto found = self->state->indices.find(id);

  if (found != self->state->indices.end()) {
    return &self->state->objects[found->second];
  }
  g_set_error(error, TESSARD_ERROR, TESSARD_ERROR_UNKNOWN_OBJECT,
              "The item has no object with the \"Id\" %" G_GINT64_FORMAT ".", id);
  return nullptr;
}

gboolean
check_box(const Box &box, GError **error)
{
  const std::array<std::pair<const gchar *, gdouble>, 4> sides = {
      {{"Left", box.left}, {"Top", box.top}, {"Right", box.right}, {"Bottom", box.bottom}}};

  for (const auto &[name, value] : sides) {
    if (!is_coordinate(value)) {
      g_set_error(error, TESSARD_ERROR, TESSARD_ERROR_INVALID_BOX,
                  "\"%s\" of the \"BoundingBox\" is %g, not from -1 to 1.", name, value);
      return FALSE;
    }
  }
  if (box.left > box.right || box.bottom > box.top) {
    g_set_error_literal(error, TESSARD_ERROR, TESSARD_ERROR_INVALID_BOX,
                        box.left > box.right ? "\"Left\" of the \"BoundingBox\" is more than \"Right\"."
                                             : "\"Bottom\" of the \"BoundingBox\" is more than \"Top\".");
    return FALSE;
  }
  return TRUE;
}

gboolean
add_object(TessardItem *self, gint64 id, const std::optional<Box> &box, GError **error)
{
  ItemState *state = self->state;

  if (state->objects.size() == TESSARD_ITEM_MAX_OBJECTS) {
    g_set_error(error, TESSARD_ERROR, TESSARD_ERROR_TOO_MANY_OBJECTS,
                "\"Objects\" of an item has at most %d elements.", TESSARD_ITEM_MAX_OBJECTS);
    return FALSE;
  }
  if (state->indices.count(id) > 0) {
    g_set_error(error, TESSARD_ERROR, TESSARD_ERROR_DUPLICATE_ID,
                "The item has an object with the \"Id\" %" G_GINT64_FORMAT ".", id);
    return FALSE;
  }
  if (!check_values(count_values(state->objects.size() + 1, state->deleted.size(), state->points), error)) {
    return FALSE;
  }
  state->indices[id] = state->objects.size();
  state->objects.push_back({id, box, std::nullopt, {}, {}, std::nullopt});
  return TRUE;
}

gboolean
has_control_character(std::string_view text)
{
  return std::any_of(text.begin(), text.end(), [](gchar character) { return g_ascii_iscntrl(character); });
}

/* JSON */

/* Six digits are more than the converter writes. The text of a number depends on no locale. */
void
append_number(GString *json, gdouble number)
{
  std::array<gchar, G_ASCII_DTOSTR_BUF_SIZE> text;

  /* JSON has no sign of zero to lose. */
  g_string_append(json, g_ascii_formatd(text.data(), text.size(), "%.6g", number == 0 ? 0 : number));
}

void
append_point(GString *json, const Point &point)
{
  g_string_append_c(json, '[');
  append_number(json, point.x);
  g_string_append_c(json, ',');
  append_number(json, point.y);
  g_string_append_c(json, ']');
}

void
append_side(GString *json, const gchar *start, gdouble value)
{
  g_string_append(json, start);
  append_number(json, value);
}

void
append_box(GString *json, const Box &box)
{
  append_side(json, ",\"BoundingBox\":{\"Left\":", box.left);
  append_side(json, ",\"Top\":", box.top);
  append_side(json, ",\"Right\":", box.right);
  append_side(json, ",\"Bottom\":", box.bottom);
  g_string_append_c(json, '}');
}

void
append_polygon(GString *json, const std::vector<Point> &polygon)
{
  const gchar *separator = ",\"Polygon\":[";

  for (const Point &point : polygon) {
    g_string_append(json, separator);
    append_point(json, point);
    separator = ",";
  }
  g_string_append_c(json, ']');
}

/* A type has no control characters. */
void
append_type(GString *json, const std::string &type)
{
  g_string_append(json, ",\"Type\":\"");
  for (const gchar character : type) {
    if (character == '"' || character == '\\') {
      g_string_append_c(json, '\\');
    }
    g_string_append_c(json, character);
  }
  g_string_append_c(json, '"');
}

void
append_object(GString *json, const Object &object)
{
  g_string_append_printf(json, "{\"Id\":%" G_GINT64_FORMAT, object.id);
  if (object.box.has_value()) {
    append_box(json, *object.box);
  }
  if (object.center.has_value()) {
    g_string_append(json, ",\"CenterOfGravity\":");
    append_point(json, *object.center);
  }
  if (!object.polygon.empty()) {
    append_polygon(json, object.polygon);
  }
  if (!object.type.empty()) {
    append_type(json, object.type);
  }
  if (object.likelihood.has_value()) {
    g_string_append(json, ",\"Likelihood\":");
    append_number(json, *object.likelihood);
  }
  g_string_append_c(json, '}');
}

void
append_utc_time(GString *json, gint64 utc_time)
{
  g_autoptr(GDateTime) seconds = g_date_time_new_from_unix_utc(utc_time / G_USEC_PER_SEC);
  g_autofree gchar *text = g_date_time_format(seconds, "%Y-%m-%dT%H:%M:%S");

  g_string_append_printf(json, "\"UtcTime\":\"%s.%06" G_GINT64_FORMAT "Z\",", text,
                         utc_time % G_USEC_PER_SEC);
}

void
append_deleted(GString *json, const std::vector<gint64> &deleted)
{
  const gchar *separator = ",\"Deleted\":[";

  for (const gint64 id : deleted) {
    g_string_append_printf(json, "%s%" G_GINT64_FORMAT, separator, id);
    separator = ",";
  }
  g_string_append_c(json, ']');
}

} // namespace

static void
tessard_item_init(TessardItem *self)
{
  self->state = new ItemState();
}

static void
tessard_item_finalize(GObject *object)
{
  delete TESSARD_ITEM(object)->state;
  G_OBJECT_CLASS(tessard_item_parent_class)->finalize(object);
}

static void
tessard_item_class_init(TessardItemClass *klass)
{
  G_OBJECT_CLASS(klass)->finalize = tessard_item_finalize;
}

/**
 * TessardItem:
 *
 * The detections of a producer at one moment: all objects in the picture, and the ids of those that have left
 * it. An item without anything reports that no objects are present.
 *
 * Coordinates are normalised: x is -1 at the left edge of the picture and 1 at the right edge, y is -1 at the
 * bottom and 1 at the top.
 *
 * A function that fails has changed nothing.
 */

/**
 * tessard_item_new:
 *
 * Returns: (transfer full): an item without objects
 */
TessardItem *
tessard_item_new(void)
{
  return TESSARD_ITEM(g_object_new(TESSARD_TYPE_ITEM, nullptr));
}

/**
 * tessard_item_set_utc_time:
 * @self: an item
 * @utc_time: the time of the detections in microseconds since 1970, as g_get_real_time() returns it
 * @error: return location for %TESSARD_ERROR_INVALID_TIME
 *
 * Without it, the time of an item is that of its arrival.
 *
 * Returns: whether the time is from 1970 to 2099
 */
gboolean
tessard_item_set_utc_time(TessardItem *self, gint64 utc_time, GError **error)
{
  g_return_val_if_fail(TESSARD_IS_ITEM(self), FALSE);

  if (utc_time < 0 || utc_time > LAST_UTC_TIME) {
    g_set_error(error, TESSARD_ERROR, TESSARD_ERROR_INVALID_TIME,
                "\"UtcTime\" is not from 1970 to 2099: %" G_GINT64_FORMAT " microseconds since 1970.",
                utc_time);
    return FALSE;
  }
  self->state->utc_time = utc_time;
  return TRUE;
}

/**
 * tessard_item_add_object:
 * @self: an item
 * @id: the identity of the object, constant while it is detected
 * @left: the left side of its bounding box
 * @top: the top
 * @right: the right side, at least @left
 * @bottom: the bottom, at most @top
 * @error: return location for %TESSARD_ERROR_INVALID_BOX, %TESSARD_ERROR_DUPLICATE_ID,
 *   %TESSARD_ERROR_TOO_MANY_OBJECTS or %TESSARD_ERROR_TOO_MANY_VALUES
 *
 * Returns: whether the item has the object
 */
gboolean
tessard_item_add_object(TessardItem *self, gint64 id, gdouble left, gdouble top, gdouble right,
                        gdouble bottom, GError **error)
{
  g_return_val_if_fail(TESSARD_IS_ITEM(self), FALSE);

  const Box box = {left, top, right, bottom};
  return check_box(box, error) && add_object(self, id, box, error);
}

/**
 * tessard_item_add_object_without_box:
 * @self: an item
 * @id: the identity of the object
 * @error: return location for %TESSARD_ERROR_DUPLICATE_ID, %TESSARD_ERROR_TOO_MANY_OBJECTS or
 *   %TESSARD_ERROR_TOO_MANY_VALUES
 *
 * Adds an object without a position. Of such an object, clients get only id and type.
 *
 * Returns: whether the item has the object
 */
gboolean
tessard_item_add_object_without_box(TessardItem *self, gint64 id, GError **error)
{
  g_return_val_if_fail(TESSARD_IS_ITEM(self), FALSE);

  return add_object(self, id, std::nullopt, error);
}

/**
 * tessard_item_set_center:
 * @self: an item
 * @id: the id of an object of the item
 * @x: the horizontal coordinate of the centre of gravity
 * @y: the vertical one
 * @error: return location for %TESSARD_ERROR_UNKNOWN_OBJECT or %TESSARD_ERROR_INVALID_CENTER
 *
 * Without it, the centre of gravity is the centre of the bounding box.
 *
 * Returns: whether the object has the centre
 */
gboolean
tessard_item_set_center(TessardItem *self, gint64 id, gdouble x, gdouble y, GError **error)
{
  g_return_val_if_fail(TESSARD_IS_ITEM(self), FALSE);

  Object *object = find_object(self, id, error);
  if (object == nullptr) {
    return FALSE;
  }
  if (!is_point({x, y})) {
    g_set_error(error, TESSARD_ERROR, TESSARD_ERROR_INVALID_CENTER,
                "\"CenterOfGravity\" is [%g, %g], not from -1 to 1.", x, y);
    return FALSE;
  }
  object->center = Point{x, y};
  return TRUE;
}

/**
 * tessard_item_set_polygon:
 * @self: an item
 * @id: the id of an object of the item
 * @coordinates: (array length=n_coordinates): the points of the outline, each x and then y
 * @n_coordinates: twice the number of points, of which there are 3 to %TESSARD_ITEM_MAX_POINTS
 * @error: return location for %TESSARD_ERROR_UNKNOWN_OBJECT, %TESSARD_ERROR_INVALID_POLYGON or
 *   %TESSARD_ERROR_TOO_MANY_VALUES
 *
 * The last point is joined to the first.
 *
 * Returns: whether the object has the outline
 */
gboolean
tessard_item_set_polygon(TessardItem *self, gint64 id, const gdouble *coordinates, gsize n_coordinates,
                         GError **error)
{
  g_return_val_if_fail(TESSARD_IS_ITEM(self), FALSE);
  g_return_val_if_fail(coordinates != NULL || n_coordinates == 0, FALSE);

  Object *object = find_object(self, id, error);
  if (object == nullptr) {
    return FALSE;
  }
  const gsize points = n_coordinates / COORDINATES;
  if (n_coordinates % COORDINATES != 0 || points < MIN_POINTS || points > TESSARD_ITEM_MAX_POINTS) {
    g_set_error(error, TESSARD_ERROR, TESSARD_ERROR_INVALID_POLYGON,
                "\"Polygon\" has %" G_GSIZE_FORMAT " coordinates, not two for each of %" G_GSIZE_FORMAT
                " to %d points.",
                n_coordinates, MIN_POINTS, TESSARD_ITEM_MAX_POINTS);
    return FALSE;
  }
  if (!std::all_of(coordinates, coordinates + n_coordinates, is_coordinate)) {
    g_set_error_literal(error, TESSARD_ERROR, TESSARD_ERROR_INVALID_POLYGON,
                        "\"Polygon\" has a coordinate that is not from -1 to 1.");
    return FALSE;
  }
  ItemState *state = self->state;
  const gsize sum = state->points - object->polygon.size() + points;
  if (!check_values(count_values(state->objects.size(), state->deleted.size(), sum), error)) {
    return FALSE;
  }
  state->points = sum;
  object->polygon.clear();
  for (gsize i = 0; i < n_coordinates; i += COORDINATES) {
    object->polygon.push_back({coordinates[i], coordinates[i + 1]});
  }
  return TRUE;
}

/**
 * tessard_item_set_type:
 * @self: an item
 * @id: the id of an object of the item
 * @type: (transfer none): its class, for example "Human" or "Vehicle", of 1 to
 *   %TESSARD_ITEM_MAX_TYPE_CHARACTERS characters
 * @error: return location for %TESSARD_ERROR_UNKNOWN_OBJECT or %TESSARD_ERROR_INVALID_TYPE
 *
 * Returns: whether the object has the class
 */
gboolean
tessard_item_set_type(TessardItem *self, gint64 id, const gchar *type, GError **error)
{
  g_return_val_if_fail(TESSARD_IS_ITEM(self), FALSE);
  g_return_val_if_fail(type != NULL, FALSE);

  Object *object = find_object(self, id, error);
  if (object == nullptr) {
    return FALSE;
  }
  const gchar *flaw = nullptr;
  if (*type == '\0') {
    flaw = "is empty";
  } else if (!g_utf8_validate(type, -1, nullptr)) {
    flaw = "is not UTF-8";
  } else if (g_utf8_strlen(type, -1) > TESSARD_ITEM_MAX_TYPE_CHARACTERS) {
    flaw = "has more than " G_STRINGIFY(TESSARD_ITEM_MAX_TYPE_CHARACTERS) " characters";
  } else if (has_control_character(type)) {
    flaw = "has control characters";
  }
  if (flaw != nullptr) {
    g_set_error(error, TESSARD_ERROR, TESSARD_ERROR_INVALID_TYPE, "\"Type\" %s.", flaw);
    return FALSE;
  }
  object->type = type;
  return TRUE;
}

/**
 * tessard_item_set_likelihood:
 * @self: an item
 * @id: the id of an object of the item
 * @likelihood: the likelihood of its class, from 0 to 1
 * @error: return location for %TESSARD_ERROR_UNKNOWN_OBJECT or %TESSARD_ERROR_INVALID_LIKELIHOOD
 *
 * The likelihood of an object without a class is ignored.
 *
 * Returns: whether the object has the likelihood
 */
gboolean
tessard_item_set_likelihood(TessardItem *self, gint64 id, gdouble likelihood, GError **error)
{
  g_return_val_if_fail(TESSARD_IS_ITEM(self), FALSE);

  Object *object = find_object(self, id, error);
  if (object == nullptr) {
    return FALSE;
  }
  if (!(likelihood >= 0 && likelihood <= 1)) {
    g_set_error(error, TESSARD_ERROR, TESSARD_ERROR_INVALID_LIKELIHOOD,
                "\"Likelihood\" is %g, not from 0 to 1.", likelihood);
    return FALSE;
  }
  object->likelihood = likelihood;
  return TRUE;
}

/**
 * tessard_item_add_deleted:
 * @self: an item
 * @id: the id of an object that has left the picture and will not return
 * @error: return location for %TESSARD_ERROR_TOO_MANY_DELETED or %TESSARD_ERROR_TOO_MANY_VALUES
 *
 * Returns: whether the item has the id
 */
gboolean
tessard_item_add_deleted(TessardItem *self, gint64 id, GError **error)
{
  g_return_val_if_fail(TESSARD_IS_ITEM(self), FALSE);

  ItemState *state = self->state;
  if (state->deleted.size() == TESSARD_ITEM_MAX_DELETED) {
    g_set_error(error, TESSARD_ERROR, TESSARD_ERROR_TOO_MANY_DELETED,
                "\"Deleted\" of an item has at most %d elements.", TESSARD_ITEM_MAX_DELETED);
    return FALSE;
  }
  if (!check_values(count_values(state->objects.size(), state->deleted.size() + 1, state->points), error)) {
    return FALSE;
  }
  state->deleted.push_back(id);
  return TRUE;
}

/**
 * tessard_item_to_json:
 * @self: an item
 *
 * Returns: (transfer full): the text of the item, without a line break
 */
gchar *
tessard_item_to_json(TessardItem *self)
{
  g_return_val_if_fail(TESSARD_IS_ITEM(self), NULL);

  const ItemState *state = self->state;
  GString *json = g_string_new("{");
  if (state->utc_time.has_value()) {
    append_utc_time(json, *state->utc_time);
  }
  g_string_append(json, "\"Objects\":[");
  for (const Object &object : state->objects) {
    if (&object != &state->objects.front()) {
      g_string_append_c(json, ',');
    }
    append_object(json, object);
  }
  g_string_append_c(json, ']');
  if (!state->deleted.empty()) {
    append_deleted(json, state->deleted);
  }
  g_string_append_c(json, '}');
  return g_string_free(json, FALSE);
}
