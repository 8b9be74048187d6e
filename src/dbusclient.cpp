/* The external producers: what the platform's metadata receiver announces on the bus is put into the list of
 * producers, and their streams are fetched from it.
 *
 * An announced object is asked for its sample frame; what it answers is converted, and only then is its
 * producer listed. Every step of the way back looks whether the very same object is still there, because one
 * that goes meanwhile must not be listed, and one that comes back under its path is another. Whose producer
 * is listed is remembered by object: an object whose producer was refused takes nobody else's with it when it
 * goes. What is announced is nothing to rely on: every type and every length is checked, and an object that
 * has anything wrong costs one line in the log.
 *
 * All of this is the main thread's, with two exceptions. A conversion may wait for as long as the converter
 * has, so it has a thread of its own: that owns the candidate until it hands it back to the main loop, and
 * touches nothing else. And request threads ask for streams: they take a reference to the object manager,
 * under the one lock here, which is held for that alone. They may hold the list's lock meanwhile; no signal
 * of the object manager is emitted under a lock.
 */
#include "dbusclient.h"

#include "receiverfilter.h"
#include "sampleframe.h"
#include "systembus.h"

#include <cstring>
#include <gio/gunixfdlist.h>
#include <memory>
#include <syslog.h>
#include <utility>

namespace
{

constexpr const char *RECEIVER_NAME = "com.quon.MetadataReceiver1";
constexpr const char *PRODUCERS_PATH = "/com/quon/MetadataReceiver1/Producers";
constexpr const char *PRODUCER_INTERFACE = "com.quon.MetadataReceiver1.Producer";
constexpr gint SAMPLE_FRAME_CALL_TIMEOUT_MS = 10000;
constexpr gint DEFAULT_TIMEOUT = -1;

constexpr const char *NAME_CHARACTERS = G_CSET_A_2_Z G_CSET_a_2_z G_CSET_DIGITS "_";

/* A property that is a text, how long it may be, and what is said of one that cannot be used. */
struct TextProperty {
  const gchar *name;
  gsize max_bytes;
  const gchar *missing;
  const gchar *too_long;
};

constexpr TextProperty NAME = {"Name", DBUS_CLIENT_MAX_NAME_BYTES, "it has no property Name of type s",
                               "its name is too long"};
constexpr TextProperty NICE_NAME = {"NiceName", DBUS_CLIENT_MAX_NICE_NAME_BYTES,
                                    "it has no property NiceName of type s", "its nice name is too long"};

/* An object that the receiver announces, or did. */
struct Announced {
  GDBusObject *object;
  gchar *listed_name; /* NULL as long as no producer of this object is listed */
};

/* A producer on its way into the list. */
struct Candidate {
  Announced *announced = nullptr;
  gchar *name = nullptr;
  gchar *nice_name = nullptr;
  GArray *channels = nullptr;
  gchar *json = nullptr;
  gchar *xml = nullptr;

  Candidate() = default;
  ~Candidate();
  Candidate(const Candidate &) = delete;
  Candidate &operator=(const Candidate &) = delete;
};

/* A stream that somebody asked for. */
struct StreamRequest {
  gchar *source_name = nullptr;
  DbusClientFdFunc on_fd = nullptr;
  GDestroyNotify user_data_free = nullptr;
  gpointer user_data = nullptr;

  StreamRequest() = default;
  ~StreamRequest();
  StreamRequest(const StreamRequest &) = delete;
  StreamRequest &operator=(const StreamRequest &) = delete;
};

GMutex manager_lock;
GDBusObjectManager *manager; /* written by the main thread alone, under the lock */

AnalyticsProducerList *producers; /* borrowed */
guint filter_id;                  /* on the manager's connection */
GHashTable *entries;              /* of Announced by path */
GQueue waiting = G_QUEUE_INIT;    /* of Candidate, for a conversion */
guint conversions;                /* that run */

void
clear_announced(gpointer data)
{
  auto *entry = static_cast<Announced *>(data);

  g_object_unref(entry->object);
  g_free(entry->listed_name);
}

void
release_announced(gpointer entry)
{
  g_rc_box_release_full(entry, clear_announced);
}

Announced *
acquire_announced(Announced *entry)
{
  return static_cast<Announced *>(g_rc_box_acquire(entry));
}

Candidate::~Candidate()
{
  release_announced(announced);
  g_free(name);
  g_free(nice_name);
  g_clear_pointer(&channels, g_array_unref);
  g_free(json);
  g_free(xml);
}

StreamRequest::~StreamRequest()
{
  if (user_data_free != nullptr) {
    user_data_free(user_data);
  }
  g_free(source_name);
}

/* What others wrote, at a length that suits a line of the log. */
gchar *
clip(const gchar *text)
{
  const gsize length = strlen(text);
  if (length <= DBUS_CLIENT_MAX_LOGGED_BYTES) {
    return g_strndup(text, length);
  }
  const gchar *end = g_utf8_find_prev_char(text, text + DBUS_CLIENT_MAX_LOGGED_BYTES + 1);

  return g_strdup_printf("%.*s...", static_cast<int>(end - text), text);
}

void
log_left_out(const gchar *path, const gchar *reason)
{
  g_autofree gchar *clipped = clip(path);

  syslog(LOG_WARNING, "left out producer object %s: %s", clipped, reason);
}

const gchar *
path_of(const Announced *entry)
{
  return g_dbus_object_get_object_path(entry->object);
}

/* NULL when the object has none. */
GDBusProxy *
get_proxy(GDBusObject *object)
{
  GDBusInterface *interface = g_dbus_object_get_interface(object, PRODUCER_INTERFACE);

  return interface != nullptr ? G_DBUS_PROXY(interface) : nullptr;
}

/* The proxy of an object that is still announced, with the interface, or NULL. The object tells, not the
 * proxy: GLib makes another of those when it is told of an object twice, as it is of one that comes while it
 * asks for all. */
GDBusProxy *
get_current_proxy(const Announced *entry)
{
  return g_hash_table_lookup(entries, path_of(entry)) == entry ? get_proxy(entry->object) : nullptr;
}

/* One whose producer will not be listed counts no more. */
void
forget(const Announced *entry)
{
  if (g_hash_table_lookup(entries, path_of(entry)) == entry) {
    g_hash_table_remove(entries, path_of(entry));
  }
}

gboolean
is_path_element(const gchar *name)
{
  return *name != '\0' && name[strspn(name, NAME_CHARACTERS)] == '\0';
}

/* A property as it was announced last, or NULL when there is none of this type. */
GVariant *
get_property(GDBusProxy *proxy, const gchar *name, const gchar *type)
{
  g_autoptr(GVariant) value = g_dbus_proxy_get_cached_property(proxy, name);

  return value != nullptr && g_variant_is_of_type(value, G_VARIANT_TYPE(type)) ? g_steal_pointer(&value)
                                                                               : nullptr;
}

/* This and the next two take a property over, unless it cannot be used: then they tell why. */
const gchar *
take_text(GDBusProxy *proxy, const TextProperty &property, gchar **text)
{
  g_autoptr(GVariant) value = get_property(proxy, property.name, "s");

  if (value == nullptr) {
    return property.missing;
  }
  if (strlen(g_variant_get_string(value, nullptr)) > property.max_bytes) {
    return property.too_long;
  }
  *text = g_variant_dup_string(value, nullptr);
  return nullptr;
}

const gchar *
take_name(GDBusProxy *proxy, gchar **name)
{
  const gchar *problem = take_text(proxy, NAME, name);

  if (problem == nullptr && !is_path_element(*name)) {
    return "its name cannot end an object's path";
  }
  return problem;
}

const gchar *
take_channels(GDBusProxy *proxy, GArray **channels)
{
  g_autoptr(GVariant) value = get_property(proxy, "SupportedChannels", "au");
  GVariantIter iter;
  guint32 channel = 0;

  if (value == nullptr) {
    return "it has no property SupportedChannels of type au";
  }
  if (g_variant_n_children(value) > DBUS_CLIENT_MAX_CHANNELS) {
    return "it supports too many channels";
  }
  *channels = g_array_new(FALSE, FALSE, sizeof channel);
  g_variant_iter_init(&iter, value);
  while (g_variant_iter_next(&iter, "u", &channel)) {
    g_array_append_val(*channels, channel);
  }
  return nullptr;
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

/* Takes all properties over, or tells why it cannot. */
const gchar *
take_properties(GDBusProxy *proxy, Candidate *candidate)
{
  const gchar *problem = take_name(proxy, &candidate->name);

  if (problem == nullptr) {
    problem = take_text(proxy, NICE_NAME, &candidate->nice_name);
  }
  if (problem == nullptr) {
    problem = take_channels(proxy, &candidate->channels);
  }
  return problem;
}

/* What the producer of this object will be, or NULL when it cannot be one. */
Candidate *
make_candidate(Announced *entry, GDBusProxy *proxy, GVariant *reply)
{
  auto candidate = std::make_unique<Candidate>();
  candidate->announced = acquire_announced(entry);

  const gchar *problem = take_properties(proxy, candidate.get());
  if (problem != nullptr) {
    log_left_out(path_of(entry), problem);
    return nullptr;
  }
  if (!take_sample_frame(reply, &candidate->json)) {
    syslog(LOG_WARNING, "failed to fetch sample frame");
    return nullptr;
  }
  if (strlen(candidate->json) > DBUS_CLIENT_MAX_SAMPLE_FRAME_BYTES) {
    log_left_out(path_of(entry), "its sample frame is too long");
    return nullptr;
  }
  return candidate.release();
}

void
list_producer(const Candidate *candidate)
{
  g_autoptr(AnalyticsProducer) producer =
      analytics_producer_new(candidate->name, candidate->nice_name, candidate->xml, candidate->channels,
                             ANALYTICS_PRODUCER_EXTERNAL);

  if (analytics_producer_list_add(producers, producer)) {
    candidate->announced->listed_name = g_strdup(candidate->name);
  } else {
    forget(candidate->announced);
  }
}

void
finish_candidate(const Candidate *candidate)
{
  g_autoptr(GDBusProxy) proxy = get_current_proxy(candidate->announced);
  if (proxy == nullptr) {
    return;
  }
  if (candidate->xml == nullptr) {
    syslog(LOG_WARNING, "failed to convert sample frame from: %s", candidate->name);
    forget(candidate->announced);
    return;
  }
  list_producer(candidate);
}

void start_conversions();

} // namespace

/* Back in the main thread. */
static gboolean
on_converted(gpointer user_data)
{
  const std::unique_ptr<Candidate> candidate(static_cast<Candidate *>(user_data));

  conversions--;
  finish_candidate(candidate.get());
  start_conversions();
  return G_SOURCE_REMOVE;
}

namespace
{

/* The thread of one conversion. */
gpointer
convert(gpointer user_data)
{
  auto *candidate = static_cast<Candidate *>(user_data);

  candidate->xml = sample_frame_convert(&candidate->json, candidate->name);
  g_idle_add_full(G_PRIORITY_DEFAULT, on_converted, candidate, nullptr);
  return nullptr;
}

/* Without a thread there is no conversion. */
void
start_conversion(Candidate *candidate)
{
  GThread *thread = g_thread_try_new("sample-frame", convert, candidate, nullptr);
  if (thread == nullptr) {
    finish_candidate(candidate);
    delete candidate;
    return;
  }
  g_thread_unref(thread);
  conversions++;
}

void
start_conversions()
{
  while (conversions < DBUS_CLIENT_MAX_CONVERSIONS && !g_queue_is_empty(&waiting)) {
    start_conversion(static_cast<Candidate *>(g_queue_pop_head(&waiting)));
  }
}

void
drop_waiting(const Announced *entry)
{
  for (GList *link = waiting.head; link != nullptr; link = link->next) {
    auto *candidate = static_cast<Candidate *>(link->data);
    if (candidate->announced == entry) {
      g_queue_delete_link(&waiting, link);
      delete candidate;
      return;
    }
  }
}

/* Goes on with what an object answered, unless it is gone. */
void
take_reply(Announced *entry, GVariant *reply)
{
  g_autoptr(GDBusProxy) proxy = get_current_proxy(entry);
  if (proxy == nullptr) {
    return;
  }
  Candidate *candidate = make_candidate(entry, proxy, reply);
  if (candidate == nullptr) {
    forget(entry);
    return;
  }
  g_queue_push_tail(&waiting, candidate);
  start_conversions();
}

} // namespace

static void
on_sample_frame(GObject *proxy, GAsyncResult *result, gpointer user_data)
{
  auto *entry = static_cast<Announced *>(user_data);
  g_autoptr(GError) error = nullptr;
  g_autoptr(GVariant) reply = g_dbus_proxy_call_finish(G_DBUS_PROXY(proxy), result, &error);

  if (reply != nullptr) {
    take_reply(entry, reply);
  } else {
    g_autofree gchar *message = clip(error->message);
    syslog(LOG_WARNING, "on_get_sample_frame failed: %s", message);
    forget(entry);
  }
  release_announced(entry);
}

namespace
{

void
request_sample_frame(GDBusObject *object)
{
  const gchar *path = g_dbus_object_get_object_path(object);
  g_autoptr(GDBusProxy) proxy = get_proxy(object);

  if (proxy == nullptr) {
    log_left_out(path, "it has no interface com.quon.MetadataReceiver1.Producer");
    return;
  }
  if (g_hash_table_size(entries) >= DBUS_CLIENT_MAX_PRODUCERS) {
    log_left_out(path, "there are too many");
    return;
  }
  auto *entry = g_rc_box_new0(Announced);
  entry->object = G_DBUS_OBJECT(g_object_ref(object));
  g_hash_table_insert(entries, const_cast<gchar *>(path), entry);
  g_dbus_proxy_call(proxy, "GetSampleFrame", nullptr, G_DBUS_CALL_FLAGS_NONE, SAMPLE_FRAME_CALL_TIMEOUT_MS,
                    nullptr, on_sample_frame, acquire_announced(entry));
}

/* Takes its producer out of the list, if it is the one that put it there. */
void
withdraw(const Announced *entry)
{
  drop_waiting(entry);
  if (entry->listed_name != nullptr && analytics_producer_list_contains(producers, entry->listed_name)) {
    analytics_producer_list_remove(producers, entry->listed_name);
  }
}

gboolean
withdraw_entry(gpointer, gpointer entry, gpointer)
{
  withdraw(static_cast<Announced *>(entry));
  return TRUE;
}

void
set_manager(GDBusObjectManager *new_manager)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&manager_lock);

  manager = new_manager;
}

/* A reference, or NULL. Any thread. */
GDBusObjectManager *
get_manager()
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&manager_lock);

  return manager != nullptr ? G_DBUS_OBJECT_MANAGER(g_object_ref(manager)) : nullptr;
}

GDBusConnection *
get_connection(GDBusObjectManager *of_manager)
{
  return g_dbus_object_manager_client_get_connection(G_DBUS_OBJECT_MANAGER_CLIENT(of_manager));
}

/* Nothing is announced any more, and nothing keeps the connection. */
void
leave_receiver()
{
  g_autoptr(GDBusObjectManager) left = manager;

  set_manager(nullptr);
  g_signal_handlers_disconnect_by_data(left, producers);
  g_dbus_connection_remove_filter(get_connection(left), filter_id);
  g_hash_table_foreach_remove(entries, withdraw_entry, nullptr);
}

} // namespace

static void
on_object_added(GDBusObjectManager *, GDBusObject *object, gpointer)
{
  request_sample_frame(object);
}

static void
on_object_removed(GDBusObjectManager *, GDBusObject *object, gpointer)
{
  const gchar *path = g_dbus_object_get_object_path(object);
  const auto *entry = static_cast<Announced *>(g_hash_table_lookup(entries, path));

  if (entry != nullptr) {
    withdraw(entry);
    g_hash_table_remove(entries, path);
  }
}

/* The receiver client would otherwise last as long as the daemon. But GLib gives out a connection for as long
 * as somebody has it, also a dead one, and then nobody else's question would reach a bus that comes back. */
static void
on_connection_closed(GDBusConnection *, gboolean, GError *, gpointer)
{
  leave_receiver();
}

namespace
{

GDBusObjectManager *
make_manager(GError **error)
{
  g_autoptr(DescriptorReservation) reservation = nullptr;
  g_autoptr(GDBusConnection) connection = system_bus_get(&reservation, error);
  if (connection == nullptr) {
    return nullptr;
  }
  filter_id = receiver_filter_add(connection, PRODUCERS_PATH);
  GDBusObjectManager *made = g_dbus_object_manager_client_new_for_bus_sync(
      G_BUS_TYPE_SYSTEM, G_DBUS_OBJECT_MANAGER_CLIENT_FLAGS_NONE, RECEIVER_NAME, PRODUCERS_PATH, nullptr,
      nullptr, nullptr, nullptr, error);
  if (made == nullptr) {
    g_dbus_connection_remove_filter(connection, filter_id);
  }
  return made;
}

gboolean
connect_signals()
{
  if (g_signal_connect(manager, "object-added", G_CALLBACK(on_object_added), producers) == 0) {
    syslog(LOG_WARNING, "failed to connect signal 'object-added' to dbus manager");
    return FALSE;
  }
  if (g_signal_connect(manager, "object-removed", G_CALLBACK(on_object_removed), producers) == 0) {
    syslog(LOG_WARNING, "failed to connect signal 'object-removed' to dbus manager");
    /* Not true of this signal, but deliberate and kept: who looks for the one line finds it either way. */
    syslog(LOG_WARNING, "failed to connect signal 'object-added' to dbus manager");
    return FALSE;
  }
  g_signal_connect(get_connection(manager), "closed", G_CALLBACK(on_connection_closed), nullptr);
  return TRUE;
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
    /* The line feed belongs to the text. */
    syslog(LOG_WARNING, "Failed to parse fd from variant: %s\n",
           error != nullptr ? error->message : "the reply holds no such descriptor");
  }
  return fd;
}

GDBusObject *
find_object(const gchar *producer_name)
{
  g_autoptr(GDBusObjectManager) current = get_manager();
  if (current == nullptr) {
    return nullptr;
  }
  g_autofree gchar *path = g_strdup_printf("%s/%s", PRODUCERS_PATH, producer_name);

  return g_variant_is_object_path(path) ? g_dbus_object_manager_get_object(current, path) : nullptr;
}

} // namespace

static void
on_stream_fd(GObject *connection, GAsyncResult *result, gpointer user_data)
{
  const std::unique_ptr<StreamRequest> request(static_cast<StreamRequest *>(user_data));
  g_autoptr(GUnixFDList) fds = nullptr;
  g_autoptr(GError) error = nullptr;
  g_autoptr(GVariant) reply =
      g_dbus_connection_call_with_unix_fd_list_finish(G_DBUS_CONNECTION(connection), &fds, result, &error);

  if (reply == nullptr) {
    g_autofree gchar *message = clip(error->message);
    syslog(LOG_INFO, "handle_get_stream_fd failed: %s", message);
    return;
  }
  request->on_fd(take_fd(reply, fds), request->source_name, request->user_data);
}

/**
 * dbus_client_init:
 * @list: (transfer none): the daemon's producers; lives as long as the main loop runs
 *
 * Lists the producers that the platform's metadata receiver announces from now on, as long as it announces
 * them, and as long as the connection to the system bus lasts. Blocks for the receiver's answer. Once, or
 * again after it failed or the connection was lost. Main thread.
 *
 * Warnings: "Failed to connect to metadata-receiver over DBus: %s", "failed to connect signal 'object-added'
 * to dbus manager", "failed to connect signal 'object-removed' to dbus manager"; later, of one producer each,
 * "on_get_sample_frame failed: %s", "failed to fetch sample frame", "failed to convert sample frame from: %s"
 * and "left out producer object %s: %s"
 *
 * Returns: whether the receiver is watched; if not, there are no external producers
 */
gboolean
dbus_client_init(AnalyticsProducerList *list)
{
  g_return_val_if_fail(list != NULL, FALSE);
  g_return_val_if_fail(manager == NULL, FALSE);

  g_autoptr(GError) error = nullptr;
  GDBusObjectManager *made = make_manager(&error);
  if (made == nullptr) {
    g_autofree gchar *message = clip(error->message);
    syslog(LOG_WARNING, "Failed to connect to metadata-receiver over DBus: %s", message);
    return FALSE;
  }
  if (entries == nullptr) {
    entries = g_hash_table_new_full(g_str_hash, g_str_equal, nullptr, release_announced);
  }
  producers = list;
  set_manager(made);

  g_autolist(GDBusObject) objects = g_dbus_object_manager_get_objects(manager);
  for (GList *link = objects; link != nullptr; link = link->next) {
    request_sample_frame(G_DBUS_OBJECT(link->data));
  }
  if (!connect_signals()) {
    leave_receiver();
    return FALSE;
  }
  return TRUE;
}

/**
 * dbus_client_connect_producer:
 * @producer_name: (transfer none): the producer's name
 * @source_name: (transfer none): what to give to @on_fd
 * @channel: the video channel, from 1
 * @on_fd: takes the descriptor
 * @user_data: for @on_fd
 * @user_data_free: (nullable): releases @user_data
 *
 * Asks the receiver for a stream of one producer. The reply is handled in the main thread: @on_fd is called
 * unless the call failed, and @user_data_free after it in any case. Any thread that has no default main
 * context of its own, for that would get the reply; also with the list's lock held.
 *
 * Warnings: "tried to find a dbus object for producer which did not exist"; later "Failed to parse fd from
 * variant: %s\n", whereupon @on_fd gets -1. Infos: "handle_get_stream_fd failed: %s"
 *
 * Returns: whether there will be a reply; if not, nothing is called and @user_data stays the caller's
 */
gboolean
dbus_client_connect_producer(const gchar *producer_name, const gchar *source_name, gint channel,
                             DbusClientFdFunc on_fd, gpointer user_data, GDestroyNotify user_data_free)
{
  g_return_val_if_fail(producer_name != NULL, FALSE);
  g_return_val_if_fail(source_name != NULL, FALSE);
  g_return_val_if_fail(on_fd != NULL, FALSE);

  g_autoptr(GDBusObject) object = find_object(producer_name);
  if (object == nullptr) {
    syslog(LOG_WARNING, "tried to find a dbus object for producer which did not exist");
    return FALSE;
  }
  auto *request = new StreamRequest;
  request->source_name = g_strdup(source_name);
  request->on_fd = on_fd;
  request->user_data_free = user_data_free;
  request->user_data = user_data;
  g_dbus_connection_call_with_unix_fd_list(
      g_dbus_object_proxy_get_connection(G_DBUS_OBJECT_PROXY(object)), RECEIVER_NAME,
      g_dbus_object_get_object_path(object), PRODUCER_INTERFACE, "GetStreamFd", g_variant_new("(i)", channel),
      nullptr, G_DBUS_CALL_FLAGS_NONE, DEFAULT_TIMEOUT, nullptr, nullptr, on_stream_fd, request);
  return TRUE;
}
