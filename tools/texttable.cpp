/* SPDX-License-Identifier: MIT */
/* Formats rows in columns of a terminal. */
#include "texttable.h"
#include "printable.h"

#include <algorithm>
#include <cstring>

namespace
{

constexpr gint COLUMN_GAP = 2;

/* In columns of a terminal. */
gint
measure_width(const std::string &text)
{
  gint width = 0;

  for (const gchar *p = text.c_str(); *p != '\0'; p = g_utf8_next_char(p)) {
    const gunichar c = g_utf8_get_char(p);
    width += g_unichar_iszerowidth(c) ? 0 : g_unichar_iswide(c) ? 2 : 1;
  }
  return width;
}

std::vector<gint>
measure_columns(const std::vector<TextTableRow> &rows, gsize count)
{
  std::vector<gint> widths(count);

  for (const TextTableRow &row : rows) {
    for (gsize column = 0; column < count; column++) {
      widths[column] = std::max(widths[column], measure_width(row[column]));
    }
  }
  return widths;
}

/* A last column that begins at the left is not padded. */
void
append_row(GString *table, const TextTableRow &row, const std::vector<gint> &widths, const gchar *alignment)
{
  for (gsize column = 0; column < widths.size(); column++) {
    const gint padding = widths[column] - measure_width(row[column]);
    const gboolean is_last = column + 1 == widths.size();
    const gboolean is_right = alignment[column] == 'r';
    g_string_append_printf(table, "%*s%s", is_right ? padding : 0, "", row[column].c_str());
    g_string_append_printf(table, "%*s", is_last ? 0 : COLUMN_GAP + (is_right ? 0 : padding), "");
  }
  g_string_append_c(table, '\n');
}

} // namespace

/**
 * text_table_make_cell:
 * @text: any bytes
 *
 * Returns: the text without control characters
 */
std::string
text_table_make_cell(const std::string &text)
{
  g_autofree gchar *printable = printable_line(text.c_str());

  return printable;
}

/**
 * text_table_format:
 * @rows: the rows, the headings first; each has a printable cell for each column
 * @alignment: (transfer none): a letter for each column: 'l' for one that begins at the left, 'r' for numbers
 *
 * Returns: (transfer full): one line for each row
 */
gchar *
text_table_format(const std::vector<TextTableRow> &rows, const gchar *alignment)
{
  const std::vector<gint> widths = measure_columns(rows, strlen(alignment));
  g_autoptr(GString) table = g_string_new(nullptr);

  for (const TextTableRow &row : rows) {
    append_row(table, row, widths, alignment);
  }
  return g_string_free(g_steal_pointer(&table), FALSE);
}
