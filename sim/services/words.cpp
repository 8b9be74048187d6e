#include "words.h"

namespace sim
{

/**
 * refuse:
 * @error: return location for an error
 * @format: why
 *
 * Sets an error that tells whoever asked what is wrong with it.
 *
 * Returns: false, for the caller to return
 */
bool
refuse(GError **error, const char *format, ...)
{
  va_list args;

  va_start(args, format);
  g_autoptr(GError) refusal = g_error_new_valist(G_IO_ERROR, G_IO_ERROR_INVALID_ARGUMENT, format, args);
  va_end(args);
  g_propagate_error(error, g_steal_pointer(&refusal));
  return false;
}

/**
 * words_split:
 * @list: words with commas between them; may be empty
 *
 * Returns: the words
 */
Words
words_split(const std::string &list)
{
  g_auto(GStrv) parts = g_strsplit(list.c_str(), ",", -1);

  return Words(parts, parts + g_strv_length(parts));
}

/**
 * check_text:
 * @word: the word
 * @error: set if the bus carries no such text
 *
 * Returns: whether @word is UTF-8
 */
bool
check_text(const char *word, GError **error)
{
  if (!g_utf8_validate(word, -1, nullptr)) {
    g_autofree gchar *readable = g_utf8_make_valid(word, -1);
    return refuse(error, "'%s' is not UTF-8", readable);
  }
  return true;
}

/**
 * parse_number:
 * @word: the word
 * @what: what the number is, for the error
 * @minimum: the least value that is taken
 * @maximum: the greatest value that is taken
 * @number: (out): the number; set only on success
 * @error: set if @word is not a decimal number in that range
 *
 * Returns: whether @number is set
 */
bool
parse_number(const std::string &word, const char *what, gint64 minimum, gint64 maximum, gint64 *number,
             GError **error)
{
  if (!g_ascii_string_to_signed(word.c_str(), 10, minimum, maximum, number, nullptr)) {
    return refuse(error, "%s must be a number from %" G_GINT64_FORMAT " to %" G_GINT64_FORMAT ", not '%s'",
                  what, minimum, maximum, word.c_str());
  }
  return true;
}

} /* namespace sim */
