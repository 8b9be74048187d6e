/* SPDX-License-Identifier: MIT */
#include "producerfollower.h"

#include "fakedaemon.h"
#include "metadatastream.h"
#include "producerbus.h"
#include "tessardsrc.h"
#include "testbus.h"

#include <syslog.h>

namespace
{

using fakedaemon::FakeDaemon;
using gateway::MetadataStream;
using gateway::ProducerFollower;
using testhost::spin_until;
using testhost::SyslogLine;
using testhost::SyslogLines;
using testhost::Texts;

constexpr const char *DETECTOR = PRODUCER_BUS_ROOT "/Detector";

/* The reply to a call for all objects: one producer with these channels. */
testbus::Answer
producer(const std::string &channels)
{
  return testbus::reply(std::string("({objectpath '") + DETECTOR + "': {'" + PRODUCER_BUS_PRODUCER +
                        "': {'Name': <'detector'>, 'NiceName': <'Detector'>, 'SampleFrameXML': <''>, " +
                        "'ChannelsEnabled': <[" + channels + "]>}}},)");
}

constexpr const char *OFF = "(1, false, ''), (2, false, '')";
constexpr const char *GATE = "(1, true, 'Gate'), (2, false, '')";
constexpr const char *YARD = "(1, true, 'Yard'), (2, false, '')";

class ProducerFollowerTest : public testbus::Fixture
{
protected:
  void TearDown() override
  {
    daemon_.reset();
    testbus::Fixture::TearDown();
  }

  void start_daemon(const std::string &channels)
  {
    daemon_.emplace(PRODUCER_BUS_NAME, producer(channels));
  }

  void change(const std::string &channels)
  {
    GDBusMessage *message =
        g_dbus_message_new_signal(DETECTOR, "org.freedesktop.DBus.Properties", "PropertiesChanged");
    g_dbus_message_set_body(message,
                            g_variant_new_parsed((std::string("('") + PRODUCER_BUS_PRODUCER +
                                                  "', {'ChannelsEnabled': <[" + channels + "]>}, @as [])")
                                                     .c_str()));
    daemon_->send(message);
    g_object_unref(message);
  }

  /* What follows the producers, and has them. */
  std::unique_ptr<ProducerFollower> follow()
  {
    auto follower = std::make_unique<ProducerFollower>(
        nullptr, [this](const ProducersByPath *producers) { take(producers); });
    EXPECT_TRUE(spin_until([this] { return !seen_.empty(); }));
    return follower;
  }

  void take(const ProducersByPath *producers)
  {
    std::string text = producers != nullptr ? "" : "unknown";
    if (producers != nullptr) {
      for (const auto &[path, producer] : *producers) {
        text += producer.name + " " + producer.channels.front().configuration;
      }
    }
    seen_.push_back(text);
  }

  void expect_seen(const Texts &texts)
  {
    EXPECT_TRUE(spin_until([&] { return seen_.size() >= texts.size(); }));
    EXPECT_EQ(std::exchange(seen_, {}), texts);
  }

  std::optional<testbus::Service> daemon_;
  Texts seen_;
};

TEST_F(ProducerFollowerTest, GetsTheProducersAndTheirChanges)
{
  start_daemon(OFF);
  const auto follower = follow();
  expect_seen({"detector "});
  EXPECT_NE(follower->connection(), nullptr);
  change(GATE);
  expect_seen({"detector Gate"});
  daemon_.reset();
  expect_seen({"unknown"});
  start_daemon(YARD);
  expect_seen({"detector Yard"});
}

TEST_F(ProducerFollowerTest, HasAnotherTextWhenAChannelHasOtherProducers)
{
  start_daemon(OFF);
  const auto follower = follow();
  const std::string off = follower->enabled_on(1);
  const std::string other = follower->enabled_on(2);
  change(GATE);
  expect_seen({"detector ", "detector Gate"});
  const std::string gate = follower->enabled_on(1);
  EXPECT_NE(gate, off);
  EXPECT_EQ(follower->enabled_on(2), other);
  change(YARD);
  expect_seen({"detector Yard"});
  EXPECT_NE(follower->enabled_on(1), gate);
  change(OFF);
  expect_seen({"detector "});
  EXPECT_EQ(follower->enabled_on(1), off);
}

TEST_F(ProducerFollowerTest, HasAnotherTextForAnotherDaemon)
{
  start_daemon(GATE);
  const auto follower = follow();
  const std::string first = follower->enabled_on(1);
  daemon_.reset();
  expect_seen({"detector Gate", "unknown"});
  EXPECT_EQ(follower->enabled_on(1), first);
  start_daemon(GATE);
  expect_seen({"detector Gate"});
  EXPECT_NE(follower->enabled_on(1), first);
}

TEST_F(ProducerFollowerTest, TellsTheWatchersOfAChannel)
{
  Texts texts;
  start_daemon(OFF);
  const auto follower = follow();
  follower->watch_channel(&texts, 1, [&](const std::string &enabled) { texts.push_back(enabled); });
  change(GATE);
  EXPECT_TRUE(spin_until([&] { return texts.size() == 1; }));
  EXPECT_EQ(texts.front(), follower->enabled_on(1));
  follower->unwatch_channel(&texts);
  follower->unwatch_channel(&texts);
  change(YARD);
  expect_seen({"detector ", "detector Gate", "detector Yard"});
  EXPECT_EQ(texts.size(), 1U);
}

TEST_F(ProducerFollowerTest, LogsAMalformedReply)
{
  daemon_.emplace(PRODUCER_BUS_NAME, testbus::reply("('no objects',)"));
  const auto follower = follow();
  expect_seen({"unknown"});
  const SyslogLines lines = testhost::take_syslog();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_EQ(lines[0].priority, LOG_WARNING);
  EXPECT_TRUE(lines[0].text.starts_with("The producers are not known: ")) << lines[0].text;
}

TEST_F(ProducerFollowerTest, ComesBackWithTheBus)
{
  start_daemon(GATE);
  const auto follower = follow();
  daemon_.reset();
  bus_.reset();
  EXPECT_TRUE(spin_until([] { return testhost::syslog_size() > 0; }));
  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{{LOG_WARNING, "The producers are not known: The bus closed the connection."}}));
  bus_.emplace();
  start_daemon(YARD);
  EXPECT_TRUE(spin_until([this] { return seen_.back() == "detector Yard"; }));
}

TEST_F(ProducerFollowerTest, CanGoWhileItConnects)
{
  start_daemon(GATE);
  {
    const ProducerFollower follower(nullptr);
    EXPECT_EQ(follower.connection(), nullptr);
  }
  follow().reset();
  expect_seen({"detector Gate"});
}

/* A stream of the daemon's metadata with the producers' follower. */
class RenewedStreamTest : public ProducerFollowerTest
{
protected:
  void SetUp() override
  {
    ProducerFollowerTest::SetUp();
    gst_element_register(nullptr, "tessardsrc", GST_RANK_NONE, TESSARD_TYPE_SRC);
    streams_.emplace(path("metadata"));
    options_.analytics = g_strdup("1");
  }

  void TearDown() override
  {
    stream_.reset();
    follower_.reset();
    streams_.reset();
    ProducerFollowerTest::TearDown();
  }

  void start_stream()
  {
    request_ = {&options_, path("metadata"), follower_.get()};
    stream_ = std::make_unique<MetadataStream>(&request_, 1, [](GstBuffer *document) {});
    stream_->set_failure_function([this] { failures_++; });
    stream_->start();
    connection_ = streams_->accept_stream();
  }

  void expect_renewal()
  {
    const guint before = failures_;
    EXPECT_TRUE(spin_until([&] { return failures_ > before; }));
    EXPECT_EQ(connection_->read_to_end(), "");
    connection_ = streams_->accept_stream();
    EXPECT_EQ(failures_, before + 1);
  }

  std::optional<FakeDaemon> streams_;
  RequestOptions options_;
  std::unique_ptr<ProducerFollower> follower_;
  gateway::MetadataRequest request_ = {};
  std::unique_ptr<MetadataStream> stream_;
  fakedaemon::Connection *connection_ = nullptr; /* the present one */
  std::atomic<guint> failures_ = 0;
};

TEST_F(RenewedStreamTest, HasTheProducersThatAreEnabledLater)
{
  start_daemon(OFF);
  follower_ = follow();
  start_stream();
  change(GATE);
  expect_renewal();
  change(YARD);
  expect_renewal();
}

TEST_F(RenewedStreamTest, HasTheProducersThatWereNotKnownAtItsStart)
{
  start_daemon(GATE);
  follower_ = std::make_unique<ProducerFollower>(nullptr);
  start_stream();
  expect_renewal();
}

TEST_F(RenewedStreamTest, HasTheProducersOfAnotherDaemon)
{
  start_daemon(GATE);
  follower_ = follow();
  start_stream();
  daemon_.reset();
  expect_seen({"detector Gate", "unknown"});
  start_daemon(GATE);
  expect_renewal();
}

TEST_F(RenewedStreamTest, IsRequestedOnceForChangesThatFollowEachOther)
{
  start_daemon(OFF);
  follower_ = follow();
  start_stream();
  change(GATE);
  change(YARD);
  change(GATE);
  expect_renewal();
  expect_seen({"detector ", "detector Gate", "detector Yard", "detector Gate"});
}

TEST_F(RenewedStreamTest, GoesOnWhenAnotherChannelChanges)
{
  start_daemon(OFF);
  follower_ = follow();
  start_stream();
  /* Requested again at the time at which the first one would be. */
  guint failures = 0;
  MetadataStream other(&request_, 2, [](GstBuffer *document) {});
  other.set_failure_function([&] { failures++; });
  other.start();
  streams_->accept_stream();
  change("(1, false, ''), (2, true, 'Gate')");
  EXPECT_TRUE(spin_until([&] { return failures > 0; }));
  streams_->accept_stream();
  testhost::dispatch_ready();
  EXPECT_EQ(failures_, 0U);
}

} // namespace
