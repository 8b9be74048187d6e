/* SPDX-License-Identifier: MIT */
#include "eventservice.h"

#include "directory.h"
#include "error.h"
#include "metadatareceiver1.h"
#include "producerobject.h"

#include <gio/gunixfdlist.h>

namespace receiver
{

namespace
{

/* Calls @add with both texts of each entry of a(ss) or a{ss}. */
void
for_each_pair(GVariant *list, const char *format, auto add)
{
  GVariantIter iter;
  const gchar *first = nullptr;
  const gchar *second = nullptr;

  g_variant_iter_init(&iter, list);
  while (g_variant_iter_next(&iter, format, &first, &second)) {
    add(first, second);
  }
}

EventPairs
pairs_of(GVariant *pairs)
{
  EventPairs result;

  for_each_pair(pairs, "(&s&s)",
                [&result](const gchar *name, const gchar *type) { result.emplace_back(name, type); });
  return result;
}

EventMap
map_of(GVariant *entries)
{
  EventMap result;

  for_each_pair(entries, "{&s&s}",
                [&result](const gchar *key, const gchar *value) { result.insert_or_assign(key, value); });
  return result;
}

void
add_pairs(GVariantBuilder *builder, const char *type, const char *entry, const auto &pairs)
{
  g_variant_builder_open(builder, G_VARIANT_TYPE(type));
  for (const auto &[first, second] : pairs) {
    g_variant_builder_add(builder, entry, first.c_str(), second.c_str());
  }
  g_variant_builder_close(builder);
}

GVariant *
topics_variant(const std::vector<const EventTopic *> &topics)
{
  GVariantBuilder builder;

  g_variant_builder_init(&builder, G_VARIANT_TYPE("a(sba(ss)a(ss)a{ss})"));
  for (const EventTopic *topic : topics) {
    g_variant_builder_open(&builder, G_VARIANT_TYPE("(sba(ss)a(ss)a{ss})"));
    g_variant_builder_add(&builder, "s", topic->name.c_str());
    g_variant_builder_add(&builder, "b", static_cast<gboolean>(topic->is_property));
    add_pairs(&builder, "a(ss)", "(ss)", topic->source);
    add_pairs(&builder, "a(ss)", "(ss)", topic->data);
    add_pairs(&builder, "a{ss}", "{ss}", topic->namespaces);
    g_variant_builder_close(&builder);
  }
  return g_variant_builder_end(&builder);
}

} // namespace

/* The callbacks of GDBus. */
struct EventService::Handlers {
  static gboolean on_declare(MetadataReceiver1Events *object, GDBusMethodInvocation *invocation,
                             const gchar *name, gboolean is_property, GVariant *source, GVariant *data,
                             GVariant *namespaces, gpointer user_data);
  static gboolean on_emit(MetadataReceiver1Events *object, GDBusMethodInvocation *invocation,
                          const gchar *topic, const gchar *operation, GVariant *source, GVariant *data,
                          gint64 time, gpointer user_data);
  static gboolean on_get_topics(MetadataReceiver1Events *object, GDBusMethodInvocation *invocation,
                                gpointer user_data);
  static gboolean on_get_stream(MetadataReceiver1Events *object, GDBusMethodInvocation *invocation,
                                GUnixFDList *, gpointer user_data);
};

/**
 * EventService:
 * @events: (transfer none): the events; outlives the service
 * @connection: (transfer none): the connection to the bus
 */
EventService::EventService(Events *events, GDBusConnection *connection)
    : events_(events), connection_(G_DBUS_CONNECTION(g_object_ref(connection))),
      applications_(
          connection, [events](const std::string &sender) { return events->store()->has_topic_of(sender); },
          [events](const std::string &sender) { events->application_disconnected(sender); }),
      skeleton_(G_DBUS_INTERFACE_SKELETON(metadata_receiver1_events_skeleton_new()))
{
  g_signal_connect(skeleton_, "handle-declare-topic", G_CALLBACK(Handlers::on_declare), this);
  g_signal_connect(skeleton_, "handle-emit", G_CALLBACK(Handlers::on_emit), this);
  g_signal_connect(skeleton_, "handle-get-topics", G_CALLBACK(Handlers::on_get_topics), this);
  g_signal_connect(skeleton_, "handle-get-event-stream", G_CALLBACK(Handlers::on_get_stream), this);
}

EventService::~EventService()
{
  g_dbus_interface_skeleton_unexport(skeleton_);
  g_signal_handlers_disconnect_by_data(skeleton_, this);
  g_object_unref(skeleton_);
  g_object_unref(connection_);
}

/**
 * EventService::publish:
 * @error: set if the object has the interface already
 *
 * Exports the events. Call it once.
 *
 * Returns: whether the events are exported
 */
bool
EventService::publish(GError **error)
{
  return g_dbus_interface_skeleton_export(skeleton_, connection_, RECEIVER_PATH, error) != FALSE;
}

gboolean
EventService::Handlers::on_declare(MetadataReceiver1Events *object, GDBusMethodInvocation *invocation,
                                   const gchar *name, gboolean is_property, GVariant *source, GVariant *data,
                                   GVariant *namespaces, gpointer user_data)
{
  auto *self = static_cast<EventService *>(user_data);
  EventTopic topic = {name, is_property != FALSE, pairs_of(source), pairs_of(data), map_of(namespaces)};
  GError *error = nullptr;

  /* A call that waits is short. */
  if (!event_topic_check(&topic, &error)) {
    g_dbus_method_invocation_take_error(invocation, error);
    return TRUE;
  }
  self->applications_.run_with_user(invocation, [self, object, invocation, topic](const Caller &caller) {
    GError *problem = nullptr;
    if (!self->events_->store()->declare(caller, topic, &problem)) {
      g_dbus_method_invocation_take_error(invocation, problem);
      return;
    }
    metadata_receiver1_events_complete_declare_topic(object, invocation);
  });
  return TRUE;
}

gboolean
EventService::Handlers::on_emit(MetadataReceiver1Events *object, GDBusMethodInvocation *invocation,
                                const gchar *topic, const gchar *operation, GVariant *source, GVariant *data,
                                gint64 time, gpointer user_data)
{
  auto *self = static_cast<EventService *>(user_data);
  const EventRequest request = {topic, operation, map_of(source), map_of(data), time};
  GError *error = nullptr;

  if (!event_request_check_size(request, &error)) {
    g_dbus_method_invocation_take_error(invocation, error);
    return TRUE;
  }
  self->applications_.run_in_order(invocation, [self, object, invocation, request](const Caller &caller) {
    GError *problem = nullptr;
    if (!self->events_->store()->emit(caller.sender, request, &problem)) {
      g_dbus_method_invocation_take_error(invocation, problem);
      return;
    }
    metadata_receiver1_events_complete_emit(object, invocation);
  });
  return TRUE;
}

gboolean
EventService::Handlers::on_get_topics(MetadataReceiver1Events *object, GDBusMethodInvocation *invocation,
                                      gpointer user_data)
{
  const auto *self = static_cast<const EventService *>(user_data);

  metadata_receiver1_events_complete_get_topics(object, invocation,
                                                topics_variant(self->events_->store()->topics()));
  return TRUE;
}

gboolean
EventService::Handlers::on_get_stream(MetadataReceiver1Events *object, GDBusMethodInvocation *invocation,
                                      GUnixFDList *, gpointer user_data)
{
  auto *self = static_cast<EventService *>(user_data);
  GError *error = nullptr;
  const int fd = self->events_->open_stream(&error);

  if (fd < 0) {
    g_dbus_method_invocation_take_error(invocation, error);
    return TRUE;
  }
  g_autoptr(GUnixFDList) fds = descriptor_list_new(fd);
  metadata_receiver1_events_complete_get_event_stream(object, invocation, fds, g_variant_new_handle(0));
  return TRUE;
}

} // namespace receiver
