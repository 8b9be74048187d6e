/* SPDX-License-Identifier: MIT */
/* The client of the platform's metadata receiver: it lists the producers that the receiver announces on the
 * bus, and requests streams from them.
 *
 * Other files do the work: `receiverbus` connects to the bus, `receiverwatch` reports what the receiver
 * announces, `producerproperties` checks an object's properties, `receivercalls` makes calls,
 * `sampleframequeue` converts sample frames, and `receiverstream` requests streams. This file decides what
 * happens to an announced object.
 *
 * States: an announced object waits for its turn (WAITING). Then its sample frame is requested (REQUESTED)
 * and converted (CONVERTING), and the producer is listed (LISTED). An object that fails a step is logged and
 * left out (LEFT_OUT). An object for whose XML there is no room (NO_ROOM) waits again when another producer
 * is removed. Types and lengths of all announced values are checked before use.
 *
 * Table: an object has one entry, from its announcement until its removal. A removal cancels the entry's call
 * or conversion, so callbacks never see a removed entry. The entry has the name under which its producer is
 * listed. If the list refused the producer, the entry has no such name, so its removal does not remove
 * another producer.
 *
 * Limits: at most DBUS_CLIENT_MAX_PRODUCERS objects are requested, converted or listed at a time; the others
 * wait in order. Objects beyond DBUS_CLIENT_MAX_OBJECTS are not stored. When others have been removed, all
 * objects are requested from the receiver again. The part of the reply that is read is at least as long as
 * the table, so it contains an unknown object whenever the table has room for one.
 *
 * Threads: request threads look up an object to request its stream. All other code runs on the main thread.
 *
 * Lock: protects the table and the connection. The main thread, the only writer, reads them without it.
 * Request threads can hold the list's lock when they take this one, so the main thread never uses the list
 * under it.
 */
#include "dbusclient.h"

#include "logtext.h"
#include "producerproperties.h"
#include "ratelimitedlog.h"
#include "receiverbus.h"
#include "receivercalls.h"
#include "receiverstream.h"
#include "receiverwatch.h"
#include "sampleframequeue.h"

#include <cstring>
#include <syslog.h>

namespace
{

static_assert(RECEIVER_WATCH_MAX_OBJECTS >= DBUS_CLIENT_MAX_OBJECTS);

constexpr guint SAMPLE_FRAME_CALL_TIMEOUT_MS = 10000;

/* The length of the path with the longest name. */
constexpr gsize MAX_PATH_BYTES = sizeof(RECEIVER_PRODUCERS_PATH "/") - 1 + PRODUCER_PROPERTIES_MAX_NAME_BYTES;

/* Each object can cause such a line, and the receiver decides how many objects there are. */
RateLimitedLog left_out_log =
    RATE_LIMITED_LOG_INIT_BURST(RATE_LIMITED_LOG_INTERVAL_US, RATE_LIMITED_LOG_BURST);
RateLimitedLog full_table_log = RATE_LIMITED_LOG_INIT(RATE_LIMITED_LOG_INTERVAL_US);

enum class ObjectState { WAITING, REQUESTED, CONVERTING, LISTED, LEFT_OUT, NO_ROOM };

/* An announced object. */
struct Announced {
  gchar *path = nullptr;
  ProducerProperties *properties = nullptr;
  ObjectState state = ObjectState::LEFT_OUT;
  GCancellable *cancellable = nullptr;         /* of the call, in REQUESTED */
  SampleFrameConversion *conversion = nullptr; /* in CONVERTING */
  gchar *listed_name = nullptr;                /* in LISTED */
  gsize xml_bytes = 0;                         /* in LISTED */

  Announced() = default;
  ~Announced();
  Announced(const Announced &) = delete;
  Announced &operator=(const Announced &) = delete;
};

struct DbusClient {
  AnalyticsProducerList *producers; /* borrowed; NULL before dbus_client_init() and after the teardown */

  GMutex lock;
  GDBusConnection *connection;
  GHashTable *entries; /* of Announced by path */

  GQueue waiting;    /* of Announced, in the state WAITING */
  guint active;      /* the number of objects in REQUESTED, CONVERTING and LISTED */
  gsize xml_bytes;   /* the sum for the objects in LISTED */
  gboolean was_full; /* whether the table was full when an object was announced */
};

DbusClient dbus_client;

Announced::~Announced()
{
  g_free(path);
  g_clear_pointer(&properties, producer_properties_free);
  g_clear_object(&cancellable);
  g_free(listed_name);
}

void
free_announced(gpointer entry)
{
  delete static_cast<Announced *>(entry);
}

void
log_left_out(const gchar *path, const gchar *reason, RateLimitedLog *log = &left_out_log)
{
  g_autofree gchar *clipped = log_text_clip(path);

  rate_limited_log(log, LOG_WARNING, "left out producer object %s: %s", clipped, reason);
}

Announced *
find_announced(const gchar *path)
{
  return static_cast<Announced *>(g_hash_table_lookup(dbus_client.entries, path));
}

gboolean
is_active(ObjectState state)
{
  return state == ObjectState::REQUESTED || state == ObjectState::CONVERTING || state == ObjectState::LISTED;
}

void request_next();

/* Also updates the count of active objects. */
void
set_state(Announced *entry, ObjectState state)
{
  dbus_client.active += is_active(state) ? 1 : 0;
  dbus_client.active -= is_active(entry->state) ? 1 : 0;
  entry->state = state;
}

void
leave_object_out(Announced *entry)
{
  set_state(entry, ObjectState::LEFT_OUT);
  request_next();
}

void
queue_object(Announced *entry)
{
  set_state(entry, ObjectState::WAITING);
  g_queue_push_tail(&dbus_client.waiting, entry);
}

/* Copies the sample frame from the reply; FALSE when it has none. The converter decides about an empty one.
 */
gboolean
take_sample_frame(GVariant *reply, gchar **json)
{
  if (!g_variant_is_of_type(reply, G_VARIANT_TYPE("(s)"))) {
    return FALSE;
  }
  g_variant_get(reply, "(s)", json);
  return TRUE;
}

gboolean
is_room_for(gsize xml_bytes)
{
  return dbus_client.xml_bytes + xml_bytes <= DBUS_CLIENT_MAX_XML_BYTES_IN_ALL;
}

void
log_failed_conversion(const Announced *entry)
{
  syslog(LOG_WARNING, "failed to convert sample frame from: %s",
         producer_properties_get_name(entry->properties));
}

/* Returns the length on the bus, where three bytes replace each byte that is not valid UTF-8. */
gsize
count_bytes_on_bus(const gchar *xml)
{
  g_autofree gchar *valid = g_utf8_make_valid(xml, -1);

  return strlen(valid);
}

void
list_producer(Announced *entry, const gchar *xml, gsize xml_bytes)
{
  const ProducerProperties *properties = entry->properties;
  const gchar *name = producer_properties_get_name(properties);
  g_autoptr(AnalyticsProducer) producer =
      analytics_producer_new(name, producer_properties_get_nice_name(properties), xml,
                             producer_properties_get_channels(properties), ANALYTICS_PRODUCER_EXTERNAL);

  if (!analytics_producer_list_add(dbus_client.producers, producer)) {
    leave_object_out(entry);
    return;
  }
  set_state(entry, ObjectState::LISTED);
  entry->listed_name = g_strdup(name);
  entry->xml_bytes = xml_bytes;
  dbus_client.xml_bytes += entry->xml_bytes;
}

void
on_converted(const gchar *xml, gpointer user_data)
{
  auto *entry = static_cast<Announced *>(user_data);
  const gsize xml_bytes = xml != nullptr ? count_bytes_on_bus(xml) : 0;

  entry->conversion = nullptr;
  if (xml == nullptr || xml_bytes > DBUS_CLIENT_MAX_XML_BYTES) {
    log_failed_conversion(entry);
    leave_object_out(entry);
  } else if (!is_room_for(xml_bytes)) {
    log_failed_conversion(entry);
    set_state(entry, ObjectState::NO_ROOM);
    request_next();
  } else {
    list_producer(entry, xml, xml_bytes);
  }
}

/* Checks the object and its reply, and queues the sample frame for conversion. */
void
take_sample_frame_reply(Announced *entry, GVariant *reply)
{
  g_autofree gchar *json = nullptr;
  const gchar *problem = producer_properties_get_problem(entry->properties);

  if (problem != nullptr) {
    log_left_out(entry->path, problem);
    leave_object_out(entry);
  } else if (!take_sample_frame(reply, &json)) {
    syslog(LOG_WARNING, "failed to fetch sample frame");
    leave_object_out(entry);
  } else if (strlen(json) > DBUS_CLIENT_MAX_SAMPLE_FRAME_BYTES) {
    log_left_out(entry->path, "its sample frame is too long");
    leave_object_out(entry);
  } else {
    set_state(entry, ObjectState::CONVERTING);
    entry->conversion = sample_frame_queue_add(
        g_steal_pointer(&json), producer_properties_get_name(entry->properties), on_converted, entry);
  }
}

void
on_sample_frame(GVariant *reply, GUnixFDList *, const GError *error, gpointer user_data)
{
  auto *entry = static_cast<Announced *>(user_data);

  g_clear_object(&entry->cancellable);
  if (reply == nullptr) {
    g_autofree gchar *message = log_text_clip(error->message);
    syslog(LOG_WARNING, "on_get_sample_frame failed: %s", message);
    leave_object_out(entry);
    return;
  }
  take_sample_frame_reply(entry, reply);
}

void
request_sample_frame(Announced *entry)
{
  set_state(entry, ObjectState::REQUESTED);
  entry->cancellable = g_cancellable_new();

  const ReceiverCall call = {
      .connection = dbus_client.connection,
      .path = entry->path,
      .method = "GetSampleFrame",
      .parameters = nullptr,
      .descriptors = 0,
      .timeout_ms = SAMPLE_FRAME_CALL_TIMEOUT_MS,
      .cancellable = entry->cancellable,
  };
  receiver_call(&call, on_sample_frame, entry, nullptr);
}

void
request_next()
{
  while (dbus_client.active < DBUS_CLIENT_MAX_PRODUCERS && !g_queue_is_empty(&dbus_client.waiting)) {
    request_sample_frame(static_cast<Announced *>(g_queue_pop_head(&dbus_client.waiting)));
  }
}

Announced *
add_entry(const gchar *path, GVariant *properties)
{
  auto *entry = new Announced;
  entry->path = g_strdup(path);
  entry->properties = producer_properties_new(properties);

  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&dbus_client.lock);
  g_hash_table_insert(dbus_client.entries, entry->path, entry);
  return entry;
}

/* Logs the first object that does not fit into the table. */
void
note_full_table(const gchar *path)
{
  if (!dbus_client.was_full) {
    log_left_out(path, "there are too many", &full_table_log);
  }
  dbus_client.was_full = TRUE;
}

void
announce(const gchar *path, GVariant *properties)
{
  Announced *known = find_announced(path);
  if (known != nullptr) {
    if (known->state != ObjectState::CONVERTING) {
      g_clear_pointer(&known->properties, producer_properties_free);
      known->properties = producer_properties_new(properties);
    }
    return;
  }
  if (g_hash_table_size(dbus_client.entries) >= DBUS_CLIENT_MAX_OBJECTS) {
    note_full_table(path);
    return;
  }
  if (dbus_client.active >= DBUS_CLIENT_MAX_PRODUCERS) {
    log_left_out(path, "there are too many");
  }
  queue_object(add_entry(path, properties));
  request_next();
}

/* Sets the entry's state to LEFT_OUT and reverts the effects of the previous one. */
void
undo(Announced *entry)
{
  switch (entry->state) {
  case ObjectState::WAITING:
    g_queue_remove(&dbus_client.waiting, entry);
    break;
  case ObjectState::REQUESTED:
    g_cancellable_cancel(entry->cancellable);
    break;
  case ObjectState::CONVERTING:
    sample_frame_queue_cancel(entry->conversion);
    break;
  case ObjectState::LISTED:
    dbus_client.xml_bytes -= entry->xml_bytes;
    if (analytics_producer_list_contains(dbus_client.producers, entry->listed_name)) {
      analytics_producer_list_remove(dbus_client.producers, entry->listed_name);
    }
    break;
  default:
    break;
  }
  set_state(entry, ObjectState::LEFT_OUT);
}

void
queue_object_without_room(gpointer, gpointer value, gpointer)
{
  auto *entry = static_cast<Announced *>(value);

  if (entry->state == ObjectState::NO_ROOM) {
    queue_object(entry);
  }
}

/* Retries objects without room after a removal. */
void
use_free_room(gboolean has_more_room)
{
  if (has_more_room) {
    g_hash_table_foreach(dbus_client.entries, queue_object_without_room, nullptr);
  }
  request_next();
  if (dbus_client.was_full && g_hash_table_size(dbus_client.entries) < DBUS_CLIENT_MAX_OBJECTS) {
    dbus_client.was_full = FALSE;
    receiver_watch_ask_again();
  }
}

void
remove_entry(Announced *entry)
{
  const gboolean was_listed = entry->state == ObjectState::LISTED;

  undo(entry);
  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&dbus_client.lock);
    g_hash_table_remove(dbus_client.entries, entry->path);
  }
  use_free_room(was_listed);
}

void
remove_all_entries()
{
  GHashTableIter iter;
  gpointer entry = nullptr;

  g_hash_table_iter_init(&iter, dbus_client.entries);
  while (g_hash_table_iter_next(&iter, nullptr, &entry)) {
    undo(static_cast<Announced *>(entry));
  }
  dbus_client.was_full = FALSE;
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&dbus_client.lock);
  g_hash_table_remove_all(dbus_client.entries);
}

void
set_connection(GDBusConnection *new_connection)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&dbus_client.lock);

  g_set_object(&dbus_client.connection, new_connection);
}

/* Removes all objects and drops the connection. */
void
leave_receiver()
{
  receiver_watch_stop();
  remove_all_entries();
  receiver_bus_disconnect();
  set_connection(nullptr);
}

/* Returns the connection (transfer full) if the object is announced, otherwise NULL. Called on any thread. */
GDBusConnection *
find_connection(const gchar *path)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&dbus_client.lock);

  return dbus_client.connection != nullptr && g_hash_table_contains(dbus_client.entries, path)
             ? G_DBUS_CONNECTION(g_object_ref(dbus_client.connection))
             : nullptr;
}

void
on_object_added(const gchar *path, GVariant *interfaces)
{
  g_autoptr(GVariant) properties =
      g_variant_lookup_value(interfaces, RECEIVER_PRODUCER_INTERFACE, G_VARIANT_TYPE_VARDICT);

  if (!g_str_has_prefix(path, RECEIVER_PRODUCERS_PATH "/")) {
    log_left_out(path, "it is not below " RECEIVER_PRODUCERS_PATH);
  } else if (strlen(path) > MAX_PATH_BYTES) {
    log_left_out(path, "its path is too long");
  } else if (properties != nullptr) {
    announce(path, properties);
  } else if (find_announced(path) == nullptr) {
    log_left_out(path, "it has no interface " RECEIVER_PRODUCER_INTERFACE);
  }
}

/* An object without the producer interface is not a producer. */
void
on_object_removed(const gchar *path, const gchar *const *interfaces)
{
  Announced *entry = find_announced(path);

  if (entry != nullptr && g_strv_contains(interfaces, RECEIVER_PRODUCER_INTERFACE)) {
    remove_entry(entry);
  }
}

/* The properties do not change during the conversion. */
void
on_object_changed(const gchar *path, GVariant *changed, const gchar *const *invalidated)
{
  const Announced *entry = find_announced(path);

  if (entry != nullptr && entry->state != ObjectState::CONVERTING) {
    producer_properties_change(entry->properties, changed, invalidated);
  }
}

constexpr ReceiverWatchFuncs WATCH_FUNCS = {
    .on_interfaces_added = on_object_added,
    .on_interfaces_removed = on_object_removed,
    .on_objects_cut = note_full_table,
    .on_properties_changed = on_object_changed,
    .on_vanished = remove_all_entries,
};

void
on_bus_connected(GDBusConnection *connected)
{
  set_connection(connected);
  receiver_watch_start(connected, &WATCH_FUNCS);
}

constexpr ReceiverBusFuncs BUS_FUNCS = {
    .on_connected = on_bus_connected,
    .on_closed = leave_receiver,
};

} // namespace

/**
 * dbus_client_init:
 * @list: (transfer none): the daemon's producers; must exist until dbus_client_teardown()
 *
 * Adds the producers that the metadata receiver announces to the list, and removes each one when the receiver
 * removes it or the connection to the system bus closes. Does not wait for the bus or the receiver, and
 * repeats failed attempts. Must not be called again before dbus_client_teardown().
 *
 * Warnings: "Failed to connect to metadata-receiver over DBus: %s", for each failed attempt to reach the bus
 * or to get the receiver's objects; for one producer each, "on_get_sample_frame failed: %s", "failed to fetch
 * sample frame", "failed to convert sample frame from: %s" and "left out producer object %s: %s"
 */
void
dbus_client_init(AnalyticsProducerList *list)
{
  g_return_if_fail(list != NULL);
  g_return_if_fail(dbus_client.producers == NULL);

  dbus_client.producers = list;
  dbus_client.entries = g_hash_table_new_full(g_str_hash, g_str_equal, nullptr, free_announced);
  receiver_bus_connect(&BUS_FUNCS);
}

/**
 * dbus_client_connect_producer:
 * @producer_name: (transfer none): the producer's name
 * @source_name: (transfer none): the name that is passed to @on_fd
 * @channel: the video channel, from 1
 * @cancellable: (transfer none) (nullable): ends the request
 * @on_fd: takes the descriptor
 * @user_data: for @on_fd
 * @user_data_free: (nullable): releases @user_data
 *
 * Requests a stream of one producer, see receiver_stream_request(). The caller can hold the list's lock.
 *
 * Warnings: "tried to find a dbus object for producer which did not exist"; later "Failed to parse fd from
 * variant: %s\n", whereupon @on_fd gets -1. Infos: "handle_get_stream_fd failed: %s"
 *
 * Returns: whether the request was made; if not, nothing is called and the caller keeps @user_data
 */
gboolean
dbus_client_connect_producer(const gchar *producer_name, const gchar *source_name, gint channel,
                             GCancellable *cancellable, DbusClientFdFunc on_fd, gpointer user_data,
                             GDestroyNotify user_data_free)
{
  g_return_val_if_fail(producer_name != NULL, FALSE);
  g_return_val_if_fail(source_name != NULL, FALSE);
  g_return_val_if_fail(on_fd != NULL, FALSE);

  g_autofree gchar *path = g_strdup_printf("%s/%s", RECEIVER_PRODUCERS_PATH, producer_name);
  g_autoptr(GDBusConnection) found = find_connection(path);
  if (found == nullptr) {
    syslog(LOG_WARNING, "tried to find a dbus object for producer which did not exist");
    return FALSE;
  }
  const ReceiverStreamRequest request = {
      .connection = found,
      .path = path,
      .channel = channel,
      .source_name = source_name,
      .cancellable = cancellable,
      .on_fd = on_fd,
  };
  receiver_stream_request(&request, user_data, user_data_free);
  return TRUE;
}

/**
 * dbus_client_teardown:
 *
 * Undoes dbus_client_init(): removes the external producers from the list and stops watching the receiver.
 * Earlier requests for streams still get their replies.
 */
void
dbus_client_teardown(void)
{
  if (dbus_client.producers == nullptr) {
    return;
  }
  leave_receiver();
  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&dbus_client.lock);
    g_clear_pointer(&dbus_client.entries, g_hash_table_unref);
  }
  dbus_client.producers = nullptr;
}
