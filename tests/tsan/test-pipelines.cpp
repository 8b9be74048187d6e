/* SPDX-License-Identifier: MIT */
#include "selftest.h"

#include <gst/gst.h>

namespace
{

int value;
std::atomic<bool> received;

void
add()
{
  value++;
}

void
add_when_received()
{
  wait_unseen(received);
  add();
}

constexpr auto NOTHING = [] {};

// A source and a sink, and a main loop that runs until the first message of the source has arrived.
class Pipeline
{
public:
  Pipeline(void (*before_post)(), void (*after_post)()) : before_post_(before_post), after_post_(after_post)
  {
    gst_init(nullptr, nullptr);
    loop_ = g_main_loop_new(nullptr, FALSE);
    pipeline_ = gst_pipeline_new(nullptr);
    source_ = gst_element_factory_make("fakesrc", nullptr);
    GstElement *sink = gst_element_factory_make("fakesink", nullptr);
    gst_bin_add_many(GST_BIN(pipeline_), source_, sink, nullptr);
    gst_element_link(source_, sink);
  }
  ~Pipeline()
  {
    gst_element_set_state(pipeline_, GST_STATE_NULL);
    gst_object_unref(pipeline_);
    g_main_loop_unref(loop_);
  }
  Pipeline(const Pipeline &) = delete;
  Pipeline &operator=(const Pipeline &) = delete;

  // The streaming thread posts when the first buffer arrives.
  void post_from_streaming_thread()
  {
    g_autoptr(GstPad) pad = gst_element_get_static_pad(source_, "src");
    gst_pad_add_probe(
        pad, GST_PAD_PROBE_TYPE_BUFFER,
        [](GstPad *, GstPadProbeInfo *, gpointer self) {
          static_cast<Pipeline *>(self)->post();
          return GST_PAD_PROBE_REMOVE;
        },
        this, nullptr);
    receive([this] { gst_element_set_state(pipeline_, GST_STATE_PLAYING); });
  }

  void post_asynchronously()
  {
    receive([this] {
      gst_element_call_async(
          source_, [](GstElement *, gpointer self) { static_cast<Pipeline *>(self)->post(); }, this, nullptr);
    });
  }

private:
  void post()
  {
    before_post_();
    gst_element_post_message(
        source_, gst_message_new_application(GST_OBJECT(source_), gst_structure_new_empty("first")));
    after_post_();
    posted_.store(true, std::memory_order_relaxed);
  }

  void receive(const std::function<void()> &cause)
  {
    g_autoptr(GstBus) bus = gst_element_get_bus(pipeline_);
    gst_bus_add_watch(bus, on_message, this);
    add();
    cause();
    g_main_loop_run(loop_);
    gst_bus_remove_watch(bus);
  }

  // Waits, unseen, until the other thread has ended its part: no lock that this thread takes on its way back
  // can order the two.
  static gboolean on_message(GstBus *, GstMessage *message, gpointer user_data)
  {
    auto *self = static_cast<Pipeline *>(user_data);
    if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_APPLICATION) {
      add();
      received.store(true, std::memory_order_relaxed);
      wait_unseen(self->posted_);
      g_main_loop_quit(self->loop_);
    }
    return G_SOURCE_CONTINUE;
  }

  void (*before_post_)();
  void (*after_post_)();
  std::atomic<bool> posted_ = false;
  GMainLoop *loop_;
  GstElement *pipeline_;
  GstElement *source_;
};

void
touch_beside_streaming_thread()
{
  Pipeline pipeline(add, NOTHING);
  Thread thread([] {
    add();
    add();
  });
  pipeline.post_from_streaming_thread();
}

// From the thread that pushes a buffer into an application source to the streaming thread.
void
push_to_streaming_thread(void (*after_push)())
{
  gst_init(nullptr, nullptr);
  g_autoptr(GstElement) pipeline = gst_parse_launch("appsrc name=source ! fakesink sync=false", nullptr);
  g_autoptr(GstElement) source = gst_bin_get_by_name(GST_BIN(pipeline), "source");
  g_autoptr(GstPad) pad = gst_element_get_static_pad(source, "src");
  gst_pad_add_probe(
      pad, GST_PAD_PROBE_TYPE_BUFFER,
      [](GstPad *, GstPadProbeInfo *, gpointer) {
        add();
        received.store(true, std::memory_order_relaxed);
        return GST_PAD_PROBE_REMOVE;
      },
      nullptr, nullptr);
  gst_element_set_state(pipeline, GST_STATE_PLAYING);
  g_autoptr(GstBuffer) buffer = gst_buffer_new();
  GstFlowReturn result = GST_FLOW_OK;
  add();
  g_signal_emit_by_name(source, "push-buffer", buffer, &result);
  wait_unseen(received);
  after_push();
  gst_element_set_state(pipeline, GST_STATE_NULL);
}

// The thread that drops the last reference frees the memory, inside the library.
void
drop_buffer_on_two_threads()
{
  gst_init(nullptr, nullptr);
  auto *data = new int(0);
  GstBuffer *buffer =
      gst_buffer_new_wrapped_full(GST_MEMORY_FLAG_READONLY, data, sizeof *data, 0, sizeof *data, data,
                                  [](gpointer user_data) { delete static_cast<int *>(user_data); });
  gst_buffer_ref(buffer);
  Thread thread([&] {
    ++*data;
    gst_buffer_unref(buffer);
  });
  gst_buffer_unref(buffer);
}

} // namespace

INSTANTIATE_TEST_SUITE_P(
    Pipelines, SelfTest,
    testing::Values(Case{"Message", [] { Pipeline(add, NOTHING).post_from_streaming_thread(); }, NO_REPORT},
                    Case{"TouchedAfterPost",
                         [] { Pipeline(NOTHING, add_when_received).post_from_streaming_thread(); }, RACE},
                    Case{"CallAsync", [] { Pipeline(add, NOTHING).post_asynchronously(); }, NO_REPORT},
                    Case{"TouchedAfterPostInCallAsync",
                         [] { Pipeline(NOTHING, add_when_received).post_asynchronously(); }, RACE},
                    Case{"TouchedDuringStreamingThread", touch_beside_streaming_thread, RACE},
                    Case{"Push", [] { push_to_streaming_thread(NOTHING); }, NO_REPORT},
                    Case{"TouchedAfterPush", [] { push_to_streaming_thread(add); }, RACE},
                    Case{"LastReferenceToBuffer", drop_buffer_on_two_threads, NO_REPORT}),
    case_name);
