/* SPDX-License-Identifier: MIT */
#include "metadata.h"
#include "metadatareader.h"

#include <atomic>
#include <gst/check/gstharness.h>
#include <gtest/gtest.h>
#include <string>
#include <thread>

G_DEFINE_AUTOPTR_CLEANUP_FUNC(GstHarness, gst_harness_teardown)

namespace
{

constexpr const char *FRAGMENT = "<a:b xmlns:a=\"urn:a\"/>";
constexpr const char *DOCUMENT = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
                                 "<tt:MetadataStream xmlns:tt=\"http://www.onvif.org/ver10/schema\">"
                                 "<a:b xmlns:a=\"urn:a\"/></tt:MetadataStream>";

constexpr gint64 PATIENCE = 10 * G_USEC_PER_SEC;

/* The element with two inputs that the test pushes to, and an output that it pulls buffers and events from.
 */
class MetadataStreamDoc : public testing::Test
{
protected:
  static void SetUpTestSuite()
  {
    gst_init(nullptr, nullptr);
  }

  void SetUp() override
  {
    first_ = gst_harness_new_with_padnames("onvifxmlmetadatastreamdoc", "sink_%u", "src");
    second_ = gst_harness_new_with_element(first_->element, "sink_%u", nullptr);
    gst_harness_set_src_caps_str(first_, onvif::FRAGMENT_CAPS);
    gst_harness_set_src_caps_str(second_, onvif::FRAGMENT_CAPS);
  }

  void TearDown() override
  {
    g_clear_pointer(&second_, gst_harness_teardown);
    g_clear_pointer(&first_, gst_harness_teardown);
  }

  GstElement *element() const
  {
    return first_->element;
  }

  std::string pull() const
  {
    g_autoptr(GstBuffer) buffer = gst_harness_try_pull(first_);
    return buffer != nullptr ? buffer_text(buffer) : std::string();
  }

  std::vector<GstEventType> events() const
  {
    std::vector<GstEventType> types;
    for (GstEvent *event = gst_harness_try_pull_event(first_); event != nullptr;
         event = gst_harness_try_pull_event(first_)) {
      types.push_back(GST_EVENT_TYPE(event));
      gst_event_unref(event);
    }
    return types;
  }

  /* Releases an input, as when its source is removed. */
  void release(GstHarness **input)
  {
    g_autoptr(GstPad) pad = gst_pad_get_peer((*input)->srcpad);
    gst_element_release_request_pad(element(), pad);
  }

  GstHarness *first_ = nullptr;
  GstHarness *second_ = nullptr;
};

GstBuffer *
fragment_new(GstClockTime time = GST_CLOCK_TIME_NONE)
{
  GstBuffer *buffer = gst_buffer_new_memdup(FRAGMENT, strlen(FRAGMENT));
  GST_BUFFER_PTS(buffer) = time;
  return buffer;
}

using Types = std::vector<GstEventType>;

const Types HEADERS = {GST_EVENT_STREAM_START, GST_EVENT_CAPS, GST_EVENT_SEGMENT};
const Types HEADERS_AND_END = {GST_EVENT_STREAM_START, GST_EVENT_CAPS, GST_EVENT_SEGMENT, GST_EVENT_EOS};

/* Waits, with a bound, for a signal of another thread. */
class Signal
{
public:
  void set()
  {
    g_mutex_lock(&lock_);
    done_ = true;
    g_cond_signal(&changed_);
    g_mutex_unlock(&lock_);
  }

  bool wait()
  {
    gint64 deadline = g_get_monotonic_time() + PATIENCE;
    g_mutex_lock(&lock_);
    while (!done_ && g_cond_wait_until(&changed_, &lock_, deadline)) {
    }
    bool done = done_;
    g_mutex_unlock(&lock_);
    return done;
  }

private:
  GMutex lock_ = {};
  GCond changed_ = {};
  bool done_ = false;
};

/* Stops every buffer on a pad until released. */
class Block
{
public:
  explicit Block(GstPad *pad) : pad_(pad)
  {
    auto type = static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BLOCK | GST_PAD_PROBE_TYPE_BUFFER);
    id_ = gst_pad_add_probe(pad, type, on_blocked, this, nullptr);
  }

  void release()
  {
    gst_pad_remove_probe(pad_, id_);
  }

  Signal reached;

private:
  static GstPadProbeReturn on_blocked(GstPad *pad, GstPadProbeInfo *info, gpointer user_data)
  {
    static_cast<Block *>(user_data)->reached.set();
    return GST_PAD_PROBE_OK;
  }

  GstPad *pad_;
  gulong id_;
};

int
count_sync_points(GstHarness *input)
{
  int count = 0;
  for (GstEvent *event = gst_harness_try_pull_upstream_event(input); event != nullptr;
       event = gst_harness_try_pull_upstream_event(input)) {
    if (GST_EVENT_TYPE(event) == GST_EVENT_CUSTOM_UPSTREAM && onvif::is_sync_point_event(event)) {
      count++;
    }
    gst_event_unref(event);
  }
  return count;
}

/* The event that a client's pipeline sends. */
GstEvent *
downstream_sync_point_new()
{
  return gst_event_new_custom(GST_EVENT_CUSTOM_DOWNSTREAM,
                              gst_structure_new_empty("GstMetaDataStreamSetSyncPoint"));
}

TEST_F(MetadataStreamDoc, WrapsEachFragmentInADocument)
{
  EXPECT_EQ(gst_harness_push(first_, fragment_new()), GST_FLOW_OK);
  EXPECT_EQ(pull(), DOCUMENT);
  EXPECT_EQ(pull(), "");
  EXPECT_EQ(root_name(DOCUMENT), "http://www.onvif.org/ver10/schema MetadataStream");
}

TEST_F(MetadataStreamDoc, DoesNotCopyThePayload)
{
  GstBuffer *fragment = fragment_new();
  GstMapInfo in;
  ASSERT_TRUE(gst_buffer_map(fragment, &in, GST_MAP_READ));
  const guint8 *payload = in.data;
  gst_buffer_unmap(fragment, &in);
  gst_harness_push(first_, fragment);

  g_autoptr(GstBuffer) document = gst_harness_try_pull(first_);
  ASSERT_NE(document, nullptr);
  ASSERT_EQ(gst_buffer_n_memory(document), 3u);
  GstMapInfo out;
  ASSERT_TRUE(gst_memory_map(gst_buffer_peek_memory(document, 1), &out, GST_MAP_READ));
  EXPECT_EQ(out.data, payload);
  gst_memory_unmap(gst_buffer_peek_memory(document, 1), &out);
}

TEST_F(MetadataStreamDoc, KeepsTimestamps)
{
  for (GstClockTime time : {GstClockTime{0}, GstClockTime{5 * GST_SECOND}, GST_CLOCK_TIME_NONE}) {
    gst_harness_push(first_, fragment_new(time));
    g_autoptr(GstBuffer) document = gst_harness_try_pull(first_);
    ASSERT_NE(document, nullptr);
    EXPECT_EQ(GST_BUFFER_PTS(document), time);
  }
}

TEST_F(MetadataStreamDoc, ConvertsTimestampsToRunningTime)
{
  GstSegment segment;
  gst_segment_init(&segment, GST_FORMAT_TIME);
  segment.start = 100 * GST_SECOND;
  segment.base = 7 * GST_SECOND;
  ASSERT_TRUE(gst_harness_push_event(second_, gst_event_new_segment(&segment)));
  gst_harness_push(second_, fragment_new(103 * GST_SECOND));
  g_autoptr(GstBuffer) document = gst_harness_try_pull(first_);
  ASSERT_NE(document, nullptr);
  EXPECT_EQ(GST_BUFFER_PTS(document), 10 * GST_SECOND);
}

TEST_F(MetadataStreamDoc, SendsOneOfEachStickyEventBeforeTheFirstBuffer)
{
  EXPECT_EQ(events(), Types());
  gst_harness_push(first_, fragment_new());
  EXPECT_EQ(events(), HEADERS);
  gst_harness_push(second_, fragment_new());
  gst_harness_push_event(first_, gst_event_new_tag(gst_tag_list_new(GST_TAG_TITLE, "title", nullptr)));
  gst_harness_push_event(first_, gst_event_new_gap(0, GST_SECOND));
  gst_harness_push(first_, fragment_new());
  EXPECT_EQ(events(), Types());
  EXPECT_EQ(gst_harness_buffers_received(first_), 3u);
}

TEST_F(MetadataStreamDoc, SourcePadHasTheCapsOfDocuments)
{
  gst_harness_push(first_, fragment_new());
  g_autoptr(GstCaps) caps = gst_pad_get_current_caps(first_->sinkpad);
  g_autofree char *text = gst_caps_to_string(caps);
  EXPECT_STREQ(text, "application/x-onvif-metadata");
}

TEST_F(MetadataStreamDoc, RefusesInputsWithOtherCaps)
{
  g_autoptr(GstPad) pad = gst_pad_get_peer(first_->srcpad);
  g_autoptr(GstCaps) caps = gst_caps_new_empty_simple("text/plain");
  EXPECT_FALSE(gst_pad_send_event(pad, gst_event_new_caps(caps)));
}

TEST_F(MetadataStreamDoc, InputsDoNotWaitForEachOther)
{
  for (GstHarness *input : {first_, first_, second_, first_, second_, second_}) {
    EXPECT_EQ(gst_harness_push(input, fragment_new()), GST_FLOW_OK);
    EXPECT_EQ(pull(), DOCUMENT);
  }
}

/* Counts buffers that arrive while another one is being pushed. */
struct Crowd {
  std::atomic<int> inside = 0;
  std::atomic<int> clashes = 0;
};

GstPadProbeReturn
on_passing(GstPad *pad, GstPadProbeInfo *info, gpointer user_data)
{
  auto crowd = static_cast<Crowd *>(user_data);
  if (crowd->inside++ > 0) {
    crowd->clashes++;
  }
  g_thread_yield();
  crowd->inside--;
  return GST_PAD_PROBE_OK;
}

TEST_F(MetadataStreamDoc, TwoThreadsAreSerialisedWithoutLoss)
{
  constexpr guint COUNT = 500;
  Crowd crowd;
  g_autoptr(GstPad) output = gst_element_get_static_pad(element(), "src");
  gst_pad_add_probe(output, GST_PAD_PROBE_TYPE_BUFFER, on_passing, &crowd, nullptr);
  auto push_all = [](GstHarness *input) {
    for (guint i = 0; i < COUNT; i++) {
      EXPECT_EQ(gst_harness_push(input, fragment_new()), GST_FLOW_OK);
    }
  };
  std::thread one(push_all, first_);
  std::thread other(push_all, second_);
  one.join();
  other.join();
  EXPECT_EQ(crowd.clashes, 0);
  EXPECT_EQ(gst_harness_buffers_received(first_), 2 * COUNT);
  EXPECT_EQ(events(), HEADERS);
  while (gst_harness_buffers_in_queue(first_) > 0) {
    EXPECT_EQ(pull(), DOCUMENT);
  }
}

TEST_F(MetadataStreamDoc, EndsWhenEveryInputHasEnded)
{
  gst_harness_push(first_, fragment_new());
  EXPECT_TRUE(gst_harness_push_event(first_, gst_event_new_eos()));
  EXPECT_EQ(events(), HEADERS);
  EXPECT_EQ(gst_harness_push(first_, fragment_new()), GST_FLOW_EOS);
  EXPECT_EQ(gst_harness_push(second_, fragment_new()), GST_FLOW_OK);
  EXPECT_TRUE(gst_harness_push_event(second_, gst_event_new_eos()));
  EXPECT_EQ(events(), Types{GST_EVENT_EOS});
  EXPECT_EQ(gst_harness_buffers_received(first_), 2u);
}

TEST_F(MetadataStreamDoc, EndsWithoutAnyBuffer)
{
  gst_harness_push_event(first_, gst_event_new_eos());
  gst_harness_push_event(second_, gst_event_new_eos());
  EXPECT_EQ(events(), HEADERS_AND_END);
}

TEST_F(MetadataStreamDoc, ReleasedInputCountsAsEnded)
{
  gst_harness_push_event(first_, gst_event_new_eos());
  EXPECT_EQ(events(), Types());
  release(&second_);
  EXPECT_EQ(events(), HEADERS_AND_END);
}

TEST_F(MetadataStreamDoc, ReleaseOfOneInputDoesNotEndTheStream)
{
  release(&second_);
  EXPECT_EQ(gst_harness_push(first_, fragment_new()), GST_FLOW_OK);
  EXPECT_EQ(events(), HEADERS);
  gst_harness_push_event(first_, gst_event_new_eos());
  EXPECT_EQ(events(), Types{GST_EVENT_EOS});
}

TEST_F(MetadataStreamDoc, InputsCanBeAddedAndReleasedWhileOthersStream)
{
  std::atomic<bool> stop = false;
  std::thread streaming([&] {
    while (!stop) {
      EXPECT_EQ(gst_harness_push(first_, fragment_new()), GST_FLOW_OK);
    }
  });
  for (int i = 0; i < 100; i++) {
    GstHarness *visitor = gst_harness_new_with_element(element(), "sink_%u", nullptr);
    gst_harness_set_src_caps_str(visitor, onvif::FRAGMENT_CAPS);
    EXPECT_EQ(gst_harness_push(visitor, fragment_new()), GST_FLOW_OK);
    gst_harness_teardown(visitor);
  }
  stop = true;
  streaming.join();
  EXPECT_EQ(element()->numsinkpads, 2);
  EXPECT_EQ(events(), HEADERS);
}

TEST_F(MetadataStreamDoc, StreamingInputCanBeReleased)
{
  GstPad *source = first_->srcpad;
  std::atomic<GstFlowReturn> result = GST_FLOW_OK;
  std::thread streaming([&] {
    while (result == GST_FLOW_OK) {
      result = gst_pad_push(source, fragment_new());
    }
  });
  g_autoptr(GstBuffer) seen = gst_harness_pull(first_);
  EXPECT_NE(seen, nullptr);
  release(&first_);
  streaming.join();
  EXPECT_TRUE(result == GST_FLOW_FLUSHING || result == GST_FLOW_NOT_LINKED) << gst_flow_get_name(result);
  EXPECT_EQ(gst_harness_push(second_, fragment_new()), GST_FLOW_OK);
}

TEST_F(MetadataStreamDoc, SyncPointReachesEverySource)
{
  for (int round = 0; round < 2; round++) {
    EXPECT_TRUE(gst_element_send_event(element(), downstream_sync_point_new()));
    EXPECT_EQ(count_sync_points(first_), 1);
    EXPECT_EQ(count_sync_points(second_), 1);
  }
  /* The event is not sent downstream. */
  EXPECT_EQ(events(), Types());
}

TEST_F(MetadataStreamDoc, SyncPointDoesNotWaitForABlockedStream)
{
  Block block(first_->sinkpad);
  std::thread streaming([this] { gst_harness_push(first_, fragment_new()); });
  ASSERT_TRUE(block.reached.wait());

  Signal sent;
  std::thread sending([&] {
    gst_element_send_event(element(), downstream_sync_point_new());
    sent.set();
  });
  EXPECT_TRUE(sent.wait());
  EXPECT_EQ(count_sync_points(first_), 1);
  EXPECT_EQ(count_sync_points(second_), 1);
  EXPECT_EQ(gst_harness_buffers_received(first_), 0u);

  block.release();
  streaming.join();
  sending.join();
  EXPECT_EQ(pull(), DOCUMENT);
}

TEST_F(MetadataStreamDoc, OtherEventsAreHandledByTheParentClass)
{
  gst_harness_push(first_, fragment_new());
  EXPECT_EQ(events(), HEADERS);
  GstStructure *other = gst_structure_new_empty("GstSomethingElse");
  EXPECT_TRUE(gst_element_send_event(element(), gst_event_new_custom(GST_EVENT_CUSTOM_DOWNSTREAM, other)));
  EXPECT_EQ(events(), Types{GST_EVENT_CUSTOM_DOWNSTREAM});
}

TEST_F(MetadataStreamDoc, ReturnsTheFlowResultOfDownstreamToInputs)
{
  gst_harness_push(first_, fragment_new());
  for (GstFlowReturn expected : {GST_FLOW_EOS, GST_FLOW_ERROR, GST_FLOW_NOT_LINKED, GST_FLOW_FLUSHING}) {
    gulong probe = gst_pad_add_probe(
        first_->sinkpad, GST_PAD_PROBE_TYPE_BUFFER,
        [](GstPad *pad, GstPadProbeInfo *info, gpointer user_data) {
          gst_buffer_unref(GST_PAD_PROBE_INFO_BUFFER(info));
          GST_PAD_PROBE_INFO_FLOW_RETURN(info) = *static_cast<GstFlowReturn *>(user_data);
          return GST_PAD_PROBE_HANDLED;
        },
        &expected, nullptr);
    EXPECT_EQ(gst_harness_push(first_, fragment_new()), expected);
    EXPECT_EQ(gst_harness_push(second_, fragment_new()), expected);
    gst_pad_remove_probe(first_->sinkpad, probe);
  }
  EXPECT_EQ(gst_harness_push(first_, fragment_new()), GST_FLOW_OK);
}

TEST_F(MetadataStreamDoc, FlushOfOneInputDoesNotStopTheOthers)
{
  gst_harness_push(first_, fragment_new());
  EXPECT_EQ(events(), HEADERS);
  EXPECT_TRUE(gst_harness_push_event(first_, gst_event_new_flush_start()));
  EXPECT_EQ(gst_harness_push(first_, fragment_new()), GST_FLOW_FLUSHING);
  EXPECT_EQ(gst_harness_push(second_, fragment_new()), GST_FLOW_OK);
  EXPECT_TRUE(gst_harness_push_event(first_, gst_event_new_flush_stop(FALSE)));
  EXPECT_EQ(events(), (Types{GST_EVENT_FLUSH_START, GST_EVENT_FLUSH_STOP}));
  EXPECT_EQ(gst_harness_push(second_, fragment_new()), GST_FLOW_OK);
  EXPECT_EQ(events(), Types{GST_EVENT_SEGMENT});
}

TEST_F(MetadataStreamDoc, OverlappingFlushesAreMerged)
{
  gst_harness_push(first_, fragment_new());
  gst_harness_push_event(first_, gst_event_new_flush_start());
  gst_harness_push_event(second_, gst_event_new_flush_start());
  gst_harness_push_event(first_, gst_event_new_flush_stop(FALSE));
  events();
  gst_harness_push_event(second_, gst_event_new_flush_stop(FALSE));
  EXPECT_EQ(events(), Types{GST_EVENT_FLUSH_STOP});
}

TEST_F(MetadataStreamDoc, FlushUnblocksABlockedStream)
{
  Block block(first_->sinkpad);
  std::atomic<GstFlowReturn> result = GST_FLOW_OK;
  std::thread streaming([&] { result = gst_harness_push(first_, fragment_new()); });
  ASSERT_TRUE(block.reached.wait());
  gst_harness_push_event(first_, gst_event_new_flush_start());
  streaming.join();
  EXPECT_EQ(result, GST_FLOW_FLUSHING);
  block.release();
  gst_harness_push_event(first_, gst_event_new_flush_stop(FALSE));
}

TEST_F(MetadataStreamDoc, ReleaseOfAFlushingInputEndsItsFlush)
{
  gst_harness_push(first_, fragment_new());
  gst_harness_push_event(second_, gst_event_new_flush_start());
  release(&second_);
  EXPECT_EQ(gst_harness_push(first_, fragment_new()), GST_FLOW_OK);
  EXPECT_EQ(gst_harness_buffers_received(first_), 2u);
}

TEST_F(MetadataStreamDoc, FlushCancelsTheEndOfAnInput)
{
  gst_harness_push_event(first_, gst_event_new_eos());
  gst_harness_push_event(first_, gst_event_new_flush_start());
  gst_harness_push_event(first_, gst_event_new_flush_stop(TRUE));
  gst_harness_push_event(second_, gst_event_new_eos());
  events();
  GstSegment segment;
  gst_segment_init(&segment, GST_FORMAT_TIME);
  gst_harness_push_event(first_, gst_event_new_segment(&segment));
  EXPECT_EQ(gst_harness_push(first_, fragment_new()), GST_FLOW_OK);
  gst_harness_push_event(first_, gst_event_new_eos());
  EXPECT_EQ(events().back(), GST_EVENT_EOS);
}

TEST_F(MetadataStreamDoc, ReportsTheLatencyOfTheSlowestSource)
{
  gst_harness_set_upstream_latency(first_, 20 * GST_MSECOND);
  gst_harness_set_upstream_latency(second_, 50 * GST_MSECOND);
  EXPECT_EQ(gst_harness_query_latency(first_), 50 * GST_MSECOND);
}

TEST_F(MetadataStreamDoc, RestartStartsANewStream)
{
  gst_harness_push(first_, fragment_new());
  gst_harness_push_event(first_, gst_event_new_eos());
  gst_harness_push_event(second_, gst_event_new_eos());
  EXPECT_EQ(events(), HEADERS_AND_END);
  ASSERT_EQ(gst_element_set_state(element(), GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
  ASSERT_EQ(gst_element_set_state(element(), GST_STATE_PLAYING), GST_STATE_CHANGE_SUCCESS);
  gst_harness_push_event(first_, gst_event_new_flush_start());
  gst_harness_push_event(first_, gst_event_new_flush_stop(TRUE));
  events();
  GstSegment segment;
  gst_segment_init(&segment, GST_FORMAT_TIME);
  gst_harness_push_event(first_, gst_event_new_segment(&segment));
  EXPECT_EQ(gst_harness_push(first_, fragment_new()), GST_FLOW_OK);
  EXPECT_EQ(events(), HEADERS);
}

TEST_F(MetadataStreamDoc, PadsAreNumberedAndNamedOnRequest)
{
  g_autoptr(GstElement) fresh =
      GST_ELEMENT(gst_object_ref_sink(gst_element_factory_make("onvifxmlmetadatastreamdoc", nullptr)));
  for (const char *expected : {"sink_0", "sink_1", "sink_2"}) {
    g_autoptr(GstPad) pad = gst_element_request_pad_simple(fresh, "sink_%u");
    EXPECT_STREQ(GST_PAD_NAME(pad), expected);
  }
  g_autoptr(GstPad) named = gst_element_request_pad_simple(fresh, "sink_7");
  EXPECT_STREQ(GST_PAD_NAME(named), "sink_7");
}

} // namespace
