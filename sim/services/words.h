#pragma once

#include <gio/gio.h>
#include <string>
#include <vector>

/* What somebody asks of the camera, word by word: the same on the command line and over the bus. */

namespace sim
{

using Words = std::vector<std::string>;

/* Whoever fails here says why with this code, and has changed nothing. */
bool refuse(GError **error, const char *format, ...) G_GNUC_PRINTF(2, 3);

Words words_split(const std::string &list);
bool check_text(const char *word, GError **error);
bool parse_number(const std::string &word, const char *what, gint64 minimum, gint64 maximum, gint64 *number,
                  GError **error);

} /* namespace sim */
