/* SPDX-License-Identifier: MIT */
#include "jsonelement.h"

#include "jsonscalar.h"
#include "metadatajson.h"
#include "metadataschema.h"

#include <algorithm>
#include <cstring>
#include <unordered_map>
#include <unordered_set>

namespace onvif
{

namespace
{

constexpr std::string_view ONVIF_NAMESPACES[] = {
    METADATA_NAMESPACE,
    "http://www.onvif.org/ver20/analytics/humanface",
    "http://www.onvif.org/ver20/analytics/humanbody",
    "http://www.onvif.org/ver20/analytics/radiometry",
};

/* JSON-LD's own member, which no attribute can be. */
constexpr std::string_view CONTEXT = "@context";

/* The prefix of a namespace that is declared without one. */
constexpr const char *DEFAULT_PREFIX = "ns";

const char *
as_text(const xmlChar *text)
{
  return text == nullptr ? "" : reinterpret_cast<const char *>(text);
}

bool
is_onvif(const xmlNs *space)
{
  return space != nullptr && std::find(std::begin(ONVIF_NAMESPACES), std::end(ONVIF_NAMESPACES),
                                       as_text(space->href)) != std::end(ONVIF_NAMESPACES);
}

bool
is_text(const xmlNode *node)
{
  return node->type == XML_TEXT_NODE || node->type == XML_CDATA_SECTION_NODE;
}

bool
is_blank(std::string_view text)
{
  return text.find_first_not_of(" \t\r\n") == text.npos;
}

/* Returns: the element's own text without that of its children */
std::string
own_text(const xmlNode *element)
{
  std::string text;
  for (const xmlNode *node = element->children; node != nullptr; node = node->next) {
    if (is_text(node)) {
      text += as_text(node->content);
    }
  }
  return is_blank(text) ? std::string() : text;
}

std::string
value_of(const xmlAttr *attribute)
{
  std::string value;
  for (const xmlNode *node = attribute->children; node != nullptr; node = node->next) {
    value += as_text(node->content);
  }
  return value;
}

ScalarType
type_of(const xmlNode *element)
{
  return is_onvif(element->ns) ? metadata_element_type(as_text(element->name)) : ScalarType::STRING;
}

ScalarType
type_of(const xmlNode *element, const xmlAttr *attribute)
{
  bool has_type = is_onvif(element->ns) && attribute->ns == nullptr;
  return has_type ? metadata_attribute_type(as_text(attribute->name)) : ScalarType::STRING;
}

bool
repeats(const xmlNode *element)
{
  const xmlNode *parent = element->parent;
  return is_onvif(element->ns) && is_onvif(parent->ns) &&
         metadata_element_repeats(as_text(parent->name), as_text(element->name));
}

/* Returns: the context as a member, with the commas that it needs between @before and @after */
std::string
context_member(const std::vector<std::pair<std::string, std::string>> &prefixes, char before, char after)
{
  std::string member = before == '{' ? "" : ",";
  json_append_string(&member, CONTEXT);
  member += ":{";
  for (const auto &[uri, prefix] : prefixes) {
    if (member.back() != '{') {
      member += ',';
    }
    json_append_string(&member, prefix);
    member += ':';
    json_append_string(&member, uri);
  }
  return member + (after == '"' ? "}," : "}");
}

} // namespace

/**
 * element_is:
 * @node: a node
 * @namespace_uri: a namespace
 * @name: a local name
 *
 * Returns: whether @node is an element of this name
 */
bool
element_is(const xmlNode *node, std::string_view namespace_uri, std::string_view name)
{
  return node->type == XML_ELEMENT_NODE && node->ns != nullptr && as_text(node->ns->href) == namespace_uri &&
         as_text(node->name) == name;
}

/**
 * element_attribute:
 * @element: an element
 * @name: the name of an attribute without a namespace
 *
 * Returns: its value; empty without such an attribute
 */
std::string
element_attribute(const xmlNode *element, const char *name)
{
  for (const xmlAttr *attribute = element->properties; attribute != nullptr; attribute = attribute->next) {
    if (attribute->ns == nullptr && strcmp(as_text(attribute->name), name) == 0) {
      return value_of(attribute);
    }
  }
  return {};
}

/* Returns: whether no limit is exceeded */
bool
JsonElementWriter::may_go_on()
{
  bool is_within = depth_ <= METADATA_JSON_DEPTH_MAX && prefixes_.size() <= METADATA_JSON_NAMESPACES_MAX &&
                   json_.size() <= bytes_max_;
  has_failed_ = has_failed_ || !is_within;
  return !has_failed_;
}

/* Returns: @wish, or another prefix if it stands for another namespace */
std::string
JsonElementWriter::unused_prefix(const char *wish) const
{
  std::string prefix = wish;
  for (guint number = 2;; number++) {
    bool is_used = std::any_of(prefixes_.begin(), prefixes_.end(),
                               [&prefix](const auto &known) { return known.second == prefix; });
    if (!is_used) {
      return prefix;
    }
    prefix = wish + std::to_string(number);
  }
}

/* Returns: the prefix of a namespace throughout the text */
const std::string &
JsonElementWriter::prefix_of(const xmlNs *space)
{
  auto known = std::find_if(prefixes_.begin(), prefixes_.end(),
                            [space](const auto &found) { return found.first == as_text(space->href); });
  if (known != prefixes_.end()) {
    return known->second;
  }
  const char *wish = space->prefix == nullptr ? DEFAULT_PREFIX : as_text(space->prefix);
  return prefixes_.emplace_back(as_text(space->href), unused_prefix(wish)).second;
}

std::string
JsonElementWriter::name_of(const xmlNs *space, const xmlChar *local)
{
  if (space == nullptr || is_onvif(space)) {
    return as_text(local);
  }
  return prefix_of(space) + ":" + as_text(local);
}

/* Appends the comma between two members or values. */
void
JsonElementWriter::separate()
{
  if (json_.back() != '{' && json_.back() != '[') {
    json_ += ',';
  }
}

void
JsonElementWriter::append_attribute(const xmlNode *element, const xmlAttr *attribute)
{
  json_append_scalar(&json_, type_of(element, attribute), value_of(attribute));
}

/* Attributes of ONVIF's namespaces lose their prefixes; the first one of a name is written. Those of an item
 * of an event are only its name. */
void
JsonElementWriter::append_attributes(const xmlNode *element, bool is_wrapped)
{
  std::unordered_set<std::string> names;
  for (const xmlAttr *attribute = element->properties; attribute != nullptr && may_go_on();
       attribute = attribute->next) {
    std::string name = "@" + name_of(attribute->ns, attribute->name);
    bool is_left_out = name == CONTEXT || (is_wrapped && name == "@Name");
    if (!is_left_out && names.insert(name).second) {
      append_name(name);
      append_attribute(element, attribute);
    }
  }
}

void
JsonElementWriter::append_scalar_or_null(const xmlNode *element)
{
  std::string text = own_text(element);
  if (text.empty()) {
    json_ += "null";
  } else {
    json_append_scalar(&json_, type_of(element), text);
  }
}

void
JsonElementWriter::append_value(const xmlNode *element)
{
  bool is_object = element->properties != nullptr || xmlChildElementCount(const_cast<xmlNode *>(element)) > 0;
  if (!is_object) {
    append_scalar_or_null(element);
    return;
  }
  json_ += '{';
  append_attributes(element, false);
  append_children(element);
  json_ += '}';
}

void
JsonElementWriter::append_item(const xmlNode *item)
{
  if (element_is(item, METADATA_NAMESPACE, "SimpleItem")) {
    append_string(element_attribute(item, "Value"));
    return;
  }
  json_ += '{';
  append_attributes(item, true);
  append_children(item);
  json_ += '}';
}

/* The depth is that of the values. */
void
JsonElementWriter::append_member(const Member &member, AppendValue append_one)
{
  append_name(member.name);
  bool is_array = member.is_array || member.values.size() > 1;
  if (is_array) {
    json_ += '[';
  }
  depth_++;
  for (const xmlNode *value : member.values) {
    if (!may_go_on()) {
      break;
    }
    if (value != member.values.front()) {
      json_ += ',';
    }
    (this->*append_one)(value);
  }
  depth_--;
  if (is_array) {
    json_ += ']';
  }
}

/* Appends the element's text and children; children of one name are one member, at the place of the first
 * one. */
void
JsonElementWriter::append_children(const xmlNode *element)
{
  std::vector<Member> members;
  std::unordered_map<std::string, gsize> places;
  for (const xmlNode *node = element->children; node != nullptr && may_go_on(); node = node->next) {
    if (node->type != XML_ELEMENT_NODE) {
      continue;
    }
    std::string name = name_of(node->ns, node->name);
    auto [place, is_new] = places.try_emplace(name, members.size());
    if (is_new) {
      members.push_back({.name = name, .is_array = repeats(node), .values = {}});
    }
    members[place->second].values.push_back(node);
  }
  std::string text = own_text(element);
  if (!text.empty()) {
    append_name("#text");
    json_append_scalar(&json_, type_of(element), text);
  }
  for (const Member &member : members) {
    append_member(member, &JsonElementWriter::append_value);
  }
}

/**
 * JsonElementWriter::append:
 * @json: punctuation or a complete value
 *
 * Appends @json as it is.
 */
void
JsonElementWriter::append(std::string_view json)
{
  json_ += json;
}

/**
 * JsonElementWriter::append_name:
 * @name: the name of a member
 *
 * Begins a member of the open object.
 */
void
JsonElementWriter::append_name(std::string_view name)
{
  separate();
  append_string(name);
  json_ += ':';
}

/**
 * JsonElementWriter::append_string:
 * @text: valid UTF-8
 *
 * Appends a string.
 */
void
JsonElementWriter::append_string(std::string_view text)
{
  json_append_string(&json_, text);
}

/**
 * JsonElementWriter::append_top:
 * @element: the element that the text shows
 *
 * Appends @element as an object, which has the context.
 */
void
JsonElementWriter::append_top(const xmlNode *element)
{
  json_ += '{';
  append_attributes(element, false);
  mark_context();
  append_children(element);
  json_ += '}';
}

/**
 * JsonElementWriter::append_items:
 * @list: a list of items of an event; may be %NULL
 *
 * Appends the items as an object. Values of simple items are strings: a document does not tell their types.
 */
void
JsonElementWriter::append_items(const xmlNode *list)
{
  std::vector<Member> members;
  std::unordered_map<std::string, gsize> places;
  for (const xmlNode *node = list == nullptr ? nullptr : list->children; node != nullptr; node = node->next) {
    bool is_item = element_is(node, METADATA_NAMESPACE, "SimpleItem") ||
                   element_is(node, METADATA_NAMESPACE, "ElementItem");
    if (!is_item) {
      continue;
    }
    std::string name = element_attribute(node, "Name");
    auto [place, is_new] = places.try_emplace(name, members.size());
    if (is_new) {
      members.push_back({.name = name, .is_array = false, .values = {}});
    }
    members[place->second].values.push_back(node);
  }
  json_ += '{';
  for (const Member &member : members) {
    append_member(member, &JsonElementWriter::append_item);
  }
  json_ += '}';
}

/**
 * JsonElementWriter::mark_context:
 *
 * Makes this the place of the context in the open object. Members of the object can follow.
 */
void
JsonElementWriter::mark_context()
{
  context_at_ = json_.size();
}

/**
 * JsonElementWriter::finish:
 * @json: (out): the text
 *
 * Ends the text.
 *
 * Returns: false if a limit is exceeded
 */
bool
JsonElementWriter::finish(std::string *json)
{
  if (!prefixes_.empty() && context_at_ < json_.size()) {
    json_.insert(context_at_, context_member(prefixes_, json_[context_at_ - 1], json_[context_at_]));
  }
  bool is_complete = may_go_on();
  *json = std::move(json_);
  return is_complete;
}

} // namespace onvif
