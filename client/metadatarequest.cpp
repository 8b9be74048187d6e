/* SPDX-License-Identifier: MIT */
#include "metadatarequest.h"

#include <cstring>

namespace
{

constexpr gchar ESCAPED_BLANK[] = "\\040";

} // namespace

/**
 * metadata_request_new:
 *
 * Returns: (transfer full): a request without keys, for metadata_request_finish()
 */
GString *
metadata_request_new(void)
{
  return g_string_new("OPEN\n");
}

/**
 * metadata_request_add:
 * @request: (transfer none): a request
 * @key: (transfer none): the key
 * @value: (transfer none): its value, which is sent unchanged and must not contain a line end of the protocol
 *
 * Adds a key whose value has no escapes.
 */
void
metadata_request_add(GString *request, const gchar *key, const gchar *value)
{
  g_string_append_printf(request, "%s=%s\n", key, value);
}

/**
 * metadata_request_add_text:
 * @request: (transfer none): a request
 * @key: (transfer none): a key whose value the daemon reads with escapes
 * @text: (transfer none): the value, in any bytes
 *
 * Adds a key with a text that the daemon gets unchanged. The daemon removes white space at the end of the
 * line and then undoes backslash escapes. Every byte that is not printable ASCII is therefore escaped, so no
 * encoding has a line end in it, and so are blanks at the end.
 */
void
metadata_request_add_text(GString *request, const gchar *key, const gchar *text)
{
  g_autofree gchar *escaped = g_strescape(text, nullptr);
  const gsize length = strlen(escaped);
  gsize kept = length;

  while (kept > 0 && escaped[kept - 1] == ' ') {
    kept--;
  }
  g_string_append_printf(request, "%s=", key);
  g_string_append_len(request, escaped, static_cast<gssize>(kept));
  for (gsize blank = kept; blank < length; blank++) {
    g_string_append(request, ESCAPED_BLANK);
  }
  g_string_append_c(request, '\n');
}

/**
 * metadata_request_finish:
 * @request: (transfer full): a request
 *
 * Returns: (transfer full): its text, from "OPEN" to the empty line
 */
gchar *
metadata_request_finish(GString *request)
{
  g_string_append_c(request, '\n');
  return g_string_free(request, FALSE);
}
