/* SPDX-License-Identifier: MIT */
#include "brokerlink.h"

#include "fakebroker.h"
#include "mqttlimits.h"
#include "testhost.h"

#include <syslog.h>

namespace
{

using fakebroker::FakeBroker;
using fakebroker::Peer;
using fakebroker::Published;
using testhost::SyslogLine;
using testhost::SyslogLines;

const SyslogLine CONNECTED = {LOG_INFO, "Connected to mqtt://fake."};

class BrokerLinkTest : public testhost::Fixture
{
protected:
  void SetUp() override
  {
    testhost::Fixture::SetUp();
    mosquitto_lib_init();
    broker_ = std::make_unique<FakeBroker>();
    config_ = broker_->config();
  }

  void TearDown() override
  {
    link_.reset();
    broker_.reset();
    mosquitto_lib_cleanup();
    testhost::Fixture::TearDown();
  }

  void start()
  {
    link_ = std::make_unique<mqtt::BrokerLink>(&config_, "p/status", &outbox_);
    link_->start();
  }

  std::unique_ptr<Peer> accept()
  {
    std::unique_ptr<Peer> peer = broker_->accept();
    peer->accept_client();
    EXPECT_EQ(peer->read_publish().payload, "online");
    return peer;
  }

  void add_event(const std::string &payload)
  {
    outbox_.add_event("p/e", payload);
    link_->wake();
  }

  /* Stops the link while this thread is the broker. */
  void stop(Peer *peer)
  {
    g_autoptr(GThread) thread = g_thread_new("stop", on_stop, link_.get());
    Published last;
    while (last.payload != "offline") {
      last = peer->read_publish();
    }
    EXPECT_EQ(peer->read().type, fakebroker::DISCONNECT);
    EXPECT_NE(g_thread_join(static_cast<GThread *>(g_steal_pointer(&thread))), nullptr);
  }

  static gpointer on_stop(gpointer user_data)
  {
    return GINT_TO_POINTER(static_cast<mqtt::BrokerLink *>(user_data)->stop());
  }

  std::unique_ptr<FakeBroker> broker_;
  mqtt::BrokerConfig config_;
  mqtt::Outbox outbox_{0};
  std::unique_ptr<mqtt::BrokerLink> link_;
};

TEST_F(BrokerLinkTest, PublishesWhatComes)
{
  start();
  std::unique_ptr<Peer> peer = accept();
  add_event("1");
  EXPECT_EQ(peer->read_publish().payload, "1");
  add_event("2");
  EXPECT_EQ(peer->read_publish().payload, "2");
  stop(peer.get());
  EXPECT_EQ(testhost::take_syslog(), SyslogLines{CONNECTED});
}

TEST_F(BrokerLinkTest, ConnectsAgainAndSendsWhatWasNotAcknowledged)
{
  start();
  std::unique_ptr<Peer> peer = accept();
  outbox_.set_state("p/s", "1", false);
  link_->wake();
  EXPECT_EQ(peer->read_publish().payload, "1");
  add_event("2");
  EXPECT_EQ(parse_publish(peer->read()).payload, "2");
  peer->close();
  peer = accept();
  EXPECT_EQ(peer->read_publish().payload, "2");
  EXPECT_EQ(peer->read_publish(), (Published{"p/s", "1", 1, true, ""}));
  stop(peer.get());
  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{CONNECTED, {LOG_WARNING, "mqtt://fake: The connection was lost."}, CONNECTED}));
}

TEST_F(BrokerLinkTest, LogsWhatWasDropped)
{
  for (int i = 0; i < MQTT_EVENTS_MAX + 2; i++) {
    outbox_.add_event("p/e", "x");
  }
  outbox_.add_frame("p/f", "1");
  outbox_.add_frame("p/f", "2");
  start();
  std::unique_ptr<Peer> peer = accept();
  stop(peer.get());
  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{CONNECTED, {LOG_WARNING, "2 events and 1 frames were dropped."}}));
}

TEST_F(BrokerLinkTest, PublishesTheLastEventsBeforeItStops)
{
  start();
  std::unique_ptr<Peer> peer = accept();
  for (int i = 0; i < 3 * MQTT_IN_FLIGHT_MAX; i++) {
    outbox_.add_event("p/e", std::to_string(i));
  }
  g_autoptr(GThread) thread = g_thread_new("stop", on_stop, link_.get());
  for (int i = 0; i < 3 * MQTT_IN_FLIGHT_MAX; i++) {
    EXPECT_EQ(peer->read_publish().payload, std::to_string(i));
  }
  EXPECT_EQ(peer->read_publish().payload, "offline");
  EXPECT_EQ(peer->read().type, fakebroker::DISCONNECT);
  EXPECT_NE(g_thread_join(static_cast<GThread *>(g_steal_pointer(&thread))), nullptr);
  testhost::take_syslog();
}

TEST_F(BrokerLinkTest, StopsInTimeWithoutAnAcknowledgement)
{
  start();
  std::unique_ptr<Peer> peer = accept();
  add_event("not acknowledged");
  parse_publish(peer->read());
  const gint64 begin_us = g_get_monotonic_time();
  EXPECT_TRUE(link_->stop());
  EXPECT_LT(g_get_monotonic_time() - begin_us, (MQTT_STOP_SECONDS + 1) * G_TIME_SPAN_SECOND);
  testhost::take_syslog();
}

TEST_F(BrokerLinkTest, StopsWithoutABroker)
{
  const SyslogLines refused = {{LOG_WARNING, "mqtt://fake: Connection refused"}};
  broker_.reset();
  start();
  const gint64 until_us = g_get_monotonic_time() + testhost::SPIN_LIMIT_US;
  while (testhost::syslog_size() == 0 && g_get_monotonic_time() < until_us) {
    g_usleep(G_TIME_SPAN_MILLISECOND);
  }
  EXPECT_EQ(testhost::take_syslog(), refused);
  EXPECT_TRUE(link_->stop());
}

TEST_F(BrokerLinkTest, StopsWhileTheBrokerIsSilent)
{
  start();
  std::unique_ptr<Peer> peer = broker_->accept();
  peer->read();
  EXPECT_TRUE(link_->stop());
}

TEST_F(BrokerLinkTest, ChecksWhatTheLibraryRefuses)
{
  config_.is_tls = true;
  config_.ca_file = path("missing");
  g_autoptr(GError) error = nullptr;
  EXPECT_FALSE(mqtt::BrokerLink(&config_, "p/status", &outbox_).check(&error));
  EXPECT_STREQ(error->message, "A file with certificates or a key cannot be read.");
}

} // namespace
