/* SPDX-License-Identifier: MIT */
/* A reader of JSON that can say where in the text a fault is, and that accepts nothing but JSON.
 *
 * Errors have the form "line L, column C: REASON". Lines and columns count from 1, columns in characters.
 */
#include "jsonreader.h"
#include "command.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace
{

constexpr gchar WHITE_SPACE[] = " \t\r\n";

/* A number that goes on behind its whole part. */
constexpr gchar FRACTION_OR_EXPONENT[] = ".eE";

constexpr gsize HEX_DIGITS = 4;

constexpr guint FIRST_HIGH_SURROGATE = 0xd800;
constexpr guint FIRST_LOW_SURROGATE = 0xdc00;
constexpr guint LAST_LOW_SURROGATE = 0xdfff;
constexpr guint SURROGATE_BITS = 10;
constexpr guint FIRST_OF_PAIRS = 0x10000;

struct Escape {
  gchar letter;
  gchar character;
};

constexpr std::array ESCAPES = {
    Escape{'"', '"'},  Escape{'\\', '\\'}, Escape{'/', '/'},  Escape{'b', '\b'},
    Escape{'f', '\f'}, Escape{'n', '\n'},  Escape{'r', '\r'}, Escape{'t', '\t'},
};

/* The 16 bits of an escape like \u00e9; 0, which JSON text cannot hold either, when @p does not begin one. */
guint
parse_unit(const gchar *p)
{
  guint unit = 0;

  if (p[0] != '\\' || p[1] != 'u') {
    return 0;
  }
  for (gsize index = 2; index < 2 + HEX_DIGITS; index++) {
    if (!g_ascii_isxdigit(p[index])) {
      return 0;
    }
    unit = unit * 16 + static_cast<guint>(g_ascii_xdigit_value(p[index]));
  }
  return unit;
}

/* The character of one \u escape or of two that form a pair, and their length; 0 when there is none. */
gunichar
parse_unicode_escape(const gchar *p, gsize *length)
{
  const guint first = parse_unit(p);

  *length = 2 + HEX_DIGITS;
  if (first < FIRST_HIGH_SURROGATE || first > LAST_LOW_SURROGATE) {
    return first;
  }
  if (first >= FIRST_LOW_SURROGATE) {
    return 0;
  }
  const guint second = parse_unit(p + *length);
  if (second < FIRST_LOW_SURROGATE || second > LAST_LOW_SURROGATE) {
    return 0;
  }
  *length *= 2;
  return FIRST_OF_PAIRS + ((first - FIRST_HIGH_SURROGATE) << SURROGATE_BITS) + (second - FIRST_LOW_SURROGATE);
}

void
append_character(std::string *value, gunichar c)
{
  std::array<gchar, 6> bytes = {};

  value->append(bytes.data(), g_unichar_to_utf8(c, bytes.data()));
}

/* The character that a simple escape stands for, NUL for none. */
gchar
find_escaped(gchar letter)
{
  for (const Escape &escape : ESCAPES) {
    if (escape.letter == letter) {
      return escape.character;
    }
  }
  return '\0';
}

} // namespace

/**
 * JsonReader::JsonReader:
 * @bytes: (transfer none) (array length=size): the text, in any bytes; copied
 * @size: its length in bytes
 *
 * check_encoding() must succeed before anything is read.
 */
JsonReader::JsonReader(const gchar *bytes, gsize size) : text(bytes, size), position(text.c_str())
{
}

/**
 * JsonReader::check_encoding:
 * @error: return location for an error of %TESSARDCTL_ERROR
 *
 * Returns: whether the text is UTF-8 without a NUL
 */
gboolean
JsonReader::check_encoding(GError **error) const
{
  const gchar *end = nullptr;

  return g_utf8_validate_len(text.data(), text.size(), &end) ||
         refuse(end, error, "a byte that is not UTF-8");
}

/**
 * JsonReader::find_next:
 *
 * Returns: the place of what is read next
 */
const gchar *
JsonReader::find_next()
{
  position += strspn(position, WHITE_SPACE);
  return position;
}

/**
 * JsonReader::take:
 * @mark: a bracket, a comma or a colon
 *
 * Returns: whether @mark was next and has been read
 */
gboolean
JsonReader::take(gchar mark)
{
  if (*find_next() != mark) {
    return FALSE;
  }
  position++;
  return TRUE;
}

/**
 * JsonReader::expect:
 * @mark: a bracket, a comma or a colon
 * @error: return location for an error of %TESSARDCTL_ERROR
 *
 * Returns: the same as take(), with an error where @mark is not next
 */
gboolean
JsonReader::expect(gchar mark, GError **error)
{
  return take(mark) || refuse(position, error, "'%c' expected", mark);
}

/**
 * JsonReader::expect_end:
 * @error: return location for an error of %TESSARDCTL_ERROR
 *
 * Returns: whether all of the text has been read
 */
gboolean
JsonReader::expect_end(GError **error)
{
  return *find_next() == '\0' || refuse(position, error, "the end of the file expected");
}

/**
 * JsonReader::read_string:
 * @value: (out): the string, in UTF-8
 * @error: return location for an error of %TESSARDCTL_ERROR
 *
 * Returns: whether a string was next
 */
gboolean
JsonReader::read_string(std::string *value, GError **error)
{
  const gchar *start = find_next();

  value->clear();
  if (!take('"')) {
    return refuse(start, error, "a string expected");
  }
  while (*position != '"') {
    if (*position == '\0') {
      return refuse(start, error, "a string without an end");
    }
    if (static_cast<guchar>(*position) < ' ') {
      return refuse(position, error, "a control character in a string");
    }
    if (*position != '\\') {
      value->push_back(*position++);
    } else if (!read_escape(value, error)) {
      return FALSE;
    }
  }
  position++;
  return TRUE;
}

gboolean
JsonReader::read_escape(std::string *value, GError **error)
{
  const gchar simple = find_escaped(position[1]);
  gsize length = 2;

  if (simple != '\0') {
    value->push_back(simple);
  } else if (const gunichar c = parse_unicode_escape(position, &length); c != 0) {
    append_character(value, c);
  } else {
    return refuse(position, error, "an escape that is not JSON");
  }
  position += length;
  return TRUE;
}

/**
 * JsonReader::read_int32:
 * @value: (out): the number
 * @error: return location for an error of %TESSARDCTL_ERROR
 *
 * Returns: whether a whole number of 32 bits was next
 */
gboolean
JsonReader::read_int32(gint32 *value, GError **error)
{
  constexpr gint64 TOO_LARGE = G_MAXUINT32;
  const gchar *start = find_next();
  const gboolean negative = take('-');
  const gchar *digits = position;
  gint64 number = 0;

  for (; g_ascii_isdigit(*position); position++) {
    number = std::min(number * 10 + g_ascii_digit_value(*position), TOO_LARGE);
  }
  if (position == digits || (*digits == '0' && position > digits + 1) ||
      (*position != '\0' && strchr(FRACTION_OR_EXPONENT, *position) != nullptr)) {
    return refuse(start, error, "a whole number expected");
  }
  number = negative ? -number : number;
  if (number < G_MININT32 || number > G_MAXINT32) {
    return refuse(start, error, "a number of more than 32 bits");
  }
  *value = static_cast<gint32>(number);
  return TRUE;
}

gboolean
JsonReader::take_word(const gchar *word)
{
  if (!g_str_has_prefix(find_next(), word) || g_ascii_isalnum(position[strlen(word)])) {
    return FALSE;
  }
  position += strlen(word);
  return TRUE;
}

/**
 * JsonReader::read_boolean:
 * @value: (out): the value
 * @error: return location for an error of %TESSARDCTL_ERROR
 *
 * Returns: whether true or false was next
 */
gboolean
JsonReader::read_boolean(gboolean *value, GError **error)
{
  *value = take_word("true");
  return *value || take_word("false") || refuse(position, error, "true or false expected");
}

/**
 * JsonReader::refuse:
 * @place: where the fault is
 * @error: return location for an error of %TESSARDCTL_ERROR
 * @format: what the fault is, in the format of printf
 *
 * Sets an error that begins with the place.
 *
 * Returns: %FALSE
 */
gboolean
JsonReader::refuse(const gchar *place, GError **error, const gchar *format, ...) const
{
  const gchar *start = text.c_str();
  const auto line = std::count(start, place, '\n') + 1;
  const gchar *before = static_cast<const gchar *>(memrchr(start, '\n', place - start));
  const gchar *line_start = before != nullptr ? before + 1 : start;
  const glong column = g_utf8_strlen(line_start, place - line_start) + 1;
  va_list args;

  va_start(args, format);
  g_autofree gchar *reason = g_strdup_vprintf(format, args);
  va_end(args);
  g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_LOCAL, "line %td, column %ld: %s", line, column, reason);
  return FALSE;
}
