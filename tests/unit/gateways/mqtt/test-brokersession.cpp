/* SPDX-License-Identifier: MIT */
#include "brokersession.h"

#include "fakebroker.h"
#include "mqttlimits.h"
#include "testclock.h"
#include "testhost.h"

#include <fstream>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

using fakebroker::FakeBroker;
using fakebroker::Packet;
using fakebroker::packet;
using fakebroker::Peer;
using fakebroker::Published;
using fakebroker::text;
using mqtt::BrokerSession;
using mqtt::Outbox;
using namespace std::string_literals;

const Published ONLINE = {"p/status", "online", 1, true, ""};
const Published OFFLINE = {"p/status", "offline", 1, true, ""};

/* Whether the system has the option that tells a connection's received bytes; emulators of other
 * architectures may not have it. */
bool
counts_received()
{
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  struct tcp_info info = {};
  socklen_t size = sizeof info;
  const bool is_read = getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &size) == 0;

  close(fd);
  return is_read && size >= offsetof(struct tcp_info, tcpi_bytes_received) + sizeof info.tcpi_bytes_received;
}

/* The test is session and broker in turns, on one thread. */
class BrokerSessionTest : public testhost::Fixture
{
protected:
  void SetUp() override
  {
    testhost::Fixture::SetUp();
    testclock::reset();
    mosquitto_lib_init();
    config_ = broker_.config();
  }

  void TearDown() override
  {
    session_.reset();
    peer_.reset();
    mosquitto_lib_cleanup();
    testclock::reset();
    testhost::Fixture::TearDown();
  }

  /* Returns: false if the connection is over */
  bool turn()
  {
    return session_->turn(-1, g_get_monotonic_time() + G_TIME_SPAN_MILLISECOND);
  }

  void begin()
  {
    session_ = std::make_unique<BrokerSession>(&config_, "p/status", &outbox_);
    ASSERT_TRUE(session_->set_up()) << session_->failure();
    ASSERT_TRUE(session_->connect()) << session_->failure();
    peer_ = broker_.accept();
  }

  bool turn_until_readable()
  {
    const gint64 until_us = g_get_monotonic_time() + testhost::SPIN_LIMIT_US;
    while (!peer_->can_read() && g_get_monotonic_time() < until_us) {
      if (!turn()) {
        return false;
      }
    }
    return peer_->can_read();
  }

  Published read_publish()
  {
    EXPECT_TRUE(turn_until_readable()) << session_->failure();
    return peer_->read_publish();
  }

  /* Connects and takes the message that the program is there. */
  void connect()
  {
    begin();
    EXPECT_TRUE(turn_until_readable());
    connect_body_ = peer_->accept_client();
    Published online = read_publish();
    EXPECT_EQ(online.topic, "p/status");
    EXPECT_EQ(online.payload, "online");
  }

  /* Returns: the reason for the end of the connection */
  std::string turn_to_end()
  {
    const gint64 until_us = g_get_monotonic_time() + testhost::SPIN_LIMIT_US;
    while (turn() && g_get_monotonic_time() < until_us) {
    }
    EXPECT_FALSE(turn());
    return session_->failure();
  }

  FakeBroker broker_;
  mqtt::BrokerConfig config_;
  Outbox outbox_{0};
  std::unique_ptr<BrokerSession> session_;
  std::unique_ptr<Peer> peer_;
  std::string connect_body_;
};

TEST_F(BrokerSessionTest, ConnectsWithAWill)
{
  config_.user = "anna";
  config_.password = "secret";
  connect();
  /* MQTT 3.1.1; user, password, a retained will of QoS 1, and a clean session; 30 s */
  const std::string flags = "\xee\0\x1e"s;
  EXPECT_EQ(connect_body_, text("MQTT") + "\x04" + flags + text("client") + text("p/status") +
                               text("offline") + text("anna") + text("secret"));
}

TEST_F(BrokerSessionTest, PublishesThatItIsOnlineFirst)
{
  outbox_.add_event("p/e", "1");
  begin();
  turn_until_readable();
  peer_->accept_client();
  EXPECT_EQ(read_publish(), ONLINE);
  EXPECT_EQ(read_publish(), (Published{"p/e", "1", 1, false, ""}));
}

TEST_F(BrokerSessionTest, PublishesStatesRetained)
{
  connect();
  outbox_.set_state("p/s", "1", false);
  outbox_.add_frame("p/f", "2");
  outbox_.add_event("p/e", "3");
  outbox_.set_state("p/s", "", false);
  std::vector<Published> published;
  for (int i = 0; i < 4; i++) {
    published.push_back(read_publish());
  }
  auto has = [&published](const Published &one) {
    return std::find(published.begin(), published.end(), one) != published.end();
  };
  EXPECT_TRUE(has({"p/s", "1", 1, true, ""}));
  EXPECT_TRUE(has({"p/s", "", 1, true, ""}));
  EXPECT_TRUE(has({"p/f", "2", 1, false, ""}));
  EXPECT_TRUE(has({"p/e", "3", 1, false, ""}));
}

TEST_F(BrokerSessionTest, WaitsForAcknowledgements)
{
  connect();
  for (int i = 0; i < MQTT_IN_FLIGHT_MAX + 1; i++) {
    outbox_.add_event("p/e", std::to_string(i));
  }
  std::string last_mid;
  for (int i = 0; i < MQTT_IN_FLIGHT_MAX; i++) {
    ASSERT_TRUE(turn_until_readable());
    last_mid = parse_publish(peer_->read()).mid;
  }
  turn();
  turn();
  EXPECT_FALSE(peer_->can_read());
  peer_->send(packet(fakebroker::PUBACK, last_mid));
  EXPECT_EQ(read_publish().payload, std::to_string(MQTT_IN_FLIGHT_MAX));
  EXPECT_TRUE(outbox_.has_events());
}

TEST_F(BrokerSessionTest, AcknowledgesToTheOutbox)
{
  connect();
  outbox_.add_event("p/e", "1");
  read_publish();
  while (outbox_.has_events()) {
    ASSERT_TRUE(turn());
  }
}

TEST_F(BrokerSessionTest, PublishesWithoutAcknowledgements)
{
  config_.qos = 0;
  connect();
  for (int i = 0; i < 2 * MQTT_IN_FLIGHT_MAX; i++) {
    outbox_.add_event("p/e", std::to_string(i));
  }
  for (int i = 0; i < 2 * MQTT_IN_FLIGHT_MAX; i++) {
    EXPECT_EQ(read_publish(), (Published{"p/e", std::to_string(i), 0, false, ""}));
  }
  EXPECT_FALSE(outbox_.has_events());
}

TEST_F(BrokerSessionTest, PublishesWithTwoAcknowledgements)
{
  config_.qos = 2;
  begin();
  turn_until_readable();
  peer_->accept_client();
  turn_until_readable();
  const Published online = parse_publish(peer_->read());
  EXPECT_EQ(online.qos, 2);
  outbox_.add_event("p/e", "1");
  turn_until_readable();
  const Published event = parse_publish(peer_->read());
  EXPECT_EQ(event.qos, 2);
  peer_->send(packet(fakebroker::PUBREC, event.mid));
  turn_until_readable();
  EXPECT_EQ(peer_->read().type, fakebroker::PUBREL);
  EXPECT_TRUE(outbox_.has_events());
  peer_->send(packet(fakebroker::PUBCOMP, event.mid));
  while (outbox_.has_events()) {
    ASSERT_TRUE(turn());
  }
}

TEST_F(BrokerSessionTest, SaysGoodbye)
{
  connect();
  session_->say_goodbye();
  outbox_.add_event("p/e", "too late");
  EXPECT_FALSE(session_->has_said_goodbye());
  EXPECT_EQ(read_publish(), OFFLINE);
  while (!session_->has_said_goodbye()) {
    ASSERT_TRUE(turn());
  }
  session_->disconnect();
  EXPECT_EQ(peer_->read().type, fakebroker::DISCONNECT);
}

TEST_F(BrokerSessionTest, NamesTheReasonOfARefusal)
{
  begin();
  turn_until_readable();
  peer_->read();
  peer_->send(packet(fakebroker::CONNACK, "\0\x05"s));
  EXPECT_EQ(turn_to_end(), "Connection Refused: not authorised.");
  EXPECT_FALSE(session_->is_connected());
}

TEST_F(BrokerSessionTest, NamesTheReasonWithoutABroker)
{
  config_.port = 1;
  session_ = std::make_unique<BrokerSession>(&config_, "p/status", &outbox_);
  ASSERT_TRUE(session_->set_up());
  EXPECT_FALSE(session_->connect());
  EXPECT_EQ(session_->failure(), "Connection refused");
}

TEST_F(BrokerSessionTest, EndsWithTheConnection)
{
  connect();
  peer_->close();
  EXPECT_EQ(turn_to_end(), "The connection was lost.");
}

TEST_F(BrokerSessionTest, DoesNotWaitForABrokerThatIsSilent)
{
  begin();
  turn();
  testclock::advance_ms(MQTT_CONNECT_SECONDS * 1000 - 1000);
  EXPECT_TRUE(turn());
  testclock::advance_ms(2000);
  EXPECT_FALSE(turn());
  EXPECT_EQ(session_->failure(), "The broker does not reply.");
}

TEST_F(BrokerSessionTest, EndsWhenTheBrokerSendsGarbage)
{
  begin();
  turn();
  peer_->send(std::string(100, '\xff'));
  EXPECT_NE(turn_to_end(), "");
  EXPECT_FALSE(session_->is_connected());
}

TEST_F(BrokerSessionTest, EndsWhenTheBrokerSendsMessages)
{
  if (!counts_received()) {
    GTEST_SKIP() << "the system does not count what a connection receives";
  }
  connect();
  const std::string message = packet(fakebroker::PUBLISH, text("p/x") + std::string(10000, 'x'));
  for (int i = 0; i * 10000 < 2 * MQTT_RECEIVED_BYTES_MAX; i++) {
    peer_->send(message);
  }
  EXPECT_EQ(turn_to_end(), "The broker sends too much.");
}

TEST_F(BrokerSessionTest, EndsWhenTheBrokerBeginsAHugePacket)
{
  if (!counts_received()) {
    GTEST_SKIP() << "the system does not count what a connection receives";
  }
  connect();
  peer_->send("\x30\xff\xff\xff\x7f"); /* 256 MiB follow */
  for (int i = 0; i * 10000 < MQTT_RECEIVED_BYTES_MAX / 2; i++) {
    peer_->send(std::string(10000, 'x'));
  }
  EXPECT_TRUE(turn());
  peer_->send(std::string(MQTT_RECEIVED_BYTES_MAX, 'x'));
  EXPECT_EQ(turn_to_end(), "The broker sends too much.");
}

TEST_F(BrokerSessionTest, AllowsTheAcknowledgementsOfManyMessages)
{
  connect();
  for (int i = 0; i < MQTT_RECEIVED_BYTES_MAX / 4 + 1000; i++) {
    outbox_.add_event("p/e", "x");
    ASSERT_EQ(read_publish().payload, "x");
  }
}

TEST_F(BrokerSessionTest, IgnoresAcknowledgementsOfNothing)
{
  connect();
  outbox_.add_event("p/e", "1");
  turn_until_readable();
  const std::string mid = parse_publish(peer_->read()).mid;
  peer_->send(packet(fakebroker::PUBACK, "\x7f\x7f") + packet(fakebroker::PUBACK, mid) +
              packet(fakebroker::PUBACK, mid));
  outbox_.add_event("p/e", "2");
  EXPECT_EQ(read_publish().payload, "2");
  while (outbox_.has_events()) {
    ASSERT_TRUE(turn());
  }
}

TEST_F(BrokerSessionTest, RefusesFilesThatAreNoCertificates)
{
  config_.is_tls = true;
  config_.ca_file = path("missing");
  session_ = std::make_unique<BrokerSession>(&config_, "p/status", &outbox_);
  EXPECT_FALSE(session_->set_up());
  EXPECT_EQ(session_->failure(), "A file with certificates or a key cannot be read.");
}

TEST_F(BrokerSessionTest, EndsWhenTheBrokerHasNoTls)
{
  config_.is_tls = true;
  begin();
  turn();
  peer_->send(packet(fakebroker::CONNACK, "\0\0"s) + "and no TLS");
  EXPECT_NE(turn_to_end(), "");
  EXPECT_FALSE(session_->is_connected());
}

} // namespace
