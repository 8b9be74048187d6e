/* SPDX-License-Identifier: MIT */
/* Prepares texts of peers for the log: limits their length and keeps them in one line, so that a peer cannot
 * forge lines of the daemon.
 */
#include "logtext.h"

#include <cstring>

namespace
{

/* Unicode does not classify separators of lines and paragraphs as control characters. */
gboolean
breaks_line(gunichar character)
{
  const GUnicodeType type = g_unichar_type(character);

  return type == G_UNICODE_CONTROL || type == G_UNICODE_LINE_SEPARATOR ||
         type == G_UNICODE_PARAGRAPH_SEPARATOR;
}

void
append_escaped(GString *line, const gchar *begin, const gchar *end)
{
  for (const gchar *byte = begin; byte < end; byte++) {
    g_string_append_printf(line, "\\x%02x", static_cast<guint8>(*byte));
  }
}

/* Appends the character at @text, or its first byte if it is not valid, and returns the position after it. */
const gchar *
append_next(GString *line, const gchar *text, const gchar *end)
{
  const gunichar character = g_utf8_get_char_validated(text, end - text);
  const gboolean is_valid = g_unichar_validate(character);
  const gchar *next = is_valid ? g_utf8_next_char(text) : text + 1;

  if (!is_valid || breaks_line(character)) {
    append_escaped(line, text, next);
  } else {
    g_string_append_len(line, text, next - text);
  }
  return next;
}

} // namespace

/**
 * log_text_clip:
 * @text: (transfer none): any bytes
 *
 * Converts a text for a line of the log. Each byte of a control character, of a separator of lines or
 * paragraphs, and of invalid UTF-8 becomes "\xHH"; backslashes are not escaped. If the result exceeds
 * %LOG_TEXT_MAX_BYTES, it is cut after a whole character or escape and followed by "... (N bytes left out)",
 * where N counts bytes of @text. Any thread.
 *
 * Returns: (transfer full): UTF-8 text without a line break
 */
gchar *
log_text_clip(const gchar *text)
{
  const gchar *end = text + strlen(text);
  g_autoptr(GString) line = g_string_new(nullptr);

  while (text < end) {
    const gsize length = line->len;
    const gchar *next = append_next(line, text, end);
    if (line->len > LOG_TEXT_MAX_BYTES) {
      g_string_truncate(line, length);
      g_string_append_printf(line, "... (%" G_GSIZE_FORMAT " bytes left out)",
                             static_cast<gsize>(end - text));
      break;
    }
    text = next;
  }
  return g_string_free(g_steal_pointer(&line), FALSE);
}
