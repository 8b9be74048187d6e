/* SPDX-License-Identifier: MIT */
/* Finds "SYNC\n" lines in a client's input after "OK". The input arrives in pieces of any size, and a line
 * can be endless. The scanner therefore stores no line. It stores how many bytes of the current line match
 * "SYNC\n", and the bytes of an incomplete character.
 *
 * The input must be UTF-8 text without NULs; other input ends the client's stream.
 */
#include "syncscanner.h"

#include <cstring>
#include <string_view>

namespace
{

constexpr std::string_view SYNC_LINE = "SYNC\n";

/* The value of `matched` for a line that does not match. */
constexpr guchar OTHER_LINE = 0xff;

/* Adds one byte to the current character. FALSE when the result is not valid. */
gboolean
take_character_byte(SyncScanner *scanner, gchar byte)
{
  if (byte == '\0') {
    return FALSE;
  }
  scanner->sequence[scanner->sequence_size++] = byte;

  const gunichar character = g_utf8_get_char_validated(scanner->sequence, scanner->sequence_size);
  if (character == static_cast<gunichar>(-2)) {
    return TRUE;
  }
  scanner->sequence_size = 0;
  return character != static_cast<gunichar>(-1);
}

/* Compares one byte of the current line. TRUE when it is the end of a "SYNC\n". */
gboolean
take_line_byte(SyncScanner *scanner, gchar byte)
{
  const gboolean matches = scanner->matched != OTHER_LINE && SYNC_LINE[scanner->matched] == byte;

  if (byte == '\n') {
    scanner->matched = 0;
    return matches;
  }
  scanner->matched = matches ? scanner->matched + 1 : OTHER_LINE;
  return FALSE;
}

} // namespace

/**
 * sync_scanner_feed:
 * @scanner: (transfer none): the state of one client's input
 * @data: (array length=length): the next bytes of the input
 * @length: the length of @data
 * @syncs: (out): the number of "SYNC\n" lines that end in @data before an invalid byte
 *
 * Any thread, one at a time for one @scanner.
 *
 * Returns: %FALSE when the input is not UTF-8 text; @scanner cannot be used again
 */
gboolean
sync_scanner_feed(SyncScanner *scanner, const gchar *data, gsize length, guint *syncs)
{
  *syncs = 0;
  for (gsize i = 0; i < length; i++) {
    if (!take_character_byte(scanner, data[i])) {
      return FALSE;
    }
    if (take_line_byte(scanner, data[i])) {
      ++*syncs;
    }
  }
  return TRUE;
}
