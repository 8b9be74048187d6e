/* SPDX-License-Identifier: MIT */
#include "topics.h"
#include "arguments.h"
#include "command.h"
#include "eventssession.h"
#include "output.h"
#include "printable.h"

#include <json-glib/json-glib.h>

namespace
{

constexpr ArgumentRules TOPICS_RULES = {
    "",
    "Lists the topics that applications have declared.",
    nullptr,
};

/* "Name (xs:string), Other (xs:int)" */
std::string
describe_items(GVariant *items)
{
  std::string text;
  GVariantIter iterator;
  const gchar *name = nullptr;
  const gchar *type = nullptr;

  g_variant_iter_init(&iterator, items);
  while (g_variant_iter_next(&iterator, "(&s&s)", &name, &type)) {
    text += (text.empty() ? "" : ", ") + std::string(name) + " (" + type + ")";
  }
  return text.empty() ? "-" : text;
}

void
add_items(JsonBuilder *builder, const gchar *member, GVariant *items)
{
  GVariantIter iterator;
  const gchar *name = nullptr;
  const gchar *value = nullptr;

  json_builder_set_member_name(builder, member);
  json_builder_begin_object(builder);
  g_variant_iter_init(&iterator, items);
  const gchar *format = g_variant_is_of_type(items, G_VARIANT_TYPE("a(ss)")) ? "(&s&s)" : "{&s&s}";
  while (g_variant_iter_next(&iterator, format, &name, &value)) {
    json_builder_set_member_name(builder, name);
    json_builder_add_string_value(builder, value);
  }
  json_builder_end_object(builder);
}

/* Appends a topic to the table, and adds it to the JSON. */
void
add_topic(GString *table, JsonBuilder *builder, GVariant *topic)
{
  const gchar *name = nullptr;
  gboolean is_property = FALSE;
  g_autoptr(GVariant) source = nullptr;
  g_autoptr(GVariant) data = nullptr;
  g_autoptr(GVariant) namespaces = nullptr;

  g_variant_get(topic, "(&sb@a(ss)@a(ss)@a{ss})", &name, &is_property, &source, &data, &namespaces);
  g_string_append_printf(table, "%s  %s  %s  %s\n", name, is_property ? "property" : "event",
                         describe_items(source).c_str(), describe_items(data).c_str());
  json_builder_begin_object(builder);
  json_builder_set_member_name(builder, "Topic");
  json_builder_add_string_value(builder, name);
  json_builder_set_member_name(builder, "Property");
  json_builder_add_boolean_value(builder, is_property);
  add_items(builder, "Source", source);
  add_items(builder, "Data", data);
  add_items(builder, "Namespaces", namespaces);
  json_builder_end_object(builder);
}

gchar *
format_topics(GVariant *topics, gboolean as_json)
{
  g_autoptr(JsonBuilder) builder = json_builder_new();
  g_autoptr(GString) table = g_string_new(nullptr);

  json_builder_begin_array(builder);
  for (gsize i = 0; i < g_variant_n_children(topics); i++) {
    g_autoptr(GVariant) topic = g_variant_get_child_value(topics, i);
    add_topic(table, builder, topic);
  }
  json_builder_end_array(builder);
  if (!as_json) {
    return printable_lines(table->str);
  }
  g_autoptr(JsonNode) root = json_builder_get_root(builder);
  g_autofree gchar *json = json_to_string(root, TRUE);
  g_autofree gchar *printable = printable_lines(json);
  return g_strconcat(printable, "\n", nullptr);
}

} // namespace

/**
 * topics_command_run:
 * @argc: number of arguments
 * @argv: (transfer none): the arguments, from the command's name on
 *
 * Runs "tessardctl topics".
 *
 * Returns: the exit status
 */
int
topics_command_run(int argc, char **argv)
{
  Arguments arguments;
  gboolean as_json = FALSE;
  g_autoptr(GError) error = nullptr;
  const GOptionEntry entries[] = {
      {"json", 0, 0, G_OPTION_ARG_NONE, &as_json, "Print JSON", nullptr},
      {},
  };

  if (!arguments_parse(&arguments, &TOPICS_RULES, entries, argc, argv, &error)) {
    return command_usage_error(error->message);
  }
  EventsSession session(arguments.bus_address);
  g_autoptr(GVariant) topics = session.get_topics(&error);
  if (topics != nullptr) {
    g_autofree gchar *text = format_topics(topics, as_json);
    output_write(text, &error);
  }
  return command_report_outcome(error);
}
