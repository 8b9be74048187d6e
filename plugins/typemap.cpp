/* SPDX-License-Identifier: MIT */
#include "typemap.h"

#include "tessarditem.h"

namespace plugins
{

namespace
{

constexpr guint WORD_AND_TYPE = 2;

/* Whether the type of an object can be this text. */
bool
is_type(const char *text)
{
  g_autoptr(TessardItem) item = tessard_item_new();
  return tessard_item_add_object_without_box(item, 0, nullptr) &&
         tessard_item_set_type(item, 0, text, nullptr);
}

} // namespace

/* Adds a pair "WORD=TYPE". */
bool
TypeMap::add(const char *pair)
{
  g_auto(GStrv) parts = g_strsplit(pair, "=", WORD_AND_TYPE + 1);
  if (g_strv_length(parts) != WORD_AND_TYPE) {
    return false;
  }
  const char *word = g_strstrip(parts[0]);
  const char *type = g_strstrip(parts[1]);
  if (*word == '\0' || !is_type(type)) {
    return false;
  }
  types_[g_quark_from_string(word)] = g_quark_from_string(type);
  return true;
}

/**
 * TypeMap::parse:
 * @text: (nullable): pairs "WORD=TYPE", separated by commas, with any blanks around words and types
 *
 * Replaces all pairs by those of @text. A malformed one is left out.
 *
 * Returns: the first malformed pair; empty if there is none
 */
std::string
TypeMap::parse(const char *text)
{
  types_.clear();
  std::string malformed;
  g_auto(GStrv) pairs = g_strsplit(text != nullptr ? text : "", ",", -1);
  for (gsize i = 0; pairs[i] != nullptr; i++) {
    const char *pair = g_strstrip(pairs[i]);
    if (*pair != '\0' && !add(pair) && malformed.empty()) {
      malformed = pair;
    }
  }
  return malformed;
}

/**
 * TypeMap::find:
 * @word: a detector's word; 0 for none
 *
 * Returns: the type in the pair with @word, or else @word
 */
GQuark
TypeMap::find(GQuark word) const
{
  auto pair = types_.find(word);
  return pair != types_.end() ? pair->second : word;
}

} // namespace plugins
