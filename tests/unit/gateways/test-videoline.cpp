/* SPDX-License-Identifier: MIT */
#include "videoline.h"

#include "testhost.h"

namespace
{

constexpr const char *RAW = "videotestsrc ! video/x-raw,format=I420,width=16,height=16";

class VideoLineTest : public testhost::Fixture
{
protected:
  /* The completed line, without the name of its payloader. */
  static std::string complete(const std::string &line)
  {
    g_autoptr(GError) error = nullptr;
    const std::optional<std::string> completed = rtsp::complete_video_line(line, &error);
    EXPECT_EQ(error, nullptr) << error->message;
    const std::string name = std::string(" name=") + rtsp::VIDEO_PAYLOADER;
    if (!completed.has_value() || !completed->ends_with(name)) {
      ADD_FAILURE() << line << " has no payloader";
      return "";
    }
    return completed->substr(0, completed->size() - name.size());
  }

  static std::string message_of(const std::string &line)
  {
    g_autoptr(GError) error = nullptr;
    EXPECT_EQ(rtsp::complete_video_line(line, &error), std::nullopt) << line;
    return error != nullptr ? error->message : "no error";
  }

  static bool has_element(const char *name)
  {
    g_autoptr(GstElementFactory) factory = gst_element_factory_find(name);
    return factory != nullptr;
  }
};

} // namespace

TEST_F(VideoLineTest, RawVideoGetsAnEncoder)
{
  const std::string encoder = has_element("x264enc") ? " ! x264enc " : " ! jpegenc ! ";
  for (const std::string &line :
       {std::string(RAW), rtsp::default_video_line(), std::string("videotestsrc")}) {
    const std::string completed = complete(line);
    EXPECT_TRUE(completed.starts_with(line)) << completed;
    EXPECT_NE(completed.find(encoder), std::string::npos) << completed;
  }
}

TEST_F(VideoLineTest, EncodedVideoGetsItsPayloader)
{
  for (const auto &[caps, payloader] : {std::pair("image/jpeg", " ! rtpjpegpay"),
                                        std::pair("video/x-h264", " ! rtph264pay config-interval=-1"),
                                        std::pair("video/x-h265", " ! rtph265pay config-interval=-1")}) {
    const std::string line = std::string("appsrc ! ") + caps;
    EXPECT_EQ(complete(line), line + payloader);
  }
}

TEST_F(VideoLineTest, PayloaderStays)
{
  const std::string line = std::string(RAW) + " ! rtpvrawpay";
  EXPECT_EQ(complete(line), line);
}

TEST_F(VideoLineTest, CompletedLineHasThePayloader)
{
  const std::string line = complete(RAW) + " name=" + rtsp::VIDEO_PAYLOADER;
  g_autoptr(GError) error = nullptr;
  GstElement *bin =
      gst_parse_bin_from_description_full(line.c_str(), FALSE, nullptr, GST_PARSE_FLAG_FATAL_ERRORS, &error);
  ASSERT_NE(bin, nullptr) << error->message;
  gst_object_ref_sink(bin);
  GstElement *payloader = gst_bin_get_by_name(GST_BIN(bin), rtsp::VIDEO_PAYLOADER);
  EXPECT_NE(payloader, nullptr);
  g_clear_object(&payloader);
  gst_object_unref(bin);
}

TEST_F(VideoLineTest, RefusesWhatIsNoVideo)
{
  for (const char *line : {"audiotestsrc", "appsrc ! application/x-onvif-metadata"})
    EXPECT_EQ(message_of(line),
              std::string("The video '") + line +
                  "' ends neither with raw video nor with JPEG, H.264, H.265 or a payloader.");
}

TEST_F(VideoLineTest, RefusesWhatCannotBeRead)
{
  EXPECT_EQ(message_of("nosuchelement"), "no element \"nosuchelement\"");
  EXPECT_EQ(message_of("videotestsrc nosuchproperty=1"),
            "no property \"nosuchproperty\" in element \"videotestsrc\"");
  EXPECT_NE(message_of(""), "no error");
  EXPECT_NE(message_of("videotestsrc !"), "no error");
  EXPECT_NE(message_of("videotestsrc ! fakesink"), "no error");
}
