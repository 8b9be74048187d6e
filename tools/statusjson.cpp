/* SPDX-License-Identifier: MIT */
/* Formats the daemon's status in JSON, with the names and units of the bus. */
#include "statusjson.h"
#include "printable.h"

#include <json-glib/json-glib.h>

namespace
{

void
add_number(JsonBuilder *builder, const gchar *member, gint64 value)
{
  json_builder_set_member_name(builder, member);
  json_builder_add_int_value(builder, value);
}

void
add_count(JsonBuilder *builder, const gchar *member, guint64 value)
{
  add_number(builder, member, static_cast<gint64>(MIN(value, static_cast<guint64>(G_MAXINT64))));
}

void
add_text(JsonBuilder *builder, const gchar *member, const std::string &value)
{
  json_builder_set_member_name(builder, member);
  json_builder_add_string_value(builder, value.c_str());
}

void
add_client(JsonBuilder *builder, const DaemonClient &client)
{
  json_builder_begin_object(builder);
  add_count(builder, "Id", client.id);
  add_count(builder, "Pid", client.pid);
  add_count(builder, "Uid", client.uid);
  json_builder_set_member_name(builder, "Streaming");
  json_builder_add_boolean_value(builder, client.is_streaming);
  json_builder_set_member_name(builder, "Request");
  json_builder_begin_object(builder);
  for (const auto &[key, value] : client.request) {
    add_text(builder, key.c_str(), value);
  }
  json_builder_end_object(builder);
  add_count(builder, "Documents", client.documents);
  add_count(builder, "Bytes", client.bytes);
  add_count(builder, "QueueItems", client.queue_items);
  add_count(builder, "QueueBytes", client.queue_bytes);
  add_count(builder, "Age", client.age_us);
  add_number(builder, "LastDocumentAge", client.last_document_age_us);
  json_builder_end_object(builder);
}

void
add_source(JsonBuilder *builder, const DaemonSource &source)
{
  json_builder_begin_object(builder);
  add_text(builder, "Source", source.source);
  add_count(builder, "Streams", source.streams);
  add_count(builder, "Messages", source.messages);
  add_count(builder, "Bytes", source.bytes);
  add_count(builder, "Dropped", source.dropped);
  json_builder_end_object(builder);
}

template <typename Entry>
void
add_list(JsonBuilder *builder, const gchar *member, const std::vector<Entry> &entries,
         void (*add)(JsonBuilder *, const Entry &))
{
  json_builder_set_member_name(builder, member);
  json_builder_begin_array(builder);
  for (const Entry &entry : entries) {
    add(builder, entry);
  }
  json_builder_end_array(builder);
}

void
add_limits(JsonBuilder *builder, const DaemonLimits &limits)
{
  json_builder_set_member_name(builder, "Limits");
  json_builder_begin_object(builder);
  add_count(builder, "Clients", limits.clients);
  add_count(builder, "ClientsKept", limits.clients_kept);
  add_count(builder, "Descriptors", limits.descriptors);
  add_count(builder, "DescriptorsKept", limits.descriptors_kept);
  add_count(builder, "ClientHeldBytes", limits.client_held_bytes);
  add_count(builder, "HeldBytes", limits.held_bytes);
  json_builder_end_object(builder);
}

} // namespace

/**
 * status_json_format:
 * @status: the status
 *
 * Returns: (transfer full): one JSON object of several lines
 */
gchar *
status_json_format(const DaemonStatus &status)
{
  g_autoptr(JsonBuilder) builder = json_builder_new();

  json_builder_begin_object(builder);
  add_text(builder, "Version", status.version);
  add_number(builder, "StartTime", status.start_time_s);
  add_count(builder, "Uptime", status.uptime_us);
  add_list(builder, "Clients", status.clients, add_client);
  add_count(builder, "ClientsTotal", status.clients_total);
  add_count(builder, "DocumentsTotal", status.documents_total);
  add_count(builder, "BytesTotal", status.bytes_total);
  add_list(builder, "Producers", status.sources, add_source);
  add_count(builder, "MessagesTotal", status.messages_total);
  add_count(builder, "MessageBytesTotal", status.message_bytes_total);
  add_count(builder, "DroppedTotal", status.dropped_total);
  add_count(builder, "HeldBytes", status.held_bytes);
  add_count(builder, "Descriptors", status.descriptors);
  add_limits(builder, status.limits);
  json_builder_end_object(builder);

  g_autoptr(JsonNode) root = json_builder_get_root(builder);
  g_autofree gchar *json = json_to_string(root, TRUE);
  g_autofree gchar *printable = printable_lines(json);
  return g_strconcat(printable, "\n", nullptr);
}
