/* SPDX-License-Identifier: MIT */
/* Measures the processor time that json2xml's conversion takes for an object and for a point of a polygon,
 * and prints a table. The conversion with json-glib and libxml2, which tests compare with, is measured beside
 * it: both convert the same frames in turn.
 *
 *   ninja -C build-desk benchmarks/json2xml-times && build-desk/benchmarks/json2xml-times
 */
#include "oraclefragment.h"
#include "oracleframe.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <functional>

namespace
{

constexpr guint ROUNDS = 101;
constexpr guint OBJECTS_PER_ROUND = 1000;
constexpr guint POINTS = 32;
constexpr gint64 ARRIVAL = G_GINT64_CONSTANT(1704067200250000);

using Conversion = std::function<GstBuffer *(GstBuffer *)>;

double
processor_nanoseconds()
{
  timespec time;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

/* A number in the picture with four decimals, as most detectors write it. */
std::string
coordinate(guint number)
{
  g_autofree char *text = g_strdup_printf("%.4f", (number * 7919 % 20001) / 10000.0 - 1);
  return text;
}

std::string
polygon(guint id, guint points)
{
  std::string list;
  for (guint i = 0; i < points; i++) {
    list += (i > 0 ? ",[" : "[") + coordinate(id + i) + "," + coordinate(id + 3 * i) + "]";
  }
  return points > 0 ? ",\"Polygon\":[" + list + "]" : "";
}

std::string
object(guint id, guint points)
{
  return "{\"Id\":" + std::to_string(id) +
         R"(,"BoundingBox":{"Left":-0.2512,"Top":0.5034,"Right":0.2576,"Bottom":-0.5098})" +
         polygon(id, points) + R"(,"Type":"Human","Likelihood":0.96})";
}

GstBuffer *
frame(guint objects, guint points)
{
  std::string list;
  for (guint id = 0; id < objects; id++) {
    list += (id > 0 ? "," : "") + object(id, points);
  }
  std::string text =
      R"({"Source":"Front door","Data":{"Item":[{"UtcTime":"2024-01-01T00:00:00.25Z","Objects":[)" + list +
      "]}]}}";
  return gst_buffer_new_memdup(text.data(), text.size());
}

std::string
text_of(GstBuffer *buffer)
{
  std::string text(gst_buffer_get_size(buffer), '\0');
  gst_buffer_extract(buffer, 0, text.data(), text.size());
  return text;
}

GstBuffer *
convert_before(GstBuffer *buffer)
{
  oracle::Reading reading;
  return oracle::frame_to_fragment(*oracle::read_frame_text(text_of(buffer), &reading), {}, ARRIVAL);
}

GstBuffer *
convert_after(plugins::ProducerReader *reader, GstBuffer *buffer)
{
  plugins::ProducerFlaws flaws;
  return plugins::producer_frame_to_fragment(*reader->read(buffer, &flaws), {}, ARRIVAL);
}

/* Returns: the time for one object, from as many frames as a round has */
double
time_round(const Conversion &convert, GstBuffer *buffer, guint objects)
{
  guint frames = OBJECTS_PER_ROUND / objects;
  double start = processor_nanoseconds();
  for (guint i = 0; i < frames; i++) {
    gst_buffer_unref(convert(buffer));
  }
  return (processor_nanoseconds() - start) / (frames * objects);
}

double
median(std::vector<double> values)
{
  auto middle = values.begin() + static_cast<gssize>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

struct Times {
  double before;
  double after;
};

/* Returns: the medians for one object */
Times
measure(guint objects, guint points)
{
  plugins::ProducerReader reader;
  auto convert = [&reader](GstBuffer *buffer) { return convert_after(&reader, buffer); };
  g_autoptr(GstBuffer) buffer = frame(objects, points);
  std::vector<double> before;
  std::vector<double> after;
  for (guint i = 0; i < ROUNDS; i++) {
    before.push_back(time_round(convert_before, buffer, objects));
    after.push_back(time_round(convert, buffer, objects));
  }
  return {.before = median(before), .after = median(after)};
}

void
print_row(guint objects, const char *what, const Times &times)
{
  printf("| %u | %s | %.2f | %.3f | %.1f |\n", objects, what, times.before / 1000, times.after / 1000,
         times.before / times.after);
}

} // namespace

int
main(int argc, char **argv)
{
  gst_init(&argc, &argv);
  printf("| objects per frame | for | json-glib and libxml2, µs | json2xml, µs | ratio "
         "|\n|---|---|---|---|---|\n");
  for (guint objects : {1, 10, 100}) {
    Times plain = measure(objects, 0);
    Times outlined = measure(objects, POINTS);
    print_row(objects, "an object without a polygon", plain);
    print_row(objects, "an object with a polygon of 32 points", outlined);
    print_row(objects, "each of these points",
              {.before = (outlined.before - plain.before) / POINTS,
               .after = (outlined.after - plain.after) / POINTS});
  }
  return 0;
}
