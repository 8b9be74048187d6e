/* SPDX-License-Identifier: MIT */
#include "metadata.h"
#include "metadatareader.h"
#include "sourceharness.h"

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gtest/gtest.h>

/* Sources of the simulated camera with tessard's own elements, as in a client's pipeline. */

namespace
{

class ClientPipeline : public testing::Test
{
protected:
  static void SetUpTestSuite()
  {
    gst_init(nullptr, nullptr);
  }
};

/* A live source, and beside it the frames of producers that the test pushes. */
class BesideProducers : public ClientPipeline
{
protected:
  void SetUp() override
  {
    pipeline_ = gst_pipeline_new(nullptr);
    source_ = GST_ELEMENT(g_object_new(GST_TYPE_APP_SRC, nullptr));
    sink_ = GST_ELEMENT(g_object_new(GST_TYPE_APP_SINK, "sync", FALSE, nullptr));
    GstElement *converter = gst_element_factory_make("json2xml", nullptr);
    GstElement *documents = gst_element_factory_make("onvifxmlmetadatastreamdoc", nullptr);
    GstElement *live = gst_element_factory_make("statuscacheptzsrc", nullptr);
    gst_bin_add_many(GST_BIN(pipeline_), source_, converter, documents, sink_, live, nullptr);
    ASSERT_TRUE(gst_element_link_many(source_, converter, documents, sink_, nullptr));
    ASSERT_TRUE(gst_element_link(live, documents));
  }

  void TearDown() override
  {
    gst_element_set_state(pipeline_, GST_STATE_NULL);
    gst_object_unref(pipeline_);
  }

  void push(const std::string &text)
  {
    GstBuffer *buffer = gst_buffer_new_memdup(text.data(), text.size());
    EXPECT_EQ(gst_app_src_push_buffer(GST_APP_SRC(source_), buffer), GST_FLOW_OK);
  }

  std::string pull()
  {
    g_autoptr(GstSample) sample = gst_app_sink_try_pull_sample(GST_APP_SINK(sink_), 5 * GST_SECOND);
    EXPECT_NE(sample, nullptr);
    return sample != nullptr ? buffer_text(gst_sample_get_buffer(sample)) : std::string();
  }

  GstElement *pipeline_ = nullptr;
  GstElement *source_ = nullptr;
  GstElement *sink_ = nullptr;
};

/* The stream-start frame alone makes the pipeline pre-roll, without any producer. */
TEST_F(BesideProducers, StreamStartPrerollsAndBothStream)
{
  push("{\"Source\":\"StreamStart\",\"Data\":{\"Item\":[{\"UtcTime\":\"2024-01-01T00:00:00Z\"}]}}");
  EXPECT_EQ(gst_element_set_state(pipeline_, GST_STATE_PLAYING), GST_STATE_CHANGE_ASYNC);
  EXPECT_EQ(gst_element_get_state(pipeline_, nullptr, nullptr, 5 * GST_SECOND), GST_STATE_CHANGE_SUCCESS);
  push("{\"Source\":\"Front door\",\"Data\":{\"Item\":[{\"Objects\":[{\"Id\":1}]}]}}");

  guint frames = 0;
  guint statuses = 0;
  while ((frames < 2 || statuses < 1) && !HasFailure()) {
    std::string text = pull();
    frames += evaluate(text, "count(/tt:MetadataStream/tt:VideoAnalytics)") == "1" ? 1 : 0;
    statuses += evaluate(text, "count(/tt:MetadataStream/tt:PTZ)") == "1" ? 1 : 0;
  }
  g_autoptr(GstPad) pad = gst_element_get_static_pad(sink_, "sink");
  g_autoptr(GstEvent) event = gst_pad_get_sticky_event(pad, GST_EVENT_SEGMENT, 0);
  const GstSegment *segment = nullptr;
  gst_event_parse_segment(event, &segment);
  EXPECT_EQ(segment->format, GST_FORMAT_TIME);
}

TEST_F(ClientPipeline, SyncPointMakesTheEventSourceSendItsStates)
{
  g_autoptr(GstHarness) harness = gst_harness_new_parse("onvifeventsrc event-topic=tns1:Device//. ! "
                                                        "onvifxmlmetadatastreamdoc name=document");
  gst_harness_use_systemclock(harness);
  gst_harness_play(harness);
  g_autoptr(GstBuffer) first = gst_harness_pull(harness);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(read_events(buffer_text(first)).front().operation, "Initialized");

  g_autoptr(GstElement) document = gst_bin_get_by_name(GST_BIN(harness->element), "document");
  GstStructure *name = gst_structure_new_empty("GstMetaDataStreamSetSyncPoint");
  ASSERT_TRUE(gst_element_send_event(document, gst_event_new_custom(GST_EVENT_CUSTOM_DOWNSTREAM, name)));
  bool again = false;
  for (int pulled = 0; pulled < 10 && !again; pulled++) {
    g_autoptr(GstBuffer) buffer = gst_harness_pull(harness);
    ASSERT_NE(buffer, nullptr);
    again = read_events(buffer_text(buffer)).back().operation == "Initialized";
  }
  EXPECT_TRUE(again);
}

} // namespace
