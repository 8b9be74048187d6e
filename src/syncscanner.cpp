/* Finds the "SYNC\n" lines in what a client sends after "OK". The input comes in pieces of any size and a
 * line may never end, so nothing is collected: a line is followed only as long as it still agrees with the
 * one line that has a meaning, and of a character in several bytes only the bytes so far are kept.
 *
 * The input is UTF-8 text. Text that is not ends the client's stream, and a NUL counts as such: no text line
 * holds one.
 */
#include "syncscanner.h"

#include <cstring>
#include <string_view>

namespace
{

constexpr std::string_view SYNC_LINE = "SYNC\n";

/* The value of `matched` for a line that is already known to be another one. */
constexpr guchar OTHER_LINE = 0xff;

/* Takes one byte into the character that it belongs to. FALSE when no character goes that way. */
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

/* Follows the current line by one byte. TRUE when that byte ended a "SYNC\n". */
gboolean
take_line_byte(SyncScanner *scanner, gchar byte)
{
  const gboolean agrees = scanner->matched != OTHER_LINE && SYNC_LINE[scanner->matched] == byte;

  if (byte == '\n') {
    scanner->matched = 0;
    return agrees;
  }
  scanner->matched = agrees ? scanner->matched + 1 : OTHER_LINE;
  return FALSE;
}

} // namespace

/**
 * sync_scanner_feed:
 * @scanner: (transfer none): the state of one client's input
 * @data: (array length=length): the next bytes of the input
 * @length: how many
 * @syncs: (out): how many "SYNC\n" lines ended in @data; those before a wrong byte count
 *
 * One thread at a time for one @scanner.
 *
 * Returns: %FALSE when the input is not UTF-8 text; @scanner is then of no further use
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
