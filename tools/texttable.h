/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>
#include <string>
#include <vector>

/* All functions can be called on any thread. */

using TextTableRow = std::vector<std::string>;

std::string text_table_make_cell(const std::string &text);
gchar *text_table_format(const std::vector<TextTableRow> &rows, const gchar *alignment);
