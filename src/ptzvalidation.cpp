/* SPDX-License-Identifier: MIT */
/* Parses the parameters for pan, tilt and zoom, each of which is one digit. The functions keep no state. A
 * bad value sets the error and writes one line to the log.
 *
 * Texts: docs/compatibility.md, "blanks in texts".
 */
#include "ptzvalidation.h"

#include "sourcefactory.h"

namespace
{

struct Digit {
  gint32 highest;
  const gchar *invalid;
  const gchar *out_of_bounds;
};

constexpr Digit PTZ = {
    PTZ_VALIDATION_PTZ_STATUS,
    "Invalid value of 'ptz'         parameter",
    "Value out of bounds for 'ptz'         parameter",
};
constexpr Digit PANTILT_SPACE = {
    2,
    "Invalid value of         'ptz pantilt coordinate space' parameter",
    "Value out of bounds for         'ptz pantilt coordinate space' parameter",
};
constexpr Digit ZOOM_SPACE = {
    2,
    "Invalid value of 'ptz zoom coordinate space'         parameter",
    "Value out of bounds for         'ptz zoom coordinate space' parameter",
};

gint32
parse_digit(const Digit &digit, const gchar *value, GError **error)
{
  if (!g_ascii_isdigit(value[0]) || value[1] != '\0') {
    source_factory_refuse_value(error, ptz_validation_error_quark(), digit.invalid, value);
    return -1;
  }

  const gint32 number = g_ascii_digit_value(value[0]);
  if (number > digit.highest) {
    source_factory_refuse_value(error, ptz_validation_error_quark(), digit.out_of_bounds, value);
    return -1;
  }
  return number;
}

/* FALSE with @error set for a bad text. */
gboolean
lookup_space(GHashTable *params, const gchar *key, const Digit &digit, gint32 *space, GError **error)
{
  const gchar *text = source_factory_lookup_param(params, key);

  *space = text != nullptr ? parse_digit(digit, text, error) : -1;
  return text == nullptr || *space >= 0;
}

} // namespace

/**
 * ptz_validation_error_quark:
 *
 * The domain of the errors about pan, tilt and zoom. All have code 0.
 *
 * Returns: the quark of "ptz_validation_error"
 */
GQuark
ptz_validation_error_quark(void)
{
  return g_quark_from_static_string("ptz_validation_error");
}

/**
 * ptz_validation_parse_ptz:
 * @value: (transfer none) (nullable): the text of "ptz", %NULL if the request has none
 * @error: (out) (optional): where to put the failure, unset
 *
 * Parses the text; an absent one means %PTZ_VALIDATION_PTZ_OFF. A bad text is also logged at warning
 * priority.
 *
 * Returns: a #PtzValidationPtz; %PTZ_VALIDATION_PTZ_INVALID with @error set in the domain of
 *   ptz_validation_error_quark()
 */
gint32
ptz_validation_parse_ptz(const gchar *value, GError **error)
{
  if (value == nullptr) {
    return PTZ_VALIDATION_PTZ_OFF;
  }
  return parse_digit(PTZ, value, error);
}

/**
 * ptz_validation_parse_ptz_pantilt:
 * @value: (transfer none): the text of "ptz_pantilt_coordinate_space"
 * @error: (out) (optional): where to put the failure, unset
 *
 * Parses the coordinate space of pan and tilt. A bad text is also logged at warning priority.
 *
 * Returns: 0 to 2, or -1 with @error set in the domain of ptz_validation_error_quark()
 */
gint32
ptz_validation_parse_ptz_pantilt(const gchar *value, GError **error)
{
  return parse_digit(PANTILT_SPACE, value, error);
}

/**
 * ptz_validation_parse_ptz_zoom:
 * @value: (transfer none): the text of "ptz_zoom_coordinate_space"
 * @error: (out) (optional): where to put the failure, unset
 *
 * Parses the coordinate space of zoom. A bad text is also logged at warning priority.
 *
 * Returns: 0 to 2, or -1 with @error set in the domain of ptz_validation_error_quark()
 */
gint32
ptz_validation_parse_ptz_zoom(const gchar *value, GError **error)
{
  return parse_digit(ZOOM_SPACE, value, error);
}

/**
 * ptz_validation_lookup_ptz:
 * @params: (transfer none) (element-type utf8 utf8): the request's parameters
 * @error: (out) (optional): where to put the failure, unset
 *
 * Parses the request's "ptz" as ptz_validation_parse_ptz() does.
 *
 * Returns: the value; %PTZ_VALIDATION_PTZ_INVALID with @error set
 */
PtzValidationPtz
ptz_validation_lookup_ptz(GHashTable *params, GError **error)
{
  return static_cast<PtzValidationPtz>(
      ptz_validation_parse_ptz(source_factory_lookup_param(params, "ptz"), error));
}

/**
 * ptz_validation_lookup_spaces:
 * @params: (transfer none) (element-type utf8 utf8): the request's parameters
 * @spaces: (out): where to put the coordinate spaces
 * @error: (out) (optional): where to put the failure, unset
 *
 * Parses the request's coordinate spaces, that of pan and tilt first, up to the first bad one, as
 * ptz_validation_parse_ptz_pantilt() and ptz_validation_parse_ptz_zoom() do.
 *
 * Returns: whether all of them are valid; %FALSE with @error set
 */
gboolean
ptz_validation_lookup_spaces(GHashTable *params, PtzValidationSpaces *spaces, GError **error)
{
  return lookup_space(params, "ptz_pantilt_coordinate_space", PANTILT_SPACE, &spaces->pan_tilt, error) &&
         lookup_space(params, "ptz_zoom_coordinate_space", ZOOM_SPACE, &spaces->zoom, error);
}
