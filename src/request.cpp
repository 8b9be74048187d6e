/* Reads the text of one request: the line "OPEN\n", header lines "key=value" and the empty line that ends
 * them. Lines end as GLib's line reader finds them on its own: a line feed, a carriage return with or without
 * one, a NUL and a paragraph separator all end a line, and so does the end of the stream behind a last line.
 *
 * No key is judged here. What a key means is the business of the source factories. Failures are reply texts,
 * not errors: they carry the client's own bytes, which need not be text.
 *
 * A request is scanned while its text arrives and read once it has arrived. The scan only finds out where the
 * text ends: it keeps two positions, looks at every byte once and stores nothing, so the main loop can afford
 * it for every client. Of a line it judges only whether the request ends there; request_read() ends at the
 * same line.
 */
#include "request.h"

#include <string_view>

namespace
{

constexpr std::string_view PARAGRAPH_SEPARATOR = "\xe2\x80\xa9";

/* How many bytes the line end takes that @rest begins with. 0 when there is none. */
gsize
measure_line_end(std::string_view rest)
{
  switch (rest.front()) {
  case '\n':
  case '\0':
    return 1;
  case '\r':
    return rest.starts_with("\r\n") ? 2 : 1;
  default:
    return rest.starts_with(PARAGRAPH_SEPARATOR) ? PARAGRAPH_SEPARATOR.size() : 0;
  }
}

/* Whether the next byte has to tell what line end @rest begins with. */
gboolean
is_line_end_open(std::string_view rest)
{
  return rest == "\r" || (rest.size() < PARAGRAPH_SEPARATOR.size() && PARAGRAPH_SEPARATOR.starts_with(rest));
}

/* Whether a line is the last that is read: the empty line, or one that makes the request wrong. */
gboolean
is_last_line(std::string_view line, std::string_view line_end, gboolean is_first)
{
  return is_first ? line != "OPEN" || line_end != "\n" : line.find('=') == std::string_view::npos;
}

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
 * request_scan:
 * @scan: (transfer none): the state of one request, as the call before left it
 * @text: (array length=length): all that has arrived of it, what was scanned before included
 * @length: how many bytes that is
 * @end: (out): how many of them are the request's, set only with %TRUE
 *
 * Looks for the end of a request: behind its empty line, or behind the first line that makes it wrong. One
 * thread at a time for one @scan.
 *
 * Returns: %TRUE when the request has ended, so that request_read() makes the same of @text up to @end
 *   whatever follows; @scan is then of no further use
 */
gboolean
request_scan(RequestScan *scan, const gchar *text, gsize length, gsize *end)
{
  const std::string_view arrived(text, length);

  while (scan->scanned < length && !is_line_end_open(arrived.substr(scan->scanned))) {
    const std::string_view line_end =
        arrived.substr(scan->scanned, measure_line_end(arrived.substr(scan->scanned)));
    if (line_end.empty()) {
      scan->scanned++;
      continue;
    }
    const std::string_view line = arrived.substr(scan->line, scan->scanned - scan->line);
    const gboolean is_last = is_last_line(line, line_end, scan->line == 0);
    scan->scanned += line_end.size();
    scan->line = scan->scanned;
    if (is_last) {
      *end = scan->scanned;
      return TRUE;
    }
  }
  return FALSE;
}

/**
 * request_read:
 * @channel: (transfer none): a channel that has the request's text, just made
 * @failure: (out) (transfer full): the whole reply to a request that cannot be read, unset before
 *
 * Reads one request up to and with the empty line that ends it. Any thread.
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
