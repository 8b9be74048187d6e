/* SPDX-License-Identifier: MIT */
#include "rtpdepay.h"

#include "gziptexts.h"
#include "rtpdocument.h"
#include "rtppackets.h"
#include "rtppay.h"
#include "testhost.h"

#include <gst/check/gstharness.h>
#include <random>

namespace
{

using Documents = std::vector<std::string>;

constexpr const char *PLAIN =
    "application/x-rtp, media=(string)application, clock-rate=(int)90000, payload=(int)107, "
    "encoding-name=(string)VND.ONVIF.METADATA";
constexpr const char *GZIP =
    "application/x-rtp, media=(string)application, clock-rate=(int)90000, payload=(int)107, "
    "encoding-name=(string)VND.ONVIF.METADATA+GZIP";
constexpr guint8 PAYLOAD_TYPE = 107;
constexpr guint32 SOURCE = 1;
constexpr bool LAST = true;

constexpr const char *A = "<tt:MetadataStream>a</tt:MetadataStream>";
constexpr const char *B = "<tt:MetadataStream>b</tt:MetadataStream>";

class RtpDepayTest : public testhost::Fixture
{
protected:
  void SetUp() override
  {
    testhost::Fixture::SetUp();
    element_ = GST_ELEMENT(gst_object_ref_sink(g_object_new(TESSARD_TYPE_RTP_DEPAY, nullptr)));
    harness_ = gst_harness_new_with_element(element_, "sink", "src");
  }

  void TearDown() override
  {
    EXPECT_EQ(gst_harness_buffers_in_queue(harness_), 0U);
    gst_harness_teardown(harness_);
    gst_object_unref(element_);
    testhost::Fixture::TearDown();
  }

  void play(const char *caps = PLAIN)
  {
    gst_harness_set_src_caps_str(harness_, caps);
  }

  /* The time of arrival, in milliseconds, is the packet's number. */
  void push(guint16 number, const std::string &payload, bool is_last = false, guint32 time = 0)
  {
    GstBuffer *buffer = new_buffer(packet_bytes({PAYLOAD_TYPE, is_last, number, time, SOURCE, payload}));
    GST_BUFFER_PTS(buffer) = number * GST_MSECOND;
    EXPECT_EQ(gst_harness_push(harness_, buffer), GST_FLOW_OK);
  }

  Documents pull_all()
  {
    Documents documents;
    while (gst_harness_buffers_in_queue(harness_) > 0) {
      g_autoptr(GstBuffer) buffer = gst_harness_pull(harness_);
      documents.push_back(bytes_of(buffer));
    }
    return documents;
  }

  guint64 dropped()
  {
    guint64 count = 0;
    g_object_get(element_, "dropped", &count, nullptr);
    return count;
  }

  GstElement *element_ = nullptr;
  GstHarness *harness_ = nullptr;
};

struct Caps {
  const char *name;
  const char *fields;
  bool accepted;
};

std::ostream &
operator<<(std::ostream &stream, const Caps &caps)
{
  return stream << caps.name;
}

class RtpDepayCapsTest : public RtpDepayTest, public testing::WithParamInterface<Caps>
{
};

/* Sends documents through the payloader and loses some of their packets. */
class RtpLossTest : public testing::TestWithParam<bool>
{
protected:
  static GstHarness *new_harness(GType type)
  {
    auto *element = GST_ELEMENT(gst_object_ref_sink(g_object_new(type, nullptr)));
    GstHarness *harness = gst_harness_new_with_element(element, "sink", "src");
    gst_object_unref(element);
    return harness;
  }

  void SetUp() override
  {
    gst_init(nullptr, nullptr);
    payloader_ = new_harness(TESSARD_TYPE_RTP_PAY);
    depayloader_ = new_harness(TESSARD_TYPE_RTP_DEPAY);
    g_object_set(payloader_->element, "gzip", gboolean(GetParam()), "mtu", 60U, nullptr);
    gst_harness_set_src_caps_str(payloader_, "application/x-onvif-metadata");
    gst_harness_set_src_caps_str(depayloader_, GetParam() ? GZIP : PLAIN);
  }

  void TearDown() override
  {
    gst_harness_teardown(payloader_);
    gst_harness_teardown(depayloader_);
  }

  std::string new_document()
  {
    std::string text = "<tt:MetadataStream>";
    for (unsigned i = random_() % 60; i > 0; i--)
      text += "<n>" + std::to_string(random_()) + "</n>";
    return text + "</tt:MetadataStream>";
  }

  /* Returns: whether all packets of the document got through */
  bool send(const std::string &document)
  {
    bool is_whole = true;
    GstBuffer *buffer = new_buffer(document);
    GST_BUFFER_PTS(buffer) = time_ += 40 * GST_MSECOND;
    EXPECT_EQ(gst_harness_push(payloader_, buffer), GST_FLOW_OK);
    while (gst_harness_buffers_in_queue(payloader_) > 0) {
      g_autoptr(GstBuffer) packet = gst_harness_pull(payloader_);
      if (random_() % 16 == 0)
        is_whole = false;
      else
        EXPECT_EQ(gst_harness_push(depayloader_, g_steal_pointer(&packet)), GST_FLOW_OK);
    }
    return is_whole;
  }

  std::minstd_rand random_{1};
  GstClockTime time_ = 0;
  GstHarness *payloader_ = nullptr;
  GstHarness *depayloader_ = nullptr;
};

} // namespace

TEST_F(RtpDepayTest, GivesADocumentPerBuffer)
{
  play();
  push(1, A, LAST);
  push(2, "<tt:Metadata");
  push(3, "Stream/>", LAST);
  EXPECT_EQ(pull_all(), (Documents{A, "<tt:MetadataStream/>"}));
  EXPECT_EQ(dropped(), 0U);
}

TEST_F(RtpDepayTest, HasTheTimestampOfTheLastPacket)
{
  play();
  push(1, "<tt:MetadataStream");
  push(2, "/>", LAST);
  g_autoptr(GstBuffer) buffer = gst_harness_pull(harness_);
  EXPECT_EQ(GST_BUFFER_PTS(buffer), 2 * GST_MSECOND);
}

TEST_F(RtpDepayTest, HasTheCapsOfMetadataBeforeTheFirstDocument)
{
  play();
  g_autoptr(GstCaps) caps = gst_pad_get_current_caps(harness_->sinkpad);
  ASSERT_NE(caps, nullptr);
  g_autofree char *text = gst_caps_to_string(caps);
  EXPECT_STREQ(text, "application/x-onvif-metadata");
}

TEST_P(RtpDepayCapsTest, AreAcceptedFromOtherSenders)
{
  g_autoptr(GstCaps) caps = gst_caps_from_string(GetParam().fields);
  GstPad *pad = gst_element_get_static_pad(element_, "sink");
  EXPECT_EQ(gst_pad_query_accept_caps(pad, caps) != FALSE, GetParam().accepted);
  gst_object_unref(pad);
}

INSTANTIATE_TEST_SUITE_P(
    All, RtpDepayCapsTest,
    testing::Values(
        Caps{"plain", PLAIN, true}, Caps{"gzip", GZIP, true},
        Caps{"of_a_session",
             "application/x-rtp, media=(string)application, payload=(int)98, clock-rate=(int)90000, "
             "encoding-name=(string)VND.ONVIF.METADATA, ssrc=(uint)1, npt-start=(guint64)0, "
             "play-speed=(double)1, a-tool=(string)x, a-recvonly=(string)\"\"",
             true},
        Caps{"another_clock",
             "application/x-rtp, media=(string)application, clock-rate=(int)1000, "
             "encoding-name=(string)VND.ONVIF.METADATA",
             true},
        Caps{"another_encoding",
             "application/x-rtp, media=(string)application, clock-rate=(int)90000, "
             "encoding-name=(string)VND.ONVIF.METADATA.EXI.EXT",
             false},
        Caps{"another_media",
             "application/x-rtp, media=(string)video, clock-rate=(int)90000, "
             "encoding-name=(string)VND.ONVIF.METADATA",
             false}),
    testing::PrintToStringParamName());

/* The payload type of a sender is dynamic, or one of its own. */
TEST_F(RtpDepayTest, AcceptsEveryPayloadType)
{
  play();
  for (guint8 type : {96, 127, 0})
    EXPECT_EQ(gst_harness_push(harness_, new_buffer(packet_bytes({type, LAST, type, 0, SOURCE, A}))),
              GST_FLOW_OK);
  EXPECT_EQ(pull_all().size(), 3U);
}

/* Loss */

TEST_F(RtpDepayTest, DropsAndCountsAnIncompleteDocument)
{
  play();
  push(1, A, LAST, 1);
  push(2, "<tt:MetadataStream>", false, 2);
  push(4, "</tt:MetadataStream>", LAST, 2);
  push(5, "<tt:MetadataStream>", false, 3);
  push(6, "</tt:MetadataStream>", LAST, 3);
  push(8, "</tt:MetadataStream>", LAST, 4);
  push(9, B, LAST, 5);
  EXPECT_EQ(pull_all(), (Documents{A, "<tt:MetadataStream></tt:MetadataStream>", B}));
  EXPECT_EQ(dropped(), 2U);
}

TEST_F(RtpDepayTest, MarksTheDocumentBehindALoss)
{
  play();
  for (guint16 number : {1, 2, 4, 5}) {
    push(number, A, LAST, number);
    g_autoptr(GstBuffer) buffer = gst_harness_pull(harness_);
    EXPECT_EQ(GST_BUFFER_IS_DISCONT(buffer) != FALSE, number == 4) << number;
  }
}

TEST_F(RtpDepayTest, IgnoresLateAndRepeatedPackets)
{
  play();
  push(10, A, LAST, 1);
  push(11, "<tt:MetadataStream>", false, 2);
  push(11, "<tt:MetadataStream>", false, 2);
  push(9, "<tt:Frame/>", false, 0);
  push(12, "</tt:MetadataStream>", LAST, 2);
  EXPECT_EQ(pull_all(), (Documents{A, "<tt:MetadataStream></tt:MetadataStream>"}));
  EXPECT_EQ(dropped(), 0U);
}

TEST_F(RtpDepayTest, DropsADocumentWhosePacketsChangePlaces)
{
  play();
  push(1, A, LAST, 1);
  push(2, "<tt:MetadataStream>", false, 2);
  push(4, "</tt:MetadataStream>", LAST, 2);
  push(3, "<tt:Frame/>", false, 2);
  push(5, B, LAST, 3);
  EXPECT_EQ(pull_all(), (Documents{A, B}));
  EXPECT_EQ(dropped(), 1U);
}

TEST_F(RtpDepayTest, FollowsTheNumbersOverTheirEnd)
{
  play();
  push(65535, "<tt:MetadataStream", false, 1);
  push(0, "/>", LAST, 1);
  EXPECT_EQ(pull_all(), (Documents{"<tt:MetadataStream/>"}));
}

TEST_F(RtpDepayTest, BeginsAnewAfterAFlush)
{
  play();
  push(1, "<tt:MetadataStream>");
  EXPECT_TRUE(gst_harness_push_event(harness_, gst_event_new_flush_start()));
  EXPECT_TRUE(gst_harness_push_event(harness_, gst_event_new_flush_stop(TRUE)));
  GstSegment segment;
  gst_segment_init(&segment, GST_FORMAT_TIME);
  EXPECT_TRUE(gst_harness_push_event(harness_, gst_event_new_segment(&segment)));
  push(2, "</tt:MetadataStream>", LAST);
  push(3, A, LAST);
  EXPECT_EQ(pull_all(), (Documents{A}));
  EXPECT_EQ(dropped(), 0U);
}

TEST_F(RtpDepayTest, BeginsAnewAfterAStop)
{
  play();
  push(1, A, LAST);
  push(3, "</tt:MetadataStream>", LAST);
  push(4, "<tt:MetadataStream>");
  EXPECT_EQ(pull_all(), (Documents{A}));
  gst_element_set_state(element_, GST_STATE_READY);
  gst_element_set_state(element_, GST_STATE_PLAYING);
  gst_harness_push_event(harness_, gst_event_new_stream_start("again"));
  play();
  push(5, "</tt:MetadataStream>", LAST);
  push(6, B, LAST);
  EXPECT_EQ(pull_all(), (Documents{B}));
  EXPECT_EQ(dropped(), 1U);
}

TEST_F(RtpDepayTest, DropsPacketsThatAreNotRtp)
{
  play();
  push(1, A, LAST, 1);
  g_autoptr(GstBus) bus = gst_bus_new();
  gst_element_set_bus(element_, bus);
  for (const char *bytes : {"", "\x80", "not of version 2", "\x8f three sources at most"})
    EXPECT_EQ(gst_harness_push(harness_, new_buffer(bytes)), GST_FLOW_OK);
  gst_element_set_bus(element_, nullptr);
  push(2, B, LAST, 2);
  EXPECT_EQ(pull_all(), (Documents{A, B}));
}

/* Compressed documents */

TEST_F(RtpDepayTest, ExpandsDocumentsByTheCaps)
{
  const std::string packed = compress(A);
  play(GZIP);
  push(1, packed.substr(0, 5), false, 1);
  push(2, packed.substr(5), LAST, 1);
  push(3, packed.substr(5), LAST, 2);
  push(4, packed, LAST, 3);
  EXPECT_EQ(pull_all(), (Documents{A, A}));
  EXPECT_EQ(dropped(), 1U);
}

TEST_F(RtpDepayTest, FollowsCapsThatChange)
{
  play();
  push(1, A, LAST);
  push(2, "<tt:MetadataStream>");
  play(GZIP);
  push(3, compress(B), LAST);
  play(PLAIN);
  push(4, A, LAST);
  push(5, "<tt:Metadata", false, 5);
  play("application/x-rtp, media=(string)application, clock-rate=(int)90000, "
       "encoding-name=(string)VND.ONVIF.METADATA, ssrc=(uint)1");
  push(6, "Stream/>", LAST, 5);
  EXPECT_EQ(pull_all(), (Documents{A, B, A, "<tt:MetadataStream/>"}));
}

TEST_F(RtpDepayTest, KnowsNoOtherProperty)
{
  testhost::expect_unknown_property_warnings(element_, "dropped");
}

/* Any loss */

TEST_P(RtpLossTest, TakesNoDocumentAwayOfWhichAllPacketsArrive)
{
  Documents expected;
  for (int i = 0; i < 2000; i++) {
    const std::string document = new_document();
    if (send(document))
      expected.push_back(document);
  }
  Documents received;
  while (gst_harness_buffers_in_queue(depayloader_) > 0) {
    g_autoptr(GstBuffer) buffer = gst_harness_pull(depayloader_);
    received.push_back(bytes_of(buffer));
  }
  EXPECT_GT(expected.size(), 200U);
  EXPECT_LT(expected.size(), 1800U);
  EXPECT_EQ(received, expected);
}

INSTANTIATE_TEST_SUITE_P(PlainAndGzip, RtpLossTest, testing::Bool());
