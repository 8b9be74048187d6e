/* SPDX-License-Identifier: MIT */
/* The name of a configuration, as the daemon copies it into each frame of an external producer: inside a JSON
 * string, without any escaping (docs/producers.md). A name with a character that JSON escapes makes every
 * such frame malformed, and the daemon accepts it all the same.
 */
#include "configurationname.h"

namespace
{

const gchar *
find_bad_character(const gchar *name)
{
  for (const gchar *p = name; *p != '\0'; p = g_utf8_next_char(p)) {
    const gunichar c = g_utf8_get_char(p);
    if (c == '"') {
      return "a quotation mark";
    }
    if (c == '\\') {
      return "a backslash";
    }
    if (g_unichar_iscntrl(c)) {
      return "a control character";
    }
  }
  return nullptr;
}

} // namespace

/**
 * configuration_name_describe_fault:
 * @name: (transfer none): the name of a configuration, in UTF-8
 *
 * Returns: (transfer full) (nullable): why no producer can be enabled under @name, as the end of a sentence
 * that begins with what has the name; %NULL when one can
 */
gchar *
configuration_name_describe_fault(const gchar *name)
{
  const gchar *character = find_bad_character(name);

  return character != nullptr
             ? g_strdup_printf("contains %s, which would make the producer's frames malformed", character)
             : nullptr;
}
