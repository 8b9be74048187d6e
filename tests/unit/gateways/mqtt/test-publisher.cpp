/* SPDX-License-Identifier: MIT */
#include "publisher.h"

#include "fakebroker.h"
#include "fakedaemon.h"
#include "mqttlimits.h"
#include "tessardsrc.h"
#include "testbus.h"
#include "testclock.h"

#include <syslog.h>

namespace
{

using fakebroker::FakeBroker;
using fakebroker::Peer;
using fakebroker::Published;
using fakedaemon::Connection;
using fakedaemon::FakeDaemon;
using testhost::SyslogLines;

constexpr const char *HEAD = R"(<tt:MetadataStream xmlns:tt="http://www.onvif.org/ver10/schema")"
                             R"( xmlns:wsnt="http://docs.oasis-open.org/wsn/b-2")"
                             R"( xmlns:tns1="http://www.onvif.org/ver10/topics">)";

std::string
document(const std::string &content)
{
  return fakedaemon::document(HEAD + content + "</tt:MetadataStream>");
}

/* An event of the topic "A" with the source "x". */
std::string
event(const std::string &operation, const std::string &state)
{
  const std::string attribute = operation.empty() ? "" : " PropertyOperation=\"" + operation + "\"";
  return document("<tt:Event><wsnt:NotificationMessage><wsnt:Topic>tns1:A</wsnt:Topic><wsnt:Message>"
                  "<tt:Message UtcTime=\"T\"" +
                  attribute +
                  "><tt:Source><tt:SimpleItem Name=\"S\" Value=\"x\"/></tt:Source><tt:Data><tt:SimpleItem "
                  "Name=\"D\" Value=\"" +
                  state + "\"/></tt:Data></tt:Message></wsnt:Message></wsnt:NotificationMessage></tt:Event>");
}

std::string
frame(const std::string &attributes)
{
  return document("<tt:VideoAnalytics><tt:Frame UtcTime=\"T\" " + attributes + "/></tt:VideoAnalytics>");
}

/* A publisher between a daemon and a broker. The first stream that it requests is that of events. There is
 * a bus, without the daemon. */
class PublisherTest : public testbus::Fixture
{
protected:
  void SetUp() override
  {
    testbus::Fixture::SetUp();
    testclock::reset();
    gst_element_register(nullptr, "tessardsrc", GST_RANK_NONE, TESSARD_TYPE_SRC);
    mosquitto_lib_init();
    daemon_ = std::make_unique<FakeDaemon>(path("metadata"));
    broker_ = std::make_unique<FakeBroker>();
  }

  void TearDown() override
  {
    if (publisher_ != nullptr) {
      stop();
    }
    publisher_.reset();
    peer_.reset();
    broker_.reset();
    daemon_.reset();
    mosquitto_lib_cleanup();
    testhost::take_syslog();
    testclock::reset();
    testbus::Fixture::TearDown();
  }

  /* The broker's thread says goodbye to the test. */
  void stop()
  {
    g_autoptr(GThread) thread = g_thread_new("broker", on_goodbye, peer_.get());
    EXPECT_TRUE(publisher_->stop());
    g_thread_join(static_cast<GThread *>(g_steal_pointer(&thread)));
  }

  static gpointer on_goodbye(gpointer user_data)
  {
    while (static_cast<Peer *>(user_data)->read_publish().payload != "offline") {
    }
    return nullptr;
  }

  void start(const std::string &config)
  {
    g_autoptr(GError) error = nullptr;
    ASSERT_TRUE(mqtt::parse_config("[Topics]\nprefix=p\n" + config, &config_, &error)) << error->message;
    config_.broker = broker_->config();
    publisher_ = std::make_unique<mqtt::Publisher>(&config_, path("metadata"));
    ASSERT_TRUE(publisher_->check_broker(&error) && publisher_->check_streams(&error)) << error->message;
    publisher_->start();
    peer_ = broker_->accept();
    peer_->accept_client();
    EXPECT_EQ(peer_->read_publish().payload, "online");
  }

  Published read()
  {
    return peer_->read_publish();
  }

  mqtt::Config config_;
  std::unique_ptr<FakeDaemon> daemon_;
  std::unique_ptr<FakeBroker> broker_;
  std::unique_ptr<mqtt::Publisher> publisher_;
  std::unique_ptr<Peer> peer_;
};

constexpr const char *EVENTS = "[Metadata]\npublish=false\n";
constexpr const char *METADATA = "[Events]\npublish=false\n";

TEST_F(PublisherTest, PublishesEvents)
{
  start(EVENTS);
  Connection *daemon = daemon_->accept_stream();
  daemon->send(event("", "1"));
  EXPECT_EQ(read(), (Published{"p/onvif-ej/A/&x", R"({"UtcTime":"T","Source":{"S":"x"},"Data":{"D":"1"}})", 1,
                               false, ""}));
}

TEST_F(PublisherTest, PublishesStatesOnce)
{
  start(EVENTS);
  Connection *daemon = daemon_->accept_stream();
  daemon->send(event("Initialized", "1"));
  daemon->send(event("Initialized", "1"));
  daemon->send(event("Changed", "2"));
  daemon->send(event("Deleted", "2"));
  EXPECT_EQ(read(), (Published{"p/onvif-ej/A/&x", R"({"UtcTime":"T","Source":{"S":"x"},"Data":{"D":"1"}})", 1,
                               true, ""}));
  EXPECT_EQ(read(), (Published{"p/onvif-ej/A/&x", R"({"UtcTime":"T","Source":{"S":"x"},"Data":{"D":"2"}})", 1,
                               true, ""}));
  EXPECT_EQ(read(), (Published{"p/onvif-ej/A/&x", "", 1, true, ""}));
}

TEST_F(PublisherTest, DeletesAStateThatANewStreamDoesNotShow)
{
  start(EVENTS);
  Connection *daemon = daemon_->accept_stream();
  daemon->send(event("Initialized", "1"));
  EXPECT_NE(read().payload, "");
  daemon->close();
  daemon = daemon_->accept_stream();
  daemon->send(event("", "2"));
  EXPECT_NE(read().payload, "");
  testclock::advance_ms(MQTT_SETTLE_SECONDS * 1000);
  EXPECT_EQ(read(), (Published{"p/onvif-ej/A/&x", "", 1, true, ""}));
}

TEST_F(PublisherTest, PublishesMetadata)
{
  start(METADATA);
  Connection *daemon = daemon_->accept_stream();
  daemon->send(frame("Source=\"Entr/ance\""));
  EXPECT_EQ(read(), (Published{"p/onvif-mj/VideoAnalytics/1/Entrance",
                               R"({"Frame":[{"@UtcTime":"T","@Source":"Entr/ance"}]})", 1, false, ""}));
  daemon->send(document("<tt:PTZ><tt:PTZStatus><tt:UtcTime>T</tt:UtcTime></tt:PTZStatus></tt:PTZ>"));
  EXPECT_EQ(read(), (Published{"p/onvif-mj/PTZ/1/1", R"({"PTZStatus":[{"UtcTime":"T"}]})", 1, false, ""}));
}

TEST_F(PublisherTest, RequestsOneStreamOfEachChannel)
{
  start(std::string("[Topics]\nprofiles=a;b\n[Metadata]\nchannels=1;7\nanalytics=1\nptz=0\n") + METADATA);
  for (int i = 0; i < 2; i++) {
    Connection *daemon = daemon_->accept();
    const std::string request = daemon->read_request();
    const bool is_first = request.find("video_channel=1\n") != request.npos;
    EXPECT_TRUE(is_first || request.find("video_channel=7\n") != request.npos) << request;
    EXPECT_NE(request.find("analytics=1\n"), request.npos) << request;
    daemon->send(std::string("OK\0", 3) + fakedaemon::stream_start() + frame("Source=\"x\""));
    EXPECT_EQ(read().topic, is_first ? "p/onvif-mj/VideoAnalytics/a/x" : "p/onvif-mj/VideoAnalytics/b/x");
  }
}

TEST_F(PublisherTest, LeavesOutWhatTheFilterDoesNotSelect)
{
  start(std::string("[Metadata]\nfilter=VideoAnalytics/1/b\n") + METADATA);
  Connection *daemon = daemon_->accept_stream();
  daemon->send(frame("Source=\"a\""));
  daemon->send(frame(""));
  daemon->send(frame("Source=\"b\""));
  EXPECT_EQ(read().topic, "p/onvif-mj/VideoAnalytics/1/b");
}

TEST_F(PublisherTest, GoesOnAfterAMalformedDocument)
{
  start(METADATA);
  Connection *daemon = daemon_->accept_stream();
  daemon->send(fakedaemon::document("<a>"));
  daemon->send(fakedaemon::document("no XML"));
  daemon->send(frame("Source=\"a\""));
  EXPECT_EQ(read().topic, "p/onvif-mj/VideoAnalytics/1/a");
  const SyslogLines lines = testhost::take_syslog();
  EXPECT_EQ(std::count(lines.begin(), lines.end(),
                       testhost::SyslogLine{LOG_WARNING, "The document cannot be read"}),
            1);
}

TEST_F(PublisherTest, LeavesOutWhatIsTooLong)
{
  start(METADATA);
  Connection *daemon = daemon_->accept_stream();
  daemon->send(frame("Source=\"a\" x=\"" + std::string(MQTT_PAYLOAD_BYTES_MAX, 'x') + "\""));
  daemon->send(frame("Source=\"" + std::string(MQTT_TOPIC_BYTES_MAX, 'x') + "\""));
  daemon->send(frame("Source=\"b\""));
  EXPECT_EQ(read().topic, "p/onvif-mj/VideoAnalytics/1/b");
  const SyslogLines lines = testhost::take_syslog();
  EXPECT_EQ(std::count(lines.begin(), lines.end(),
                       testhost::SyslogLine{LOG_WARNING, "A topic or a payload is too long"}),
            1);
}

} // namespace
