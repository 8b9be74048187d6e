/* Texts from outside, on their way into the log. */
#include "logtext.h"

#include <cstring>

/**
 * log_text_clip:
 * @text: (transfer none): UTF-8 text
 *
 * Any thread.
 *
 * Returns: (transfer full): the text, or as many whole characters of it as fit into %LOG_TEXT_MAX_BYTES,
 *   followed by three dots
 */
gchar *
log_text_clip(const gchar *text)
{
  const gsize length = strlen(text);
  if (length <= LOG_TEXT_MAX_BYTES) {
    return g_strndup(text, length);
  }
  const gchar *end = g_utf8_find_prev_char(text, text + LOG_TEXT_MAX_BYTES + 1);

  return g_strdup_printf("%.*s...", static_cast<int>(end - text), text);
}
