/* The external producers: the client lists what the platform's metadata receiver announces on the bus, and
 * fetches the streams of the producers from it.
 *
 * The way of an object. It is announced (WAITING), asked for its sample frame when it is its turn (ASKED),
 * its reply is converted (CONVERTING), and its producer is listed (LISTED). It can be left out on the way,
 * with one line in the log, and stays so (LEFT_OUT); or because the sample frames of all producers together
 * would be too long (NO_ROOM), and is then asked again when another one goes. Everything that is announced
 * has the wrong type or length until it is checked.
 *
 * An object has one entry in a table, from its announcement until it is withdrawn. What is under way for an
 * entry is cancelled when the entry goes, so that no callback meets an entry that is no more. The entry
 * remembers the name under which its producer was listed: an object whose producer was refused takes nobody
 * else's with it when it goes.
 *
 * Only DBUS_CLIENT_MAX_PRODUCERS objects at a time are asked, converted or listed. The other ones wait, in
 * their order. Objects beyond DBUS_CLIENT_MAX_OBJECTS are not remembered; when others have gone, the receiver
 * is asked for all of them again. Of its answer only a part is looked at, which is no shorter, so that it has
 * an object that is not known wherever there is room for one.
 *
 * Threads. The main thread does everything but one thing: request threads look an object up, when they ask
 * for its stream. The lock guards the table and the connection for that; the main thread, which alone changes
 * them, reads them without it. Request threads may hold the list's lock meanwhile, so the main thread never
 * holds this lock when it uses the list.
 */
#include "dbusclient.h"

#include "descriptorreserve.h"
#include "logtext.h"
#include "producerproperties.h"
#include "ratelimitedlog.h"
#include "receivercalls.h"
#include "receiverwatch.h"
#include "sampleframequeue.h"
#include "systembus.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <syslog.h>
#include <utility>

namespace
{

static_assert(RECEIVER_WATCH_MAX_OBJECTS >= DBUS_CLIENT_MAX_OBJECTS);

constexpr guint SAMPLE_FRAME_CALL_TIMEOUT_MS = 10000;
constexpr guint STREAM_CALL_TIMEOUT_MS = 25000; /* GDBus' default */

/* Of an object that is named like its producer. */
constexpr gsize MAX_PATH_BYTES = sizeof(RECEIVER_PRODUCERS_PATH "/") - 1 + PRODUCER_PROPERTIES_MAX_NAME_BYTES;

/* For each object there may be one of these lines, and the receiver has as many objects as it wants. */
RateLimitedLog left_out_log =
    RATE_LIMITED_LOG_INIT_BURST(RATE_LIMITED_LOG_INTERVAL_US, RATE_LIMITED_LOG_BURST);
RateLimitedLog missed_log = RATE_LIMITED_LOG_INIT(RATE_LIMITED_LOG_INTERVAL_US);

enum class State { WAITING, ASKED, CONVERTING, LISTED, LEFT_OUT, NO_ROOM };

/* An object that the receiver announces. */
struct Announced {
  gchar *path = nullptr;
  ProducerProperties *properties = nullptr;
  State state = State::LEFT_OUT;
  GCancellable *cancellable = nullptr;         /* of its call, in ASKED */
  SampleFrameConversion *conversion = nullptr; /* in CONVERTING */
  gchar *listed_name = nullptr;                /* in LISTED */
  gsize xml_bytes = 0;                         /* in LISTED */

  Announced() = default;
  ~Announced();
  Announced(const Announced &) = delete;
  Announced &operator=(const Announced &) = delete;
};

/* A stream that somebody asks for. */
struct StreamRequest {
  GDBusConnection *connection = nullptr;
  gchar *path = nullptr;
  gint channel = 0;
  GCancellable *cancellable = nullptr;
  gchar *source_name = nullptr;
  DbusClientFdFunc on_fd = nullptr;
  gpointer user_data = nullptr;
  GDestroyNotify user_data_free = nullptr;

  StreamRequest() = default;
  ~StreamRequest();
  StreamRequest(const StreamRequest &) = delete;
  StreamRequest &operator=(const StreamRequest &) = delete;
};

AnalyticsProducerList *producers;  /* borrowed; NULL before the start and after the end */
DescriptorReservation *connecting; /* of the attempt to reach the bus that is under way, or NULL */
guint connect_id;                  /* the time-out before that, or 0 */
guint retry_s;
gulong closed_id;

GMutex lock;
GDBusConnection *connection;
GHashTable *entries; /* of Announced by path */

GQueue waiting = G_QUEUE_INIT; /* of Announced, in the state WAITING */
guint taken_up;                /* how many are asked, converted or listed */
gsize xml_bytes_in_all;        /* of those that are listed */
gboolean missed;               /* objects that were one too many */

Announced::~Announced()
{
  g_free(path);
  g_clear_pointer(&properties, producer_properties_free);
  g_clear_object(&cancellable);
  g_free(listed_name);
}

StreamRequest::~StreamRequest()
{
  if (user_data_free != nullptr) {
    user_data_free(user_data);
  }
  g_free(source_name);
  g_clear_object(&cancellable);
  g_free(path);
  g_clear_object(&connection);
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
find(const gchar *path)
{
  return static_cast<Announced *>(g_hash_table_lookup(entries, path));
}

gboolean
is_taken_up(State state)
{
  return state == State::ASKED || state == State::CONVERTING || state == State::LISTED;
}

void ask_next();

/* Counts who is taken up. */
void
set_state(Announced *entry, State state)
{
  taken_up += is_taken_up(state) ? 1 : 0;
  taken_up -= is_taken_up(entry->state) ? 1 : 0;
  entry->state = state;
}

void
leave_out(Announced *entry)
{
  set_state(entry, State::LEFT_OUT);
  ask_next();
}

void
let_wait(Announced *entry)
{
  set_state(entry, State::WAITING);
  g_queue_push_tail(&waiting, entry);
}

/* Takes the sample frame out of the reply, unless it holds none. Whether an empty one is any good is the
 * converter's to say. */
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
  return xml_bytes_in_all + xml_bytes <= DBUS_CLIENT_MAX_XML_BYTES_IN_ALL;
}

void
log_failed_conversion(const Announced *entry)
{
  syslog(LOG_WARNING, "failed to convert sample frame from: %s",
         producer_properties_get_name(entry->properties));
}

/* On the bus, where every byte that is no UTF-8 text is replaced by three. */
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

  if (!analytics_producer_list_add(producers, producer)) {
    leave_out(entry);
    return;
  }
  set_state(entry, State::LISTED);
  entry->listed_name = g_strdup(name);
  entry->xml_bytes = xml_bytes;
  xml_bytes_in_all += entry->xml_bytes;
}

void
on_converted(const gchar *xml, gpointer user_data)
{
  auto *entry = static_cast<Announced *>(user_data);
  const gsize xml_bytes = xml != nullptr ? count_bytes_on_bus(xml) : 0;

  entry->conversion = nullptr;
  if (xml == nullptr || xml_bytes > DBUS_CLIENT_MAX_XML_BYTES) {
    log_failed_conversion(entry);
    leave_out(entry);
  } else if (!is_room_for(xml_bytes)) {
    log_failed_conversion(entry);
    set_state(entry, State::NO_ROOM);
    ask_next();
  } else {
    list_producer(entry, xml, xml_bytes);
  }
}

/* Takes the sample frame of an object that can be a producer to its conversion. */
void
take_reply(Announced *entry, GVariant *reply)
{
  g_autofree gchar *json = nullptr;
  const gchar *problem = producer_properties_get_problem(entry->properties);

  if (problem != nullptr) {
    log_left_out(entry->path, problem);
    leave_out(entry);
  } else if (!take_sample_frame(reply, &json)) {
    syslog(LOG_WARNING, "failed to fetch sample frame");
    leave_out(entry);
  } else if (strlen(json) > DBUS_CLIENT_MAX_SAMPLE_FRAME_BYTES) {
    log_left_out(entry->path, "its sample frame is too long");
    leave_out(entry);
  } else {
    set_state(entry, State::CONVERTING);
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
    leave_out(entry);
    return;
  }
  take_reply(entry, reply);
}

void
ask(Announced *entry)
{
  set_state(entry, State::ASKED);
  entry->cancellable = g_cancellable_new();

  const ReceiverCall call = {
      .connection = connection,
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
ask_next()
{
  while (taken_up < DBUS_CLIENT_MAX_PRODUCERS && !g_queue_is_empty(&waiting)) {
    ask(static_cast<Announced *>(g_queue_pop_head(&waiting)));
  }
}

Announced *
add_entry(const gchar *path, GVariant *properties)
{
  auto *entry = new Announced;
  entry->path = g_strdup(path);
  entry->properties = producer_properties_new(properties);

  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);
  g_hash_table_insert(entries, entry->path, entry);
  return entry;
}

/* The objects that are one too many are told of when they begin to be. */
void
note_missed(const gchar *path)
{
  if (!missed) {
    log_left_out(path, "there are too many", &missed_log);
  }
  missed = TRUE;
}

void
announce(const gchar *path, GVariant *properties)
{
  Announced *known = find(path);
  if (known != nullptr) {
    if (known->state != State::CONVERTING) {
      g_clear_pointer(&known->properties, producer_properties_free);
      known->properties = producer_properties_new(properties);
    }
    return;
  }
  if (g_hash_table_size(entries) >= DBUS_CLIENT_MAX_OBJECTS) {
    note_missed(path);
    return;
  }
  if (taken_up >= DBUS_CLIENT_MAX_PRODUCERS) {
    log_left_out(path, "there are too many");
  }
  let_wait(add_entry(path, properties));
  ask_next();
}

/* Takes back what an entry has led to until now. */
void
undo(Announced *entry)
{
  switch (entry->state) {
  case State::WAITING:
    g_queue_remove(&waiting, entry);
    break;
  case State::ASKED:
    g_cancellable_cancel(entry->cancellable);
    break;
  case State::CONVERTING:
    sample_frame_queue_cancel(entry->conversion);
    break;
  case State::LISTED:
    xml_bytes_in_all -= entry->xml_bytes;
    if (analytics_producer_list_contains(producers, entry->listed_name)) {
      analytics_producer_list_remove(producers, entry->listed_name);
    }
    break;
  default:
    break;
  }
  set_state(entry, State::LEFT_OUT);
}

void
let_wait_again(gpointer, gpointer value, gpointer)
{
  auto *entry = static_cast<Announced *>(value);

  if (entry->state == State::NO_ROOM) {
    let_wait(entry);
  }
}

/* What is free now goes to those that had no place. */
void
fill_up(gboolean has_more_room)
{
  if (has_more_room) {
    g_hash_table_foreach(entries, let_wait_again, nullptr);
  }
  ask_next();
  if (missed && g_hash_table_size(entries) < DBUS_CLIENT_MAX_OBJECTS) {
    missed = FALSE;
    receiver_watch_ask_again();
  }
}

void
withdraw(Announced *entry)
{
  const gboolean was_listed = entry->state == State::LISTED;

  undo(entry);
  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);
    g_hash_table_remove(entries, entry->path);
  }
  fill_up(was_listed);
}

void
withdraw_all()
{
  GHashTableIter iter;
  gpointer entry = nullptr;

  g_hash_table_iter_init(&iter, entries);
  while (g_hash_table_iter_next(&iter, nullptr, &entry)) {
    undo(static_cast<Announced *>(entry));
  }
  missed = FALSE;
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);
  g_hash_table_remove_all(entries);
}

void
set_connection(GDBusConnection *new_connection)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);

  g_set_object(&connection, new_connection);
}

/* Nothing is announced any more, and nothing keeps the connection. */
void
leave_bus()
{
  receiver_watch_stop();
  withdraw_all();
  if (connection != nullptr) {
    g_signal_handler_disconnect(connection, std::exchange(closed_id, 0));
  }
  set_connection(nullptr);
}

/* Returns the descriptor, for the caller to close, or -1. GLib itself does not always say what is wrong. */
gint
take_fd(GVariant *reply, GUnixFDList *fds)
{
  g_autoptr(GError) error = nullptr;
  gint32 index = -1;
  gint fd = -1;

  if (g_variant_is_of_type(reply, G_VARIANT_TYPE("(h)"))) {
    g_variant_get(reply, "(h)", &index);
  }
  if (fds != nullptr && index >= 0 && index < g_unix_fd_list_get_length(fds)) {
    fd = g_unix_fd_list_get(fds, index, &error);
  }
  if (fd < 0) {
    /* docs/compatibility.md, "line feed in a line". */
    syslog(LOG_WARNING, "Failed to parse fd from variant: %s\n",
           error != nullptr ? error->message : "the reply holds no such descriptor");
  }
  return fd;
}

void
on_stream_fd(GVariant *reply, GUnixFDList *fds, const GError *error, gpointer user_data)
{
  auto *request = static_cast<StreamRequest *>(user_data);

  if (reply == nullptr) {
    g_autofree gchar *message = log_text_clip(error->message);
    syslog(LOG_INFO, "handle_get_stream_fd failed: %s", message);
    return;
  }
  request->on_fd(take_fd(reply, fds), request->source_name, request->user_data);
}

void
free_stream_request(gpointer request)
{
  delete static_cast<StreamRequest *>(request);
}

gboolean
on_stream_request(gpointer user_data)
{
  auto *request = static_cast<StreamRequest *>(user_data);
  const ReceiverCall call = {
      .connection = request->connection,
      .path = request->path,
      .method = "GetStreamFd",
      .parameters = g_variant_new("(i)", request->channel),
      .descriptors = 1,
      .timeout_ms = STREAM_CALL_TIMEOUT_MS,
      .cancellable = request->cancellable,
  };

  receiver_call(&call, on_stream_fd, request, free_stream_request);
  return G_SOURCE_REMOVE;
}

/* The connection on which the object is announced, or NULL. Any thread. */
GDBusConnection *
find_connection(const gchar *path)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);

  return connection != nullptr && g_hash_table_contains(entries, path)
             ? G_DBUS_CONNECTION(g_object_ref(connection))
             : nullptr;
}

} // namespace

static void
on_interfaces_added(const gchar *path, GVariant *interfaces)
{
  g_autoptr(GVariant) properties =
      g_variant_lookup_value(interfaces, RECEIVER_PRODUCER_INTERFACE, G_VARIANT_TYPE_VARDICT);

  if (!g_str_has_prefix(path, RECEIVER_PRODUCERS_PATH "/")) {
    log_left_out(path, "it is not below " RECEIVER_PRODUCERS_PATH);
  } else if (strlen(path) > MAX_PATH_BYTES) {
    log_left_out(path, "its path is too long");
  } else if (properties != nullptr) {
    announce(path, properties);
  } else if (find(path) == nullptr) {
    log_left_out(path, "it has no interface " RECEIVER_PRODUCER_INTERFACE);
  }
}

/* Without its interface an object is no producer, whatever else it has. */
static void
on_interfaces_removed(const gchar *path, const gchar *const *interfaces)
{
  Announced *entry = find(path);

  if (entry != nullptr && g_strv_contains(interfaces, RECEIVER_PRODUCER_INTERFACE)) {
    withdraw(entry);
  }
}

/* A conversion goes on with the properties that it began with. */
static void
on_properties_changed(const gchar *path, GVariant *changed, const gchar *const *invalidated)
{
  const Announced *entry = find(path);

  if (entry != nullptr && entry->state != State::CONVERTING) {
    producer_properties_change(entry->properties, changed, invalidated);
  }
}

static const ReceiverWatchFuncs WATCH_FUNCS = {
    .on_interfaces_added = on_interfaces_added,
    .on_interfaces_removed = on_interfaces_removed,
    .on_objects_cut = note_missed,
    .on_properties_changed = on_properties_changed,
    .on_vanished = withdraw_all,
};

/* GLib gives a connection out for as long as somebody has it, also a dead one, and then nobody else's
 * question would reach a bus that comes back. So the client lets go of it, for good. */
static void
on_connection_closed(GDBusConnection *, gboolean, GError *, gpointer)
{
  leave_bus();
}

static void connect_to_bus();

static gboolean
on_time_to_connect(gpointer)
{
  connect_id = 0;
  connect_to_bus();
  return G_SOURCE_REMOVE;
}

static void
connect_later(const GError *error)
{
  receiver_watch_log_failure(error);
  connect_id = g_timeout_add_seconds(retry_s, on_time_to_connect, nullptr);
  retry_s = std::min<guint>(2 * retry_s, RECEIVER_WATCH_LAST_RETRY_S);
}

static void
on_connected(GObject *, GAsyncResult *result, gpointer user_data)
{
  g_autoptr(DescriptorReservation) attempt = static_cast<DescriptorReservation *>(user_data);
  g_autoptr(GError) error = nullptr;
  g_autoptr(GDBusConnection) connected = g_bus_get_finish(result, &error);

  if (connected != nullptr) {
    system_bus_prepare(connected);
  }
  if (attempt != connecting) {
    return;
  }
  connecting = nullptr;
  if (connected != nullptr && g_dbus_connection_is_closed(connected)) {
    g_set_error_literal(&error, G_IO_ERROR, G_IO_ERROR_CLOSED, "The connection is closed");
  }
  if (error != nullptr) {
    connect_later(error);
    return;
  }
  closed_id = g_signal_connect(connected, "closed", G_CALLBACK(on_connection_closed), nullptr);
  set_connection(connected);
  receiver_watch_start(connected, &WATCH_FUNCS);
}

/* The attempt cannot be cancelled: it is everybody's who asks for the shared connection meanwhile. */
static void
connect_to_bus()
{
  g_autoptr(GError) error = nullptr;

  connecting = descriptor_reservation_new(SYSTEM_BUS_CALL_DESCRIPTORS, &error);
  if (connecting == nullptr) {
    connect_later(error);
    return;
  }
  g_bus_get(G_BUS_TYPE_SYSTEM, nullptr, on_connected, connecting);
}

/**
 * dbus_client_init:
 * @list: (transfer none): the daemon's producers; lives until dbus_client_teardown()
 *
 * Lists the producers that the platform's metadata receiver announces from now on, as long as it announces
 * them, and as long as the connection to the system bus lasts. Nothing waits for the bus or the receiver
 * here; while one of them fails, it is asked again. Main thread; once until dbus_client_teardown().
 *
 * Warnings: "Failed to connect to metadata-receiver over DBus: %s", for each failure of the bus or of the
 * receiver to tell what there is; of one producer each, "on_get_sample_frame failed: %s", "failed to fetch
 * sample frame", "failed to convert sample frame from: %s" and "left out producer object %s: %s"
 */
void
dbus_client_init(AnalyticsProducerList *list)
{
  g_return_if_fail(list != NULL);
  g_return_if_fail(producers == NULL);

  producers = list;
  retry_s = RECEIVER_WATCH_FIRST_RETRY_S;
  entries = g_hash_table_new_full(g_str_hash, g_str_equal, nullptr, free_announced);
  connect_to_bus();
}

/**
 * dbus_client_connect_producer:
 * @producer_name: (transfer none): the producer's name
 * @source_name: (transfer none): what to give to @on_fd
 * @channel: the video channel, from 1
 * @cancellable: (transfer none) (nullable): ends the request when the stream is not wanted any more
 * @on_fd: takes the descriptor
 * @user_data: for @on_fd
 * @user_data_free: (nullable): releases @user_data
 *
 * Asks the receiver for a stream of one producer, as soon as it is its turn and a descriptor can be reserved
 * for it. The reply is handled in the main thread: @on_fd is called unless the call failed or was cancelled,
 * and @user_data_free after it in any case. Any thread, also with the list's lock held.
 *
 * Warnings: "tried to find a dbus object for producer which did not exist"; later "Failed to parse fd from
 * variant: %s\n", whereupon @on_fd gets -1. Infos: "handle_get_stream_fd failed: %s"
 *
 * Returns: whether the request was made; if not, nothing is called and @user_data stays the caller's
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
  auto *request = new StreamRequest;
  request->connection = g_steal_pointer(&found);
  request->path = g_steal_pointer(&path);
  request->channel = channel;
  request->cancellable = cancellable != nullptr ? G_CANCELLABLE(g_object_ref(cancellable)) : nullptr;
  request->source_name = g_strdup(source_name);
  request->on_fd = on_fd;
  request->user_data = user_data;
  request->user_data_free = user_data_free;
  g_idle_add_full(G_PRIORITY_DEFAULT, on_stream_request, request, nullptr);
  return TRUE;
}

/**
 * dbus_client_teardown:
 *
 * Undoes dbus_client_init(): the external producers leave the list, and nothing is asked any more. Streams
 * that are asked for already still get their replies. Main thread.
 */
void
dbus_client_teardown(void)
{
  if (producers == nullptr) {
    return;
  }
  g_clear_handle_id(&connect_id, g_source_remove);
  connecting = nullptr; /* what is under way frees itself */
  leave_bus();
  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);
    g_clear_pointer(&entries, g_hash_table_unref);
  }
  producers = nullptr;
}
