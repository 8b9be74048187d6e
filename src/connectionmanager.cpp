/* SPDX-License-Identifier: MIT */
/* One client's pipeline, from its construction until the client's descriptor is closed:
 *
 *   sources -> onvifxmlmetadatastreamdoc -> queue -> gdppay -> fdsink
 *
 * References: the request's handler holds the first reference and drops it when the client streams. The
 * blocking probe, the socket watch and the bus watch hold one each while they are installed, a pending sync
 * point until it is delivered, and the queue of ended managers until the pipeline is down. The code that
 * detects the end, a watch or a prepare whose pipeline refuses to play, removes the others. Only finalisation
 * closes the descriptor. No element can keep the manager from being finalised. The probe that counts
 * documents has a reference to the client's record only.
 *
 * End: tearing a pipeline down stops its threads and waits for them, which takes milliseconds, and many
 * clients can end at the same time. The watch that detects the end therefore only detaches the client: both
 * watches are removed, the client's stream is closed, and a waiting prepare returns. Then the manager is
 * queued, and each turn of the main loop tears a limited number of pipelines down.
 *
 * Elements that do not stop: if an element fails the change to NULL, its pipeline fails it too. Each element
 * is then stopped individually. An element that still fails is removed from the pipeline and left behind,
 * with its own threads.
 *
 * Threads: a pool thread prepares and starts. A streaming thread runs the probe. The main thread runs the
 * watches and the stop routine. A thread of GStreamer's pool delivers sync points, because a serialised event
 * waits for the stream, and the stream waits for a client that does not read.
 *
 * Lock: protects the status, the ids of probe and watches, and the counts of sync points. A watch is
 * installed and its id stored under the lock, and its callback takes the lock before it reads the id, so a
 * callback always finds its id and no message is lost. The lock is not held while an element changes state.
 */
#include "connectionmanager.h"

#include "clientcredentials.h"
#include "clientrecord.h"
#include "elementwarnings.h"
#include "memory.h"
#include "ratelimitedlog.h"
#include "syncscanner.h"

#include <array>
#include <cerrno>
#include <glib-unix.h>
#include <memory>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>
#include <utility>
#include <vector>

typedef enum {
  CONNECTION_MANAGER_STATUS_NEW,
  CONNECTION_MANAGER_STATUS_PREPARING,
  CONNECTION_MANAGER_STATUS_PREPARED,
  CONNECTION_MANAGER_STATUS_STARTED,
  CONNECTION_MANAGER_STATUS_STOPPED,
  CONNECTION_MANAGER_STATUS_ERROR,
} ConnectionManagerStatus;

struct ConnectionManagerPrivate {
  ConnectionManagerStatus status = CONNECTION_MANAGER_STATUS_NEW;
  GstElement *pipeline = nullptr;
  GstPad *held_pad = nullptr; /* the sink's; NULL without the probe */
  gulong probe_id = 0;
  GstElement *document = nullptr;        /* borrowed from the pipeline */
  std::array<GstElement *, 3> tail = {}; /* borrowed: the elements after the document, the sink first */
  GList *src_lists = nullptr;
  int fd = -1;
  ClientRecord *record = nullptr; /* constant since the prepare; NULL for a client without one */
  guint bus_watch_id = 0;
  guint socket_watch_id = 0;
  SyncScanner scanner = {};    /* for the main thread only */
  guint early_sync_points = 0; /* for the main thread only */
  gboolean start_announced = FALSE;
  guint pending_syncs = 0;
  gboolean delivering_syncs = FALSE;
  GMutex lock;
  GCond cond;
};

struct _ConnectionManager {
  GObject parent_instance;

  ConnectionManagerPrivate *priv;
};

typedef enum {
  PROP_SOURCE_LIST = 1,
  PROP_FD,
  N_CONNECTION_MANAGER_PROPERTIES,
} ConnectionManagerProperty;

static std::array<GParamSpec *, N_CONNECTION_MANAGER_PROPERTIES> connection_manager_properties;

G_DEFINE_FINAL_TYPE(ConnectionManager, connection_manager, G_TYPE_OBJECT)

namespace
{

constexpr const char *PIPELINE_NAME = "metadataserver2client";
constexpr const char *SINK_NAME = "fdsink";
constexpr const char *SYNC_POINT_EVENT = "GstMetaDataStreamSetSyncPoint";

constexpr gsize READ_SIZE = 4096;

/* Every client can cause this line. */
RateLimitedLog blocking_log = RATE_LIMITED_LOG_INIT(RATE_LIMITED_LOG_INTERVAL_US);

struct ElementMake {
  const char *factory;
  const char *name;
};

/* The elements after the sources in every client's pipeline, in data order. */
enum { DOCUMENT, QUEUE, PAYLOADER, SINK, N_COMMON_ELEMENTS };
constexpr std::array<ElementMake, N_COMMON_ELEMENTS> COMMON_ELEMENTS = {{
    {"onvifxmlmetadatastreamdoc", nullptr},
    {"queue", nullptr},
    {"gdppay", nullptr},
    {"fdsink", SINK_NAME},
}};

/* The ended managers whose pipelines still exist, oldest first, with a reference to each. For the main thread
 * only. */
GQueue ended_managers = G_QUEUE_INIT;

struct ObjectUnref {
  void operator()(gpointer object) const
  {
    gst_object_unref(object);
  }
};

/* A full reference, not a floating one. */
using ElementRef = std::unique_ptr<GstElement, ObjectUnref>;
using CommonElements = std::array<ElementRef, N_COMMON_ELEMENTS>;

/* Called with the lock held. */
void
set_status(ConnectionManager *conn, ConnectionManagerStatus status)
{
  conn->priv->status = status;
  g_cond_signal(&conn->priv->cond);
}

gboolean
make_common_elements(CommonElements *elements)
{
  for (gsize i = 0; i < N_COMMON_ELEMENTS; i++) {
    GstElement *element = gst_element_factory_make(COMMON_ELEMENTS[i].factory, COMMON_ELEMENTS[i].name);
    if (element == nullptr) {
      syslog(LOG_ERR, "Could not create %s.", COMMON_ELEMENTS[i].factory);
      return FALSE;
    }
    (*elements)[i].reset(GST_ELEMENT(gst_object_ref_sink(element)));
  }
  return TRUE;
}

gboolean
add_common_elements(GstElement *pipeline, const CommonElements &elements)
{
  for (gsize i = 0; i < N_COMMON_ELEMENTS; i++) {
    if (!gst_bin_add(GST_BIN(pipeline), elements[i].get())) {
      syslog(LOG_ERR, "Failed to add %s.", COMMON_ELEMENTS[i].factory);
      return FALSE;
    }
  }
  return TRUE;
}

gboolean
add_source(GstElement *pipeline, GstElement *source, GstElement *document)
{
  if (!GST_IS_ELEMENT(source)) {
    syslog(LOG_ERR, "Not a valid source element to add to metadata server pipeline.");
    return FALSE;
  }
  if (!gst_bin_add(GST_BIN(pipeline), source)) {
    return FALSE;
  }
  if (!gst_element_link(source, document)) {
    /* docs/compatibility.md, "link failure text". */
    syslog(LOG_ERR, "Failed to link %p\aA and onvifxmlmetadatastreamdoc.",
           static_cast<const void *>(GST_ELEMENT_NAME(source)));
    return FALSE;
  }
  return TRUE;
}

gboolean
add_sources(GstElement *pipeline, GList *sources, GstElement *document)
{
  for (GList *item = sources; item != nullptr; item = item->next) {
    if (!add_source(pipeline, static_cast<GstElement *>(item->data), document)) {
      return FALSE;
    }
  }
  return TRUE;
}

/* Builds the pipeline and stores it. Stores nothing on failure. */
gboolean
build_pipeline(ConnectionManager *conn)
{
  ElementRef pipeline(gst_pipeline_new(PIPELINE_NAME));
  if (!pipeline) {
    syslog(LOG_ERR, "Could not create metadata pipeline.");
    return FALSE;
  }
  gst_object_ref_sink(pipeline.get());

  CommonElements elements;
  if (!make_common_elements(&elements) || !add_common_elements(pipeline.get(), elements) ||
      !add_sources(pipeline.get(), conn->priv->src_lists, elements[DOCUMENT].get()) ||
      !gst_element_link_many(elements[DOCUMENT].get(), elements[QUEUE].get(), elements[PAYLOADER].get(),
                             elements[SINK].get(), nullptr)) {
    return FALSE;
  }

  g_object_set(elements[SINK].get(), "fd", conn->priv->fd, nullptr);
  conn->priv->document = elements[DOCUMENT].get();
  conn->priv->tail = {elements[SINK].get(), elements[PAYLOADER].get(), elements[QUEUE].get()};
  conn->priv->pipeline = pipeline.release();
  return TRUE;
}

/* Called on the streaming thread that writes to the client, for each document or list of documents. */
GstPadProbeReturn
on_documents(GstPad *, GstPadProbeInfo *info, gpointer user_data)
{
  auto *record = static_cast<ClientRecord *>(user_data);

  if ((GST_PAD_PROBE_INFO_TYPE(info) & GST_PAD_PROBE_TYPE_BUFFER) != 0) {
    client_record_add_documents(record, 1, gst_buffer_get_size(GST_PAD_PROBE_INFO_BUFFER(info)));
  } else {
    GstBufferList *list = GST_PAD_PROBE_INFO_BUFFER_LIST(info);
    client_record_add_documents(record, gst_buffer_list_length(list), gst_buffer_list_calculate_size(list));
  }
  return GST_PAD_PROBE_OK;
}

/* Counts documents where they enter the payloader, which adds headers of its own. */
void
count_documents(ConnectionManager *conn)
{
  constexpr auto TYPE =
      static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_BUFFER_LIST);
  ClientRecord *record = conn->priv->record;
  if (record == nullptr) {
    return;
  }

  const auto [sink, payloader, queue] = conn->priv->tail;
  g_autoptr(GstPad) pad = gst_element_get_static_pad(payloader, "sink");
  gst_pad_add_probe(pad, TYPE, on_documents, client_record_ref(record),
                    [](gpointer data) { client_record_unref(static_cast<ClientRecord *>(data)); });
  client_record_set_queue(record, queue);
}

/* The sink writes whole buffers. On a blocking socket such a write waits, in pieces, for a client that reads
 * slowly or not at all, and a state change to NULL waits for the write. On a non-blocking one the sink waits
 * in poll(), which a state change interrupts. A send time-out is no alternative: it applies to each piece. */
void
make_writes_interruptible(int fd)
{
  g_autoptr(GError) error = nullptr;

  if (!g_unix_set_fd_nonblocking(fd, TRUE, &error)) {
    rate_limited_log(&blocking_log, LOG_WARNING, "Could not make metadata client socket non-blocking: %s",
                     error->message);
  }
}

/* Called with the lock held. The caller has a reference, because that of the probe is dropped. */
void
release_hold(ConnectionManager *conn)
{
  if (conn->priv->probe_id == 0) {
    return;
  }
  g_autoptr(GstPad) pad = std::exchange(conn->priv->held_pad, nullptr);
  gst_pad_remove_probe(pad, std::exchange(conn->priv->probe_id, 0));
}

gboolean
set_to_null(GstElement *element)
{
  return gst_element_set_state(element, GST_STATE_NULL) == GST_STATE_CHANGE_SUCCESS;
}

std::vector<ElementRef>
children_from_sink_up(GstBin *bin)
{
  std::vector<ElementRef> children;
  g_autoptr(GstIterator) iterator = gst_bin_iterate_sorted(bin);
  const GstIteratorForeachFunction keep = [](const GValue *item, gpointer list) {
    static_cast<std::vector<ElementRef> *>(list)->emplace_back(GST_ELEMENT(g_value_dup_object(item)));
  };

  while (gst_iterator_foreach(iterator, keep, &children) == GST_ITERATOR_RESYNC) {
    children.clear();
    gst_iterator_resync(iterator);
  }
  return children;
}

/* Releases threads of other elements that wait inside an element that does not stop, for example at the
 * blocked sink. Otherwise those elements could not stop either. */
void
flush(GstElement *element)
{
  const GstElementForeachPadFunc flush_pad = [](GstElement *, GstPad *pad, gpointer) -> gboolean {
    gst_pad_send_event(pad, gst_event_new_flush_start());
    return TRUE;
  };

  gst_element_foreach_sink_pad(element, flush_pad, nullptr);
}

/* GStreamer would free an element that is not in NULL together with data that its threads still use. The
 * element therefore keeps a reference that is never dropped. Out of its bin and unlinked it keeps no other
 * object. */
void
leave_behind(GstBin *bin, GstElement *element)
{
  gst_object_ref(element);
  gst_bin_remove(bin, element);
}

void stop_children(GstBin *bin);

gboolean
stop_element(GstElement *element)
{
  if (set_to_null(element)) {
    return TRUE;
  }
  if (GST_IS_BIN(element)) {
    stop_children(GST_BIN(element));
    return set_to_null(element);
  }
  flush(element);
  return FALSE;
}

/* Stops each child of a bin that cannot stop as a whole, retries those that fail when the others have
 * stopped, and removes those that fail again. The sink is first, because a source may wait for room in the
 * elements after it. No child starts meanwhile: the bin's attempt has ended state changes of other threads.
 */
void
stop_children(GstBin *bin)
{
  std::vector<ElementRef> children = children_from_sink_up(bin);

  std::erase_if(children, [](const ElementRef &child) { return stop_element(child.get()); });
  for (const ElementRef &child : children) {
    if (!set_to_null(child.get())) {
      leave_behind(bin, child.get());
    }
  }
}

/* Tears the pipeline down, except elements that do not stop. */
void
stop_pipeline(ConnectionManager *conn)
{
  if (set_to_null(conn->priv->pipeline)) {
    return;
  }
  syslog(LOG_ERR, "Could not stop connection manager pipeline.");
  client_credentials_log(conn->priv->fd, "an element of the stream did not stop");
  stop_children(GST_BIN(conn->priv->pipeline));
  set_to_null(conn->priv->pipeline);
}

/* Ends a pipeline that refused to play. If the probe stayed, manager, pipeline and pad would never be freed.
 */
void
abandon(ConnectionManager *conn)
{
  stop_pipeline(conn);

  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&conn->priv->lock);
  release_hold(conn);
}

gboolean
take_pending_sync(ConnectionManager *conn)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&conn->priv->lock);

  if (conn->priv->status != CONNECTION_MANAGER_STATUS_STARTED || conn->priv->pending_syncs == 0) {
    conn->priv->delivering_syncs = FALSE;
    return FALSE;
  }
  conn->priv->pending_syncs--;
  return TRUE;
}

/* Called on a thread of GStreamer's pool. */
void
deliver_sync_points(GstElement *document, gpointer user_data)
{
  auto *conn = static_cast<ConnectionManager *>(user_data);

  while (take_pending_sync(conn)) {
    gst_element_send_event(document, gst_event_new_custom(GST_EVENT_CUSTOM_DOWNSTREAM,
                                                          gst_structure_new_empty(SYNC_POINT_EVENT)));
  }
}

/* Called with the lock held, in STARTED. At most one thread delivers for one client. */
void
start_delivering(ConnectionManager *conn)
{
  if (conn->priv->pending_syncs == 0 || conn->priv->delivering_syncs) {
    return;
  }
  conn->priv->delivering_syncs = TRUE;
  gst_element_call_async(conn->priv->document, deliver_sync_points, g_object_ref(conn), g_object_unref);
}

/* Accepts one sync point, for delivery now or by the announced start. FALSE before that. */
gboolean
take_sync_point(ConnectionManager *conn)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&conn->priv->lock);
  const gboolean started = conn->priv->status == CONNECTION_MANAGER_STATUS_STARTED;
  const gboolean starting =
      conn->priv->status == CONNECTION_MANAGER_STATUS_PREPARED && conn->priv->start_announced;

  if (!started && !starting) {
    return FALSE;
  }
  if (conn->priv->pending_syncs < CONNECTION_MANAGER_MAX_PENDING_SYNC_POINTS) {
    conn->priv->pending_syncs++;
  }
  if (started) {
    start_delivering(conn);
  }
  return TRUE;
}

/* A client decides when and how often this is called. The status is therefore checked without a precondition
 * macro, which can be compiled out, and the number of warnings is limited. */
void
send_set_sync_point_event(ConnectionManager *conn)
{
  if (!take_sync_point(conn) && conn->priv->early_sync_points < CONNECTION_MANAGER_MAX_EARLY_SYNC_WARNINGS) {
    conn->priv->early_sync_points++;
    g_return_if_fail_warning(G_LOG_DOMAIN, G_STRFUNC,
                             "conn->priv->status == CONNECTION_MANAGER_STATUS_STARTED");
  }
}

enum class StopSide { SOCKET, BUS };

/* Removes both watches except the calling one, which GLib removes when its callback returns. */
void
remove_watches(ConnectionManager *conn, StopSide side)
{
  guint bus_watch_id = 0;
  guint socket_watch_id = 0;
  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&conn->priv->lock);
    bus_watch_id = std::exchange(conn->priv->bus_watch_id, 0);
    socket_watch_id = std::exchange(conn->priv->socket_watch_id, 0);
  }

  if (side == StopSide::BUS && socket_watch_id != 0 && !g_source_remove(socket_watch_id)) {
    syslog(LOG_WARNING, "Could not remove metadata socket I/O watch.");
  }
  if (side == StopSide::SOCKET && bus_watch_id != 0 && !g_source_remove(bus_watch_id)) {
    syslog(LOG_WARNING, "Could not remove metadata bus watch watch.");
  }
}

/* Drops the waiting sync points; without the socket watch there are no further ones. TRUE while one is being
 * delivered. */
gboolean
cancel_sync_points(ConnectionManager *conn)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&conn->priv->lock);

  conn->priv->pending_syncs = 0;
  return conn->priv->delivering_syncs;
}

/* During its delivery a sync point keeps the document element from changing its state, and waits for the
 * stream, which may wait for the client. The elements after the document therefore stop first. Then the
 * stream drains, the sync point passes, and the other elements can stop. A state change of the pipeline on
 * another thread must not restart these elements, so their state is locked and stays locked. */
void
stop_behind_document(ConnectionManager *conn)
{
  for (GstElement *element : conn->priv->tail) {
    gst_element_set_locked_state(element, TRUE);
  }
  for (GstElement *element : conn->priv->tail) {
    gst_element_set_state(element, GST_STATE_NULL);
  }
}

/* Tears the pipeline of a detached client down. */
void
stop(ConnectionManager *conn)
{
  if (cancel_sync_points(conn)) {
    stop_behind_document(conn);
  }
  stop_pipeline(conn);

  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&conn->priv->lock);
  release_hold(conn);
}

/* Called once in each turn of the main loop while the queue is not empty. */
gboolean
on_turn(gpointer user_data)
{
  for (guint i = 0; i < CONNECTION_MANAGER_MAX_ENDS_PER_TURN && !g_queue_is_empty(&ended_managers); i++) {
    g_autoptr(ConnectionManager) conn = CONNECTION_MANAGER(g_queue_pop_head(&ended_managers));
    stop(conn);
  }
  return g_queue_is_empty(&ended_managers) ? G_SOURCE_REMOVE : G_SOURCE_CONTINUE;
}

void
queue_end(ConnectionManager *conn)
{
  if (g_queue_is_empty(&ended_managers)) {
    g_idle_add_full(G_PRIORITY_DEFAULT, on_turn, nullptr, nullptr);
  }
  g_queue_push_tail(&ended_managers, g_object_ref(conn));
}

/* Ends all waits for the client. TRUE when the client was streaming. */
gboolean
set_ended(ConnectionManager *conn, ConnectionManagerStatus status)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&conn->priv->lock);
  const gboolean was_started = conn->priv->status == CONNECTION_MANAGER_STATUS_STARTED;

  set_status(conn, status);
  return was_started;
}

/* Ends the stream. Called on the main thread by one of the two watches, whose reference keeps the manager
 * until the callback returns. A streaming client sees the end now, not when its pipeline is down. Before the
 * start the socket stays open for the reply. */
void
end(ConnectionManager *conn, StopSide side, ConnectionManagerStatus status)
{
  remove_watches(conn, side);
  if (set_ended(conn, status)) {
    shutdown(conn->priv->fd, SHUT_WR);
  }
  queue_end(conn);
}

/* Reads once, without blocking. FALSE when the client's input has ended or failed. */
gboolean
read_client_input(ConnectionManager *conn, guint *syncs)
{
  std::array<gchar, READ_SIZE> data;
  const ssize_t length = recv(conn->priv->fd, data.data(), data.size(), MSG_DONTWAIT);

  *syncs = 0;
  if (length > 0) {
    return sync_scanner_feed(&conn->priv->scanner, data.data(), length, syncs);
  }
  if (length < 0 && errno == EINTR) {
    return TRUE;
  }
  if (length < 0 && errno == EAGAIN) {
    syslog(LOG_ERR, "Reading incoming metadata request interrupted, shutting down.");
    client_credentials_log(conn->priv->fd, "stream ended: there was no input to read");
  }
  return FALSE;
}

/* A pool thread installs the watches under the lock, so the ids are visible here. */
gboolean
is_watched(ConnectionManager *conn, const guint *watch_id)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&conn->priv->lock);

  return *watch_id != 0;
}

/* A failed write only means that the client has hung up. */
void
log_pipeline_error(ConnectionManager *conn, GstMessage *message)
{
  g_autoptr(GError) error = nullptr;
  g_autofree gchar *debug = nullptr;

  gst_message_parse_error(message, &error, &debug);
  if (!g_error_matches(error, GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_WRITE)) {
    syslog(LOG_ERR, "Error in metadata connection manager pipeline: %s.", error->message);
    client_credentials_log(conn->priv->fd, "stream failed: %s", error->message);
  }
}

/* A pipeline that refuses to play has posted the reason on its bus, which has no watch. The first error
 * caused the others. */
void
log_refusal_to_play(ConnectionManager *conn)
{
  g_autoptr(GstBus) bus = gst_pipeline_get_bus(GST_PIPELINE(conn->priv->pipeline));
  g_autoptr(GstMessage) message = gst_bus_pop_filtered(bus, GST_MESSAGE_ERROR);

  if (message != nullptr) {
    log_pipeline_error(conn, message);
  }
}

/* Sources can be floating or not. Afterwards the manager has one full reference to each. */
void
take_sources(ConnectionManager *conn, GList *sources)
{
  conn->priv->src_lists = sources;
  for (GList *item = sources; item != nullptr; item = item->next) {
    if (item->data != nullptr && g_object_is_floating(item->data)) {
      g_object_ref_sink(item->data);
    }
  }
}

void
release_source(gpointer source)
{
  if (source != nullptr) {
    g_object_unref(source);
  }
}

} // namespace

static void
connection_manager_init(ConnectionManager *self)
{
  self->priv = new ConnectionManagerPrivate;
  g_mutex_init(&self->priv->lock);
  g_cond_init(&self->priv->cond);
}

static void
connection_manager_finalize(GObject *object)
{
  ConnectionManager *self = CONNECTION_MANAGER(object);

  g_clear_pointer(&self->priv->record, client_record_close);
  g_clear_pointer(&self->priv->pipeline, gst_object_unref);
  g_list_free_full(self->priv->src_lists, release_source);
  if (close(self->priv->fd) < 0) {
    syslog(LOG_ERR, "Could not close metadata client fd when destroying pipeline: %s", g_strerror(errno));
  }
  g_mutex_clear(&self->priv->lock);
  g_cond_clear(&self->priv->cond);
  delete self->priv;
  memory_trim_later();

  G_OBJECT_CLASS(connection_manager_parent_class)->finalize(object);
}

static void
connection_manager_get_property(GObject *object, guint id, GValue *value, GParamSpec *pspec)
{
  ConnectionManager *self = CONNECTION_MANAGER(object);

  switch (id) {
  case PROP_SOURCE_LIST:
    g_value_set_pointer(value, self->priv->src_lists);
    break;
  case PROP_FD:
    g_value_set_int(value, self->priv->fd);
    break;
  default:
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
  }
}

static void
connection_manager_set_property(GObject *object, guint id, const GValue *value, GParamSpec *pspec)
{
  ConnectionManager *self = CONNECTION_MANAGER(object);

  switch (id) {
  case PROP_SOURCE_LIST:
    take_sources(self, static_cast<GList *>(g_value_get_pointer(value)));
    break;
  case PROP_FD:
    if (self->priv->fd == -1) {
      self->priv->fd = g_value_get_int(value);
    }
    break;
  default:
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
  }
}

static void
connection_manager_class_init(ConnectionManagerClass *klass)
{
  GObjectClass *object_class = G_OBJECT_CLASS(klass);
  constexpr auto FLAGS =
      static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_CONSTRUCT_ONLY | G_PARAM_STATIC_STRINGS);

  object_class->finalize = connection_manager_finalize;
  object_class->get_property = connection_manager_get_property;
  object_class->set_property = connection_manager_set_property;

  connection_manager_properties[PROP_SOURCE_LIST] = g_param_spec_pointer(
      "source-list", "Source List", "List of sources to generate the metadata xml", FLAGS);
  connection_manager_properties[PROP_FD] = g_param_spec_int(
      "fd", "File Descriptor", "The file descriptor for metadata client", G_MININT, G_MAXINT, -1, FLAGS);
  g_object_class_install_properties(object_class, connection_manager_properties.size(),
                                    connection_manager_properties.data());
}

namespace
{

/* Called on a streaming thread, which stays blocked at the sink until the probe is removed. Has no effect
 * after the end of the prepare's wait. */
GstPadProbeReturn
on_first_data(GstPad *pad, GstPadProbeInfo *info, gpointer user_data)
{
  auto *conn = static_cast<ConnectionManager *>(user_data);
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&conn->priv->lock);

  if (conn->priv->status == CONNECTION_MANAGER_STATUS_PREPARING) {
    set_status(conn, CONNECTION_MANAGER_STATUS_PREPARED);
  }
  return GST_PAD_PROBE_OK;
}

/* Logs the warnings that an element has posted before the end, and that are not dispatched yet. */
void
log_last_warnings(ConnectionManager *conn)
{
  constexpr guint LAST_WARNINGS = 64;
  g_autoptr(GstBus) bus = gst_pipeline_get_bus(GST_PIPELINE(conn->priv->pipeline));

  for (guint i = 0; i < LAST_WARNINGS; i++) {
    g_autoptr(GstMessage) message = gst_bus_pop_filtered(bus, GST_MESSAGE_WARNING);
    if (message == nullptr) {
      return;
    }
    element_warnings_log(message);
  }
}

gboolean
on_socket(gint fd, GIOCondition condition, gpointer user_data)
{
  auto *conn = static_cast<ConnectionManager *>(user_data);
  guint syncs = 0;

  if (!is_watched(conn, &conn->priv->socket_watch_id)) {
    return G_SOURCE_CONTINUE;
  }
  if (!read_client_input(conn, &syncs)) {
    log_last_warnings(conn);
    end(conn, StopSide::SOCKET, CONNECTION_MANAGER_STATUS_STOPPED);
    return G_SOURCE_REMOVE;
  }
  for (guint i = 0; i < syncs; i++) {
    send_set_sync_point_event(conn);
  }
  return G_SOURCE_CONTINUE;
}

gboolean
on_bus_message(GstBus *bus, GstMessage *message, gpointer user_data)
{
  auto *conn = static_cast<ConnectionManager *>(user_data);

  if (!is_watched(conn, &conn->priv->bus_watch_id)) {
    return G_SOURCE_CONTINUE;
  }
  switch (GST_MESSAGE_TYPE(message)) {
  case GST_MESSAGE_EOS:
    end(conn, StopSide::BUS, CONNECTION_MANAGER_STATUS_STOPPED);
    return G_SOURCE_REMOVE;
  case GST_MESSAGE_ERROR:
    log_pipeline_error(conn, message);
    end(conn, StopSide::BUS, CONNECTION_MANAGER_STATUS_ERROR);
    return G_SOURCE_REMOVE;
  case GST_MESSAGE_WARNING:
    element_warnings_log(message);
    return G_SOURCE_CONTINUE;
  default:
    return G_SOURCE_CONTINUE;
  }
}

void
hold_at_sink(ConnectionManager *conn)
{
  constexpr auto TYPE = static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BLOCK | GST_PAD_PROBE_TYPE_BUFFER |
                                                     GST_PAD_PROBE_TYPE_BUFFER_LIST);

  conn->priv->held_pad = gst_element_get_static_pad(conn->priv->tail[0], "sink");
  conn->priv->probe_id =
      gst_pad_add_probe(conn->priv->held_pad, TYPE, on_first_data, g_object_ref(conn), g_object_unref);
}

/* Called with the lock held. */
void
add_watches(ConnectionManager *conn)
{
  constexpr auto CONDITION = static_cast<GIOCondition>(G_IO_IN | G_IO_ERR | G_IO_HUP);
  g_autoptr(GstBus) bus = gst_pipeline_get_bus(GST_PIPELINE(conn->priv->pipeline));

  conn->priv->socket_watch_id = g_unix_fd_add_full(G_PRIORITY_DEFAULT, conn->priv->fd, CONDITION, on_socket,
                                                   g_object_ref(conn), g_object_unref);
  conn->priv->bus_watch_id =
      gst_bus_add_watch_full(bus, G_PRIORITY_DEFAULT, on_bus_message, g_object_ref(conn), g_object_unref);
}

/* Sets the pipeline to PLAYING and watches it. FALSE when it refuses. Sets @needs_data to whether an end
 * without data is a failure, which it is not for a live pipeline. Only the change to PAUSED reports that a
 * pipeline is live; in the change to PLAYING the sink, which waits for data, makes the result asynchronous.
 */
gboolean
play(ConnectionManager *conn, gboolean *needs_data)
{
  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&conn->priv->lock);
    set_status(conn, CONNECTION_MANAGER_STATUS_PREPARING);
  }
  const GstStateChangeReturn paused = gst_element_set_state(conn->priv->pipeline, GST_STATE_PAUSED);
  const GstStateChangeReturn playing = paused != GST_STATE_CHANGE_FAILURE
                                           ? gst_element_set_state(conn->priv->pipeline, GST_STATE_PLAYING)
                                           : GST_STATE_CHANGE_FAILURE;
  if (playing == GST_STATE_CHANGE_FAILURE) {
    log_refusal_to_play(conn);
    return FALSE;
  }
  /* The first change can be complete before the second one begins. */
  const gboolean async = paused == GST_STATE_CHANGE_ASYNC || playing == GST_STATE_CHANGE_ASYNC;
  *needs_data = async && paused != GST_STATE_CHANGE_NO_PREROLL;

  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&conn->priv->lock);
  add_watches(conn);
  if (!async) {
    set_status(conn, CONNECTION_MANAGER_STATUS_PREPARED);
  }
  return TRUE;
}

/* Waits until the first data is held at the sink. The wait has no limit of time, because some kinds of
 * metadata are rare; a hang-up of the client ends it. FALSE when the stream has ended. */
gboolean
wait_for_preroll(ConnectionManager *conn)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&conn->priv->lock);

  while (conn->priv->status == CONNECTION_MANAGER_STATUS_PREPARING) {
    g_cond_wait(&conn->priv->cond, &conn->priv->lock);
  }
  return conn->priv->status == CONNECTION_MANAGER_STATUS_PREPARED;
}

} // namespace

/**
 * connection_manager_new:
 * @src_lists: (transfer full) (element-type GstElement): the sources, each with one source pad to link
 * @fd: the client's connected stream socket, which the manager closes when it is finalised
 *
 * Makes the manager of one client.
 *
 * Warnings: "src_lists != NULL" and "fd != -1" are preconditions; when one fails, the caller keeps both.
 *
 * Returns: (transfer full) (nullable): a new manager
 */
ConnectionManager *
connection_manager_new(GList *src_lists, int fd)
{
  g_return_val_if_fail(src_lists != NULL, nullptr);
  g_return_val_if_fail(fd != -1, nullptr);

  return CONNECTION_MANAGER(
      g_object_new(CONNECTION_TYPE_MANAGER, "source-list", src_lists, "fd", fd, nullptr));
}

/**
 * connection_manager_set_record:
 * @conn: (transfer none): a new manager without a record
 * @record: (transfer full): the client's record
 *
 * Counts the client's documents in @record, and closes it when the manager is finalised. Called before
 * connection_manager_prepare().
 *
 * Warnings: "conn != NULL" is a precondition; when it fails, the caller keeps @record.
 */
void
connection_manager_set_record(ConnectionManager *conn, ClientRecord *record)
{
  g_return_if_fail(conn != NULL);

  conn->priv->record = record;
}

/**
 * connection_manager_prepare:
 * @conn: (transfer none): a new manager
 *
 * Builds the pipeline, sets it to PLAYING and waits, without a limit of time, until its first data is held at
 * the sink or the stream has ended. Failures are logged at error priority. Called once, while the main
 * context runs.
 *
 * A live pipeline counts as prepared when it plays. If it ends before its first data, the client still gets
 * "OK" and then sees the end, so the result does not depend on the order of the two.
 *
 * Warnings: "conn != NULL", "conn->priv->fd != -1" and "conn->priv->src_lists != NULL" are preconditions.
 *
 * Returns: whether the reply to the client is "OK"
 */
gboolean
connection_manager_prepare(ConnectionManager *conn)
{
  g_return_val_if_fail(conn != NULL, FALSE);
  g_return_val_if_fail(conn->priv->fd != -1, FALSE);
  g_return_val_if_fail(conn->priv->src_lists != NULL, FALSE);

  if (!build_pipeline(conn)) {
    return FALSE;
  }
  make_writes_interruptible(conn->priv->fd);
  count_documents(conn);
  hold_at_sink(conn);
  gboolean needs_data = TRUE;
  if (!play(conn, &needs_data)) {
    abandon(conn);
    return FALSE;
  }
  return wait_for_preroll(conn) || !needs_data;
}

/**
 * connection_manager_announce_start:
 * @conn: (transfer none): a prepared manager
 *
 * Called immediately before "OK" is sent. A "SYNC" line that is read after this call can be the client's
 * response to that reply, so it is kept for connection_manager_start() and not refused.
 *
 * Warnings: "conn != NULL" is a precondition.
 */
void
connection_manager_announce_start(ConnectionManager *conn)
{
  g_return_if_fail(conn != NULL);

  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&conn->priv->lock);
  conn->priv->start_announced = TRUE;
}

/**
 * connection_manager_start:
 * @conn: (transfer none): a prepared manager
 *
 * Releases the hold at the sink, so that data flows to the client. Called immediately after "OK" is sent. If
 * the stream has ended meanwhile, no data flows, and the hold ends with the pipeline.
 *
 * Warnings: "conn != NULL" is a precondition.
 */
void
connection_manager_start(ConnectionManager *conn)
{
  g_return_if_fail(conn != NULL);

  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&conn->priv->lock);
  if (conn->priv->status == CONNECTION_MANAGER_STATUS_PREPARED) {
    release_hold(conn);
    set_status(conn, CONNECTION_MANAGER_STATUS_STARTED);
    if (conn->priv->record != nullptr) {
      client_record_set_streaming(conn->priv->record);
    }
    start_delivering(conn);
  }
}
