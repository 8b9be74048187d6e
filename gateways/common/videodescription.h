/* SPDX-License-Identifier: MIT */
#pragma once

#include <functional>
#include <gst/gst.h>
#include <optional>
#include <string>

/* Descriptions of videos, in the syntax of gst-launch-1.0. All functions can be called on any thread. */

namespace gateway
{

/* A picture that needs no camera. */
constexpr const char *TEST_PICTURE =
    "videotestsrc is-live=true pattern=ball ! video/x-raw,width=640,height=360,framerate=25/1";

/* Gets the last pad of a description, and returns what has to follow it; NULL if the pad does not fit. */
using ContinuationFunction = std::function<const char *(GstPad *pad)>;

bool pad_can_have(GstPad *pad, const char *caps);
std::optional<std::string> continue_video(const std::string &line, const ContinuationFunction &continuation,
                                          const char *misfit, GError **error);

} // namespace gateway
