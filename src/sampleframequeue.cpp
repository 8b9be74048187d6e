/* Converts sample frames off the main thread, a few at a time and in the order in which they come.
 *
 * A conversion runs in a thread of its own, which owns it until it hands it back through the main loop.
 * Meanwhile the main thread reads and writes only those fields that the thread does not touch. A thread
 * cannot be ended from outside. So a conversion that takes too long is given up: its caller is told, its
 * place goes to the next one, and its thread stays behind until the converter lets go of it.
 *
 * A conversion for which there are too few descriptors or threads waits until there are enough.
 *
 * The main thread begins conversions from a source of its own, never from inside a call, so that no caller is
 * called back before it knows what it has asked for.
 *
 * Main thread, but for the conversion itself.
 */
#include "sampleframequeue.h"

#include "descriptorreserve.h"
#include "ratelimitedlog.h"
#include "sampleframe.h"

#include <syslog.h>
#include <utility>

struct SampleFrameConversion {
  /* The thread's, while there is one. */
  gchar *json;
  gchar *producer_name;
  gchar *xml;

  /* The main thread's. */
  SampleFrameFunc func; /* NULL once nobody waits for the end */
  gpointer user_data;
  guint deadline_id; /* 0 before the thread begins, and after it is given up */
  DescriptorReservation *reservation;
};

namespace
{

GQueue waiting = G_QUEUE_INIT; /* of SampleFrameConversion */
guint running;
guint stuck;    /* those that were given up, whose threads are still there */
guint start_id; /* the source that begins the next ones, or 0 */
gboolean short_of_resources;

/* A shortage may begin and end all the time. */
RateLimitedLog shortage_log = RATE_LIMITED_LOG_INIT(RATE_LIMITED_LOG_INTERVAL_US);

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
report(SampleFrameConversion *conversion, const gchar *xml)
{
  const SampleFrameFunc func = std::exchange(conversion->func, nullptr);

  if (func != nullptr) {
    func(xml, conversion->user_data);
  }
}

gboolean start(gpointer);

void
start_soon()
{
  if (start_id == 0 && !g_queue_is_empty(&waiting)) {
    start_id = g_idle_add_full(G_PRIORITY_DEFAULT, start, nullptr, nullptr);
  }
}

gboolean
on_converted(gpointer user_data)
{
  auto *conversion = static_cast<SampleFrameConversion *>(user_data);

  if (conversion->deadline_id != 0) {
    g_source_remove(conversion->deadline_id);
    running--;
  } else {
    stuck--;
  }
  report(conversion, conversion->xml);
  free_conversion(conversion);
  start_soon();
  return G_SOURCE_REMOVE;
}

gboolean
on_deadline(gpointer user_data)
{
  auto *conversion = static_cast<SampleFrameConversion *>(user_data);

  conversion->deadline_id = 0;
  g_clear_pointer(&conversion->reservation, descriptor_reservation_free);
  running--;
  stuck++;
  report(conversion, nullptr);
  start_soon();
  return G_SOURCE_REMOVE;
}

/* The thread of one conversion. */
gpointer
convert(gpointer user_data)
{
  auto *conversion = static_cast<SampleFrameConversion *>(user_data);

  conversion->xml = sample_frame_convert(&conversion->json, conversion->producer_name);
  g_idle_add_full(G_PRIORITY_DEFAULT, on_converted, conversion, nullptr);
  return nullptr;
}

void
fail(SampleFrameConversion *conversion)
{
  report(conversion, nullptr);
  free_conversion(conversion);
}

/* The deadline is there before the thread, which may be through at once. */
gboolean
start_thread(SampleFrameConversion *conversion, GError **error)
{
  conversion->deadline_id = g_timeout_add_seconds(SAMPLE_FRAME_QUEUE_MAX_SECONDS, on_deadline, conversion);
  GThread *thread = g_thread_try_new("sample-frame", convert, conversion, error);
  if (thread == nullptr) {
    g_clear_handle_id(&conversion->deadline_id, g_source_remove);
    return FALSE;
  }
  g_thread_unref(thread);
  return TRUE;
}

/* FALSE when it has to wait. */
gboolean
begin(SampleFrameConversion *conversion, GError **error)
{
  conversion->reservation = descriptor_reservation_new(SAMPLE_FRAME_QUEUE_DESCRIPTORS, error);
  if (conversion->reservation == nullptr) {
    return FALSE;
  }
  if (!start_thread(conversion, error)) {
    g_clear_pointer(&conversion->reservation, descriptor_reservation_free);
    return FALSE;
  }
  running++;
  return TRUE;
}

/* The shortage is logged when it begins. */
void
rest(const GError *error)
{
  if (!short_of_resources) {
    rate_limited_log(&shortage_log, LOG_WARNING, "sample frames wait for their conversion: %s",
                     error->message);
  }
  short_of_resources = TRUE;
  start_id = g_timeout_add(SAMPLE_FRAME_QUEUE_REST_MS, start, nullptr);
}

/* Any of those that run may get stuck. Once too many are, none runs, and those that wait can fail. */
gboolean
has_place()
{
  return running == 0 ||
         (running < SAMPLE_FRAME_QUEUE_MAX_RUNNING && running + stuck < SAMPLE_FRAME_QUEUE_MAX_STUCK);
}

gboolean
start(gpointer)
{
  start_id = 0;
  while (has_place() && !g_queue_is_empty(&waiting)) {
    g_autoptr(GError) error = nullptr;
    auto *conversion = static_cast<SampleFrameConversion *>(g_queue_peek_head(&waiting));
    if (stuck == SAMPLE_FRAME_QUEUE_MAX_STUCK) {
      g_queue_pop_head(&waiting);
      fail(conversion);
    } else if (begin(conversion, &error)) {
      g_queue_pop_head(&waiting);
      short_of_resources = FALSE;
    } else {
      rest(error);
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
 * Converts a sample frame when its turn comes. Main thread.
 *
 * Warnings: "sample frames wait for their conversion: %s", when a shortage of descriptors or threads begins
 *
 * Returns: (transfer none): the conversion, which goes when @func has been called
 */
SampleFrameConversion *
sample_frame_queue_add(gchar *json, const gchar *producer_name, SampleFrameFunc func, gpointer user_data)
{
  auto *conversion = g_new0(SampleFrameConversion, 1);

  conversion->json = json;
  conversion->producer_name = g_strdup(producer_name);
  conversion->func = func;
  conversion->user_data = user_data;
  g_queue_push_tail(&waiting, conversion);
  start_soon();
  return conversion;
}

/**
 * sample_frame_queue_cancel:
 * @conversion: (transfer none): a conversion whose function has not been called
 *
 * Ends a conversion: its function will not be called. One that runs keeps its place until it is through.
 * Main thread.
 */
void
sample_frame_queue_cancel(SampleFrameConversion *conversion)
{
  conversion->func = nullptr;
  if (g_queue_remove(&waiting, conversion)) {
    free_conversion(conversion);
  }
}
