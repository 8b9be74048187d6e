/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>
#include <optional>
#include <string>

/* The description of a video, in the syntax of gst-launch-1.0. */

namespace view
{

/* The word that stands for a test picture. */
constexpr const char *TEST_VIDEO = "test";

/* The name of the last element. */
constexpr const char *VIDEO_END = "tessard-video-end";

std::optional<std::string> complete_picture_line(const std::string &line, GError **error);

} // namespace view
