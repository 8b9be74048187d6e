/* SPDX-License-Identifier: MIT */
/* Converts sample frames in order, each on its own thread and a few at a time.
 *
 * The thread owns some fields of a conversion until it returns them through the main loop; the main thread
 * owns the others. A thread cannot be cancelled. A conversion that takes too long is therefore abandoned: its
 * caller gets the failure, the next one begins, and the thread remains until the converter returns.
 *
 * A conversion waits while there are too few descriptors or threads for it.
 *
 * Conversions are started by a source of the main loop, so that no function is called before
 * sample_frame_queue_add() has returned.
 */
#include "sampleframequeue.h"

#include "descriptorreserve.h"
#include "ratelimitedlog.h"
#include "sampleframe.h"

#include <syslog.h>
#include <utility>

struct SampleFrameConversion {
  /* Owned by the thread while it runs. */
  gchar *json;
  gchar *producer_name;
  gchar *xml;

  /* Owned by the main thread. */
  SampleFrameFunc func; /* NULL after it was called or cancelled */
  gpointer user_data;
  guint deadline_id; /* 0 before the start and after the conversion is abandoned */
  DescriptorReservation *reservation;
};

namespace
{

GQueue waiting_conversions = G_QUEUE_INIT; /* of SampleFrameConversion */
guint running_conversions;
guint stuck_conversions;    /* abandoned ones, whose threads still run */
guint start_conversions_id; /* the source that starts the next ones, or 0 */
gboolean short_of_resources;

/* Shortages can begin and end often. */
RateLimitedLog conversion_shortage_log = RATE_LIMITED_LOG_INIT(RATE_LIMITED_LOG_INTERVAL_US);

void
free_conversion(SampleFrameConversion *conversion)
{
  g_free(conversion->json);
  g_free(conversion->producer_name);
  g_free(conversion->xml);
  g_clear_pointer(&conversion->reservation, descriptor_reservation_free);
  g_free(conversion);
}

void
report_conversion(SampleFrameConversion *conversion, const gchar *xml)
{
  const SampleFrameFunc func = std::exchange(conversion->func, nullptr);

  if (func != nullptr) {
    func(xml, conversion->user_data);
  }
}

gboolean on_conversions_ready(gpointer);

void
start_soon()
{
  if (start_conversions_id == 0 && !g_queue_is_empty(&waiting_conversions)) {
    start_conversions_id = g_idle_add_full(G_PRIORITY_DEFAULT, on_conversions_ready, nullptr, nullptr);
  }
}

gboolean
on_conversion_ended(gpointer user_data)
{
  auto *conversion = static_cast<SampleFrameConversion *>(user_data);

  if (conversion->deadline_id != 0) {
    g_source_remove(conversion->deadline_id);
    running_conversions--;
  } else {
    stuck_conversions--;
  }
  report_conversion(conversion, conversion->xml);
  free_conversion(conversion);
  start_soon();
  return G_SOURCE_REMOVE;
}

gboolean
on_conversion_deadline(gpointer user_data)
{
  auto *conversion = static_cast<SampleFrameConversion *>(user_data);

  conversion->deadline_id = 0;
  g_clear_pointer(&conversion->reservation, descriptor_reservation_free);
  running_conversions--;
  stuck_conversions++;
  report_conversion(conversion, nullptr);
  start_soon();
  return G_SOURCE_REMOVE;
}

/* The thread of one conversion. */
gpointer
run_conversion(gpointer user_data)
{
  auto *conversion = static_cast<SampleFrameConversion *>(user_data);

  conversion->xml = sample_frame_convert(&conversion->json, conversion->producer_name);
  g_idle_add_full(G_PRIORITY_DEFAULT, on_conversion_ended, conversion, nullptr);
  return nullptr;
}

void
fail_conversion(SampleFrameConversion *conversion)
{
  report_conversion(conversion, nullptr);
  free_conversion(conversion);
}

/* The deadline is set first, because the thread can end immediately. */
gboolean
start_conversion_thread(SampleFrameConversion *conversion, GError **error)
{
  conversion->deadline_id =
      g_timeout_add_seconds(SAMPLE_FRAME_QUEUE_MAX_SECONDS, on_conversion_deadline, conversion);
  GThread *thread = g_thread_try_new("sample-frame", run_conversion, conversion, error);
  if (thread == nullptr) {
    g_clear_handle_id(&conversion->deadline_id, g_source_remove);
    return FALSE;
  }
  g_thread_unref(thread);
  return TRUE;
}

/* FALSE when the conversion must wait. */
gboolean
begin_conversion(SampleFrameConversion *conversion, GError **error)
{
  conversion->reservation = descriptor_reservation_new(SAMPLE_FRAME_QUEUE_DESCRIPTORS, error);
  if (conversion->reservation == nullptr) {
    return FALSE;
  }
  if (!start_conversion_thread(conversion, error)) {
    g_clear_pointer(&conversion->reservation, descriptor_reservation_free);
    return FALSE;
  }
  running_conversions++;
  return TRUE;
}

/* Logs the shortage when it begins. */
void
back_off_conversions(const GError *error)
{
  if (!short_of_resources) {
    rate_limited_log(&conversion_shortage_log, LOG_WARNING, "sample frames wait for their conversion: %s",
                     error->message);
  }
  short_of_resources = TRUE;
  start_conversions_id = g_timeout_add(SAMPLE_FRAME_QUEUE_BACKOFF_MS, on_conversions_ready, nullptr);
}

/* Each running conversion can get stuck, so running ones count towards the limit of stuck ones. */
gboolean
has_room_for_conversion()
{
  return running_conversions == 0 || (running_conversions < SAMPLE_FRAME_QUEUE_MAX_RUNNING &&
                                      running_conversions + stuck_conversions < SAMPLE_FRAME_QUEUE_MAX_STUCK);
}

gboolean
on_conversions_ready(gpointer)
{
  start_conversions_id = 0;
  while (has_room_for_conversion() && !g_queue_is_empty(&waiting_conversions)) {
    g_autoptr(GError) error = nullptr;
    auto *conversion = static_cast<SampleFrameConversion *>(g_queue_peek_head(&waiting_conversions));
    if (stuck_conversions == SAMPLE_FRAME_QUEUE_MAX_STUCK) {
      g_queue_pop_head(&waiting_conversions);
      fail_conversion(conversion);
    } else if (begin_conversion(conversion, &error)) {
      g_queue_pop_head(&waiting_conversions);
      short_of_resources = FALSE;
    } else {
      back_off_conversions(error);
      break;
    }
  }
  return G_SOURCE_REMOVE;
}

} // namespace

/**
 * sample_frame_queue_add:
 * @json: (transfer full): a sample frame in JSON
 * @producer_name: (transfer none): the name of its producer
 * @func: called once with the result, unless the conversion is cancelled; never from inside this function
 * @user_data: for @func
 *
 * Queues a sample frame for conversion.
 *
 * Warnings: "sample frames wait for their conversion: %s", when a shortage of descriptors or threads begins
 *
 * Returns: (transfer none): the conversion, freed after the call of @func
 */
SampleFrameConversion *
sample_frame_queue_add(gchar *json, const gchar *producer_name, SampleFrameFunc func, gpointer user_data)
{
  auto *conversion = g_new0(SampleFrameConversion, 1);

  conversion->json = json;
  conversion->producer_name = g_strdup(producer_name);
  conversion->func = func;
  conversion->user_data = user_data;
  g_queue_push_tail(&waiting_conversions, conversion);
  start_soon();
  return conversion;
}

/**
 * sample_frame_queue_cancel:
 * @conversion: (transfer none): a conversion whose function has not been called
 *
 * Cancels a conversion: its function is not called. A running one still counts as running until it ends.
 */
void
sample_frame_queue_cancel(SampleFrameConversion *conversion)
{
  conversion->func = nullptr;
  if (g_queue_remove(&waiting_conversions, conversion)) {
    free_conversion(conversion);
  }
}
