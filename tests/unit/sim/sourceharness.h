#pragma once

#include <gst/check/gstharness.h>
#include <string>

G_DEFINE_AUTOPTR_CLEANUP_FUNC(GstHarness, gst_harness_teardown)

/* A live source by itself, and what it produces. */
GstHarness *play(GstElement *element);
GstHarness *play_with_caps(GstElement *element, const std::string &caps);
std::string pull_text(GstHarness *harness);
void drop_queued(GstHarness *harness);

/* Whether it takes no custom event but the one that it knows. */
void expect_other_event_refused(GstHarness *harness);

/* Whether its stream begins as every live source's: at least one buffer has been pulled. */
void expect_sticky_events_in_order(GstHarness *harness);

/* Whether it is live, and so many buffers have timestamps that never go back. */
void expect_live_with_timestamps(GstHarness *harness, int buffers);
