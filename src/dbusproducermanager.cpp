/* SPDX-License-Identifier: MIT */
/* Exports the producers on the bus: one object each below the root. The root has GLib's object manager and
 * the interface that changes several producers in one call. GLib stores the objects by path; this component
 * has no table.
 *
 * A producer's name is the last element of its object's path. A producer whose name is not valid there has no
 * object; clients can still request its data.
 *
 * Calls of both methods are queued in the order of their arrival and executed one after the other, so no call
 * sees part of another. A call is checked as a whole before anything changes. Then each tuple is one change
 * in memory, which is on disk before the next one is made; request threads see it immediately. A producer
 * that a call changes sends no notification until the last change is on disk. Then its object shows all
 * changes, and the reply follows. The main thread does all of this, in short steps: the configuration calls
 * it back when a change is on disk.
 *
 * A producer and its object have no references to each other; their signal connections end with the first of
 * the two. A queued call holds its producer and the interface that received it. GLib refuses a call for an
 * object that was removed, and a call whose object is removed while it waits or is executed ends with the
 * same error. When the connection closes, the queue is dropped.
 *
 * When the bus goes away, the connection is dropped. GLib shares one connection while there is a reference to
 * it, and the daemon's own calls can reach a bus that is back only after the last reference is dropped.
 */
#include "dbusproducermanager.h"

#include "metadataserver1.h"
#include "producerconfig.h"

#include <cstring>
#include <syslog.h>
#include <utility>

namespace
{

constexpr const char *ROOT_PATH = "/com/quon/MetadataServer1/Producers";
constexpr const char *MANAGER_INTERFACE = "com.quon.MetadataServer1.ProducerManager";
constexpr const char *CHANNELS_TYPE = "a(ibs)";
constexpr const char *CHANNEL_TYPE = "(ibs)";

GDBusObjectManagerServer *object_manager;

/* NULL without a connection. */
MetadataServer1ProducerManager *manager_skeleton;

/* A call of SetChannelsEnabled has a producer, a call of SetProducersEnabled has none. */
struct Call {
  GDBusInterfaceSkeleton *skeleton;
  GDBusMethodInvocation *invocation; /* NULL after the reply */
  GVariant *wanted;
  AnalyticsProducer *producer;
  AnalyticsProducerList *producers; /* borrowed; NULL for a call with a producer */

  gboolean is_checked;
  gsize entry;         /* the next one of `wanted`, for a call without a producer */
  gsize tuple;         /* the next one of the producer */
  gboolean has_failed; /* whether a part could not be applied */
  GPtrArray *changed;  /* the producers whose notifications are frozen until the end */
};

/* Of Call. The first one is being executed. */
GQueue queued_calls = G_QUEUE_INIT;
guint step_id; /* the source that continues the first call, or 0 */

/* NULL when the name cannot be an element of a path. */
gchar *
make_path(const gchar *name)
{
  g_autofree gchar *path = g_strdup_printf("%s/%s", ROOT_PATH, name);

  return strchr(name, '/') == nullptr && g_variant_is_object_path(path) ? g_steal_pointer(&path) : nullptr;
}

gchar *
get_property(AnalyticsProducer *producer, const gchar *name)
{
  gchar *text = nullptr;

  g_object_get(producer, name, &text, nullptr);
  return text;
}

/* A message must be UTF-8, but a sample frame comes from an element of the platform. */
gchar *
get_valid_property(AnalyticsProducer *producer, const gchar *name)
{
  g_autofree gchar *text = get_property(producer, name);

  return g_utf8_make_valid(text, -1);
}

void
set_channels(MetadataServer1Producer *skeleton, GPtrArray *channels)
{
  GVariantBuilder builder;

  g_variant_builder_init(&builder, G_VARIANT_TYPE(CHANNELS_TYPE));
  for (guint i = 0; i < channels->len; i++) {
    const auto *entry = static_cast<AnalyticsProducerChannel *>(g_ptr_array_index(channels, i));
    g_variant_builder_add(&builder, CHANNEL_TYPE, static_cast<gint32>(entry->channel), entry->enabled,
                          entry->name != nullptr ? entry->name : "");
  }
  metadata_server1_producer_set_channels_enabled(skeleton, g_variant_builder_end(&builder));
}

/* Copies the texts; only the channels follow the producer (docs/compatibility.md, "texts on the bus"). */
MetadataServer1Producer *
make_skeleton(AnalyticsProducer *producer)
{
  MetadataServer1Producer *skeleton = metadata_server1_producer_skeleton_new();
  g_autofree gchar *name = get_property(producer, "name");
  g_autofree gchar *nice_name = get_valid_property(producer, "nice-name");
  g_autofree gchar *sample_frame_xml = get_valid_property(producer, "sample-frame-xml");

  g_object_set(skeleton, "name", name, "nice-name", nice_name, "sample-frame-xml", sample_frame_xml, nullptr);
  set_channels(skeleton, analytics_producer_get_all_channels_enabled(producer));
  return skeleton;
}

/* Supported channels are within the range of int32, so a negative number matches none. */
gboolean
supports_all(AnalyticsProducer *producer, GVariant *channels)
{
  GVariantIter iter;
  gint32 channel = 0;

  g_variant_iter_init(&iter, channels);
  while (g_variant_iter_next(&iter, CHANNEL_TYPE, &channel, nullptr, nullptr)) {
    if (!analytics_producer_is_channel_supported(producer, static_cast<guint32>(channel))) {
      return FALSE;
    }
  }
  return TRUE;
}

/* The name in a tuple that disables is ignored, so its length is not limited. */
gboolean
names_fit(GVariant *channels)
{
  GVariantIter iter;
  gboolean enabled = FALSE;
  const gchar *name = nullptr;

  g_variant_iter_init(&iter, channels);
  while (g_variant_iter_next(&iter, "(ib&s)", nullptr, &enabled, &name)) {
    if (enabled && strlen(name) > PRODUCER_CONFIG_MAX_NAME_BYTES) {
      return FALSE;
    }
  }
  return TRUE;
}

void
set_name_error(GError **error)
{
  g_set_error(error, G_DBUS_ERROR, G_DBUS_ERROR_LIMITS_EXCEEDED, "Configuration name is longer than %d bytes",
              PRODUCER_CONFIG_MAX_NAME_BYTES);
}

gboolean
validate_channels(AnalyticsProducer *producer, GVariant *channels, GError **error)
{
  if (!supports_all(producer, channels)) {
    g_set_error_literal(error, G_DBUS_ERROR, G_DBUS_ERROR_FAILED,
                        "Tried to enable/disable producer on non-supported channel");
    return FALSE;
  }
  if (!names_fit(channels)) {
    set_name_error(error);
    return FALSE;
  }
  return TRUE;
}

/* One entry of a call for several producers, and the producer of that name or NULL. Holds both. */
struct Change {
  AnalyticsProducer *producer;
  GVariant *channels;

  Change(AnalyticsProducerList *producers, GVariant *entry)
  {
    const gchar *name = nullptr;

    g_variant_get(entry, "{&s@a(ibs)}", &name, &channels);
    producer = analytics_producer_list_get_producer(producers, name);
  }

  ~Change()
  {
    g_clear_object(&producer);
    g_variant_unref(channels);
  }

  Change(const Change &) = delete;
  Change &operator=(const Change &) = delete;
};

/* Reports a missing producer before an unsupported channel, and that before a name that is too long. Their
 * order in the call does not matter. */
gboolean
validate_producers(AnalyticsProducerList *producers, GVariant *wanted, GError **error)
{
  GVariantIter iter;
  gboolean all_supported = TRUE;
  gboolean all_fit = TRUE;

  g_variant_iter_init(&iter, wanted);
  while (g_autoptr(GVariant) entry = g_variant_iter_next_value(&iter)) {
    const Change change(producers, entry);
    if (change.producer == nullptr) {
      g_set_error_literal(error, G_DBUS_ERROR, G_DBUS_ERROR_INVALID_ARGS,
                          "Producer with specified name does not exist");
      return FALSE;
    }
    all_supported = all_supported && supports_all(change.producer, change.channels);
    all_fit = all_fit && names_fit(change.channels);
  }
  if (!all_supported) {
    g_set_error_literal(error, G_DBUS_ERROR, G_DBUS_ERROR_INVALID_ARGS,
                        "Videochannel is not supported on producer");
    return FALSE;
  }
  if (!all_fit) {
    set_name_error(error);
  }
  return all_fit;
}

Call *
call_new(gpointer skeleton, GDBusMethodInvocation *invocation, GVariant *wanted)
{
  auto *call = g_new0(Call, 1);

  call->skeleton = G_DBUS_INTERFACE_SKELETON(g_object_ref(skeleton));
  call->invocation = invocation;
  call->wanted = g_variant_ref(wanted);
  call->changed = g_ptr_array_new_with_free_func(g_object_unref);
  return call;
}

/* Freezes notifications, so that a producer's object shows all changes of a call at once. */
void
freeze_notifications(Call *call, AnalyticsProducer *producer)
{
  if (!g_ptr_array_find(call->changed, producer, nullptr)) {
    g_object_freeze_notify(G_OBJECT(producer));
    g_ptr_array_add(call->changed, g_object_ref(producer));
  }
}

void
thaw_notifications(Call *call)
{
  for (guint i = 0; i < call->changed->len; i++) {
    g_object_thaw_notify(G_OBJECT(g_ptr_array_index(call->changed, i)));
  }
  g_ptr_array_set_size(call->changed, 0);
}

void
return_success(Call *call)
{
  GDBusMethodInvocation *invocation = std::exchange(call->invocation, nullptr);

  if (call->producer != nullptr) {
    metadata_server1_producer_complete_set_channels_enabled(METADATA_SERVER1_PRODUCER(call->skeleton),
                                                            invocation);
  } else {
    metadata_server1_producer_manager_complete_set_producers_enabled(
        METADATA_SERVER1_PRODUCER_MANAGER(call->skeleton), invocation);
  }
}

void
return_result(Call *call, const GError *error)
{
  thaw_notifications(call);
  if (error != nullptr) {
    g_dbus_method_invocation_return_gerror(std::exchange(call->invocation, nullptr), error);
  } else {
    return_success(call);
  }
}

/* Uses the text with which GLib refuses a later call. */
void
set_removed_error(const Call *call, GError **error)
{
  g_set_error(error, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_METHOD, "No such interface “%s” on object at path %s",
              g_dbus_method_invocation_get_interface_name(call->invocation),
              g_dbus_method_invocation_get_object_path(call->invocation));
}

void
call_free(Call *call)
{
  if (call->invocation != nullptr) {
    g_autoptr(GError) error = nullptr;
    set_removed_error(call, &error);
    return_result(call, error);
  }
  g_object_unref(call->skeleton);
  g_variant_unref(call->wanted);
  g_clear_object(&call->producer);
  g_ptr_array_unref(call->changed);
  g_free(call);
}

gboolean
is_removed(const Call *call)
{
  return g_dbus_interface_skeleton_get_connection(call->skeleton) == nullptr;
}

void
apply_tuple(Call *call, AnalyticsProducer *producer, GVariant *channels)
{
  gint32 channel = 0;
  gboolean enabled = FALSE;
  g_autofree gchar *name = nullptr;

  g_variant_get_child(channels, call->tuple, "(ibs)", &channel, &enabled, &name);
  call->tuple++;
  freeze_notifications(call, producer);
  analytics_producer_set_channel_enabled(producer, static_cast<guint32>(channel), enabled, name);
}

gboolean
supports_next(const Call *call, AnalyticsProducer *producer, GVariant *channels)
{
  gint32 channel = 0;

  g_variant_get_child(channels, call->tuple, CHANNEL_TYPE, &channel, nullptr, nullptr);
  return analytics_producer_is_channel_supported(producer, static_cast<guint32>(channel));
}

/* Returns whether a change is being saved. */
gboolean
apply_next_of_producer(Call *call)
{
  if (call->tuple == g_variant_n_children(call->wanted)) {
    return FALSE;
  }
  if (is_removed(call)) {
    call->has_failed = TRUE;
    return FALSE;
  }
  apply_tuple(call, call->producer, call->wanted);
  return TRUE;
}

/* A producer that is listed again during the call is a new one, possibly with other channels. */
gboolean
apply_next_of_entry(Call *call, const Change &change)
{
  const gsize count = g_variant_n_children(change.channels);

  if (count > 0 && call->tuple == count) {
    return FALSE;
  }
  if (change.producer == nullptr || (count > 0 && !supports_next(call, change.producer, change.channels))) {
    call->has_failed = TRUE;
    return FALSE;
  }
  if (count == 0) {
    return FALSE;
  }
  apply_tuple(call, change.producer, change.channels);
  return TRUE;
}

/* Applies what can be applied; a later failure does not undo it. */
gboolean
apply_next_of_all(Call *call)
{
  for (; call->entry < g_variant_n_children(call->wanted); call->entry++, call->tuple = 0) {
    g_autoptr(GVariant) entry = g_variant_get_child_value(call->wanted, call->entry);
    if (apply_next_of_entry(call, Change(call->producers, entry))) {
      return TRUE;
    }
  }
  return FALSE;
}

/* Checks the call in its first step, before any change. */
gboolean
check_call(Call *call, GError **error)
{
  if (call->is_checked) {
    return TRUE;
  }
  call->is_checked = TRUE;
  if (call->producer == nullptr) {
    return validate_producers(call->producers, call->wanted, error);
  }
  if (is_removed(call)) {
    set_removed_error(call, error);
    return FALSE;
  }
  return validate_channels(call->producer, call->wanted, error);
}

void
set_failure(const Call *call, GError **error)
{
  if (call->producer != nullptr) {
    set_removed_error(call, error);
  } else {
    g_set_error_literal(error, G_DBUS_ERROR, G_DBUS_ERROR_FAILED,
                        "Failed to apply configuration to producer");
  }
}

/* Takes one step: a change that is being saved, or the reply. FALSE with the reply. */
gboolean
execute_step(Call *call)
{
  g_autoptr(GError) error = nullptr;

  if (check_call(call, &error)) {
    if (call->producer != nullptr ? apply_next_of_producer(call) : apply_next_of_all(call)) {
      return TRUE;
    }
    if (call->has_failed) {
      set_failure(call, &error);
    }
  }
  return_result(call, error);
  return FALSE;
}

/* An entry without tuples needs a look-up too, and counts as one tuple. */
gsize
count_tuples(const Call *call)
{
  const gsize entries = g_variant_n_children(call->wanted);
  if (call->producer != nullptr || entries > DBUS_PRODUCER_MANAGER_MAX_TUPLES) {
    return entries;
  }

  gsize count = 0;
  for (gsize i = 0; i < entries; i++) {
    g_autoptr(GVariant) channels = nullptr;
    g_variant_get_child(call->wanted, i, "{&s@a(ibs)}", nullptr, &channels);
    count += MAX(1, g_variant_n_children(channels));
  }
  return count;
}

/* Returns the size of the calls after the first one. */
gsize
count_waiting_bytes()
{
  gsize bytes = 0;

  for (const GList *link = g_queue_peek_nth_link(&queued_calls, 1); link != nullptr; link = link->next) {
    bytes += g_variant_get_size(static_cast<const Call *>(link->data)->wanted);
  }
  return bytes;
}

gboolean
fits_into_queue(const Call *call)
{
  return g_queue_is_empty(&queued_calls) ||
         (g_queue_get_length(&queued_calls) <= DBUS_PRODUCER_MANAGER_MAX_WAITING_CALLS &&
          count_waiting_bytes() + g_variant_get_size(call->wanted) <=
              DBUS_PRODUCER_MANAGER_MAX_WAITING_BYTES);
}

gboolean
check_limits(const Call *call, GError **error)
{
  if (count_tuples(call) > DBUS_PRODUCER_MANAGER_MAX_TUPLES) {
    g_set_error(error, G_DBUS_ERROR, G_DBUS_ERROR_LIMITS_EXCEEDED, "More than %d tuples in one call",
                DBUS_PRODUCER_MANAGER_MAX_TUPLES);
    return FALSE;
  }
  if (!fits_into_queue(call)) {
    g_set_error_literal(error, G_DBUS_ERROR, G_DBUS_ERROR_LIMITS_EXCEEDED, "Too many calls wait");
    return FALSE;
  }
  return TRUE;
}

void
on_channels_enabled_notify(AnalyticsProducer *producer, GParamSpec *, MetadataServer1Producer *skeleton)
{
  gpointer channels = nullptr;

  g_object_get(producer, "channels-enabled", &channels, nullptr);
  set_channels(skeleton, static_cast<GPtrArray *>(channels));
}

gboolean on_step(gpointer);

/* Executes one step of the first call. The next step follows when the change is on disk. */
void
execute_next_step()
{
  if (!execute_step(static_cast<Call *>(g_queue_peek_head(&queued_calls)))) {
    call_free(static_cast<Call *>(g_queue_pop_head(&queued_calls)));
  }
  if (!g_queue_is_empty(&queued_calls)) {
    step_id = producer_config_call_when_saved(on_step, nullptr);
  }
}

gboolean
on_step(gpointer)
{
  step_id = 0;
  execute_next_step();
  return G_SOURCE_REMOVE;
}

/* Takes ownership of the call. */
void
queue_call(Call *call)
{
  g_autoptr(GError) error = nullptr;

  if (!check_limits(call, &error)) {
    return_result(call, error);
    call_free(call);
    return;
  }
  g_queue_push_tail(&queued_calls, call);
  if (g_queue_get_length(&queued_calls) == 1) {
    execute_next_step();
  }
}

/* Fails all queued calls. Changes that were applied stay. */
void
drop_queued_calls()
{
  g_clear_handle_id(&step_id, g_source_remove);
  while (!g_queue_is_empty(&queued_calls)) {
    call_free(static_cast<Call *>(g_queue_pop_head(&queued_calls)));
  }
}

gboolean
on_handle_set_channels_enabled(MetadataServer1Producer *skeleton, GDBusMethodInvocation *invocation,
                               GVariant *enabled_channels, AnalyticsProducer *producer)
{
  Call *call = call_new(skeleton, invocation, enabled_channels);

  call->producer = ANALYTICS_PRODUCER(g_object_ref(producer));
  queue_call(call);
  return TRUE;
}

gboolean
on_handle_set_producers_enabled(MetadataServer1ProducerManager *skeleton, GDBusMethodInvocation *invocation,
                                GVariant *enabled_producers, gpointer user_data)
{
  Call *call = call_new(skeleton, invocation, enabled_producers);

  call->producers = static_cast<AnalyticsProducerList *>(user_data);
  queue_call(call);
  return TRUE;
}

/* Both signal connections hold their object during a call, and end with it. */
void
connect_to_producer(MetadataServer1Producer *skeleton, AnalyticsProducer *producer)
{
  g_signal_connect_object(producer, "notify::channels-enabled", G_CALLBACK(on_channels_enabled_notify),
                          skeleton, static_cast<GConnectFlags>(0));
  if (g_signal_connect_object(skeleton, "handle-set-channels-enabled",
                              G_CALLBACK(on_handle_set_channels_enabled), producer,
                              static_cast<GConnectFlags>(0)) == 0) {
    syslog(LOG_WARNING, "Error connecting callback for SetChannelsEnabled");
  }
}

void
on_producer_added(AnalyticsProducer *producer)
{
  g_autofree gchar *name = get_property(producer, "name");
  g_autofree gchar *path = make_path(name);
  if (path == nullptr) {
    g_autofree gchar *escaped = g_strescape(name, nullptr);
    syslog(LOG_WARNING, "producer \"%s\" is not on the bus: its name cannot end an object's path", escaped);
    return;
  }

  g_autoptr(GDBusObjectSkeleton) object = g_dbus_object_skeleton_new(path);
  g_autoptr(MetadataServer1Producer) skeleton = make_skeleton(producer);
  connect_to_producer(skeleton, producer);
  g_dbus_object_skeleton_add_interface(object, G_DBUS_INTERFACE_SKELETON(skeleton));
  g_dbus_object_manager_server_export(object_manager, object);
}

void
on_producer_removed(AnalyticsProducer *producer)
{
  g_autofree gchar *name = get_property(producer, "name");
  g_autofree gchar *path = make_path(name);

  if (path != nullptr) {
    g_dbus_object_manager_server_unexport(object_manager, path);
  }
}

/* Removes this component's objects from the connection and drops it. Replies to queued calls while the
 * connection is open. */
void
leave_bus()
{
  g_autoptr(GDBusConnection) connection = g_dbus_object_manager_server_get_connection(object_manager);
  if (connection == nullptr) {
    return;
  }

  drop_queued_calls();
  g_signal_handlers_disconnect_by_data(connection, &object_manager);
  g_dbus_object_manager_server_set_connection(object_manager, nullptr);
  if (manager_skeleton != nullptr) {
    g_dbus_interface_skeleton_unexport(G_DBUS_INTERFACE_SKELETON(manager_skeleton));
    g_clear_object(&manager_skeleton);
  }
}

void
on_connection_closed(GDBusConnection *, gboolean, GError *, gpointer)
{
  leave_bus();
}

void
export_manager(GDBusConnection *connection, AnalyticsProducerList *producers)
{
  g_autoptr(MetadataServer1ProducerManager) skeleton = metadata_server1_producer_manager_skeleton_new();
  g_autoptr(GError) error = nullptr;

  if (g_signal_connect(skeleton, "handle-set-producers-enabled", G_CALLBACK(on_handle_set_producers_enabled),
                       producers) == 0) {
    syslog(LOG_WARNING, "Error connecting callback for SetProducersEnabled");
  }
  if (!g_dbus_interface_skeleton_export(G_DBUS_INTERFACE_SKELETON(skeleton), connection, ROOT_PATH, &error)) {
    syslog(LOG_WARNING, "failed to export interface '%s': %s", MANAGER_INTERFACE, error->message);
    return;
  }
  manager_skeleton = g_steal_pointer(&skeleton);
}

} // namespace

/**
 * dbus_producer_manager_init:
 * @producers: (transfer none): the daemon's producers
 *
 * Makes an object for each producer that is added to the list from now on, and removes the object with the
 * producer. dbus_producer_manager_on_bus_acquired() exports the objects.
 *
 * Warnings, when a producer is added: "producer \"%s\" is not on the bus: its name cannot end an object's
 * path", "Error connecting callback for SetChannelsEnabled"
 */
void
dbus_producer_manager_init(AnalyticsProducerList *producers)
{
  g_return_if_fail(producers != NULL);

  if (object_manager == nullptr) {
    object_manager = g_dbus_object_manager_server_new(ROOT_PATH);
  }
  analytics_producer_list_set_callbacks(producers, on_producer_added, on_producer_removed);
}

/**
 * dbus_producer_manager_on_bus_acquired:
 * @connection: (transfer none): the connection on which to export the objects; kept until it closes, or until
 *   dbus_producer_manager_teardown()
 * @producers: (transfer none): the daemon's producers; must exist while @connection is kept
 *
 * Exports the producers' objects, current and later ones, and the manager's interface at their root. Ignores
 * a closed connection. Must be called after dbus_producer_manager_init().
 *
 * Warnings: "Error connecting callback for SetProducersEnabled", "failed to export interface '%s': %s"; the
 * producers' objects are exported even so
 */
void
dbus_producer_manager_on_bus_acquired(GDBusConnection *connection, AnalyticsProducerList *producers)
{
  g_return_if_fail(G_IS_DBUS_CONNECTION(connection));
  g_return_if_fail(producers != NULL);
  g_return_if_fail(object_manager != NULL);
  g_return_if_fail(manager_skeleton == NULL);

  if (g_dbus_connection_is_closed(connection)) {
    return;
  }
  g_dbus_object_manager_server_set_connection(object_manager, connection);
  g_signal_connect(connection, "closed", G_CALLBACK(on_connection_closed), &object_manager);
  export_manager(connection, producers);
}

/**
 * dbus_producer_manager_teardown:
 *
 * Removes all objects, drops the connection and undoes dbus_producer_manager_init(). Queued calls fail;
 * changes that were applied stay. The list keeps the callbacks, so it must not be changed afterwards. Must be
 * called before producer_config_free().
 */
void
dbus_producer_manager_teardown(void)
{
  if (object_manager == nullptr) {
    return;
  }
  leave_bus();

  g_autolist(GDBusObject) objects = g_dbus_object_manager_get_objects(G_DBUS_OBJECT_MANAGER(object_manager));
  for (GList *link = objects; link != nullptr; link = link->next) {
    g_dbus_object_manager_server_unexport(object_manager,
                                          g_dbus_object_get_object_path(G_DBUS_OBJECT(link->data)));
  }
  g_clear_object(&object_manager);
}
