/* SPDX-License-Identifier: MIT */
/* Counts the messages of external producers for the daemon's status.
 *
 * Cost: a message is some additions to counters that rarely change on two threads at once, without a lock and
 * without an allocation.
 *
 * Bounds: at most PRODUCER_METER_MAX_SOURCES sources have counters of their own. The counters of a source
 * without a stream stay until a further source needs their place; then the source goes that has had no stream
 * for longest. While all places have streams, further sources count only in the sums.
 *
 * Lock: protects the table and the numbers of streams. No lock is taken under it.
 */
#include "producermeter.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

struct Counters {
  std::atomic<guint64> messages = 0;
  std::atomic<guint64> bytes = 0;
  std::atomic<guint64> dropped = 0;
};

struct ProducerMeter {
  std::string source;
  guint streams = 0;
  guint64 last_use = 0; /* the number of the last change of `streams` */
  Counters counters;
};

namespace
{

GMutex meters_lock;
std::vector<std::unique_ptr<ProducerMeter>> meters; /* in the order in which they were made */
ProducerMeter others;                               /* of all sources without a place */
guint64 uses;
Counters sums;

/* The next three functions are called with the lock held. */

ProducerMeter *
find(const std::string &source)
{
  const auto found = std::find_if(meters.begin(), meters.end(),
                                  [&source](const auto &meter) { return meter->source == source; });

  return found != meters.end() ? found->get() : nullptr;
}

/* FALSE when all places have streams. */
gboolean
make_place()
{
  if (meters.size() < PRODUCER_METER_MAX_SOURCES) {
    return TRUE;
  }
  const auto oldest = std::min_element(meters.begin(), meters.end(), [](const auto &one, const auto &other) {
    return std::pair(one->streams > 0, one->last_use) < std::pair(other->streams > 0, other->last_use);
  });
  if ((*oldest)->streams > 0) {
    return FALSE;
  }
  meters.erase(oldest);
  return TRUE;
}

ProducerMeter *
find_or_make(const std::string &source)
{
  ProducerMeter *meter = find(source);

  if (meter != nullptr) {
    return meter;
  }
  if (!make_place()) {
    return &others;
  }
  meters.push_back(std::make_unique<ProducerMeter>());
  meters.back()->source = source;
  return meters.back().get();
}

void
count_shared(std::atomic<guint64> *counter, guint64 count)
{
  counter->fetch_add(count, std::memory_order_relaxed);
}

ProducerCounts
read(const Counters &counters)
{
  return {nullptr, 0, counters.messages.load(std::memory_order_relaxed),
          counters.bytes.load(std::memory_order_relaxed), counters.dropped.load(std::memory_order_relaxed)};
}

void
free_counts(gpointer data)
{
  auto *counts = static_cast<ProducerCounts *>(data);

  g_free(counts->source);
  g_free(counts);
}

} // namespace

/**
 * producer_meter_new:
 * @source: (transfer none): the configuration name, in any bytes
 *
 * Begins to count one more stream of a source.
 *
 * Returns: (transfer full): the source's meter, to be freed when the stream has ended
 */
ProducerMeter *
producer_meter_new(const gchar *source)
{
  const std::string name(source, strnlen(source, PRODUCER_METER_MAX_NAME_BYTES + 1));
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&meters_lock);
  ProducerMeter *self = find_or_make(name);

  self->streams++;
  self->last_use = ++uses;
  return self;
}

/**
 * producer_meter_free:
 * @self: (transfer full): the meter of a stream
 *
 * Ends the stream. The source's counts stay.
 */
void
producer_meter_free(ProducerMeter *self)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&meters_lock);

  self->streams--;
  self->last_use = ++uses;
}

/**
 * producer_meter_add_message:
 * @self: (transfer none): the meter of a stream
 * @bytes: the bytes of the message's frame
 *
 * Counts a message that was passed on.
 */
void
producer_meter_add_message(ProducerMeter *self, gsize bytes)
{
  count_shared(&self->counters.messages, 1);
  count_shared(&self->counters.bytes, bytes);
  count_shared(&sums.messages, 1);
  count_shared(&sums.bytes, bytes);
}

/**
 * producer_meter_add_dropped:
 * @self: (transfer none): the meter of a stream
 *
 * Counts a message that began and is not passed on.
 */
void
producer_meter_add_dropped(ProducerMeter *self)
{
  count_shared(&self->counters.dropped, 1);
  count_shared(&sums.dropped, 1);
}

/**
 * producer_meter_list:
 * @totals: (out): the sums over all sources, also those without a place; has no name
 *
 * Returns: (transfer full) (element-type ProducerCounts): the sources, in the order of their first streams
 */
GPtrArray *
producer_meter_list(ProducerCounts *totals)
{
  GPtrArray *list = g_ptr_array_new_with_free_func(free_counts);
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&meters_lock);

  *totals = read(sums);
  totals->streams = others.streams;
  for (const auto &meter : meters) {
    auto *counts = g_new(ProducerCounts, 1);
    *counts = read(meter->counters);
    counts->source = g_strdup(meter->source.c_str());
    counts->streams = meter->streams;
    totals->streams += meter->streams;
    g_ptr_array_add(list, counts);
  }
  return list;
}
