/* SPDX-License-Identifier: MIT */
#include "metadataschema.h"

#include <algorithm>
#include <span>

namespace onvif
{

namespace
{

/* In the schema's types of metadata, attributes and texts of one name have one type wherever they occur, so
 * that the tables need no types of elements. */

constexpr std::string_view NUMBER_ATTRIBUTES[] = {
    "AzimuthAngle",
    "Columns",
    "Distance",
    "ElevationAngle",
    "Likelihood",
    "ObjectId",
    "Parent",
    "Rows",
    "X",
    "XX",
    "XY",
    "XZ",
    "Y",
    "YY",
    "YZ",
    "Z",
    "ZZ",
    "bottom",
    "elevation",
    "hfov",
    "lat",
    "left",
    "lon",
    "pan",
    "pitch",
    "ratio",
    "right",
    "roll",
    "tilt",
    "top",
    "vfov",
    "x",
    "y",
    "yaw",
    "z",
};

constexpr std::string_view BOOLEAN_ATTRIBUTES[] = {"AutoGeo", "Fixed"};

constexpr std::string_view NUMBER_ELEMENTS[] = {
    "Height", "Likelihood", "Max", "Min", "PPM", "Speed", "Temperature", "Weight",
};

constexpr std::string_view BOOLEAN_ELEMENTS[] = {
    "Bangs", "Beard", "LiftSomething", "Lug",    "Mole", "Mustache",
    "Open",  "Scar",  "Sideburn",      "Tattoo", "Wear", "Weapon",
};

struct Repeated {
  std::string_view parent;
  std::string_view name;
};

/* An element that can occur more than once is an array even if it is alone. ONVIF's own example makes an
 * exception of a shape's polygon. */
constexpr Repeated REPEATED[] = {
    {"Appearance", "Label"},
    {"Appearance", "VehicleInfo"},
    {"Belongings", "Bag"},
    {"Belongings", "Weapon"},
    {"Class", "ClassCandidate"},
    {"Class", "Type"},
    {"Color", "ColorCluster"},
    {"Extension", "OtherTypes"},
    {"Frame", "AspectRatioTransformation"},
    {"Frame", "Object"},
    {"Merge", "from"},
    {"ObjectTrack", "ObjectState"},
    {"ObjectTree", "Delete"},
    {"ObjectTree", "Merge"},
    {"ObjectTree", "Rename"},
    {"ObjectTree", "Split"},
    {"Polygon", "Point"},
    {"Polyline", "Point"},
    {"Split", "to"},
};

bool
is_in(std::span<const std::string_view> names, std::string_view name)
{
  return std::find(names.begin(), names.end(), name) != names.end();
}

} // namespace

/**
 * metadata_attribute_type:
 * @name: the name of an attribute without a namespace, of an element of ONVIF's
 *
 * Returns: its type; STRING for one that the schema does not have
 */
ScalarType
metadata_attribute_type(std::string_view name)
{
  if (is_in(NUMBER_ATTRIBUTES, name)) {
    return ScalarType::NUMBER;
  }
  return is_in(BOOLEAN_ATTRIBUTES, name) ? ScalarType::BOOLEAN : ScalarType::STRING;
}

/**
 * metadata_element_type:
 * @name: the local name of an element of ONVIF's
 *
 * Returns: the type of its text; STRING for an element that the schema does not have
 */
ScalarType
metadata_element_type(std::string_view name)
{
  if (is_in(NUMBER_ELEMENTS, name)) {
    return ScalarType::NUMBER;
  }
  return is_in(BOOLEAN_ELEMENTS, name) ? ScalarType::BOOLEAN : ScalarType::STRING;
}

/**
 * metadata_element_repeats:
 * @parent: the local name of an element of ONVIF's
 * @name: the local name of a child, of ONVIF's too
 *
 * Returns: whether the schema allows several such children
 */
bool
metadata_element_repeats(std::string_view parent, std::string_view name)
{
  return std::any_of(std::begin(REPEATED), std::end(REPEATED), [parent, name](const Repeated &repeated) {
    return repeated.parent == parent && repeated.name == name;
  });
}

} // namespace onvif
