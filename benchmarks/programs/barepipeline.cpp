/* SPDX-License-Identifier: MIT */
/* What GStreamer alone costs: the elements of a client's pipeline, in the bins in which the daemon has them,
 * fed by a loop of blocking reads in a thread for each stream. Each message is read into its frame, which is
 * one block of memory.
 *
 *   benchpipeline IN:OUT... */
#include "streams.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#include <string_view>
#include <thread>
#include <vector>

namespace benchmarks
{

namespace
{

/* The text around an item, for a producer of the name of the benchmarks'. */
constexpr std::string_view FRAME_START = "{\"Source\":\"Benchmark\",\"Data\":{\"Item\":[";
constexpr std::string_view FRAME_END = "]}}";

/* The daemon's limit of a client's queued messages. With a shorter queue the threads wait for each other more
 * often, which costs more. */
constexpr guint64 QUEUE_BYTES = G_GUINT64_CONSTANT(8) * 1024 * 1024;

GstElement *
add(GstElement *bin, const char *factory)
{
  GstElement *element = gst_element_factory_make(factory, nullptr);

  if (element == nullptr) {
    fprintf(stderr, "benchpipeline: there is no element %s\n", factory);
    exit(EXIT_FAILURE);
  }
  gst_bin_add(GST_BIN(bin), element);
  return element;
}

/* A bin of the application source and the converter, like the one for external producers. */
GstElement *
make_source(GstElement **app_source)
{
  GstElement *bin = gst_bin_new(nullptr);
  *app_source = add(bin, "appsrc");
  GstElement *converter = add(bin, "json2xml");

  g_object_set(*app_source, "block", TRUE, "max-bytes", QUEUE_BYTES, nullptr);
  gst_element_link(*app_source, converter);
  g_autoptr(GstPad) pad = gst_element_get_static_pad(converter, "src");
  gst_element_add_pad(bin, gst_ghost_pad_new("src", pad));
  return bin;
}

/* The client's socket is non-blocking, as the daemon makes it. */
GstAppSrc *
start_pipeline(int fd)
{
  GstElement *pipeline = gst_pipeline_new(nullptr);
  GstElement *app_source = nullptr;
  GstElement *source = make_source(&app_source);
  GstElement *document = add(pipeline, "onvifxmlmetadatastreamdoc");
  GstElement *queue = add(pipeline, "queue");
  GstElement *payloader = add(pipeline, "gdppay");
  GstElement *sink = add(pipeline, "fdsink");

  gst_bin_add(GST_BIN(pipeline), source);
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
  g_object_set(sink, "fd", fd, nullptr);
  if (!gst_element_link(source, document) ||
      !gst_element_link_many(document, queue, payloader, sink, nullptr) ||
      gst_element_set_state(pipeline, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
    fprintf(stderr, "benchpipeline: a pipeline does not start\n");
    exit(EXIT_FAILURE);
  }
  return GST_APP_SRC(app_source);
}

bool
pass_on(int fd, GstAppSrc *source)
{
  guint32 size = 0;

  if (!read_exactly(fd, &size, sizeof size)) {
    return false;
  }
  const gsize frame_size = FRAME_START.size() + size + FRAME_END.size();
  auto *frame = static_cast<guint8 *>(g_malloc(frame_size));
  memcpy(frame, FRAME_START.data(), FRAME_START.size());
  const bool complete = read_exactly(fd, frame + FRAME_START.size(), size);
  memcpy(frame + FRAME_START.size() + size, FRAME_END.data(), FRAME_END.size());
  return gst_app_src_push_buffer(source, gst_buffer_new_wrapped(frame, frame_size)) == GST_FLOW_OK &&
         complete;
}

void
feed(StreamPair pair)
{
  GstAppSrc *source = start_pipeline(pair.out);

  while (pass_on(pair.in, source)) {
  }
}

} // namespace

} // namespace benchmarks

int
main(int argc, char **argv)
{
  std::vector<std::thread> threads;

  gst_init(&argc, &argv);
  for (int i = 1; i < argc; i++) {
    benchmarks::StreamPair pair = {};
    if (!benchmarks::parse_stream_pair(argv[i], &pair)) {
      return 2;
    }
    threads.emplace_back(benchmarks::feed, pair);
  }
  for (std::thread &thread : threads) {
    thread.join();
  }
  return 0;
}
