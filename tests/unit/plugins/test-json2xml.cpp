/* SPDX-License-Identifier: MIT */
#include "hostiletext.h"
#include "metadata.h"
#include "metadatalimits.h"
#include "metadatareader.h"
#include "producerframe.h"
#include "schema.h"
#include "sourceharness.h"

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gtest/gtest.h>

namespace
{

/* A frame as the daemon makes it. */
constexpr const char *STREAM_START =
    "{     \"Source\": \"StreamStart\",     \"Data\": {         \"Item\": [             {                 "
    "\"TimestampMono\": \"1234567890\",                 \"UtcTime\": \"2024-01-01T00:00:00.250000Z\"         "
    "    }"
    "         ]     } }";

/* An item with all members. */
constexpr const char *EXAMPLE_ITEM =
    "{\"UtcTime\": \"2024-01-01T00:00:00Z\", \"Objects\": [{\"Id\": 12, "
    "\"BoundingBox\": {\"Left\": -0.6, \"Top\": 0.6, \"Right\": -0.2, \"Bottom\": 0.2}, "
    "\"Polygon\": [[-0.6, 0.6], [-0.2, 0.6], [-0.2, 0.2]], \"Type\": \"Vehicle\", \"Likelihood\": 0.96}], "
    "\"Deleted\": [11]}";

#define EXAMPLE_SHAPE                                                                                        \
  "<tt:BoundingBox left=\"-0.6000\" top=\"0.6000\" right=\"-0.2000\" bottom=\"0.2000\"/>"                    \
  "<tt:CenterOfGravity x=\"-0.4000\" y=\"0.4000\"/>"
#define EXAMPLE_POLYGON                                                                                      \
  "<tt:Polygon><tt:Point x=\"-0.6000\" y=\"0.6000\"/><tt:Point x=\"-0.2000\" y=\"0.6000\"/>"                 \
  "<tt:Point x=\"-0.2000\" y=\"0.2000\"/></tt:Polygon>"
#define EXAMPLE_CONTENT(polygon)                                                                             \
  " UtcTime=\"2024-01-01T00:00:00.000000Z\" Source=\"Front door\">"                                          \
  "<tt:Object ObjectId=\"12\"><tt:Appearance><tt:Shape>" EXAMPLE_SHAPE polygon "</tt:Shape>"                 \
  "<tt:Class><tt:ClassCandidate><tt:Type>Vehical</tt:Type><tt:Likelihood>0.96</tt:Likelihood>"               \
  "</tt:ClassCandidate><tt:Type Likelihood=\"0.96\">Vehicle</tt:Type></tt:Class>"                            \
  "</tt:Appearance></tt:Object><tt:ObjectTree><tt:Delete ObjectId=\"11\"/></tt:ObjectTree>"
#define EXAMPLE_FRAME(polygon) "<tt:Frame" EXAMPLE_CONTENT(polygon) "</tt:Frame>"
#define IN_ANALYTICS(frames)                                                                                 \
  "<tt:VideoAnalytics xmlns:tt=\"http://www.onvif.org/ver10/schema\">" frames "</tt:VideoAnalytics>"

constexpr const char *WHOLE_WARNING = "A frame of a producer is malformed and left out.";
constexpr const char *PART_WARNING = "A part of a producer's frame is malformed and left out.";

GstBuffer *
new_buffer(const std::string &text)
{
  GstBuffer *buffer = gst_buffer_new_allocate(nullptr, text.size(), nullptr);
  gst_buffer_fill(buffer, 0, text.data(), text.size());
  return buffer;
}

std::string
frame_of(const std::string &items, const std::string &source = "Front door")
{
  return "{\"Source\":\"" + source + "\",\"Data\":{\"Item\":[" + items + "]}}";
}

/* The element in a harness, with the stream of an application source, and its messages. */
class JsonToXml : public testing::Test
{
protected:
  static void SetUpTestSuite()
  {
    gst_init(nullptr, nullptr);
  }

  void SetUp() override
  {
    element_ = GST_ELEMENT(gst_object_ref_sink(gst_element_factory_make("json2xml", nullptr)));
    ASSERT_NE(element_, nullptr);
    bus_ = gst_bus_new();
    gst_element_set_bus(element_, bus_);
    harness_ = gst_harness_new_with_element(element_, "sink", "src");
    gst_harness_play(harness_);
    EXPECT_TRUE(gst_harness_push_event(harness_, gst_event_new_stream_start("test")));
    EXPECT_TRUE(gst_harness_push_event(harness_, new_segment(GST_FORMAT_BYTES)));
  }

  void TearDown() override
  {
    expect_no_complaint();
    EXPECT_EQ(gst_harness_buffers_in_queue(harness_), 0u);
    gst_element_set_state(element_, GST_STATE_NULL);
    gst_element_set_bus(element_, nullptr);
    gst_harness_teardown(harness_);
    gst_object_unref(element_);
    gst_object_unref(bus_);
  }

  static GstEvent *new_segment(GstFormat format)
  {
    GstSegment segment;
    gst_segment_init(&segment, format);
    return gst_event_new_segment(&segment);
  }

  void push(const std::string &text)
  {
    EXPECT_EQ(gst_harness_push(harness_, new_buffer(text)), GST_FLOW_OK);
  }

  std::string convert(const std::string &text)
  {
    push(text);
    return pull_text(harness_);
  }

  std::string convert_object(const std::string &members)
  {
    return convert(frame_of("{\"Objects\":[{\"Id\":1" + members + "}]}"));
  }

  void expect_no_complaint()
  {
    auto complaints = static_cast<GstMessageType>(GST_MESSAGE_WARNING | GST_MESSAGE_ERROR);
    g_autoptr(GstMessage) message = gst_bus_pop_filtered(bus_, complaints);
    EXPECT_EQ(message, nullptr);
  }

  /* The only message: a warning, as its text and its debug text. */
  std::pair<std::string, std::string> pop_warning()
  {
    g_autoptr(GstMessage) message = gst_bus_pop_filtered(bus_, GST_MESSAGE_WARNING);
    EXPECT_NE(message, nullptr);
    if (message == nullptr) {
      return {};
    }
    g_autoptr(GError) error = nullptr;
    g_autofree char *debug = nullptr;
    gst_message_parse_warning(message, &error, &debug);
    EXPECT_TRUE(g_error_matches(error, GST_STREAM_ERROR, GST_STREAM_ERROR_DECODE)) << error->message;
    expect_no_complaint();
    const char *reason = strrchr(debug, '\n');
    return {error->message, reason != nullptr ? reason + 1 : ""};
  }

  std::vector<GstEventType> pull_events()
  {
    std::vector<GstEventType> types;
    for (GstEvent *event = gst_harness_try_pull_event(harness_); event != nullptr;
         event = gst_harness_try_pull_event(harness_)) {
      types.push_back(GST_EVENT_TYPE(event));
      gst_event_unref(event);
    }
    return types;
  }

  GstElement *element_ = nullptr;
  GstBus *bus_ = nullptr;
  GstHarness *harness_ = nullptr;
};

TEST_F(JsonToXml, ItemBecomesAFrame)
{
  EXPECT_EQ(convert(frame_of(EXAMPLE_ITEM)), IN_ANALYTICS(EXAMPLE_FRAME(EXAMPLE_POLYGON)));
}

TEST_F(JsonToXml, EachItemBecomesAFrameOfOneBuffer)
{
  EXPECT_EQ(convert(frame_of(std::string(EXAMPLE_ITEM) + " , " + EXAMPLE_ITEM)),
            IN_ANALYTICS(EXAMPLE_FRAME(EXAMPLE_POLYGON) EXAMPLE_FRAME(EXAMPLE_POLYGON)));
}

TEST_F(JsonToXml, StreamStartIsAnEmptyFrameWithoutSource)
{
  EXPECT_EQ(convert(STREAM_START), IN_ANALYTICS("<tt:Frame UtcTime=\"2024-01-01T00:00:00.250000Z\"/>"));
}

TEST_F(JsonToXml, AcceptsBuffersWithSeveralMemories)
{
  GstBuffer *buffer = gst_buffer_new();
  for (const char *piece : {"{\"Source\":\"Front door\",\"Data\":{\"Item\":[", EXAMPLE_ITEM, "]}}"}) {
    gst_buffer_append(buffer, new_buffer(piece));
  }
  ASSERT_EQ(gst_harness_push(harness_, buffer), GST_FLOW_OK);
  EXPECT_EQ(pull_text(harness_), IN_ANALYTICS(EXAMPLE_FRAME(EXAMPLE_POLYGON)));
}

TEST_F(JsonToXml, PropertiesCanChangeWhilePlaying)
{
  gboolean exclude_polygon = TRUE;
  gboolean sample_frame = TRUE;
  g_object_get(element_, "exclude-polygon", &exclude_polygon, "sample-frame", &sample_frame, nullptr);
  EXPECT_FALSE(exclude_polygon);
  EXPECT_FALSE(sample_frame);

  g_object_set(element_, "exclude-polygon", TRUE, nullptr);
  EXPECT_EQ(convert(frame_of(EXAMPLE_ITEM)), IN_ANALYTICS(EXAMPLE_FRAME("")));
  g_object_get(element_, "exclude-polygon", &exclude_polygon, "sample-frame", &sample_frame, nullptr);
  EXPECT_TRUE(exclude_polygon);
  EXPECT_FALSE(sample_frame);

  g_object_set(element_, "exclude-polygon", FALSE, nullptr);
  EXPECT_EQ(convert(frame_of(EXAMPLE_ITEM)), IN_ANALYTICS(EXAMPLE_FRAME(EXAMPLE_POLYGON)));
}

TEST_F(JsonToXml, SampleFrameHasTheFirstItem)
{
  g_object_set(element_, "sample-frame", TRUE, nullptr);
  EXPECT_EQ(convert(frame_of(std::string(EXAMPLE_ITEM) + ",{}")),
            "<tt:SampleFrame xmlns:tt=\"http://www.onvif.org/ver10/schema\"" EXAMPLE_CONTENT(
                EXAMPLE_POLYGON) "</tt:SampleFrame>");
  gboolean sample_frame = FALSE;
  g_object_get(element_, "sample-frame", &sample_frame, nullptr);
  EXPECT_TRUE(sample_frame);
}

TEST_F(JsonToXml, TimeOfArrivalReplacesAMissingOrInvalidTime)
{
  for (const char *item : {"{}", "{\"UtcTime\":\"yesterday\"}"}) {
    gint64 before = g_get_real_time();
    std::string text = convert(frame_of(item));
    gint64 time = parse_utc(evaluate(text, "string(/tt:VideoAnalytics/tt:Frame/@UtcTime)"));
    EXPECT_GE(time, before);
    EXPECT_LE(time, g_get_real_time());
  }
  EXPECT_EQ(pop_warning().first, PART_WARNING);
}

TEST_F(JsonToXml, CentreOfTheItemIsUsed)
{
  std::string text = convert_object(
      ",\"BoundingBox\":{\"Left\":0,\"Top\":1,\"Right\":1,\"Bottom\":0},\"CenterOfGravity\":[0.25,-1e-9]");
  EXPECT_EQ(evaluate(text, "string(//tt:CenterOfGravity/@x)"), "0.2500");
  EXPECT_EQ(evaluate(text, "string(//tt:CenterOfGravity/@y)"), "0.0000");
}

TEST_F(JsonToXml, ObjectWithoutBoxHasNoShape)
{
  std::string text =
      convert_object(",\"Polygon\":[[0,0],[0,1],[1,1]],\"CenterOfGravity\":[0,0],\"Type\":\"Face\"");
  EXPECT_EQ(evaluate(text, "count(//tt:Object/tt:Appearance/*)"), "1");
  EXPECT_EQ(evaluate(text, "count(//tt:Appearance/tt:Class)"), "1");
  EXPECT_EQ(evaluate(convert_object(""), "count(//tt:Object[@ObjectId=1]/*)"), "0");
}

struct ClassCase {
  const char *members;
  const char *candidate;
  const char *candidate_likelihood;
  const char *type;
  const char *type_likelihood;
};

TEST_F(JsonToXml, WritesClassesInBothForms)
{
  for (const ClassCase &expected :
       {ClassCase{",\"Type\":\"Human\",\"Likelihood\":1", "Human", "1.00", "Human", "1.00"},
        ClassCase{",\"Type\":\"Vehicle\",\"Likelihood\":0", "Vehical", "0.00", "Vehicle", "0.00"},
        ClassCase{",\"Type\":\"Animal\",\"Likelihood\":0.5", "Animal", "0.50", "Animal", "0.50"},
        ClassCase{",\"Type\":\"Face\",\"Likelihood\":0.5", "Face", "0.50", "Face", "0.50"},
        ClassCase{",\"Type\":\"LicensePlate\",\"Likelihood\":0.5", "Other", "0.50", "LicensePlate", "0.50"},
        ClassCase{",\"Type\":\"Bus\"", "", "", "Bus", ""},
        ClassCase{",\"Likelihood\":0.5", "", "", "", ""}}) {
    std::string text = convert_object(expected.members);
    EXPECT_EQ(evaluate(text, "string(//tt:ClassCandidate/tt:Type)"), expected.candidate);
    EXPECT_EQ(evaluate(text, "string(//tt:ClassCandidate/tt:Likelihood)"), expected.candidate_likelihood);
    EXPECT_EQ(evaluate(text, "string(//tt:Class/tt:Type)"), expected.type);
    EXPECT_EQ(evaluate(text, "string(//tt:Class/tt:Type/@Likelihood)"), expected.type_likelihood);
    if (have_onvif_schemas()) {
      EXPECT_TRUE(is_valid_fragment(text));
    }
  }
}

struct Named {
  HostileText json; /* between quotes */
  std::string written;
};

TEST_F(JsonToXml, HostileTextsAreEscapedOrReplaced)
{
  for (const Named &named :
       {Named{"", ""}, Named{"\\\"/><tt:Object ObjectId=\\\"1\\\"/>", "\"/><tt:Object ObjectId=\"1\"/>"},
        Named{"<![CDATA[&lt;]]> &#0; %s%n", "<![CDATA[&lt;]]> &#0; %s%n"}, Named{"a\\nb\\r\\tc", "a\nb\r\tc"},
        Named{"a\\u0001\\u001f\x7f", "a\xef\xbf\xbd\xef\xbf\xbd\x7f"}, Named{"\\uffff", "\xef\xbf\xbd"},
        Named{"\\ud83c\\udfa5", "\xf0\x9f\x8e\xa5"},
        Named{repeat("\xc3\xa9", 100000), repeat("\xc3\xa9", onvif::SOURCE_NAME_MAX)}}) {
    std::string text = convert(frame_of("{}", named.json.text));
    EXPECT_EQ(evaluate(text, "string(/tt:VideoAnalytics/tt:Frame/@Source)"), named.written);
    EXPECT_EQ(evaluate(text, "count(//tt:Frame/@Source)"), "1");
    EXPECT_EQ(evaluate(text, "count(//tt:Frame/*)"), "0");
    EXPECT_EQ(text.find('\n'), text.npos);
  }
  std::string text = convert_object(",\"Type\":\"\\\"]]></tt:Type><&\\uffff\",\"Likelihood\":1");
  EXPECT_EQ(evaluate(text, "string(//tt:Class/tt:Type)"), "\"]]></tt:Type><&\xef\xbf\xbd");
}

TEST_F(JsonToXml, OutputIsValid)
{
  if (!have_onvif_schemas()) {
    GTEST_SKIP() << "ONVIF_SCHEMA_DIR does not name the official schemas";
  }
  for (const std::string &text :
       {std::string(STREAM_START), frame_of(EXAMPLE_ITEM), frame_of(std::string(EXAMPLE_ITEM) + ",{}"),
        frame_of("{}", "<&\\\""), frame_of("{\"Objects\":[{\"Id\":-9223372036854775808}],\"Deleted\":[1,1]}"),
        frame_of("{\"Objects\":[{\"Id\":1,\"Type\":\" \",\"Likelihood\":1e-300}]}")}) {
    EXPECT_TRUE(is_valid_fragment(convert(text)));
  }
}

void
expect_own_stream(GstHarness *harness)
{
  g_autoptr(GstCaps) caps = gst_pad_get_current_caps(harness->sinkpad);
  g_autoptr(GstCaps) fragments = gst_caps_new_empty_simple(onvif::FRAGMENT_CAPS);
  EXPECT_TRUE(gst_caps_is_equal(caps, fragments));
  expect_sticky_events_in_order(harness);
}

TEST_F(JsonToXml, SendsItsOwnCapsAndSegment)
{
  convert(frame_of("{}"));
  expect_own_stream(harness_);
}

TEST_F(JsonToXml, IgnoresCapsFromUpstream)
{
  g_autoptr(GstHarness) harness = gst_harness_new("json2xml");
  gst_harness_set_src_caps_str(harness, "application/json");
  ASSERT_EQ(gst_harness_push(harness, new_buffer(frame_of("{}"))), GST_FLOW_OK);
  pull_text(harness);
  expect_own_stream(harness);
}

TEST_F(JsonToXml, KeepsTimeSegmentsAndTimestamps)
{
  GstSegment segment;
  gst_segment_init(&segment, GST_FORMAT_TIME);
  segment.start = 5 * GST_SECOND;
  pull_events();
  ASSERT_TRUE(gst_harness_push_event(harness_, gst_event_new_segment(&segment)));
  g_autoptr(GstEvent) event = gst_harness_pull_event(harness_);
  const GstSegment *passed_on = nullptr;
  gst_event_parse_segment(event, &passed_on);
  EXPECT_EQ(passed_on->start, 5 * GST_SECOND);

  GstBuffer *input = new_buffer(frame_of("{}"));
  GST_BUFFER_PTS(input) = 7 * GST_SECOND;
  ASSERT_EQ(gst_harness_push(harness_, input), GST_FLOW_OK);
  g_autoptr(GstBuffer) output = gst_harness_pull(harness_);
  EXPECT_EQ(GST_BUFFER_PTS(output), 7 * GST_SECOND);

  ASSERT_EQ(gst_harness_push(harness_, new_buffer(frame_of("{}"))), GST_FLOW_OK);
  g_autoptr(GstBuffer) untimed = gst_harness_pull(harness_);
  EXPECT_FALSE(GST_BUFFER_PTS_IS_VALID(untimed) || GST_BUFFER_DTS_IS_VALID(untimed));
}

TEST_F(JsonToXml, ForwardsFlushAndEndOfStream)
{
  convert(frame_of("{}"));
  pull_events();
  EXPECT_TRUE(gst_harness_push_event(harness_, gst_event_new_flush_start()));
  EXPECT_TRUE(gst_harness_push_event(harness_, gst_event_new_flush_stop(TRUE)));
  EXPECT_TRUE(gst_harness_push_event(harness_, new_segment(GST_FORMAT_BYTES)));
  convert(frame_of("{}"));
  EXPECT_TRUE(gst_harness_push_event(harness_, gst_event_new_eos()));
  EXPECT_EQ(pull_events(), (std::vector<GstEventType>{GST_EVENT_FLUSH_START, GST_EVENT_FLUSH_STOP,
                                                      GST_EVENT_SEGMENT, GST_EVENT_EOS}));
}

TEST_F(JsonToXml, MalformedFramesAreDroppedWithOneWarning)
{
  for (int round = 0; round < 2; round++) {
    for (const std::string &text :
         {std::string("no JSON"), std::string(), frame_of("{}", "a\"b"), frame_of("\xff"), frame_of("1"),
          frame_of(repeat("[", 1000000)), frame_of("{\"a\":\"" + repeat("x", 10000000) + "\"}")}) {
      push(text);
    }
    EXPECT_EQ(gst_harness_buffers_in_queue(harness_), 0u);
    EXPECT_EQ(pop_warning(),
              std::pair(std::string(WHOLE_WARNING), std::string("it is no JSON, or beyond the limits")));
    EXPECT_EQ(convert(frame_of(EXAMPLE_ITEM)), IN_ANALYTICS(EXAMPLE_FRAME(EXAMPLE_POLYGON)));
  }
}

TEST_F(JsonToXml, MalformedPartsAreDroppedWithOneWarning)
{
  for (int round = 0; round < 2; round++) {
    for (int i = 0; i < 3; i++) {
      std::string text = convert(frame_of("{\"Objects\":[{\"Id\":0.5},{\"Id\":2}]}"));
      EXPECT_EQ(evaluate(text, "count(//tt:Object)"), "1");
      EXPECT_EQ(evaluate(text, "count(//tt:Object[@ObjectId=2])"), "1");
    }
    push("no JSON");
    EXPECT_EQ(pop_warning(),
              std::pair(std::string(PART_WARNING),
                        std::string("an object's \"Id\" is missing or no whole number of 64 bits")));
    convert(frame_of("{}"));
  }
}

TEST_F(JsonToXml, WarnsAgainAfterARestart)
{
  push("no JSON");
  EXPECT_EQ(pop_warning().first, WHOLE_WARNING);
  gst_element_set_state(element_, GST_STATE_READY);
  gst_element_set_state(element_, GST_STATE_PLAYING);
  EXPECT_TRUE(gst_harness_push_event(harness_, gst_event_new_stream_start("again")));
  EXPECT_TRUE(gst_harness_push_event(harness_, new_segment(GST_FORMAT_BYTES)));
  push("no JSON");
  EXPECT_EQ(pop_warning().first, WHOLE_WARNING);
}

TEST_F(JsonToXml, ReturnsTheFlowResultOfDownstream)
{
  GST_PAD_SET_FLUSHING(harness_->sinkpad);
  EXPECT_EQ(gst_harness_push(harness_, new_buffer(frame_of("{}"))), GST_FLOW_FLUSHING);
  EXPECT_EQ(gst_harness_push(harness_, new_buffer("no JSON")), GST_FLOW_OK);
  EXPECT_EQ(pop_warning().first, WHOLE_WARNING);
}

/* Behind an application source with default properties, as in the daemon. */
class JsonChain : public testing::Test
{
protected:
  static void SetUpTestSuite()
  {
    gst_init(nullptr, nullptr);
  }

  void SetUp() override
  {
    pipeline_ = gst_pipeline_new(nullptr);
    source_ = GST_ELEMENT(g_object_new(GST_TYPE_APP_SRC, nullptr));
    converter_ = gst_element_factory_make("json2xml", nullptr);
    sink_ = GST_ELEMENT(g_object_new(GST_TYPE_APP_SINK, "sync", FALSE, nullptr));
    gst_bin_add_many(GST_BIN(pipeline_), source_, converter_, sink_, nullptr);
  }

  void TearDown() override
  {
    gst_element_set_state(pipeline_, GST_STATE_NULL);
    gst_object_unref(pipeline_);
  }

  void push(const std::string &text)
  {
    EXPECT_EQ(gst_app_src_push_buffer(GST_APP_SRC(source_), new_buffer(text)), GST_FLOW_OK);
  }

  std::string pull()
  {
    g_autoptr(GstSample) sample = gst_app_sink_try_pull_sample(GST_APP_SINK(sink_), 5 * GST_SECOND);
    EXPECT_NE(sample, nullptr);
    return sample != nullptr ? buffer_text(gst_sample_get_buffer(sample)) : std::string();
  }

  GstElement *pipeline_ = nullptr;
  GstElement *source_ = nullptr;
  GstElement *converter_ = nullptr;
  GstElement *sink_ = nullptr;
};

TEST_F(JsonChain, SampleFrameIsConverted)
{
  ASSERT_TRUE(gst_element_link_many(source_, converter_, sink_, nullptr));
  g_object_set(converter_, "sample-frame", TRUE, nullptr);
  push(frame_of(EXAMPLE_ITEM));
  EXPECT_EQ(gst_element_set_state(pipeline_, GST_STATE_PLAYING), GST_STATE_CHANGE_ASYNC);
  EXPECT_EQ(root_name(pull()), "http://www.onvif.org/ver10/schema SampleFrame");
}

} // namespace
