/* SPDX-License-Identifier: MIT */
#include "videoline.h"

#include "videodescription.h"

#include <array>

namespace rtsp
{

namespace
{

struct Continuation {
  const char *caps;
  const char *line;
};

/* What makes packets of a stream of these caps; the first that fits. Raw video has an encoder before it. */
constexpr std::array CONTINUATIONS = {
    Continuation{"image/jpeg", " ! rtpjpegpay"},
    Continuation{"video/x-h264", " ! rtph264pay config-interval=-1"},
    Continuation{"video/x-h265", " ! rtph265pay config-interval=-1"},
};

/* One slice for each frame: clients can take a frame whose slices are of several packets for a broken one. */
constexpr const char *H264_ENCODER = " ! videoconvert ! video/x-raw,format=I420 ! x264enc tune=zerolatency "
                                     "speed-preset=ultrafast threads=1 aud=false "
                                     "key-int-max=50 ! rtph264pay config-interval=-1";
constexpr const char *JPEG_ENCODER = " ! videoconvert ! video/x-raw,format=I420 ! jpegenc ! rtpjpegpay";

bool
has_element(const char *name)
{
  g_autoptr(GstElementFactory) factory = gst_element_factory_find(name);
  return factory != nullptr;
}

const char *
encoder()
{
  return has_element("x264enc") ? H264_ENCODER : JPEG_ENCODER;
}

bool
is_payloader(GstElement *element)
{
  return gst_element_factory_list_is_type(gst_element_get_factory(element),
                                          GST_ELEMENT_FACTORY_TYPE_PAYLOADER) != FALSE;
}

/* Returns: what follows a pad; %NULL if there is nothing for its caps */
const char *
continuation_of(GstPad *pad)
{
  g_autoptr(GstElement) element = gst_pad_get_parent_element(pad);
  if (is_payloader(element)) {
    return "";
  }
  if (gateway::pad_can_have(pad, "video/x-raw")) {
    return encoder();
  }
  for (const Continuation &continuation : CONTINUATIONS) {
    if (gateway::pad_can_have(pad, continuation.caps)) {
      return continuation.line;
    }
  }
  return nullptr;
}

} // namespace

/**
 * default_video_line:
 *
 * Returns: a line with a test picture
 */
std::string
default_video_line()
{
  return gateway::TEST_PICTURE;
}

/**
 * complete_video_line:
 * @line: a description that ends with raw video, with a format that has a payloader, or with a payloader
 * @error: return location for an error of %GST_PARSE_ERROR or %GST_STREAM_ERROR, whose message is for the
 * user
 *
 * Adds the encoder and the payloader that are missing. Raw video becomes H.264 if x264enc is installed, and
 * JPEG otherwise.
 *
 * Returns: (nullable): a description that ends with the payloader %VIDEO_PAYLOADER
 */
std::optional<std::string>
complete_video_line(const std::string &line, GError **error)
{
  const std::optional<std::string> completed = gateway::continue_video(
      line, continuation_of, "ends neither with raw video nor with JPEG, H.264, H.265 or a payloader.",
      error);
  return completed.has_value() ? std::optional(*completed + " name=" + VIDEO_PAYLOADER) : std::nullopt;
}

} // namespace rtsp
