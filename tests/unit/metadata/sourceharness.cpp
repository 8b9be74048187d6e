/* SPDX-License-Identifier: MIT */
#include "sourceharness.h"

#include "metadatareader.h"

#include <gtest/gtest.h>
#include <vector>

/* Starts @element. (transfer full) */
GstHarness *
play(GstElement *element)
{
  return play_with_caps(element, "ANY");
}

/* The same with a sink that accepts only @caps. */
GstHarness *
play_with_caps(GstElement *element, const std::string &caps)
{
  GstHarness *harness = gst_harness_new_with_element(element, nullptr, "src");
  gst_object_unref(element);
  gst_harness_use_systemclock(harness);
  gst_harness_set_sink_caps_str(harness, caps.c_str());
  gst_harness_play(harness);
  return harness;
}

/* Waits for the next buffer, within the harness's own bound. */
std::string
pull_text(GstHarness *harness)
{
  g_autoptr(GstBuffer) buffer = gst_harness_pull(harness);
  EXPECT_NE(buffer, nullptr);
  return buffer != nullptr ? buffer_text(buffer) : std::string();
}

void
drop_queued(GstHarness *harness)
{
  while (gst_harness_buffers_in_queue(harness) > 0) {
    pull_text(harness);
  }
}

void
expect_other_event_refused(GstHarness *harness)
{
  GstStructure *other = gst_structure_new_empty("GstSomethingElse");

  EXPECT_FALSE(
      gst_harness_push_upstream_event(harness, gst_event_new_custom(GST_EVENT_CUSTOM_UPSTREAM, other)));
}

void
expect_sticky_events_in_order(GstHarness *harness)
{
  std::vector<GstEventType> types;
  for (GstEvent *event = gst_harness_try_pull_event(harness); event != nullptr;
       event = gst_harness_try_pull_event(harness)) {
    types.push_back(GST_EVENT_TYPE(event));
    if (GST_EVENT_TYPE(event) == GST_EVENT_SEGMENT) {
      const GstSegment *segment = nullptr;
      gst_event_parse_segment(event, &segment);
      EXPECT_EQ(segment->format, GST_FORMAT_TIME);
    }
    gst_event_unref(event);
  }
  std::vector<GstEventType> expected = {GST_EVENT_STREAM_START, GST_EVENT_CAPS, GST_EVENT_SEGMENT};
  EXPECT_EQ(types, expected);
}

void
expect_live_with_timestamps(GstHarness *harness, int buffers)
{
  GstClockTime last = 0;
  for (int i = 0; i < buffers; i++) {
    g_autoptr(GstBuffer) buffer = gst_harness_pull(harness);
    ASSERT_NE(buffer, nullptr);
    ASSERT_TRUE(GST_BUFFER_PTS_IS_VALID(buffer));
    EXPECT_GE(GST_BUFFER_PTS(buffer), last);
    last = GST_BUFFER_PTS(buffer);
  }
  g_autoptr(GstQuery) query = gst_query_new_latency();
  ASSERT_TRUE(gst_element_query(harness->element, query));
  gboolean live = FALSE;
  gst_query_parse_latency(query, &live, nullptr, nullptr);
  EXPECT_TRUE(live);
}
