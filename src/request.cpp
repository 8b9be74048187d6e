/* SPDX-License-Identifier: MIT */
/* Parses the text of one request: the line "OPEN\n", header lines "key=value" and an empty line. Line ends
 * are those that GLib's line reader detects: a line feed, a carriage return with or without a line feed, a
 * NUL, a paragraph separator, and the end of the stream after a last line.
 *
 * Keys are not checked here; the source factories interpret them. Failures are reply texts and not errors,
 * because they contain the client's bytes, which can be any.
 *
 * A request is scanned while its text arrives, and parsed when it is complete. The scan only finds the end of
 * the text. It stores two offsets and reads every byte once, so the main loop can do it for every client. It
 * checks only whether a line ends the request; request_read() ends at the same line.
 */
#include "request.h"

#include <string_view>

namespace
{

constexpr std::string_view PARAGRAPH_SEPARATOR = "\xe2\x80\xa9";

/* Returns the length of the line end at the beginning of @rest, or 0. */
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

/* Whether the next byte decides which line end @rest begins with. */
gboolean
is_line_end_open(std::string_view rest)
{
  return rest == "\r" || (rest.size() < PARAGRAPH_SEPARATOR.size() && PARAGRAPH_SEPARATOR.starts_with(rest));
}

/* Whether a line is the last one that is parsed: the empty line, or a malformed one. */
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

/* Blanks around the "=" and before the key belong to key and value. A value can be empty. The last line of a
 * repeated key applies. */
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

/* Reads one header line into the table. FALSE at the header's end; FALSE with @failure set when the header
 * is malformed. */
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
 * @scan: (transfer none): the state of the scan
 * @text: (array length=length): the text that has arrived, including the part that was scanned before
 * @length: the length of @text
 * @end: (out): the length of the request, set only with %TRUE
 *
 * Looks for the end of a request: its empty line, or its first malformed line.
 *
 * Returns: %TRUE when the request has ended: the result of request_read() does not depend on bytes after
 *   @end. @scan cannot be used again.
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
 * @channel: (transfer none): a new channel for the request's text
 * @failure: (out) (transfer full): the whole reply to a request that cannot be parsed; %NULL before the call
 *
 * Reads and parses one request, including its empty line.
 *
 * Returns: (transfer full) (nullable) (element-type utf8 utf8): the request's parameters; the table owns keys
 *   and values
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
