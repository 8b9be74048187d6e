/* SPDX-License-Identifier: MIT */
/* Records each client for the daemon's status: who it is, what it requested, and what it has received.
 *
 * Cost: only the thread that writes a client's documents changes its counters, so counting is two plain
 * additions and a reading of the clock for a document, without a lock and without an allocation. Readers see
 * each counter whole.
 *
 * Bounds: the table has as many records as there are places for clients. A record keeps the values of the
 * keys below, each cut to CLIENT_RECORD_MAX_VALUE_BYTES and one byte more.
 *
 * Lock: protects the table, the totals and each record's queue. Only locks of GLib and GStreamer are taken
 * under it.
 *
 * Lifetime: the table does not hold a reference. An element that never stops can keep the probe that counts,
 * which therefore has a reference of its own. The reference to the queue ends when the record is closed.
 */
#include "clientrecord.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <utility>
#include <vector>

struct ClientRecord {
  guint64 id;
  pid_t pid;
  uid_t uid;
  GHashTable *request;
  gint64 since_us;
  GstElement *queue; /* NULL before its pipeline is built, and after the close */
  std::atomic<gboolean> is_streaming;
  std::atomic<guint64> documents;
  std::atomic<guint64> bytes;
  std::atomic<gint64> last_us; /* 0 before the first document */
  gint references;             /* atomic */
};

namespace
{

/* The keys of a request that have a meaning. */
constexpr std::array KEYS = {
    "analytics",
    "event",
    "event_content",
    "event_topic",
    "ptz",
    "ptz_pantilt_coordinate_space",
    "ptz_zoom_coordinate_space",
    "video_channel",
};

GMutex records_lock;
std::vector<ClientRecord *> records; /* in the order of their ids */
ClientTotals left;                   /* of the clients that have left; its count is of all clients */

GHashTable *
copy_request(GHashTable *params)
{
  GHashTable *request = g_hash_table_new_full(g_str_hash, g_str_equal, nullptr, g_free);

  for (const char *key : KEYS) {
    const auto *value = static_cast<const gchar *>(g_hash_table_lookup(params, key));
    if (value != nullptr) {
      g_hash_table_insert(request, const_cast<char *>(key),
                          g_strndup(value, CLIENT_RECORD_MAX_VALUE_BYTES + 1));
    }
  }
  return request;
}

void
free_snapshot(gpointer data)
{
  auto *snapshot = static_cast<ClientSnapshot *>(data);

  g_hash_table_unref(snapshot->request);
  g_free(snapshot);
}

/* Called with the lock held. */
ClientSnapshot *
take_snapshot(const ClientRecord *record, gint64 now_us)
{
  auto *snapshot = g_new0(ClientSnapshot, 1);
  const gint64 last_us = record->last_us.load(std::memory_order_relaxed);

  snapshot->id = record->id;
  snapshot->pid = record->pid;
  snapshot->uid = record->uid;
  snapshot->is_streaming = record->is_streaming.load(std::memory_order_relaxed);
  snapshot->request = g_hash_table_ref(record->request);
  snapshot->documents = record->documents.load(std::memory_order_relaxed);
  snapshot->bytes = record->bytes.load(std::memory_order_relaxed);
  snapshot->age_us = now_us - record->since_us;
  /* A document can come after @now_us. */
  snapshot->last_document_age_us = last_us != 0 ? std::max<gint64>(now_us - last_us, 0) : -1;
  if (record->queue != nullptr) {
    g_object_get(record->queue, "current-level-buffers", &snapshot->queue_items, "current-level-bytes",
                 &snapshot->queue_bytes, nullptr);
  }
  return snapshot;
}

/* Only one thread changes the counter, so that no locked instruction is necessary. */
void
count_alone(std::atomic<guint64> *counter, guint64 count)
{
  counter->store(counter->load(std::memory_order_relaxed) + count, std::memory_order_relaxed);
}

} // namespace

/**
 * client_record_new:
 * @pid: the client's process
 * @uid: the client's user
 * @params: (transfer none) (element-type utf8 utf8): the request; values can be any bytes
 *
 * Records a client from now on.
 *
 * Returns: (transfer full): the record, for client_record_close()
 */
ClientRecord *
client_record_new(pid_t pid, uid_t uid, GHashTable *params)
{
  auto *self = new ClientRecord();

  self->pid = pid;
  self->uid = uid;
  self->request = copy_request(params);
  self->since_us = g_get_monotonic_time();
  self->references = 1;

  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&records_lock);
  self->id = ++left.clients;
  records.push_back(self);
  return self;
}

/**
 * client_record_ref:
 * @self: (transfer none): a record
 *
 * Returns: (transfer full): the record
 */
ClientRecord *
client_record_ref(ClientRecord *self)
{
  g_atomic_int_inc(&self->references);
  return self;
}

/**
 * client_record_unref:
 * @self: (transfer full): a record
 *
 * Frees the record with its last reference.
 */
void
client_record_unref(ClientRecord *self)
{
  if (g_atomic_int_dec_and_test(&self->references)) {
    g_hash_table_unref(self->request);
    delete self;
  }
}

/**
 * client_record_close:
 * @self: (transfer full): a record that was not closed yet
 *
 * Ends the record: the client has left. Its counts stay in the totals.
 */
void
client_record_close(ClientRecord *self)
{
  GstElement *queue = nullptr;

  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&records_lock);
    records.erase(std::find(records.begin(), records.end(), self));
    left.documents += self->documents.load(std::memory_order_relaxed);
    left.bytes += self->bytes.load(std::memory_order_relaxed);
    queue = std::exchange(self->queue, nullptr);
  }
  g_clear_pointer(&queue, gst_object_unref);
  client_record_unref(self);
}

/**
 * client_record_set_queue:
 * @self: (transfer none): a record without a queue
 * @queue: (transfer none): the element "queue" in which the client's documents wait
 */
void
client_record_set_queue(ClientRecord *self, GstElement *queue)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&records_lock);

  self->queue = GST_ELEMENT(gst_object_ref(queue));
}

/**
 * client_record_set_streaming:
 * @self: (transfer none): a record
 *
 * Called when the reply "OK" was sent.
 */
void
client_record_set_streaming(ClientRecord *self)
{
  self->is_streaming.store(TRUE, std::memory_order_relaxed);
}

/**
 * client_record_add_documents:
 * @self: (transfer none): a record
 * @count: the number of documents that are passed to the client's socket
 * @bytes: their bytes
 *
 * Counts documents.
 */
void
client_record_add_documents(ClientRecord *self, guint count, gsize bytes)
{
  count_alone(&self->documents, count);
  count_alone(&self->bytes, bytes);
  self->last_us.store(g_get_monotonic_time(), std::memory_order_relaxed);
}

/**
 * client_record_list:
 * @totals: (out): the sums over all clients
 *
 * Returns: (transfer full) (element-type ClientSnapshot): the present clients, in the order of their ids
 */
GPtrArray *
client_record_list(ClientTotals *totals)
{
  GPtrArray *snapshots = g_ptr_array_new_with_free_func(free_snapshot);
  const gint64 now_us = g_get_monotonic_time();
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&records_lock);

  *totals = left;
  for (const ClientRecord *record : records) {
    ClientSnapshot *snapshot = take_snapshot(record, now_us);
    totals->documents += snapshot->documents;
    totals->bytes += snapshot->bytes;
    g_ptr_array_add(snapshots, snapshot);
  }
  return snapshots;
}
