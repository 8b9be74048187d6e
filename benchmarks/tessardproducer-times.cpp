/* SPDX-License-Identifier: MIT */
/* Measures the processor time that tessardproducer takes for a video frame, of all threads of the process,
 * and prints a table. The element identity is measured beside it: both get the same frames in turn.
 *
 *   ninja -C build-desk benchmarks/tessardproducer-times && build-desk/benchmarks/tessardproducer-times
 *
 * With a receiver on the bus, which "./demo --serve --env FILE" starts, items are sent, otherwise they are
 * dropped. The table says which.
 */
#include "producerelement.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <gst/check/gstharness.h>
#include <gst/video/gstvideometa.h>
#include <vector>

namespace
{

constexpr guint ROUNDS = 31;
constexpr guint FRAMES_PER_ROUND = 120;
constexpr GstClockTime FRAME = GST_SECOND / 30;

/* Between two frames, so that they do not come faster than the receiver reads. */
constexpr gulong PAUSE_US = 1000;

/* Until a receiver has accepted the producer. */
constexpr guint START_FRAMES = 2000;

double
processor_microseconds()
{
  timespec time;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
}

/* Objects in rows, which move slowly. */
void
add_box(GstBuffer *buffer, guint number, guint64 frame)
{
  GstVideoRegionOfInterestMeta *region = gst_buffer_add_video_region_of_interest_meta(
      buffer, number % 2 == 0 ? "person" : "car", number % 10 * 60 + frame % 20, number / 10 * 90, 50, 70);
  gst_video_region_of_interest_meta_add_param(
      region, gst_structure_new("detection", "confidence", G_TYPE_DOUBLE, 0.75, nullptr));
}

/* An element, and the frames that pass it. */
class Filter
{
public:
  explicit Filter(GstElement *element)
      : element_(GST_ELEMENT(gst_object_ref_sink(element))),
        harness_(gst_harness_new_with_element(element_, "sink", "src"))
  {
    gst_harness_set_src_caps_str(harness_, "video/x-raw,format=GRAY8,width=640,height=480,framerate=30/1");
  }

  ~Filter()
  {
    gst_harness_teardown(harness_);
    gst_object_unref(element_);
  }

  Filter(const Filter &) = delete;
  Filter &operator=(const Filter &) = delete;

  void push(guint boxes)
  {
    GstBuffer *buffer = gst_buffer_new();
    GST_BUFFER_PTS(buffer) = frame_ * FRAME;
    for (guint i = 0; i < boxes; i++) {
      add_box(buffer, i, frame_);
    }
    frame_++;
    gst_harness_push(harness_, buffer);
    gst_buffer_unref(gst_harness_pull(harness_));
    g_usleep(PAUSE_US);
  }

  double time_round(guint boxes)
  {
    double start = processor_microseconds();
    for (guint i = 0; i < FRAMES_PER_ROUND; i++) {
      push(boxes);
    }
    return (processor_microseconds() - start) / FRAMES_PER_ROUND;
  }

  guint64 get_count(const char *name) const
  {
    g_autoptr(GstStructure) stats = nullptr;
    guint64 count = 0;
    g_object_get(element_, "stats", &stats, nullptr);
    gst_structure_get_uint64(stats, name, &count);
    return count;
  }

private:
  GstElement *element_;
  GstHarness *harness_;
  guint64 frame_ = 0;
};

double
median(std::vector<double> values)
{
  auto middle = values.begin() + static_cast<gssize>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

void
measure(Filter *identity, Filter *producer, guint boxes)
{
  std::vector<double> without;
  std::vector<double> with;
  for (guint i = 0; i < ROUNDS; i++) {
    without.push_back(identity->time_round(boxes));
    with.push_back(producer->time_round(boxes));
  }
  printf("| %u | %.1f | %.1f | %.1f |\n", boxes, median(without), median(with),
         median(with) - median(without));
}

GstElement *
make_producer()
{
  return GST_ELEMENT(g_object_new(TESSARD_TYPE_PRODUCER_ELEMENT, "producer-name", "Benchmark", nullptr));
}

} // namespace

int
main(int argc, char **argv)
{
  gst_init(&argc, &argv);
  Filter identity(gst_element_factory_make("identity", nullptr));
  Filter producer(make_producer());
  for (guint i = 0; i < START_FRAMES; i++) {
    producer.push(0);
  }
  guint64 sent = producer.get_count("sent");
  guint64 dropped = producer.get_count("dropped");
  printf(
      "| boxes | identity, µs a frame | tessardproducer, µs a frame | difference, µs |\n|---|---|---|---|\n");
  for (guint boxes : {0, 10, 50}) {
    measure(&identity, &producer, boxes);
  }
  printf("\nitems sent: %" G_GUINT64_FORMAT ", dropped: %" G_GUINT64_FORMAT "\n",
         producer.get_count("sent") - sent, producer.get_count("dropped") - dropped);
  return 0;
}
