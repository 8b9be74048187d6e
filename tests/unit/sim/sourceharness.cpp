#include "sourceharness.h"

#include "metadatareader.h"

#include <gtest/gtest.h>

/* Takes @element and starts it. */
GstHarness *
play(GstElement *element)
{
  GstHarness *harness = gst_harness_new_with_element(element, nullptr, "src");
  gst_object_unref(element);
  gst_harness_use_systemclock(harness);
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
