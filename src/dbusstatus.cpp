/* SPDX-License-Identifier: MIT */
/* Exports the daemon's status on the bus, at a path beside that of the producers: directly on the connection,
 * so that no object manager lists it.
 *
 * The interface's description has the keys of the reply. The reply is made for each call from the components
 * that count. Its size is bounded by CLIENT_PLACES and PRODUCER_METER_MAX_SOURCES, and by the length of each
 * text in it.
 *
 * When the bus goes away, the connection is dropped; see dbusproducermanager.
 */
#include "dbusstatus.h"

#include "clientplaces.h"
#include "clientrecord.h"
#include "descriptorreserve.h"
#include "messageaccount.h"
#include "metadataserver1.h"
#include "producermeter.h"

#include <cstring>
#include <syslog.h>

namespace
{

constexpr const char *STATUS_PATH = "/com/quon/MetadataServer1/Status";
constexpr const char *STATUS_INTERFACE = "com.quon.MetadataServer1.Status";

gint64 start_time_s; /* since 1970 */
gint64 start_us;     /* monotonic */

/* NULL without a connection. */
MetadataServer1Status *status_skeleton;

/* Returns a text for the bus: UTF-8 of at most @max_bytes, and "…" if @text is longer. */
gchar *
clip(const gchar *text, gsize max_bytes)
{
  if (strlen(text) <= max_bytes) {
    return g_utf8_make_valid(text, -1);
  }
  /* Do not cut a character: its first byte is the last one that does not continue another. */
  gsize length = max_bytes;
  while (length > 0 && (static_cast<guchar>(text[length]) & 0xc0U) == 0x80U) {
    length--;
  }
  g_autofree gchar *valid = g_utf8_make_valid(text, static_cast<gssize>(length));
  return g_strconcat(valid, "…", nullptr);
}

void
add_number(GVariantBuilder *builder, const char *key, guint64 value)
{
  g_variant_builder_add(builder, "{sv}", key, g_variant_new_uint64(value));
}

void
add_small_number(GVariantBuilder *builder, const char *key, guint value)
{
  g_variant_builder_add(builder, "{sv}", key, g_variant_new_uint32(value));
}

GVariant *
make_request(GHashTable *request)
{
  GVariantBuilder builder;
  GList *keys = g_list_sort(g_hash_table_get_keys(request), reinterpret_cast<GCompareFunc>(strcmp));

  g_variant_builder_init(&builder, G_VARIANT_TYPE("a{ss}"));
  for (const GList *key = keys; key != nullptr; key = key->next) {
    g_autofree gchar *value = clip(static_cast<const gchar *>(g_hash_table_lookup(request, key->data)),
                                   CLIENT_RECORD_MAX_VALUE_BYTES);
    g_variant_builder_add(&builder, "{ss}", static_cast<const gchar *>(key->data), value);
  }
  g_list_free(keys);
  return g_variant_builder_end(&builder);
}

GVariant *
make_client(const ClientSnapshot *client)
{
  GVariantBuilder builder;

  g_variant_builder_init(&builder, G_VARIANT_TYPE_VARDICT);
  add_number(&builder, "Id", client->id);
  add_small_number(&builder, "Pid", static_cast<guint>(client->pid));
  add_small_number(&builder, "Uid", client->uid);
  g_variant_builder_add(&builder, "{sv}", "Streaming", g_variant_new_boolean(client->is_streaming));
  g_variant_builder_add(&builder, "{sv}", "Request", make_request(client->request));
  add_number(&builder, "Documents", client->documents);
  add_number(&builder, "Bytes", client->bytes);
  add_small_number(&builder, "QueueItems", client->queue_items);
  add_small_number(&builder, "QueueBytes", client->queue_bytes);
  add_number(&builder, "Age", static_cast<guint64>(client->age_us));
  g_variant_builder_add(&builder, "{sv}", "LastDocumentAge",
                        g_variant_new_int64(client->last_document_age_us));
  return g_variant_builder_end(&builder);
}

void
add_clients(GVariantBuilder *builder)
{
  ClientTotals totals = {};
  g_autoptr(GPtrArray) clients = client_record_list(&totals);
  GVariantBuilder list;

  g_variant_builder_init(&list, G_VARIANT_TYPE("aa{sv}"));
  for (guint i = 0; i < clients->len; i++) {
    g_variant_builder_add_value(&list,
                                make_client(static_cast<ClientSnapshot *>(g_ptr_array_index(clients, i))));
  }
  g_variant_builder_add(builder, "{sv}", "Clients", g_variant_builder_end(&list));
  add_number(builder, "ClientsTotal", totals.clients);
  add_number(builder, "DocumentsTotal", totals.documents);
  add_number(builder, "BytesTotal", totals.bytes);
}

GVariant *
make_producer(const ProducerCounts *producer)
{
  GVariantBuilder builder;
  g_autofree gchar *source = clip(producer->source, PRODUCER_METER_MAX_NAME_BYTES);

  g_variant_builder_init(&builder, G_VARIANT_TYPE_VARDICT);
  g_variant_builder_add(&builder, "{sv}", "Source", g_variant_new_string(source));
  add_small_number(&builder, "Streams", producer->streams);
  add_number(&builder, "Messages", producer->messages);
  add_number(&builder, "Bytes", producer->bytes);
  add_number(&builder, "Dropped", producer->dropped);
  return g_variant_builder_end(&builder);
}

void
add_producers(GVariantBuilder *builder)
{
  ProducerCounts totals = {};
  g_autoptr(GPtrArray) producers = producer_meter_list(&totals);
  GVariantBuilder list;

  g_variant_builder_init(&list, G_VARIANT_TYPE("aa{sv}"));
  for (guint i = 0; i < producers->len; i++) {
    g_variant_builder_add_value(
        &list, make_producer(static_cast<ProducerCounts *>(g_ptr_array_index(producers, i))));
  }
  g_variant_builder_add(builder, "{sv}", "Producers", g_variant_builder_end(&list));
  add_number(builder, "MessagesTotal", totals.messages);
  add_number(builder, "MessageBytesTotal", totals.bytes);
  add_number(builder, "DroppedTotal", totals.dropped);
  add_number(builder, "HeldBytes", message_account_get_total());
}

void
add_descriptors_and_limits(GVariantBuilder *builder)
{
  guint max_descriptors = 0;
  GVariantBuilder limits;

  add_small_number(builder, "Descriptors", descriptor_reserve_count_open(&max_descriptors));
  g_variant_builder_init(&limits, G_VARIANT_TYPE_VARDICT);
  add_small_number(&limits, "Clients", CLIENT_PLACES);
  add_small_number(&limits, "ClientsKept", CLIENT_PLACES_KEPT);
  add_small_number(&limits, "Descriptors", max_descriptors);
  add_small_number(&limits, "DescriptorsKept", DESCRIPTOR_RESERVE_SIZE);
  add_number(&limits, "ClientHeldBytes", MESSAGE_ACCOUNT_CLIENT_LIMIT);
  add_number(&limits, "HeldBytes", MESSAGE_ACCOUNT_TOTAL_LIMIT);
  g_variant_builder_add(builder, "{sv}", "Limits", g_variant_builder_end(&limits));
}

GVariant *
make_status()
{
  GVariantBuilder builder;

  g_variant_builder_init(&builder, G_VARIANT_TYPE_VARDICT);
  g_variant_builder_add(&builder, "{sv}", "Version", g_variant_new_string(TESSARD_VERSION));
  g_variant_builder_add(&builder, "{sv}", "StartTime", g_variant_new_int64(start_time_s));
  add_number(&builder, "Uptime", static_cast<guint64>(g_get_monotonic_time() - start_us));
  add_clients(&builder);
  add_producers(&builder);
  add_descriptors_and_limits(&builder);
  return g_variant_builder_end(&builder);
}

gboolean
on_handle_get_status(MetadataServer1Status *skeleton, GDBusMethodInvocation *invocation, gpointer)
{
  metadata_server1_status_complete_get_status(skeleton, invocation, make_status());
  return TRUE;
}

void
unexport_status()
{
  if (status_skeleton == nullptr) {
    return;
  }
  g_signal_handlers_disconnect_by_data(
      g_dbus_interface_skeleton_get_connection(G_DBUS_INTERFACE_SKELETON(status_skeleton)), &status_skeleton);
  g_dbus_interface_skeleton_unexport(G_DBUS_INTERFACE_SKELETON(status_skeleton));
  g_clear_object(&status_skeleton);
}

void
on_status_connection_closed(GDBusConnection *, gboolean, GError *, gpointer)
{
  unexport_status();
}

} // namespace

/**
 * dbus_status_init:
 *
 * Takes the time as that of the daemon's start.
 */
void
dbus_status_init(void)
{
  start_time_s = g_get_real_time() / G_USEC_PER_SEC;
  start_us = g_get_monotonic_time();
}

/**
 * dbus_status_on_bus_acquired:
 * @connection: (transfer none): the connection on which to export the status; kept until it closes, or until
 *   dbus_status_teardown()
 *
 * Exports the status. Ignores a closed connection.
 *
 * Warnings: "failed to export interface '%s': %s"; "G_IS_DBUS_CONNECTION(connection)" and "status_skeleton ==
 * NULL" are preconditions
 */
void
dbus_status_on_bus_acquired(GDBusConnection *connection)
{
  g_return_if_fail(G_IS_DBUS_CONNECTION(connection));
  g_return_if_fail(status_skeleton == NULL);

  if (g_dbus_connection_is_closed(connection)) {
    return;
  }
  g_autoptr(MetadataServer1Status) skeleton = metadata_server1_status_skeleton_new();
  g_autoptr(GError) error = nullptr;
  g_signal_connect(skeleton, "handle-get-status", G_CALLBACK(on_handle_get_status), nullptr);
  if (!g_dbus_interface_skeleton_export(G_DBUS_INTERFACE_SKELETON(skeleton), connection, STATUS_PATH,
                                        &error)) {
    syslog(LOG_WARNING, "failed to export interface '%s': %s", STATUS_INTERFACE, error->message);
    return;
  }
  g_signal_connect(connection, "closed", G_CALLBACK(on_status_connection_closed), &status_skeleton);
  status_skeleton = g_steal_pointer(&skeleton);
}

/**
 * dbus_status_teardown:
 *
 * Removes the object and drops the connection. Has no effect without one.
 */
void
dbus_status_teardown(void)
{
  unexport_status();
}
