/* SPDX-License-Identifier: MIT */
/* Formats producers for people and for programs. A table has one line for each channel of a producer, and no
 * control character, even if a text of the bus contains one.
 */
#include "producertable.h"
#include "documentformat.h"
#include "printable.h"
#include "texttable.h"

#include <json-glib/json-glib.h>

namespace
{

/* Printed for the configuration of a disabled channel, and for a channel that does not exist. */
constexpr gchar NOTHING[] = "-";

const gchar *
get_state(const ProducerChannel &channel)
{
  return channel.enabled ? "enabled" : "disabled";
}

std::vector<TextTableRow>
make_rows(const Producers &producers)
{
  std::vector<TextTableRow> rows = {{"NAME", "NICE NAME", "CHANNEL", "STATE", "CONFIGURATION"}};

  for (const Producer &producer : producers) {
    const std::string name = text_table_make_cell(producer.name);
    const std::string nice_name = text_table_make_cell(producer.nice_name);
    if (producer.channels.empty()) {
      rows.push_back({name, nice_name, NOTHING, NOTHING, NOTHING});
    }
    for (const ProducerChannel &channel : producer.channels) {
      rows.push_back({name, nice_name, std::to_string(channel.channel), get_state(channel),
                      channel.enabled ? text_table_make_cell(channel.configuration) : NOTHING});
    }
  }
  return rows;
}

void
add_text(JsonBuilder *builder, const gchar *member, const std::string &text)
{
  json_builder_set_member_name(builder, member);
  json_builder_add_string_value(builder, text.c_str());
}

void
add_channel(JsonBuilder *builder, const ProducerChannel &channel)
{
  json_builder_begin_object(builder);
  json_builder_set_member_name(builder, "Channel");
  json_builder_add_int_value(builder, channel.channel);
  json_builder_set_member_name(builder, "Enabled");
  json_builder_add_boolean_value(builder, channel.enabled);
  add_text(builder, "Configuration", channel.configuration);
  json_builder_end_object(builder);
}

void
add_producer(JsonBuilder *builder, const Producer &producer)
{
  json_builder_begin_object(builder);
  add_text(builder, "Name", producer.name);
  add_text(builder, "NiceName", producer.nice_name);
  json_builder_set_member_name(builder, "Channels");
  json_builder_begin_array(builder);
  for (const ProducerChannel &channel : producer.channels) {
    add_channel(builder, channel);
  }
  json_builder_end_array(builder);
  json_builder_end_object(builder);
}

void
append_field(GString *text, const gchar *field, const std::string &value)
{
  g_string_append_printf(text, "%s: %s\n", field, text_table_make_cell(value).c_str());
}

void
append_channel(GString *text, const ProducerChannel &channel)
{
  g_string_append_printf(text, "Channel %d: %s", channel.channel, get_state(channel));
  if (channel.enabled) {
    g_string_append_printf(text, " as '%s'", text_table_make_cell(channel.configuration).c_str());
  }
  g_string_append_c(text, '\n');
}

} // namespace

/**
 * producer_table_format:
 * @producers: the producers
 *
 * Returns: (transfer full): a table with a line for each channel of each producer
 */
gchar *
producer_table_format(const Producers &producers)
{
  return text_table_format(make_rows(producers), "lllll");
}

/**
 * producer_table_format_json:
 * @producers: the producers
 *
 * Returns: (transfer full): the producers in JSON, in the form that apply_file_read() reads
 */
gchar *
producer_table_format_json(const Producers &producers)
{
  g_autoptr(JsonBuilder) builder = json_builder_new();

  json_builder_begin_array(builder);
  for (const Producer &producer : producers) {
    add_producer(builder, producer);
  }
  json_builder_end_array(builder);

  g_autoptr(JsonNode) root = json_builder_get_root(builder);
  g_autofree gchar *json = json_to_string(root, TRUE);
  g_autofree gchar *printable = printable_lines(json);
  return g_strconcat(printable, "\n", nullptr);
}

/**
 * producer_table_format_names:
 * @producers: the producers
 *
 * Returns: (transfer full): their names, one per line
 */
gchar *
producer_table_format_names(const Producers &producers)
{
  g_autoptr(GString) names = g_string_new(nullptr);

  for (const Producer &producer : producers) {
    g_string_append_printf(names, "%s\n", text_table_make_cell(producer.name).c_str());
  }
  return g_string_free(g_steal_pointer(&names), FALSE);
}

/**
 * producer_table_format_channels:
 * @producer: a producer
 *
 * Returns: (transfer full): the numbers of the channels that it supports, one per line
 */
gchar *
producer_table_format_channels(const Producer &producer)
{
  g_autoptr(GString) channels = g_string_new(nullptr);

  for (const ProducerChannel &channel : producer.channels) {
    g_string_append_printf(channels, "%d\n", channel.channel);
  }
  return g_string_free(g_steal_pointer(&channels), FALSE);
}

/**
 * producer_table_format_one:
 * @producer: a producer
 *
 * Returns: (transfer full): all its properties, with the indented sample frame at the end
 */
gchar *
producer_table_format_one(const Producer &producer)
{
  g_autoptr(GString) text = g_string_new(nullptr);
  const std::string &frame = producer.sample_frame;

  append_field(text, "Name", producer.name);
  append_field(text, "Nice name", producer.nice_name);
  append_field(text, "Object", producer.path);
  for (const ProducerChannel &channel : producer.channels) {
    append_channel(text, channel);
  }
  if (frame.empty()) {
    g_string_append(text, "Sample frame: none\n");
  } else {
    g_autoptr(GString) indented = document_format_indented(frame.c_str(), frame.size());
    g_autofree gchar *printable = printable_lines(indented->str);
    g_string_append_printf(text, "Sample frame:\n%s", printable);
  }
  return g_string_free(g_steal_pointer(&text), FALSE);
}
