/* SPDX-License-Identifier: MIT */
/* Makes untrusted text safe for a terminal and for line-based tools: no character of the result moves the
 * cursor, starts a line or changes the direction of the text around it.
 */
#include "printable.h"

namespace
{

constexpr gunichar FIRST_OF_PAIRS = 0x10000;
constexpr gunichar HIGH_SURROGATE = 0xd800;
constexpr gunichar LOW_SURROGATE = 0xdc00;
constexpr guint SURROGATE_BITS = 10;
constexpr gunichar SURROGATE_MASK = (1U << SURROGATE_BITS) - 1;

/* GLib counts the separators of lines and paragraphs as printable. */
gboolean
is_printable(gunichar c)
{
  const GUnicodeType type = g_unichar_type(c);

  return g_unichar_isprint(c) && type != G_UNICODE_LINE_SEPARATOR && type != G_UNICODE_PARAGRAPH_SEPARATOR;
}

/* In JSON's notation, so that JSON text stays JSON. */
void
append_escaped(GString *printable, gunichar c)
{
  if (c < FIRST_OF_PAIRS) {
    g_string_append_printf(printable, "\\u%04x", c);
    return;
  }
  const gunichar offset = c - FIRST_OF_PAIRS;
  g_string_append_printf(printable, "\\u%04x\\u%04x", HIGH_SURROGATE + (offset >> SURROGATE_BITS),
                         LOW_SURROGATE + (offset & SURROGATE_MASK));
}

gchar *
escape_all_but(const gchar *text, const gchar *kept)
{
  g_autofree gchar *valid = g_utf8_make_valid(text, -1);
  g_autoptr(GString) printable = g_string_new(nullptr);

  for (const gchar *p = valid; *p != '\0'; p = g_utf8_next_char(p)) {
    const gunichar c = g_utf8_get_char(p);
    if (is_printable(c) || g_utf8_strchr(kept, -1, c) != nullptr) {
      g_string_append_unichar(printable, c);
    } else {
      append_escaped(printable, c);
    }
  }
  return g_string_free(g_steal_pointer(&printable), FALSE);
}

} // namespace

/**
 * printable_line:
 * @text: (transfer none): any bytes
 *
 * Escapes the control characters of a text for one line.
 *
 * Returns: (transfer full): the text in UTF-8, without a line break
 */
gchar *
printable_line(const gchar *text)
{
  return escape_all_but(text, "");
}

/**
 * printable_lines:
 * @text: (transfer none): any bytes
 *
 * Escapes the control characters of a text of several lines, except line feeds and tabs. JSON text keeps its
 * meaning.
 *
 * Returns: (transfer full): the text in UTF-8
 */
gchar *
printable_lines(const gchar *text)
{
  return escape_all_but(text, "\n\t");
}
