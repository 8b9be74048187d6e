/* SPDX-License-Identifier: MIT */
#include "rtppay.h"

#include "gzip.h"
#include "rtpdocument.h"
#include "rtppackets.h"
#include "testhost.h"

#include <gst/check/gstharness.h>

namespace
{

constexpr const char *METADATA = "application/x-onvif-metadata";
constexpr guint8 PAYLOAD_TYPE = 107;
constexpr guint16 FIRST_NUMBER = 65534;
constexpr guint32 FIRST_TIME = 4294967290;
constexpr guint32 SOURCE = 0x12345678;
constexpr gsize MTU = 100;
constexpr gsize ROOM = MTU - RTP_HEADER_BYTES;

class RtpPayTest : public testhost::Fixture
{
protected:
  void SetUp() override
  {
    testhost::Fixture::SetUp();
    element_ = GST_ELEMENT(gst_object_ref_sink(g_object_new(TESSARD_TYPE_RTP_PAY, nullptr)));
    g_object_set(element_, "pt", PAYLOAD_TYPE, "seqnum-offset", FIRST_NUMBER, "timestamp-offset", FIRST_TIME,
                 "ssrc", SOURCE, "mtu", guint(MTU), nullptr);
    harness_ = gst_harness_new_with_element(element_, "sink", "src");
  }

  void TearDown() override
  {
    EXPECT_EQ(gst_harness_buffers_in_queue(harness_), 0U);
    gst_harness_teardown(harness_);
    gst_object_unref(element_);
    testhost::Fixture::TearDown();
  }

  void play(const char *caps = METADATA)
  {
    gst_harness_set_src_caps_str(harness_, caps);
  }

  void push(const std::string &document, GstClockTime time = 0)
  {
    GstBuffer *buffer = new_buffer(document);
    GST_BUFFER_PTS(buffer) = time;
    EXPECT_EQ(gst_harness_push(harness_, buffer), GST_FLOW_OK);
  }

  Packet pull()
  {
    g_autoptr(GstBuffer) buffer = gst_harness_pull(harness_);
    const std::string bytes = bytes_of(buffer);
    const Packet packet = read_packet(bytes);
    EXPECT_LE(bytes.size(), MTU);
    EXPECT_EQ(bytes[0], '\x80');
    EXPECT_EQ(GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_MARKER) != FALSE, packet.marker);
    return packet;
  }

  /* The payloads of a document, and that of its last packet alone. */
  std::vector<std::string> pull_document()
  {
    std::vector<std::string> payloads;
    bool is_last = false;
    while (!is_last && gst_harness_buffers_in_queue(harness_) > 0) {
      const Packet packet = pull();
      is_last = packet.marker;
      payloads.push_back(packet.payload);
    }
    EXPECT_TRUE(is_last);
    return payloads;
  }

  void expect_source_caps(const char *encoding)
  {
    g_autoptr(GstCaps) caps = gst_pad_get_current_caps(harness_->sinkpad);
    g_autoptr(GstCaps) expected = gst_caps_new_simple(
        "application/x-rtp", "media", G_TYPE_STRING, "application", "clock-rate", G_TYPE_INT, 90000,
        "encoding-name", G_TYPE_STRING, encoding, "payload", G_TYPE_INT, int(PAYLOAD_TYPE), "ssrc",
        G_TYPE_UINT, SOURCE, "timestamp-offset", G_TYPE_UINT, FIRST_TIME, "seqnum-offset", G_TYPE_UINT,
        guint(FIRST_NUMBER), nullptr);
    ASSERT_NE(caps, nullptr);
    g_autofree char *text = gst_caps_to_string(caps);
    EXPECT_TRUE(gst_caps_is_equal(caps, expected)) << text;
  }

  GstElement *element_ = nullptr;
  GstHarness *harness_ = nullptr;
};

} // namespace

TEST_F(RtpPayTest, PutsAShortDocumentIntoOnePacket)
{
  play();
  push("<a/>");
  EXPECT_EQ(pull(), (Packet{PAYLOAD_TYPE, true, FIRST_NUMBER, FIRST_TIME, SOURCE, "<a/>"}));
}

TEST_F(RtpPayTest, SplitsALongDocumentAtTheMtu)
{
  const std::string first(ROOM, 'a');
  const std::string second(ROOM, 'b');
  play();
  push(first + second + "c");
  EXPECT_EQ(pull(), (Packet{PAYLOAD_TYPE, false, 65534, FIRST_TIME, SOURCE, first}));
  EXPECT_EQ(pull(), (Packet{PAYLOAD_TYPE, false, 65535, FIRST_TIME, SOURCE, second}));
  EXPECT_EQ(pull(), (Packet{PAYLOAD_TYPE, true, 0, FIRST_TIME, SOURCE, "c"}));
}

TEST_F(RtpPayTest, FillsItsLastPacket)
{
  play();
  for (gsize size : {gsize(1), ROOM - 1, ROOM, ROOM + 1, 2 * ROOM - 1, 2 * ROOM, 2 * ROOM + 1}) {
    push(std::string(size, 'a'));
    const std::vector<std::string> payloads = pull_document();
    ASSERT_EQ(payloads.size(), (size + ROOM - 1) / ROOM) << size;
    EXPECT_EQ(payloads.back().size(), size - (payloads.size() - 1) * ROOM) << size;
  }
}

TEST_F(RtpPayTest, AppliesAnMtuThatChanges)
{
  play();
  g_object_set(element_, "mtu", 28U, nullptr);
  push(std::string(33, 'a'));
  EXPECT_EQ(pull_document(), (std::vector<std::string>{std::string(16, 'a'), std::string(16, 'a'), "a"}));
}

TEST_F(RtpPayTest, SendsNothingForAnEmptyDocument)
{
  play();
  push("");
  EXPECT_EQ(gst_harness_buffers_in_queue(harness_), 0U);
  push("<a/>");
  EXPECT_EQ(pull().number, FIRST_NUMBER);
}

/* 90 ticks are a millisecond. */
TEST_F(RtpPayTest, HasTheTimeOfTheDocument)
{
  play();
  push("<a/>", 0);
  push("<b/>", 40 * GST_MSECOND);
  push(std::string(ROOM + 1, 'c'), GST_SECOND);
  EXPECT_EQ(pull().time, FIRST_TIME);
  EXPECT_EQ(pull().time, guint32(FIRST_TIME + 40 * 90));
  EXPECT_EQ(pull().time, guint32(FIRST_TIME + 90000));
  EXPECT_EQ(pull().time, guint32(FIRST_TIME + 90000));
}

TEST_F(RtpPayTest, KeepsTheTimestampsOfTheDocument)
{
  play();
  push(std::string(ROOM + 1, 'a'), 40 * GST_MSECOND);
  for (int i = 0; i < 2; i++) {
    g_autoptr(GstBuffer) packet = gst_harness_pull(harness_);
    EXPECT_EQ(GST_BUFFER_PTS(packet), 40 * GST_MSECOND);
  }
}

TEST_F(RtpPayTest, JoinsTheMemoriesOfADocument)
{
  play();
  GstBuffer *document = new_buffer("<a>");
  for (int i = 0; i < 40; i++)
    document = gst_buffer_append(document, new_buffer("<b/>"));
  document = gst_buffer_append(document, new_buffer("</a>"));
  const std::string text = bytes_of(document);
  EXPECT_EQ(gst_harness_push(harness_, document), GST_FLOW_OK);
  EXPECT_EQ(pull_document(), (std::vector<std::string>{text.substr(0, ROOM), text.substr(ROOM)}));
}

TEST_F(RtpPayTest, HasTheCapsOfMetadata)
{
  play("application/x-onvif-metadata, parsed=(boolean)true, encoding=(string)utf8");
  push("<a/>");
  pull();
  expect_source_caps("VND.ONVIF.METADATA");
}

TEST_F(RtpPayTest, CompressesEachDocumentIfGzipIsSet)
{
  const std::string document = "<a>" + std::string(10000, ' ') + "</a>";
  g_object_set(element_, "gzip", TRUE, nullptr);
  play();
  for (int i = 0; i < 2; i++) {
    push(document, i * GST_SECOND);
    const Packet packet = pull();
    EXPECT_TRUE(packet.marker);
    EXPECT_EQ(packet.time, guint32(FIRST_TIME + i * 90000));
    g_autoptr(GBytes) text =
        plugins::gzip_expand(packet.payload.data(), packet.payload.size(), document.size());
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(std::string(static_cast<const char *>(g_bytes_get_data(text, nullptr)), g_bytes_get_size(text)),
              document);
  }
  expect_source_caps("VND.ONVIF.METADATA+GZIP");
}

TEST_F(RtpPayTest, ChangesGzipWithTheNextCaps)
{
  gboolean is_gzip = TRUE;
  g_object_get(element_, "gzip", &is_gzip, nullptr);
  EXPECT_FALSE(is_gzip);
  play();
  g_object_set(element_, "gzip", TRUE, nullptr);
  g_object_get(element_, "gzip", &is_gzip, nullptr);
  EXPECT_TRUE(is_gzip);
  push("<a/>");
  EXPECT_EQ(pull().payload, "<a/>");
  play("application/x-onvif-metadata, parsed=(boolean)true");
  push("<a/>");
  EXPECT_EQ(pull().payload.substr(0, 3), "\x1f\x8b\x08");
}

TEST_F(RtpPayTest, PassesSyncPointsUpstream)
{
  play();
  EXPECT_TRUE(gst_harness_push_upstream_event(
      harness_, gst_event_new_custom(GST_EVENT_CUSTOM_UPSTREAM, gst_structure_new_empty("GstForceKeyUnit"))));
  g_autoptr(GstEvent) reconfigure = gst_harness_pull_upstream_event(harness_);
  g_autoptr(GstEvent) event = gst_harness_pull_upstream_event(harness_);
  EXPECT_EQ(GST_EVENT_TYPE(reconfigure), GST_EVENT_RECONFIGURE);
  EXPECT_TRUE(gst_event_has_name(event, "GstForceKeyUnit"));
}

TEST_F(RtpPayTest, ReturnsTheFlowResultOfDownstream)
{
  play();
  GST_PAD_SET_FLUSHING(harness_->sinkpad);
  EXPECT_EQ(gst_harness_push(harness_, new_buffer(std::string(ROOM + 1, 'a'))), GST_FLOW_FLUSHING);
}

TEST_F(RtpPayTest, KnowsNoOtherProperty)
{
  testhost::expect_unknown_property_warnings(element_, "gzip");
}
