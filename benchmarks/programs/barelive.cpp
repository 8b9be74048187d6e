/* SPDX-License-Identifier: MIT */
/* The clients' pipelines without the daemon: it makes and starts them in its main thread, one after the
 * other.
 *
 *   benchlive
 *
 * Each line of standard input is a command:
 *
 *   open COUNT KIND   makes and starts pipelines; KIND is events, ptz, video, radar or detections
 *   close             stops all pipelines
 *
 * After "open" it prints for each pipeline the time at which gst_element_set_state() returned, and the time
 * at which its first document was there, in nanoseconds since the command. After "close" it prints a line. */
#include "packetcounter.h"
#include "streams.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#include <iostream>
#include <poll.h>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace benchmarks
{

namespace
{

constexpr int BOUND_MS = 30 * 1000;
constexpr gsize READ_BYTES = 64 * 1024;

/* An item like the one with which the daemon lets a pipeline begin. */
constexpr const char *FIRST_FRAME = R"({"Source":"StreamStart","Data":{"Item":[{}]}})";

[[noreturn]] void
die(const char *what)
{
  fprintf(stderr, "benchlive: %s\n", what);
  exit(EXIT_FAILURE);
}

GstElement *
add(GstElement *bin, const char *factory)
{
  GstElement *element = gst_element_factory_make(factory, nullptr);

  if (element == nullptr) {
    die(factory);
  }
  gst_bin_add(GST_BIN(bin), element);
  return element;
}

void
show(GstElement *bin, GstElement *last)
{
  g_autoptr(GstPad) pad = gst_element_get_static_pad(last, "src");

  gst_element_add_pad(bin, gst_ghost_pad_new("src", pad));
}

GstElement *
make_scenes(const char *source_name, const char *media_type, const char *converter_name)
{
  GstElement *bin = gst_bin_new(nullptr);
  GstElement *source = add(bin, source_name);
  GstElement *filter = add(bin, "capsfilter");
  GstElement *converter = add(bin, converter_name);
  g_autoptr(GstCaps) caps =
      gst_caps_new_simple(media_type, "bounding-box", G_TYPE_BOOLEAN, TRUE, "polygon", G_TYPE_BOOLEAN, TRUE,
                          "velocity", G_TYPE_BOOLEAN, TRUE, "channel", G_TYPE_INT, 1, nullptr);

  g_object_set(filter, "caps", caps, nullptr);
  if (!gst_element_link_many(source, filter, converter, nullptr)) {
    die("the scenes cannot be linked");
  }
  show(bin, converter);
  return bin;
}

GstElement *
make_detections()
{
  GstElement *bin = gst_bin_new(nullptr);
  GstElement *source = add(bin, "appsrc");
  GstElement *converter = add(bin, "json2xml");

  gst_element_link(source, converter);
  show(bin, converter);
  gst_app_src_push_buffer(GST_APP_SRC(source),
                          gst_buffer_new_wrapped(g_strdup(FIRST_FRAME), strlen(FIRST_FRAME)));
  return bin;
}

GstElement *
make_source(const std::string &kind)
{
  if (kind == "events") {
    return gst_element_factory_make("onvifeventsrc", nullptr);
  }
  if (kind == "ptz") {
    return gst_element_factory_make("statuscacheptzsrc", nullptr);
  }
  if (kind == "video") {
    return make_scenes("scenesrc", "application/vnd.quon.scene", "scene2xml");
  }
  if (kind == "radar") {
    return make_scenes("radarscenesrc", "application/vnd.quon.radarscene", "radarscene2xml");
  }
  return kind == "detections" ? make_detections() : nullptr;
}

/* A pipeline that plays, and the reading end of its client's socket. */
struct Live {
  GstElement *pipeline;
  int client;
  gint64 started;
};

Live
start_live(const std::string &kind)
{
  std::array<int, 2> ends = {-1, -1};
  GstElement *pipeline = gst_pipeline_new(nullptr);
  GstElement *source = make_source(kind);

  if (source == nullptr || socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
    die("no source or no socket");
  }
  gst_bin_add(GST_BIN(pipeline), source);
  GstElement *document = add(pipeline, "onvifxmlmetadatastreamdoc");
  GstElement *queue = add(pipeline, "queue");
  GstElement *payloader = add(pipeline, "gdppay");
  GstElement *sink = add(pipeline, "fdsink");
  g_object_set(sink, "fd", ends[1], nullptr);
  set_nonblocking(ends[1]);
  if (!gst_element_link_many(source, document, queue, payloader, sink, nullptr) ||
      gst_element_set_state(pipeline, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
    die("a pipeline does not start");
  }
  /* The sink uses the descriptor until the pipeline stops, and does not close it. */
  g_object_set_data(G_OBJECT(pipeline), "fd", GINT_TO_POINTER(ends[1]));
  return Live{pipeline, ends[0], now_ns()};
}

gint64
wait_for_document(int client)
{
  static std::array<guint8, READ_BYTES> data;
  PacketCounter counter(PacketForm::GDP);

  while (counter.count() == 0) {
    pollfd polled = {client, POLLIN, 0};
    const gssize size = poll(&polled, 1, BOUND_MS) == 1 ? recv(client, data.data(), data.size(), 0) : 0;
    if (size <= 0) {
      die("no first document");
    }
    counter.feed(data.data(), size);
  }
  return now_ns();
}

void
open_all(std::vector<Live> *all, gsize count, const std::string &kind)
{
  const gint64 since = now_ns();
  const gsize first = all->size();
  std::vector<gint64> documents;

  documents.reserve(count);
  for (gsize i = 0; i < count; i++) {
    all->push_back(start_live(kind));
  }
  for (gsize i = first; i < all->size(); i++) {
    documents.push_back(wait_for_document((*all)[i].client));
  }
  for (gsize i = 0; i < count; i++) {
    printf(" %" G_GINT64_FORMAT " %" G_GINT64_FORMAT, (*all)[first + i].started - since,
           documents[i] - since);
  }
  printf("\n");
}

void
close_all(std::vector<Live> *all)
{
  for (const Live &live : *all) {
    const int fd = GPOINTER_TO_INT(g_object_get_data(G_OBJECT(live.pipeline), "fd"));
    gst_element_set_state(live.pipeline, GST_STATE_NULL);
    gst_object_unref(live.pipeline);
    close(fd);
    close(live.client);
  }
  all->clear();
  printf("\n");
}

} // namespace

} // namespace benchmarks

int
main(int argc, char **argv)
{
  std::vector<benchmarks::Live> all;

  gst_init(&argc, &argv);
  for (std::string line; std::getline(std::cin, line);) {
    std::istringstream words(line);
    std::string command;
    std::string kind;
    gsize count = 0;
    words >> command >> count >> kind;
    if (command == "open" && words) {
      benchmarks::open_all(&all, count, kind);
    } else {
      benchmarks::close_all(&all);
    }
    fflush(stdout);
  }
  return EXIT_SUCCESS;
}
