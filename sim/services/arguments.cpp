/* SPDX-License-Identifier: MIT */
#include "arguments.h"

namespace sim
{

/**
 * refuse:
 * @error: return location for an error
 * @format: the reason, for the user
 *
 * Sets the error of a wrong argument.
 *
 * Returns: false, so that the caller can return the result
 */
bool
refuse(GError **error, const char *format, ...)
{
  va_list args;

  va_start(args, format);
  g_autoptr(GError) refusal = g_error_new_valist(G_IO_ERROR, G_IO_ERROR_INVALID_ARGUMENT, format, args);
  va_end(args);
  g_propagate_error(error, g_steal_pointer(&refusal));
  return false;
}

/**
 * arguments_split:
 * @list: a comma-separated list; may be empty
 *
 * Returns: the elements of @list
 */
Arguments
arguments_split(const std::string &list)
{
  g_auto(GStrv) parts = g_strsplit(list.c_str(), ",", -1);

  return Arguments(parts, parts + g_strv_length(parts));
}

/**
 * check_text:
 * @argument: an argument
 * @error: set if @argument is not UTF-8, which D-Bus requires
 *
 * Returns: whether @argument is UTF-8
 */
bool
check_text(const char *argument, GError **error)
{
  if (!g_utf8_validate(argument, -1, nullptr)) {
    g_autofree gchar *readable = g_utf8_make_valid(argument, -1);
    return refuse(error, "'%s' is not UTF-8", readable);
  }
  return true;
}

/**
 * parse_number:
 * @argument: an argument
 * @what: the name of the number, for the error
 * @minimum: the smallest valid number
 * @maximum: the largest valid number
 * @number: (out): the number; set only on success
 * @error: set if @argument is not a decimal number in that range
 *
 * Returns: whether @number is set
 */
bool
parse_number(const std::string &argument, const char *what, gint64 minimum, gint64 maximum, gint64 *number,
             GError **error)
{
  if (!g_ascii_string_to_signed(argument.c_str(), 10, minimum, maximum, number, nullptr)) {
    return refuse(error, "%s must be a number from %" G_GINT64_FORMAT " to %" G_GINT64_FORMAT ", not '%s'",
                  what, minimum, maximum, argument.c_str());
  }
  return true;
}

} // namespace sim
