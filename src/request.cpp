/* Reads the text of one request: the line "OPEN\n", header lines "key=value" and the empty line that ends
 * them. Lines end as GLib's line reader finds them on its own: a line feed, a carriage return with or without
 * one, a NUL and a paragraph separator all end a line, and so does the end of the stream behind a last line.
 *
 * No key is judged here. What a key means is the business of the source factories. Failures are reply texts,
 * not errors: they carry the client's own bytes, which need not be text.
 */
#include "request.h"

namespace
{

const gchar *
message_or_nothing(const GError *error)
{
  return error != nullptr ? error->message : "";
}

gboolean
read_open(GIOChannel *channel, gchar **failure)
{
  g_autofree gchar *line = nullptr;
  gsize length = 0;
  g_autoptr(GError) cause = nullptr;

  if (g_io_channel_read_line(channel, &line, &length, nullptr, &cause) != G_IO_STATUS_NORMAL) {
    *failure =
        g_strdup_printf("FAIL\nCould not read request from client socket: %s", message_or_nothing(cause));
    return FALSE;
  }
  if (!g_str_equal(line, "OPEN\n")) {
    *failure = g_strdup_printf("FAIL\nUnknown: request: %s (%d)", line, static_cast<int>(length));
    return FALSE;
  }
  return TRUE;
}

/* Blanks around the "=" and before the key are kept, an empty value is a value, and of a repeated key the
 * last line counts. */
gboolean
insert_parameter(GHashTable *params, const gchar *line, gchar **failure)
{
  g_autofree gchar *stripped = g_strchomp(g_strdup(line));
  g_auto(GStrv) parts = g_strsplit(stripped, "=", 2);

  if (g_strv_length(parts) != 2) {
    *failure = g_strdup_printf("FAIL\nUnable to parse header line: %s.", line);
    return FALSE;
  }
  g_hash_table_insert(params, g_strdup(parts[0]), g_strdup(parts[1]));
  return TRUE;
}

/* Reads one header line into the table. FALSE at the header's end, and with @failure set when the header is
 * wrong. */
gboolean
read_header_line(GIOChannel *channel, GHashTable *params, gchar **failure)
{
  g_autofree gchar *line = nullptr;
  gsize terminator = 0;
  g_autoptr(GError) cause = nullptr;

  if (g_io_channel_read_line(channel, &line, nullptr, &terminator, &cause) != G_IO_STATUS_NORMAL) {
    *failure =
        g_strdup_printf("FAIL\nCould not read request header from socket: %s", message_or_nothing(cause));
    return FALSE;
  }
  if (g_str_equal(line, "\n")) {
    return FALSE;
  }
  line[terminator] = '\0';
  return insert_parameter(params, line, failure);
}

} // namespace

/**
 * request_read:
 * @channel: (transfer none): the client's channel, just made
 * @failure: (out) (transfer full): the whole reply to a request that cannot be read, unset before
 *
 * Reads one request up to and with the empty line that ends it. Waits for the client as long as @channel
 * does. Any thread.
 *
 * Returns: (transfer full) (nullable) (element-type utf8 utf8): the request's parameters, keys and values
 * owned by the table
 */
GHashTable *
request_read(GIOChannel *channel, gchar **failure)
{
  if (g_io_channel_set_encoding(channel, nullptr, nullptr) != G_IO_STATUS_NORMAL) {
    *failure = g_strdup("FAIL\nInternal error: Could not set encoding.");
    return nullptr;
  }
  if (!read_open(channel, failure)) {
    return nullptr;
  }

  g_autoptr(GHashTable) params = g_hash_table_new_full(g_str_hash, g_str_equal, g_free, g_free);
  while (read_header_line(channel, params, failure)) {
  }
  return *failure == nullptr ? g_steal_pointer(&params) : nullptr;
}
