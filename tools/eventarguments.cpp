/* SPDX-License-Identifier: MIT */
#include "eventarguments.h"
#include "command.h"
#include "jsontext.h"

#include <cstring>
#include <optional>

namespace dom = simdjson::dom;

namespace
{

GHashTable *
new_table(void)
{
  return g_hash_table_new_full(g_str_hash, g_str_equal, g_free, g_free);
}

/* @declared: NAME or NAME:TYPE */
void
add_item(const std::string &declared, const gchar *value, EventItemsTarget target)
{
  const std::string name = declared.substr(0, declared.find(':'));

  if (target.names != nullptr) {
    target.names->push_back(declared);
  }
  g_hash_table_replace(target.values, g_strdup(name.c_str()), g_strdup(value));
}

gboolean
refuse_member(GError **error, std::string_view name)
{
  g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_REFUSED, "the member '%s' is not valid",
              std::string(name).c_str());
  return FALSE;
}

/* The value of an item is a text, a number or a truth value. The parser accepts no NUL in texts. */
std::optional<std::string>
value_of(dom::element element)
{
  std::string_view text;

  switch (element.type()) {
  case dom::element_type::STRING:
    return element.get(text) == simdjson::SUCCESS ? std::optional<std::string>(text) : std::nullopt;
  case dom::element_type::BOOL:
  case dom::element_type::INT64:
  case dom::element_type::UINT64:
  case dom::element_type::DOUBLE:
    return simdjson::to_string(element);
  default:
    return std::nullopt;
  }
}

gboolean
take_object(const dom::key_value_pair &member, EventItemsTarget target, GError **error)
{
  dom::object object;

  if (member.value.get(object) != simdjson::SUCCESS) {
    return refuse_member(error, member.key);
  }
  for (const auto &[key, element] : object) {
    const std::optional<std::string> value = value_of(element);
    if (!value.has_value()) {
      return refuse_member(error, member.key);
    }
    add_item(std::string(key), value->c_str(), target);
  }
  return TRUE;
}

gboolean
take_text(const dom::key_value_pair &member, std::string *text, GError **error)
{
  std::string_view taken;

  if (member.value.get(taken) != simdjson::SUCCESS) {
    return refuse_member(error, member.key);
  }
  *text = taken;
  return TRUE;
}

gboolean
take_member(const dom::key_value_pair &member, EventArguments *event, GError **error)
{
  bool is_property = false;

  if (member.key == "Topic") {
    return take_text(member, &event->topic, error);
  }
  if (member.key == "Operation") {
    return take_text(member, &event->operation, error);
  }
  if (member.key == "Source") {
    return take_object(member, {&event->source_names, event->source}, error);
  }
  if (member.key == "Data") {
    return take_object(member, {&event->data_names, event->data}, error);
  }
  if (member.key == "Namespaces") {
    return take_object(member, {nullptr, event->namespaces}, error);
  }
  if (member.key == "Property" && member.value.get(is_property) == simdjson::SUCCESS) {
    event->is_property = is_property;
    return TRUE;
  }
  return refuse_member(error, member.key);
}

} // namespace

EventArguments::EventArguments() : source(new_table()), data(new_table()), namespaces(new_table())
{
}

EventArguments::~EventArguments()
{
  g_hash_table_unref(source);
  g_hash_table_unref(data);
  g_hash_table_unref(namespaces);
}

/**
 * event_arguments_take_items:
 * @texts: (array zero-terminated=1) (nullable): the values of an option, each KEY=VALUE or KEY:TYPE=VALUE
 * @option: the option, for @error
 * @target: where they go
 * @error: return location for %EXIT_STATUS_USAGE
 *
 * Returns: whether all have this form
 */
gboolean
event_arguments_take_items(const gchar *const *texts, const gchar *option, EventItemsTarget target,
                           GError **error)
{
  for (const gchar *const *text = texts; text != nullptr && *text != nullptr; text++) {
    const gchar *equals = strchr(*text, '=');
    if (equals == nullptr || equals == *text) {
      g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_USAGE, "The value of %s is '%s', not KEY=VALUE.",
                  option, *text);
      return FALSE;
    }
    add_item(std::string(*text, equals), equals + 1, target);
  }
  return TRUE;
}

/**
 * event_arguments_parse_line:
 * @parser: its memory is used again
 * @line: the JSON of an event, any bytes
 * @event: (out): the event; new
 * @error: return location for %EXIT_STATUS_REFUSED
 *
 * Returns: whether the line is an event
 */
gboolean
event_arguments_parse_line(dom::parser *parser, std::string_view line, EventArguments *event, GError **error)
{
  dom::object object;
  const std::optional<dom::element> root = plugins::json_text_parse(parser, line);

  if (!root.has_value() || root->get(object) != simdjson::SUCCESS) {
    g_set_error_literal(error, TESSARDCTL_ERROR, EXIT_STATUS_REFUSED, "it is no JSON object");
    return FALSE;
  }
  for (const dom::key_value_pair member : object) {
    if (!take_member(member, event, error)) {
      return FALSE;
    }
  }
  return !event->topic.empty() || refuse_member(error, "Topic");
}
