/* SPDX-License-Identifier: MIT */
#include "eventtopic.h"

#include "error.h"
#include "eventvalue.h"
#include "receiverlimits.h"

#include <algorithm>
#include <array>
#include <set>
#include <string_view>

/* Names are ASCII, so that the receiver needs no tables of XML's characters, and short, so that topics of all
 * applications fit in a message on the bus. */

namespace receiver
{

namespace
{

constexpr const char *TOPIC_FORM = "prefix:Name/Name";

/* The prefixes of types and topics that every reader knows, and one of the element around events. */
constexpr std::array<std::string_view, 4> KNOWN_PREFIXES = {"tns1", "tt", "xs", "wsnt"};

bool
is_known(std::string_view prefix)
{
  return std::find(KNOWN_PREFIXES.begin(), KNOWN_PREFIXES.end(), prefix) != KNOWN_PREFIXES.end();
}

bool
is_name_character(char c)
{
  constexpr std::string_view OTHERS = "_-.";

  return g_ascii_isalnum(c) || OTHERS.find(c) != OTHERS.npos;
}

bool
is_name(std::string_view text)
{
  return !text.empty() && (g_ascii_isalpha(text.front()) || text.front() == '_') &&
         std::all_of(text.begin(), text.end(), is_name_character);
}

/* Returns: whether @text is a name, or a prefix and a name. @prefix: (out): the prefix, empty without one */
bool
split_name(std::string_view text, std::string_view *prefix)
{
  const gsize colon = text.find(':');

  *prefix = {};
  if (colon == text.npos) {
    return is_name(text);
  }
  *prefix = text.substr(0, colon);
  return is_name(*prefix) && is_name(text.substr(colon + 1));
}

bool
is_uri_character(char c)
{
  constexpr std::string_view EXCLUDED = "<>\"{}|\\^`";

  return g_ascii_isgraph(c) && EXCLUDED.find(c) == EXCLUDED.npos;
}

bool
is_uri(std::string_view text)
{
  return !text.empty() && text.size() <= RECEIVER_MAX_NAMESPACE_BYTES &&
         std::all_of(text.begin(), text.end(), is_uri_character);
}

/* XML reserves prefixes that begin with "xml". */
bool
check_namespaces(const EventTopic &topic, GError **error)
{
  if (topic.namespaces.size() > RECEIVER_MAX_NAMESPACES) {
    return refuse(error, Error::INVALID_TOPIC, "There must be at most %d namespaces, not %zu",
                  RECEIVER_MAX_NAMESPACES, topic.namespaces.size());
  }
  for (const auto &[prefix, uri] : topic.namespaces) {
    if (!is_name(prefix) || prefix.size() > RECEIVER_MAX_PREFIX_BYTES || is_known(prefix) ||
        g_ascii_strncasecmp(prefix.c_str(), "xml", 3) == 0) {
      return refuse(error, Error::INVALID_TOPIC, "A namespace has a prefix that is invalid or reserved");
    }
    if (!is_uri(uri)) {
      return refuse(error, Error::INVALID_TOPIC, "The namespace of prefix %s is not a URI of 1 to %d bytes",
                    prefix.c_str(), RECEIVER_MAX_NAMESPACE_BYTES);
    }
  }
  return true;
}

/* @used: (inout): the prefixes that need a namespace */
bool
use_prefix(const EventTopic &topic, std::string_view prefix, std::set<std::string> *used)
{
  if (prefix.empty() || is_known(prefix)) {
    return true;
  }
  used->emplace(prefix);
  return topic.namespaces.contains(std::string(prefix));
}

bool
check_name(const EventTopic &topic, std::set<std::string> *used, GError **error)
{
  std::string_view rest = topic.name;
  std::string_view prefix;

  if (rest.size() > RECEIVER_MAX_TOPIC_BYTES) {
    return refuse(error, Error::INVALID_TOPIC, "A topic must have at most %d bytes, not %zu",
                  RECEIVER_MAX_TOPIC_BYTES, rest.size());
  }
  for (gsize level = 0;; level++) {
    const gsize end = rest.find('/');
    if (level == RECEIVER_MAX_TOPIC_LEVELS) {
      return refuse(error, Error::INVALID_TOPIC, "A topic must have at most %d names",
                    RECEIVER_MAX_TOPIC_LEVELS);
    }
    if (!split_name(rest.substr(0, end), &prefix) || (level == 0 && prefix.empty())) {
      return refuse(error, Error::INVALID_TOPIC, "A topic must have the form %s", TOPIC_FORM);
    }
    if (!use_prefix(topic, prefix, used)) {
      return refuse(error, Error::INVALID_TOPIC, "The topic has a prefix without a namespace");
    }
    if (end == rest.npos) {
      return true;
    }
    rest.remove_prefix(end + 1);
  }
}

bool
check_type(const EventTopic &topic, const std::string &type, std::set<std::string> *used, GError **error)
{
  std::string_view prefix;

  if (type.size() > RECEIVER_MAX_ITEM_TYPE_BYTES || !split_name(type, &prefix) || prefix.empty()) {
    return refuse(error, Error::INVALID_ITEMS,
                  "The type of an item must have the form prefix:Name and at most %d bytes",
                  RECEIVER_MAX_ITEM_TYPE_BYTES);
  }
  return use_prefix(topic, prefix, used) ||
         refuse(error, Error::INVALID_ITEMS, "The type of an item has a prefix without a namespace");
}

bool
check_items(const EventTopic &topic, const EventPairs &items, std::set<std::string> *used, GError **error)
{
  std::set<std::string> names;

  if (items.size() > RECEIVER_MAX_EVENT_ITEMS) {
    return refuse(error, Error::INVALID_ITEMS, "There must be at most %d items, not %zu",
                  RECEIVER_MAX_EVENT_ITEMS, items.size());
  }
  for (const auto &[name, type] : items) {
    if (!is_name(name) || name.size() > RECEIVER_MAX_ITEM_NAME_BYTES) {
      return refuse(error, Error::INVALID_ITEMS,
                    "The name of an item must be 1 to %d letters, digits, underscores, hyphens and dots, and "
                    "begin with a letter or an underscore",
                    RECEIVER_MAX_ITEM_NAME_BYTES);
    }
    if (!names.insert(name).second) {
      return refuse(error, Error::INVALID_ITEMS, "There are two items %s", name.c_str());
    }
    if (!check_type(topic, type, used, error)) {
      return false;
    }
  }
  return true;
}

} // namespace

/**
 * EventTopic::size:
 *
 * Returns: the bytes of all texts
 */
gsize
EventTopic::size() const
{
  const auto sum = [](const auto &pairs) {
    gsize bytes = 0;
    for (const auto &[first, second] : pairs) {
      bytes += first.size() + second.size();
    }
    return bytes;
  };

  return name.size() + sum(source) + sum(data) + sum(namespaces);
}

/**
 * event_topic_check:
 * @topic: (inout): an application's declaration, in UTF-8
 * @error: set if the topic, a namespace or an item is invalid
 *
 * Removes the namespaces that no prefix of @topic uses.
 *
 * Returns: whether @topic is valid
 */
bool
event_topic_check(EventTopic *topic, GError **error)
{
  std::set<std::string> used;

  if (!check_namespaces(*topic, error) || !check_name(*topic, &used, error) ||
      !check_items(*topic, topic->source, &used, error) || !check_items(*topic, topic->data, &used, error)) {
    return false;
  }
  std::erase_if(topic->namespaces, [&used](const auto &entry) { return !used.contains(entry.first); });
  return true;
}

/**
 * event_items_take:
 * @declared: names and types of the items
 * @given: values by name, in UTF-8
 * @list: names the list in errors
 * @values: (out): the values in the declared order
 * @error: set if an item is missing or not declared, or has a value that its type does not allow
 *
 * Returns: whether @given has exactly the declared items
 */
bool
event_items_take(const EventPairs &declared, const EventMap &given, const char *list, EventTexts *values,
                 GError **error)
{
  if (given.size() != declared.size()) {
    return refuse(error, Error::INVALID_ITEMS, "The %s must have %zu items, not %zu", list, declared.size(),
                  given.size());
  }
  values->clear();
  for (const auto &[name, type] : declared) {
    const auto found = given.find(name);
    if (found == given.end()) {
      return refuse(error, Error::INVALID_ITEMS, "The %s has no item %s", list, name.c_str());
    }
    if (!event_value_check(type, found->second)) {
      return refuse(error, Error::INVALID_ITEMS, "Item %s of the %s is not a value of the type %s",
                    name.c_str(), list, type.c_str());
    }
    values->push_back(found->second);
  }
  return true;
}

} // namespace receiver
