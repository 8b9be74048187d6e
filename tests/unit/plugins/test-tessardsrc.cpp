/* SPDX-License-Identifier: MIT */
#include "tessardsrc.h"

#include "complaint.h"
#include "fakedaemon.h"
#include "metadataclient.h"
#include "testhost.h"

#include <gst/check/gstharness.h>
#include <gst/check/gsttestclock.h>
#include <tuple>

namespace
{

using namespace fakedaemon;
using std::string_literals::operator""s;

using Setting = std::pair<const char *, const char *>;

constexpr const char *CUT_REPLY = "The daemon closed the connection before its reply was complete.";
constexpr const char *ENDED = "The daemon ended the stream.";

/* 2024-01-01T00:00:00.5Z */
constexpr GstClockTime NEW_YEAR = 1704067200 * GST_SECOND + 500 * GST_MSECOND;

Complaint
resource_error(GstResourceError code, const std::string &text)
{
  return {GST_MESSAGE_ERROR, GST_RESOURCE_ERROR, code, text};
}

Complaint
stream_error(const std::string &text)
{
  return {GST_MESSAGE_ERROR, GST_STREAM_ERROR, GST_STREAM_ERROR_DECODE, text};
}

Complaint
warning(GstResourceError code, const std::string &text)
{
  return {GST_MESSAGE_WARNING, GST_RESOURCE_ERROR, code, text};
}

GstEvent *
custom_event(GstEventType type, const char *name)
{
  return gst_event_new_custom(type, gst_structure_new_empty(name));
}

/* The element in a harness with a test clock, and its messages. */
class TessardSrcTest : public testhost::Fixture
{
protected:
  void SetUp() override
  {
    testhost::Fixture::SetUp();
    start_daemon();
    element_ = GST_ELEMENT(gst_object_ref_sink(g_object_new(TESSARD_TYPE_SRC, nullptr)));
    g_object_set(element_, "socket-path", path("metadata").c_str(), nullptr);
    bus_ = gst_bus_new();
    gst_element_set_bus(element_, bus_);
    harness_ = gst_harness_new_with_element(element_, nullptr, "src");
  }

  void TearDown() override
  {
    stop();
    gst_element_set_bus(element_, nullptr);
    expect_no_complaint();
    EXPECT_EQ(gst_harness_buffers_in_queue(harness_), 0U);
    gst_harness_teardown(harness_);
    gst_object_unref(element_);
    gst_object_unref(bus_);
    daemon_.reset();
    testhost::Fixture::TearDown();
  }

  void start_daemon()
  {
    daemon_ = std::make_unique<FakeDaemon>(path("metadata"));
  }

  void set(const char *property, const char *value)
  {
    gst_util_set_object_arg(G_OBJECT(element_), property, value);
  }

  void play()
  {
    gst_harness_play(harness_);
  }

  void change_state(GstState state)
  {
    EXPECT_NE(gst_element_set_state(element_, state), GST_STATE_CHANGE_FAILURE);
  }

  void stop()
  {
    change_state(GST_STATE_NULL);
  }

  Connection *play_stream()
  {
    play();
    return daemon_->accept_stream();
  }

  GstBuffer *pull()
  {
    GstBuffer *buffer = gst_harness_pull(harness_);
    EXPECT_NE(buffer, nullptr);
    return buffer;
  }

  /* The next document, and whether its buffer is marked as a discontinuity. */
  std::pair<std::string, bool> pull_document()
  {
    g_autoptr(GstBuffer) buffer = pull();
    gpointer data = nullptr;
    gsize size = 0;
    gst_buffer_extract_dup(buffer, 0, G_MAXSIZE, &data, &size);
    const std::string text(static_cast<const char *>(data), size);
    g_free(data);
    return {text, GST_BUFFER_IS_DISCONT(buffer)};
  }

  std::string pull_text()
  {
    return pull_document().first;
  }

  GstClockTime pull_utc_time()
  {
    g_autoptr(GstBuffer) buffer = pull();
    g_autoptr(GstCaps) caps = gst_caps_new_empty_simple("timestamp/x-unix");
    GstReferenceTimestampMeta *meta = gst_buffer_get_reference_timestamp_meta(buffer, caps);
    return meta != nullptr ? meta->timestamp : GST_CLOCK_TIME_NONE;
  }

  /* The next complaint, for which this waits. */
  Complaint wait_for_complaint()
  {
    const auto complaints = static_cast<GstMessageType>(GST_MESSAGE_WARNING | GST_MESSAGE_ERROR);
    g_autoptr(GstMessage) message =
        gst_bus_timed_pop_filtered(bus_, testhost::SPIN_LIMIT_US * GST_USECOND, complaints);
    if (message == nullptr) {
      ADD_FAILURE() << "no complaint";
      return {};
    }
    return read_complaint(message);
  }

  /* The element's error; the base class adds one of its own. */
  Complaint wait_for_error()
  {
    const Complaint complaint = wait_for_complaint();
    const Complaint added = wait_for_complaint();
    EXPECT_EQ(added.domain, GST_STREAM_ERROR);
    EXPECT_EQ(added.code, GST_STREAM_ERROR_FAILED);
    return complaint;
  }

  void expect_no_complaint()
  {
    gst_bus_set_flushing(bus_, FALSE);
    const auto complaints = static_cast<GstMessageType>(GST_MESSAGE_WARNING | GST_MESSAGE_ERROR);
    g_autoptr(GstMessage) message = gst_bus_pop_filtered(bus_, complaints);
    EXPECT_EQ(message, nullptr);
  }

  bool push_upstream(GstEventType type, const char *name)
  {
    return gst_harness_push_upstream_event(harness_, custom_event(type, name)) != FALSE;
  }

  bool send(GstEventType type, const char *name)
  {
    return gst_element_send_event(element_, custom_event(type, name)) != FALSE;
  }

  std::unique_ptr<FakeDaemon> daemon_;
  GstElement *element_ = nullptr;
  GstBus *bus_ = nullptr;
  GstHarness *harness_ = nullptr;
};

struct Request {
  const char *name;
  std::vector<Setting> settings;
  const char *header;
};

std::ostream &
operator<<(std::ostream &stream, const Request &request)
{
  return stream << request.name;
}

class TessardSrcRequestTest : public TessardSrcTest, public testing::WithParamInterface<Request>
{
};

/* What the daemon sends before it hangs up, or before it sends no more. */
struct Hostile {
  const char *name;
  std::string bytes;
  Complaint complaint;
};

std::ostream &
operator<<(std::ostream &stream, const Hostile &hostile)
{
  return stream << hostile.name;
}

class TessardSrcHostileTest : public TessardSrcTest, public testing::WithParamInterface<Hostile>
{
};

class TessardSrcEndedTest : public TessardSrcTest, public testing::WithParamInterface<Hostile>
{
};

class TessardSrcStopTest : public TessardSrcTest, public testing::WithParamInterface<Hostile>
{
};

} // namespace

/* The request */

TEST_P(TessardSrcRequestTest, HasAKeyForEachProperty)
{
  for (const Setting &setting : GetParam().settings)
    set(setting.first, setting.second);
  play();
  Connection *connection = daemon_->accept();
  EXPECT_EQ(connection->read_request(), "OPEN\n"s + GetParam().header + "\n");
  connection->close();
  EXPECT_EQ(wait_for_error(), resource_error(GST_RESOURCE_ERROR_READ, CUT_REPLY));
}

INSTANTIATE_TEST_SUITE_P(
    All, TessardSrcRequestTest,
    testing::Values(
        Request{"nothing", {}, ""}, Request{"event", {{"event", "true"}}, "event=1\n"},
        Request{
            "topic", {{"event-topic", "tns1:VideoSource//."}}, "event=1\nevent_topic=tns1:VideoSource//.\n"},
        Request{"content", {{"event-content", "a\n\\ "}}, "event=1\nevent_content=a\\n\\\\\\040\n"},
        Request{"analytics_0", {{"analytics", "0"}}, "analytics=0\n"},
        Request{"analytics_2", {{"analytics", "2"}}, "analytics=2\n"},
        Request{"polygons", {{"analytics", "polygons"}}, "analytics=2\n"},
        Request{"boxes", {{"analytics", "boxes"}}, "analytics=1\n"},
        Request{"not_asked", {{"analytics", "not-asked"}, {"ptz", "-1"}, {"video-channel", "-1"}}, ""},
        Request{"ptz_0", {{"ptz", "none"}}, "ptz=0\n"}, Request{"ptz_3", {{"ptz", "status"}}, "ptz=3\n"},
        Request{
            "spaces",
            {{"ptz", "1"}, {"ptz-pantilt-coordinate-space", "0"}, {"ptz-zoom-coordinate-space", "space-2"}},
            "ptz=1\nptz_pantilt_coordinate_space=0\nptz_zoom_coordinate_space=2\n"},
        Request{"channel", {{"video-channel", "3"}}, "video_channel=3\n"},
        Request{"everything",
                {{"ptz-zoom-coordinate-space", "1"},
                 {"ptz-pantilt-coordinate-space", "1"},
                 {"video-channel", "2147483647"},
                 {"ptz", "2"},
                 {"analytics", "2"},
                 {"event-content", "c"},
                 {"event-topic", "t"},
                 {"event", "true"}},
                "event=1\nevent_topic=t\nevent_content=c\nanalytics=2\nvideo_channel=2147483647\nptz=2\n"
                "ptz_pantilt_coordinate_space=1\nptz_zoom_coordinate_space=1\n"}),
    testing::PrintToStringParamName());

TEST_F(TessardSrcTest, HasTheDefaultSocketWithoutAPath)
{
  g_autofree char *path = nullptr;
  g_object_set(element_, "socket-path", nullptr, nullptr);
  g_object_get(element_, "socket-path", &path, nullptr);
  EXPECT_STREQ(path, metadata_client_get_default_socket());
}

TEST_F(TessardSrcTest, KnowsNoOtherProperty)
{
  testhost::expect_unknown_property_warnings(element_, "reconnect");
}

/* The stream */

TEST_F(TessardSrcTest, GivesADocumentPerBuffer)
{
  Connection *connection = play_stream();
  connection->send(document("<a/>") + document("<b/>") + document("") + document("\0\xff"s));
  EXPECT_EQ(pull_document(), std::pair("<a/>"s, true));
  EXPECT_EQ(pull_document(), std::pair("<b/>"s, false));
  EXPECT_EQ(pull_document(), std::pair("\0\xff"s, false));
}

TEST_F(TessardSrcTest, BeginsLikeALiveSource)
{
  Connection *connection = play_stream();
  connection->send(document("<a/>"));
  pull_text();
  for (GstEventType type : {GST_EVENT_STREAM_START, GST_EVENT_CAPS, GST_EVENT_SEGMENT}) {
    g_autoptr(GstEvent) event = gst_harness_pull_event(harness_);
    EXPECT_EQ(GST_EVENT_TYPE(event), type);
  }
  g_autoptr(GstCaps) caps = gst_pad_get_current_caps(harness_->sinkpad);
  g_autofree char *text = gst_caps_to_string(caps);
  EXPECT_STREQ(text, "application/x-onvif-metadata");
  g_autoptr(GstQuery) query = gst_query_new_latency();
  gboolean live = FALSE;
  EXPECT_TRUE(gst_element_query(element_, query));
  gst_query_parse_latency(query, &live, nullptr, nullptr);
  EXPECT_TRUE(live);
}

TEST_F(TessardSrcTest, PassesTheFieldsOfTheCapsOn)
{
  play();
  Connection *connection = daemon_->accept_request();
  connection->send("OK\0"s);
  for (const char *caps : {"application/x-onvif-metadata, parsed=(boolean)true", METADATA_CAPS}) {
    connection->send(stream_start(caps) + document("<a/>"));
    pull_text();
    g_autoptr(GstCaps) current = gst_pad_get_current_caps(harness_->sinkpad);
    g_autofree char *text = gst_caps_to_string(current);
    EXPECT_STREQ(text, caps);
  }
}

TEST_F(TessardSrcTest, StampsBuffersWithTheRunningTimeOfTheirArrival)
{
  Connection *connection = play_stream();
  for (GstClockTime time : {GST_SECOND, 3 * GST_SECOND}) {
    gst_harness_set_time(harness_, time);
    connection->send(document("<a/>"));
    g_autoptr(GstBuffer) buffer = pull();
    EXPECT_EQ(GST_BUFFER_PTS(buffer), time);
  }
}

TEST_F(TessardSrcTest, GivesTheTimeOfADocument)
{
  Connection *connection = play_stream();
  connection->send(document("<tt:Frame UtcTime=\"2024-01-01T00:00:00.5Z\"/>") + document("<tt:Frame/>"));
  EXPECT_EQ(pull_utc_time(), NEW_YEAR);
  EXPECT_EQ(pull_utc_time(), GST_CLOCK_TIME_NONE);
}

TEST_F(TessardSrcTest, EndsWithAnEventWhileItWaits)
{
  Connection *connection = play_stream();
  connection->send(document("<a/>"));
  pull_text();
  EXPECT_TRUE(gst_element_send_event(element_, gst_event_new_eos()));
  for (bool has_ended = false; !has_ended;) {
    g_autoptr(GstEvent) event = gst_harness_pull_event(harness_);
    ASSERT_NE(event, nullptr);
    has_ended = GST_EVENT_TYPE(event) == GST_EVENT_EOS;
  }
  stop();
  EXPECT_EQ(connection->read_to_end(), "");
}

/* Failures */

TEST_F(TessardSrcTest, FailsWithoutADaemon)
{
  daemon_.reset();
  play();
  EXPECT_EQ(wait_for_error(),
            resource_error(GST_RESOURCE_ERROR_OPEN_READ,
                           "Could not connect to '" + path("metadata") + "': No such file or directory."));
}

TEST_F(TessardSrcTest, FailsWithoutAReplyInTime)
{
  set("timeout", "50000000");
  play();
  Connection *connection = daemon_->accept_request();
  EXPECT_EQ(wait_for_error(), resource_error(GST_RESOURCE_ERROR_OPEN_READ, "No reply within 0.05 seconds."));
  EXPECT_EQ(connection->read_to_end(), "");
}

TEST_F(TessardSrcTest, ReportsInvalidCaps)
{
  play();
  Connection *connection = daemon_->accept_request();
  connection->send("OK\0"s + stream_start("application/x-onvif-metadata, =") + document("<a/>"));
  EXPECT_EQ(wait_for_error(), stream_error("The daemon's stream is malformed: the caps are not valid."));
}

TEST_P(TessardSrcHostileTest, FailsWhileTheDaemonIsConnected)
{
  play();
  Connection *connection = daemon_->accept_request();
  connection->send(GetParam().bytes);
  EXPECT_EQ(wait_for_error(), GetParam().complaint);
  EXPECT_EQ(connection->read_to_end(), "");
}

INSTANTIATE_TEST_SUITE_P(
    All, TessardSrcHostileTest,
    testing::Values(
        Hostile{"refusal", "FAIL\nBad request, no metadata can be produced.\0"s,
                resource_error(GST_RESOURCE_ERROR_SETTINGS, "Bad request, no metadata can be produced.")},
        Hostile{"refusal_without_a_reason", "FAIL\n\0"s,
                resource_error(GST_RESOURCE_ERROR_SETTINGS, "The daemon refused the request.")},
        Hostile{"refusal_that_is_not_utf8", "FAIL\n'\xff'\0"s,
                resource_error(GST_RESOURCE_ERROR_SETTINGS, "'\xef\xbf\xbd'")},
        Hostile{"other_reply", "HELLO\0"s,
                stream_error("The daemon's reply is neither \"OK\" nor \"FAIL\".")},
        Hostile{"endless_reply", std::string(METADATA_CLIENT_MAX_REPLY_BYTES + 1, 'x'),
                stream_error("The daemon's reply is longer than 66048 bytes.")},
        Hostile{"garbage", "OK\0"s + std::string(62, '\0'),
                stream_error("The daemon's stream is malformed: a packet has an unknown version.")},
        Hostile{"other_caps", "OK\0"s + stream_start("text/plain"),
                stream_error("The daemon's stream is malformed: the caps are not those of metadata.")},
        Hostile{"end_of_stream", "OK\0"s + stream_start() + packet(END_OF_STREAM, ""),
                resource_error(GST_RESOURCE_ERROR_READ, ENDED)}),
    testing::PrintToStringParamName());

TEST_P(TessardSrcEndedTest, FailsWhenTheDaemonHangsUp)
{
  play();
  Connection *connection = daemon_->accept_request();
  connection->send(GetParam().bytes);
  connection->close();
  EXPECT_EQ(wait_for_error(), GetParam().complaint);
}

INSTANTIATE_TEST_SUITE_P(
    All, TessardSrcEndedTest,
    testing::Values(Hostile{"without_a_reply", "", resource_error(GST_RESOURCE_ERROR_READ, CUT_REPLY)},
                    Hostile{"in_the_reply", "FAIL\nBad", resource_error(GST_RESOURCE_ERROR_READ, CUT_REPLY)},
                    Hostile{"behind_the_reply", "OK\0"s, resource_error(GST_RESOURCE_ERROR_READ, ENDED)},
                    Hostile{"behind_the_caps", "OK\0"s + stream_start(),
                            resource_error(GST_RESOURCE_ERROR_READ, ENDED)},
                    Hostile{"in_a_document", "OK\0"s + stream_start() + document("<a/>").substr(0, 63),
                            resource_error(GST_RESOURCE_ERROR_READ, ENDED)}),
    testing::PrintToStringParamName());

TEST_F(TessardSrcTest, FailsBehindADocument)
{
  Connection *connection = play_stream();
  connection->send(document("<a/>"));
  connection->close();
  EXPECT_EQ(pull_text(), "<a/>");
  EXPECT_EQ(wait_for_error(), resource_error(GST_RESOURCE_ERROR_READ, ENDED));
}

/* Changes of state */

TEST_P(TessardSrcStopTest, StopsWhileTheDaemonIsSilent)
{
  for (GstState state : {GST_STATE_PAUSED, GST_STATE_READY, GST_STATE_NULL}) {
    change_state(GST_STATE_PLAYING);
    Connection *connection = daemon_->accept_request();
    connection->send(GetParam().bytes);
    change_state(state);
    EXPECT_EQ(connection->read_to_end(), "");
  }
}

INSTANTIATE_TEST_SUITE_P(
    All, TessardSrcStopTest,
    testing::Values(Hostile{"before_the_reply", "", {}}, Hostile{"in_the_reply", "O", {}},
                    Hostile{"before_the_stream", "OK\0"s, {}},
                    Hostile{"before_a_document", "OK\0"s + stream_start(), {}},
                    Hostile{"in_a_document", "OK\0"s + stream_start() + document("<a/>").substr(0, 63), {}}),
    testing::PrintToStringParamName());

TEST_F(TessardSrcTest, StopsWhileTheQueueOfConnectionsIsFull)
{
  FakeDaemon full(path("full"), 0);
  g_autoptr(GError) error = nullptr;
  g_autoptr(MetadataClient) first =
      metadata_client_open(full.path().c_str(), "OPEN\n\n", GST_MSECOND / GST_USECOND, nullptr, &error);
  set("socket-path", full.path().c_str());
  play();
  stop();
}

TEST_F(TessardSrcTest, ConnectsAgainAfterAPause)
{
  Connection *connection = play_stream();
  connection->send(document("<a/>") + document("<b/>"));
  EXPECT_EQ(pull_text(), "<a/>");
  EXPECT_EQ(pull_text(), "<b/>");
  change_state(GST_STATE_PAUSED);
  EXPECT_EQ(connection->read_to_end(), "");

  change_state(GST_STATE_PLAYING);
  connection = daemon_->accept_stream();
  connection->send(document("<c/>"));
  EXPECT_EQ(pull_document(), std::pair("<c/>"s, true));
}

TEST_F(TessardSrcTest, StartsAgain)
{
  for (int i = 0; i < 3; i++) {
    change_state(GST_STATE_PLAYING);
    Connection *connection = daemon_->accept_stream();
    connection->send(document("<a/>"));
    EXPECT_EQ(pull_document(), std::pair("<a/>"s, true));
    stop();
    EXPECT_EQ(connection->read_to_end(), "");
  }
}

TEST_F(TessardSrcTest, StartsAgainAfterAFailure)
{
  play();
  daemon_->accept_request()->send("FAIL\nNo.\0"s);
  EXPECT_EQ(wait_for_error().text, "No.");
  stop();
  change_state(GST_STATE_PLAYING);
  Connection *connection = daemon_->accept_stream();
  connection->send(document("<a/>"));
  EXPECT_EQ(pull_text(), "<a/>");
}

/* Connecting again */

TEST_F(TessardSrcTest, GoesOnWithAnotherConnection)
{
  set("reconnect", "true");
  Connection *connection = play_stream();
  connection->send(document("<a/>"));
  EXPECT_EQ(pull_document(), std::pair("<a/>"s, true));
  connection->close();
  EXPECT_EQ(wait_for_complaint(), warning(GST_RESOURCE_ERROR_READ, ENDED));

  connection = daemon_->accept_stream();
  connection->send(document("<b/>") + document("<c/>"));
  EXPECT_EQ(pull_document(), std::pair("<b/>"s, true));
  EXPECT_EQ(pull_document(), std::pair("<c/>"s, false));
}

TEST_F(TessardSrcTest, LosesTheRestOfACutDocument)
{
  set("reconnect", "true");
  Connection *connection = play_stream();
  connection->send(document("<cut/>").substr(0, 64));
  connection->close();
  EXPECT_EQ(wait_for_complaint(), warning(GST_RESOURCE_ERROR_READ, ENDED));
  connection = daemon_->accept_stream();
  connection->send(document("<whole/>"));
  EXPECT_EQ(pull_document(), std::pair("<whole/>"s, true));
}

TEST_F(TessardSrcTest, WaitsForADaemonThatIsNotThere)
{
  set("reconnect", "true");
  daemon_.reset();
  play();
  EXPECT_EQ(wait_for_complaint().code, GST_RESOURCE_ERROR_OPEN_READ);
  start_daemon();
  Connection *connection = daemon_->accept_stream();
  connection->send(document("<a/>"));
  EXPECT_EQ(pull_text(), "<a/>");

  connection->close();
  daemon_.reset();
  EXPECT_EQ(wait_for_complaint(), warning(GST_RESOURCE_ERROR_READ, ENDED));
  start_daemon();
  connection = daemon_->accept_stream();
  connection->send(document("<b/>"));
  EXPECT_EQ(pull_document(), std::pair("<b/>"s, true));
}

TEST_F(TessardSrcTest, BacksOffWhileTheDaemonFails)
{
  set("reconnect", "true");
  play();
  daemon_->accept()->close();
  const gint64 first = g_get_monotonic_time();
  daemon_->accept()->close();
  const gint64 second = g_get_monotonic_time();
  Connection *connection = daemon_->accept_stream();
  const gint64 third = g_get_monotonic_time();
  connection->send(document("<a/>"));
  EXPECT_EQ(pull_text(), "<a/>");

  EXPECT_GE(second - first, TESSARD_SRC_FIRST_RETRY_MS * G_TIME_SPAN_MILLISECOND / 2);
  EXPECT_GE(third - second, TESSARD_SRC_FIRST_RETRY_MS * G_TIME_SPAN_MILLISECOND * 3 / 2);
  EXPECT_EQ(wait_for_complaint(), warning(GST_RESOURCE_ERROR_READ, CUT_REPLY));
}

TEST_F(TessardSrcTest, DoesNotRepeatAFirstRequestThatIsRefused)
{
  set("reconnect", "true");
  play();
  daemon_->accept_request()->send("FAIL\nBad request, no metadata can be produced.\0"s);
  EXPECT_EQ(wait_for_error(),
            resource_error(GST_RESOURCE_ERROR_SETTINGS, "Bad request, no metadata can be produced."));
}

TEST_F(TessardSrcTest, RepeatsALaterRequestThatIsRefused)
{
  set("reconnect", "true");
  Connection *connection = play_stream();
  connection->close();
  EXPECT_EQ(wait_for_complaint(), warning(GST_RESOURCE_ERROR_READ, ENDED));
  daemon_->accept_request()->send("FAIL\nNot yet.\0"s);
  connection = daemon_->accept_stream();
  connection->send(document("<a/>"));
  EXPECT_EQ(pull_text(), "<a/>");
}

TEST_F(TessardSrcTest, DoesNotContinueAMalformedStream)
{
  set("reconnect", "true");
  Connection *connection = play_stream();
  connection->send(std::string(62, '\0'));
  EXPECT_EQ(wait_for_error(),
            stream_error("The daemon's stream is malformed: a packet has an unknown version."));
}

TEST_F(TessardSrcTest, StopsBeforeItConnectsAgain)
{
  set("reconnect", "true");
  daemon_.reset();
  play();
  EXPECT_EQ(wait_for_complaint().code, GST_RESOURCE_ERROR_OPEN_READ);
  stop();
}

/* Sync points */

TEST_F(TessardSrcTest, RequestsASyncPointForAKeyUnit)
{
  Connection *connection = play_stream();
  connection->send(document("<a/>"));
  pull_text();
  EXPECT_TRUE(push_upstream(GST_EVENT_CUSTOM_UPSTREAM, "GstForceKeyUnit"));
  EXPECT_TRUE(send(GST_EVENT_CUSTOM_UPSTREAM, "GstForceKeyUnit"));
  EXPECT_EQ(connection->read(10), "SYNC\nSYNC\n");
}

TEST_F(TessardSrcTest, RequestsASyncPointForTheEventOfThePlatform)
{
  Connection *connection = play_stream();
  connection->send(document("<a/>"));
  pull_text();
  EXPECT_TRUE(send(GST_EVENT_CUSTOM_DOWNSTREAM, "GstMetaDataStreamSetSyncPoint"));
  EXPECT_TRUE(push_upstream(GST_EVENT_CUSTOM_UPSTREAM, "GstMetaDataStreamSetSyncPoint"));
  EXPECT_EQ(connection->read(10), "SYNC\nSYNC\n");
}

TEST_F(TessardSrcTest, RequestsNoSyncPointForOtherEvents)
{
  Connection *connection = play_stream();
  connection->send(document("<a/>"));
  pull_text();
  push_upstream(GST_EVENT_CUSTOM_UPSTREAM, "GstSomethingElse");
  send(GST_EVENT_CUSTOM_DOWNSTREAM, "GstForceKeyUnit");
  stop();
  EXPECT_EQ(connection->read_to_end(), "");
}

TEST_F(TessardSrcTest, RequestsNoSyncPointWithoutAStream)
{
  EXPECT_FALSE(send(GST_EVENT_CUSTOM_UPSTREAM, "GstForceKeyUnit"));
  play();
  Connection *connection = daemon_->accept_request();
  EXPECT_FALSE(push_upstream(GST_EVENT_CUSTOM_UPSTREAM, "GstForceKeyUnit"));
  stop();
  EXPECT_EQ(connection->read_to_end(), "");
}
