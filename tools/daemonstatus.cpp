/* SPDX-License-Identifier: MIT */
/* Reads the daemon's status. The type of each value is checked, their number is bounded, and no client and no
 * source is there twice. Keys of later daemons are ignored.
 */
#include "daemonstatus.h"
#include "command.h"
#include "producerbus.h"

#include <initializer_list>
#include <set>

namespace
{

/* A value without a pointer in it, and where g_variant_get() puts it. */
struct Field {
  const gchar *key;
  const gchar *type;
  gpointer value;
};

/* NULL when the value is missing or of another type. */
GVariant *
get_value(GVariant *values, const gchar *key, const gchar *type, GError **error)
{
  g_autoptr(GVariant) value = g_variant_lookup_value(values, key, nullptr);

  if (value == nullptr) {
    g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_MALFORMED, "The daemon's status has no %s.", key);
    return nullptr;
  }
  const gboolean is_valid = producer_bus_check_type(value, key, G_VARIANT_TYPE(type), error);
  return is_valid ? g_steal_pointer(&value) : nullptr;
}

gboolean
read_fields(GVariant *values, std::initializer_list<Field> fields, GError **error)
{
  for (const Field &field : fields) {
    g_autoptr(GVariant) value = get_value(values, field.key, field.type, error);
    if (value == nullptr) {
      return FALSE;
    }
    g_variant_get(value, field.type, field.value);
  }
  return TRUE;
}

gboolean
read_text(GVariant *values, const gchar *key, std::string *text, GError **error)
{
  g_autoptr(GVariant) value = get_value(values, key, "s", error);

  if (value == nullptr) {
    return FALSE;
  }
  *text = g_variant_get_string(value, nullptr);
  return TRUE;
}

gboolean
read_request(GVariant *values, std::map<std::string, std::string> *request, GError **error)
{
  g_autoptr(GVariant) value = get_value(values, "Request", "a{ss}", error);
  GVariantIter iter;
  const gchar *key = nullptr;
  const gchar *text = nullptr;

  if (value == nullptr) {
    return FALSE;
  }
  g_variant_iter_init(&iter, value);
  while (g_variant_iter_next(&iter, "{&s&s}", &key, &text)) {
    (*request)[key] = text;
  }
  return TRUE;
}

gboolean
read_client(GVariant *values, DaemonClient *client, GError **error)
{
  return read_request(values, &client->request, error) &&
         read_fields(values,
                     {{"Id", "t", &client->id},
                      {"Pid", "u", &client->pid},
                      {"Uid", "u", &client->uid},
                      {"Streaming", "b", &client->is_streaming},
                      {"Documents", "t", &client->documents},
                      {"Bytes", "t", &client->bytes},
                      {"QueueItems", "u", &client->queue_items},
                      {"QueueBytes", "u", &client->queue_bytes},
                      {"Age", "t", &client->age_us},
                      {"LastDocumentAge", "x", &client->last_document_age_us}},
                     error);
}

gboolean
read_source(GVariant *values, DaemonSource *source, GError **error)
{
  return read_text(values, "Source", &source->source, error) &&
         read_fields(values,
                     {{"Streams", "u", &source->streams},
                      {"Messages", "t", &source->messages},
                      {"Bytes", "t", &source->bytes},
                      {"Dropped", "t", &source->dropped}},
                     error);
}

template <typename Entry>
gboolean
read_list(GVariant *values, const gchar *key, gboolean (*read)(GVariant *, Entry *, GError **),
          std::vector<Entry> *entries, GError **error)
{
  g_autoptr(GVariant) list = get_value(values, key, "aa{sv}", error);

  if (list == nullptr) {
    return FALSE;
  }
  if (g_variant_n_children(list) > DAEMON_STATUS_MAX_ENTRIES) {
    g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_MALFORMED,
                "The daemon's status has more than %d entries in %s.", DAEMON_STATUS_MAX_ENTRIES, key);
    return FALSE;
  }
  for (gsize i = 0; i < g_variant_n_children(list); i++) {
    g_autoptr(GVariant) entry = g_variant_get_child_value(list, i);
    entries->emplace_back();
    if (!read(entry, &entries->back(), error)) {
      return FALSE;
    }
  }
  return TRUE;
}

gboolean
read_limits(GVariant *values, DaemonLimits *limits, GError **error)
{
  g_autoptr(GVariant) value = get_value(values, "Limits", "a{sv}", error);

  return value != nullptr && read_fields(value,
                                         {{"Clients", "u", &limits->clients},
                                          {"ClientsKept", "u", &limits->clients_kept},
                                          {"Descriptors", "u", &limits->descriptors},
                                          {"DescriptorsKept", "u", &limits->descriptors_kept},
                                          {"ClientHeldBytes", "t", &limits->client_held_bytes},
                                          {"HeldBytes", "t", &limits->held_bytes}},
                                         error);
}

/* A metric may be there only once. */
gboolean
check_unique(const DaemonStatus &status, GError **error)
{
  std::set<guint64> ids;
  std::set<std::string> sources;

  for (const DaemonClient &client : status.clients) {
    ids.insert(client.id);
  }
  for (const DaemonSource &source : status.sources) {
    sources.insert(source.source);
  }
  if (ids.size() == status.clients.size() && sources.size() == status.sources.size()) {
    return TRUE;
  }
  g_set_error_literal(error, TESSARDCTL_ERROR, EXIT_STATUS_MALFORMED,
                      "The daemon's status has a client or a source twice.");
  return FALSE;
}

} // namespace

/**
 * daemon_status_read:
 * @status: (transfer none): the status, of the type "a{sv}"
 * @error: return location for an error of %TESSARDCTL_ERROR
 *
 * Returns: the status, or nothing with @error set. Any thread.
 */
std::optional<DaemonStatus>
daemon_status_read(GVariant *status, GError **error)
{
  DaemonStatus read;

  if (!read_text(status, "Version", &read.version, error) ||
      !read_fields(status,
                   {{"StartTime", "x", &read.start_time_s},
                    {"Uptime", "t", &read.uptime_us},
                    {"ClientsTotal", "t", &read.clients_total},
                    {"DocumentsTotal", "t", &read.documents_total},
                    {"BytesTotal", "t", &read.bytes_total},
                    {"MessagesTotal", "t", &read.messages_total},
                    {"MessageBytesTotal", "t", &read.message_bytes_total},
                    {"DroppedTotal", "t", &read.dropped_total},
                    {"HeldBytes", "t", &read.held_bytes},
                    {"Descriptors", "u", &read.descriptors}},
                   error) ||
      !read_list(status, "Clients", read_client, &read.clients, error) ||
      !read_list(status, "Producers", read_source, &read.sources, error) ||
      !read_limits(status, &read.limits, error) || !check_unique(read, error)) {
    return std::nullopt;
  }
  return read;
}

/**
 * daemon_status_fetch:
 * @connection: (transfer none): the bus
 * @error: return location for an error of %TESSARDCTL_ERROR
 *
 * Calls the daemon and blocks until its reply or the time limit.
 *
 * Returns: the status, or nothing with @error set
 */
std::optional<DaemonStatus>
daemon_status_fetch(GDBusConnection *connection, GError **error)
{
  g_autoptr(GVariant) reply = producer_bus_call(connection, PRODUCER_BUS_STATUS_PATH, PRODUCER_BUS_STATUS,
                                                "GetStatus", nullptr, G_VARIANT_TYPE("(a{sv})"), 0, error);
  if (reply == nullptr) {
    return std::nullopt;
  }
  g_autoptr(GVariant) status = g_variant_get_child_value(reply, 0);
  return daemon_status_read(status, error);
}
