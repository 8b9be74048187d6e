/* SPDX-License-Identifier: MIT */
#include "videodescription.h"

namespace gateway
{

namespace
{

/* An element behind the description, which can then end with caps. */
constexpr const char *END = "tessard-video-end";

} // namespace

/**
 * pad_can_have:
 * @pad: a pad
 * @caps: caps as a text
 *
 * Returns: whether the pad allows the caps
 */
bool
pad_can_have(GstPad *pad, const char *caps)
{
  g_autoptr(GstCaps) wanted = gst_caps_from_string(caps);
  g_autoptr(GstCaps) possible = gst_pad_query_caps(pad, nullptr);
  return gst_caps_can_intersect(possible, wanted) != FALSE;
}

/**
 * continue_video:
 * @line: a description
 * @continuation: what has to follow it
 * @misfit: what it is if nothing can follow, in words behind "The video '...'"
 * @error: return location for an error of %GST_PARSE_ERROR or %GST_STREAM_ERROR, whose message is for the
 *   user
 *
 * Returns: (nullable): the description with its continuation
 */
std::optional<std::string>
continue_video(const std::string &line, const ContinuationFunction &continuation, const char *misfit,
               GError **error)
{
  const std::string ended = line + " ! identity name=" + END;
  g_autoptr(GstElement) bin =
      gst_parse_bin_from_description_full(ended.c_str(), FALSE, nullptr, GST_PARSE_FLAG_FATAL_ERRORS, error);
  if (bin == nullptr) {
    return std::nullopt;
  }
  gst_object_ref_sink(bin);
  g_autoptr(GstElement) end = gst_bin_get_by_name(GST_BIN(bin), END);
  g_autoptr(GstPad) sink = gst_element_get_static_pad(end, "sink");
  g_autoptr(GstPad) last = gst_pad_get_peer(sink);
  const char *rest = last != nullptr ? continuation(last) : nullptr;
  if (rest == nullptr) {
    g_set_error(error, GST_STREAM_ERROR, GST_STREAM_ERROR_FORMAT, "The video '%s' %s", line.c_str(), misfit);
    return std::nullopt;
  }
  return line + rest;
}

} // namespace gateway
