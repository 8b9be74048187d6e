/* SPDX-License-Identifier: MIT */
#pragma once

#include <gst/check/gstharness.h>
#include <string>

G_DEFINE_AUTOPTR_CLEANUP_FUNC(GstHarness, gst_harness_teardown)

/* Harnesses of live sources and checks of their output. */
GstHarness *play(GstElement *element);
GstHarness *play_with_caps(GstElement *element, const std::string &caps);
std::string pull_text(GstHarness *harness);
void drop_queued(GstHarness *harness);

/* The source refuses custom events other than the sync point. */
void expect_other_event_refused(GstHarness *harness);

/* The stream has the sticky events of a live source. Called after the first buffer. */
void expect_sticky_events_in_order(GstHarness *harness);

/* The source is live, and the timestamps of this number of buffers never decrease. */
void expect_live_with_timestamps(GstHarness *harness, int buffers);
