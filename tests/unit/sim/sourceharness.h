#pragma once

#include <gst/check/gstharness.h>
#include <string>

G_DEFINE_AUTOPTR_CLEANUP_FUNC(GstHarness, gst_harness_teardown)

/* A live source by itself, and what it produces. */
GstHarness *play(GstElement *element);
std::string pull_text(GstHarness *harness);
void drop_queued(GstHarness *harness);
