/* Judges the parameters about pan, tilt and zoom, each of which is one digit. The functions keep no state and
 * write nothing but their answer, the error and, for a bad value, a line of the log.
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
    3,
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

} // namespace

/**
 * ptz_validation_error_quark:
 *
 * The domain of the errors about pan, tilt and zoom. All have code 0. Any thread.
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
 * Reads what is asked for of pan, tilt and zoom: 0 nothing, which is also what an absent text means, 1 status
 * and position, 2 position, 3 status. A bad text is logged at warning priority as well. Any thread.
 *
 * Returns: 0 to 3, or -1 with @error set in the domain of ptz_validation_error_quark()
 */
gint32
ptz_validation_parse_ptz(const gchar *value, GError **error)
{
  if (value == nullptr) {
    return 0;
  }
  return parse_digit(PTZ, value, error);
}

/**
 * ptz_validation_parse_ptz_pantilt:
 * @value: (transfer none): the text of "ptz_pantilt_coordinate_space"
 * @error: (out) (optional): where to put the failure, unset
 *
 * Reads the coordinate space of pan and tilt. A bad text is logged at warning priority as well. Any thread.
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
 * Reads the coordinate space of zoom. A bad text is logged at warning priority as well. Any thread.
 *
 * Returns: 0 to 2, or -1 with @error set in the domain of ptz_validation_error_quark()
 */
gint32
ptz_validation_parse_ptz_zoom(const gchar *value, GError **error)
{
  return parse_digit(ZOOM_SPACE, value, error);
}
