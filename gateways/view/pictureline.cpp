/* SPDX-License-Identifier: MIT */
#include "pictureline.h"

#include "videodescription.h"

namespace view
{

namespace
{

constexpr const char *ENCODER = " ! videoconvert ! video/x-raw,format=I420 ! jpegenc";

/* A slow client never holds up the video: the sink gets the newest picture. */
constexpr const char *SINK = " ! appsink sync=false max-buffers=1 drop=true name=";

const char *
continuation_of(GstPad *pad)
{
  if (gateway::pad_can_have(pad, "video/x-raw")) {
    return ENCODER;
  }
  return gateway::pad_can_have(pad, "image/jpeg") ? "" : nullptr;
}

} // namespace

/**
 * complete_picture_line:
 * @line: a description that ends with raw video or JPEG, or %TEST_VIDEO
 * @error: return location for an error of %GST_PARSE_ERROR or %GST_STREAM_ERROR, whose message is for the
 *   user
 *
 * Returns: (nullable): a description that ends with the appsink %VIDEO_END, which gets pictures in JPEG
 */
std::optional<std::string>
complete_picture_line(const std::string &line, GError **error)
{
  const std::optional<std::string> completed =
      gateway::continue_video(line == TEST_VIDEO ? gateway::TEST_PICTURE : line, continuation_of,
                              "ends neither with raw video nor with JPEG.", error);
  return completed.has_value() ? std::optional(*completed + SINK + VIDEO_END) : std::nullopt;
}

} // namespace view
