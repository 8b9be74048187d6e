/* SPDX-License-Identifier: MIT */
#include "requestenums.h"

namespace
{

constexpr GEnumValue NOT_ASKED = {TESSARD_NOT_ASKED, "Not asked for", "not-asked"};
constexpr GEnumValue LAST = {0, nullptr, nullptr};

/* The platform defines what its coordinate spaces are. */
const GEnumValue SPACES[] = {
    NOT_ASKED,
    {0, "The platform's coordinate space 0", "space-0"},
    {1, "The platform's coordinate space 1", "space-1"},
    {2, "The platform's coordinate space 2", "space-2"},
    LAST,
};

} // namespace

/**
 * tessard_analytics_get_type:
 *
 * Returns: the type of "analytics"
 */
GType
tessard_analytics_get_type(void)
{
  static const GEnumValue values[] = {
      NOT_ASKED,
      {0, "No objects", "none"},
      {1, "Objects with bounding boxes", "boxes"},
      {2, "Objects with bounding boxes and polygons", "polygons"},
      LAST,
  };
  static const GType type = g_enum_register_static("TessardAnalytics", values);
  return type;
}

/**
 * tessard_ptz_get_type:
 *
 * Returns: the type of "ptz"
 */
GType
tessard_ptz_get_type(void)
{
  static const GEnumValue values[] = {
      NOT_ASKED,
      {0, "Nothing of the PTZ head", "none"},
      {1, "Status and position", "status-and-position"},
      {2, "Position only", "position"},
      {3, "Status only", "status"},
      LAST,
  };
  static const GType type = g_enum_register_static("TessardPtz", values);
  return type;
}

/**
 * tessard_pan_tilt_space_get_type:
 *
 * Returns: the type of "ptz-pantilt-coordinate-space"
 */
GType
tessard_pan_tilt_space_get_type(void)
{
  static const GType type = g_enum_register_static("TessardPanTiltSpace", SPACES);
  return type;
}

/**
 * tessard_zoom_space_get_type:
 *
 * Returns: the type of "ptz-zoom-coordinate-space"
 */
GType
tessard_zoom_space_get_type(void)
{
  static const GType type = g_enum_register_static("TessardZoomSpace", SPACES);
  return type;
}
