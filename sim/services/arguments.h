/* SPDX-License-Identifier: MIT */
#pragma once

#include <gio/gio.h>
#include <string>
#include <vector>

/* Arguments of verbs and options, the same on the command line and over the bus. */

namespace sim
{

using Arguments = std::vector<std::string>;

/* Sets an error with the code G_IO_ERROR_INVALID_ARGUMENT; the request has changed nothing. */
bool refuse(GError **error, const char *format, ...) G_GNUC_PRINTF(2, 3);

Arguments arguments_split(const std::string &list);
bool check_text(const char *argument, GError **error);
bool parse_number(const std::string &argument, const char *what, gint64 minimum, gint64 maximum,
                  gint64 *number, GError **error);

} // namespace sim
