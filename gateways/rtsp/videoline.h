/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>
#include <optional>
#include <string>

/* The description of a video track, in the syntax of gst-launch-1.0. */

namespace rtsp
{

/* The name of the element that makes the video's packets. */
constexpr const char *VIDEO_PAYLOADER = "pay0";

std::string default_video_line();
std::optional<std::string> complete_video_line(const std::string &line, GError **error);

} // namespace rtsp
