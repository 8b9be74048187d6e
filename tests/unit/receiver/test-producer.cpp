/* SPDX-License-Identifier: MIT */
#include "receiver/error.h"
#include "receiver/producer.h"
#include "receiver/receiverlimits.h"
#include "testclock.h"
#include "testhost.h"
#include "testpipes.h"

#include <fcntl.h>
#include <optional>
#include <syslog.h>

using receiver::Budget;
using receiver::Error;
using receiver::Producer;
using testpipes::Descriptor;
using testpipes::Texts;
using testpipes::wire_form;

namespace
{

receiver::Description
description(const std::string &name, std::vector<guint32> channels = {1, 2})
{
  return {.name = name, .nice_name = "", .channels = std::move(channels), .sample_frame = "{}"};
}

class ProducerTest : public testhost::Fixture
{
protected:
  void SetUp() override
  {
    testhost::Fixture::SetUp();
    testclock::reset();
    producer_.emplace(description("Mine"), &budget_);
  }

  void TearDown() override
  {
    producer_.reset();
    EXPECT_EQ(budget_.stream_count(), 0U);
    EXPECT_EQ(budget_.open_channels, 0U);
    EXPECT_EQ(receiver::shared_text_counted_bytes(), 0U);
    testhost::Fixture::TearDown();
  }

  Descriptor open_stream(gint32 channel = 1)
  {
    const int fd = producer_->open_stream(channel, nullptr);
    EXPECT_GE(fd, 0);
    return Descriptor(fd);
  }

  Descriptor open_channel(guint32 channel = 1)
  {
    const int fd = producer_->open_channel(channel, nullptr);
    EXPECT_GE(fd, 0);
    return Descriptor(fd);
  }

  static void expect_refused(int fd, GError *error, Error code)
  {
    EXPECT_EQ(fd, -1);
    EXPECT_TRUE(g_error_matches(error, receiver::error_quark(), static_cast<gint>(code)));
    g_clear_error(&error);
  }

  void expect_no_stream(gint32 channel, Error code)
  {
    GError *error = nullptr;
    const int fd = producer_->open_stream(channel, &error);
    expect_refused(fd, error, code);
  }

  void expect_no_channel(guint32 channel, Error code)
  {
    GError *error = nullptr;
    const int fd = producer_->open_channel(channel, &error);
    expect_refused(fd, error, code);
  }

  Budget budget_;
  std::optional<Producer> producer_;
};

TEST_F(ProducerTest, SendsEachMessageToAllStreamsOfTheChannel)
{
  const Descriptor writer = open_channel(1);
  const Descriptor first = open_stream(1);
  const Descriptor second = open_stream(1);
  const Descriptor other = open_stream(2);
  writer.write(wire_form("one") + wire_form("two"));

  EXPECT_EQ(first.messages(2), Texts({"one", "two"}));
  EXPECT_EQ(second.messages(2), Texts({"one", "two"}));
  EXPECT_EQ(other.read_some(1), "");
}

TEST_F(ProducerTest, SendsToTheStreamsOfAllChannels)
{
  const Descriptor first = open_stream(1);
  const Descriptor second = open_stream(2);
  producer_->send(receiver::shared_text_copy("{}"));

  EXPECT_EQ(first.messages(1), Texts({"{}"}));
  EXPECT_EQ(second.messages(1), Texts({"{}"}));
}

TEST_F(ProducerTest, StreamsAndChannelsAreBlocking)
{
  const Descriptor writer = open_channel();
  const Descriptor reader = open_stream();

  EXPECT_EQ(fcntl(writer.fd(), F_GETFL) & O_NONBLOCK, 0);
  EXPECT_EQ(fcntl(reader.fd(), F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(ProducerTest, RefusesUnsupportedChannels)
{
  for (const gint32 channel : {-1, 0, 3, G_MAXINT32}) {
    expect_no_stream(channel, Error::UNSUPPORTED_CHANNEL);
  }
  expect_no_channel(3, Error::UNSUPPORTED_CHANNEL);
  expect_no_channel(G_MAXUINT32, Error::UNSUPPORTED_CHANNEL);
}

TEST_F(ProducerTest, OpensAChannelOnceUntilItIsClosed)
{
  Descriptor writer = open_channel();
  expect_no_channel(1, Error::CHANNEL_OPEN);
  const Descriptor reader = open_stream();
  writer.write(wire_form("last"));
  writer.close();

  const Descriptor again = open_channel();
  again.write(wire_form("next"));
  EXPECT_EQ(reader.messages(2), Texts({"last", "next"}));
}

TEST_F(ProducerTest, ClosesChannelsAfterTheLastMessageAndKeepsStreams)
{
  const Descriptor writer = open_channel();
  const Descriptor reader = open_stream();
  writer.write(wire_form("last"));
  producer_->close_channels();

  EXPECT_EQ(reader.messages(1), Texts({"last"}));
  EXPECT_EQ(producer_->stream_count(), 1U);
  EXPECT_EQ(budget_.open_channels, 0U);
}

TEST_F(ProducerTest, ANewDescriptionEndsStreamsOfOtherChannels)
{
  const Descriptor writer = open_channel(2);
  const Descriptor kept = open_stream(1);
  const Descriptor ending = open_stream(2);
  producer_->describe(description("Mine", {1, 3}));

  EXPECT_TRUE(ending.reaches_end());
  EXPECT_TRUE(testhost::spin_until([this] { return producer_->stream_count() == 1; }));
  expect_no_stream(2, Error::UNSUPPORTED_CHANNEL);
  open_stream(3);
}

TEST_F(ProducerTest, FinishesWhenTheLastStreamHasEnded)
{
  int finished = 0;
  const Descriptor reader = open_stream();
  const Descriptor other = open_stream(2);
  const std::string text(3 * RECEIVER_STREAM_PIPE_BYTES, 'x');
  producer_->send(receiver::shared_text_copy(text));
  producer_->finish([&finished](Producer *) { finished++; });
  EXPECT_EQ(reader.messages(1), Texts({text}));
  EXPECT_TRUE(reader.reaches_end());
  EXPECT_EQ(finished, 0);

  EXPECT_EQ(other.messages(1), Texts({text}));
  EXPECT_TRUE(testhost::spin_until([&finished] { return finished == 1; }));
}

TEST_F(ProducerTest, FinishesImmediatelyWithoutAStream)
{
  int finished = 0;
  const Descriptor writer = open_channel();
  producer_->finish([&finished](Producer *) { finished++; });

  EXPECT_EQ(finished, 1);
}

TEST_F(ProducerTest, HangUpEndsStreamsWithinAMessage)
{
  const Descriptor reader = open_stream();
  producer_->send(receiver::shared_text_copy(std::string(2 * RECEIVER_STREAM_PIPE_BYTES, 'x')));
  producer_->hang_up();

  EXPECT_EQ(producer_->stream_count(), 0U);
  EXPECT_EQ(reader.read_some(3 * RECEIVER_STREAM_PIPE_BYTES).size(), gsize(RECEIVER_STREAM_PIPE_BYTES));
  EXPECT_TRUE(reader.reaches_end());
}

TEST_F(ProducerTest, LimitsTheStreamsOfAChannel)
{
  std::vector<Descriptor> readers;
  for (int count = 0; count < RECEIVER_MAX_CHANNEL_STREAMS; count++) {
    readers.push_back(open_stream());
  }
  expect_no_stream(1, Error::LIMIT_EXCEEDED);
  readers.push_back(open_stream(2));

  readers.front().close();
  EXPECT_TRUE(
      testhost::spin_until([this] { return producer_->stream_count() == RECEIVER_MAX_CHANNEL_STREAMS; }));
  open_stream();
}

TEST_F(ProducerTest, LimitsOpenChannelsAndReservesOneForEachProducer)
{
  budget_.open_channels = RECEIVER_MAX_OPEN_CHANNELS - RECEIVER_OPEN_CHANNELS_KEPT;
  const Descriptor first = open_channel(1);
  expect_no_channel(2, Error::LIMIT_EXCEEDED);
  budget_.open_channels -= RECEIVER_MAX_OPEN_CHANNELS - RECEIVER_OPEN_CHANNELS_KEPT;
}

TEST_F(ProducerTest, RefusesCallsWithoutDescriptors)
{
  const testhost::FreeDescriptors free(1);

  expect_no_stream(1, Error::NO_DESCRIPTOR);
  expect_no_channel(1, Error::NO_DESCRIPTOR);
}

TEST_F(ProducerTest, EndsTheLongestQueueBeyondTheLimitOfAll)
{
  const Descriptor short_queue = open_stream(1);
  const Descriptor long_queue = open_stream(2);
  const std::string text(RECEIVER_STREAM_PIPE_BYTES, 'x');
  producer_->send(receiver::shared_text_copy(text));
  const Descriptor writer = open_channel(2);
  writer.write(wire_form("waits"));
  testhost::dispatch_ready();
  ASSERT_EQ(budget_.stream_count(), 2U);
  {
    const receiver::SharedText others =
        receiver::shared_text_count(std::string(RECEIVER_MAX_QUEUED_BYTES, 'y'));
    budget_.keep_queued_bytes();
  }
  const std::string reason = ": ends, because the queues of all streams are too long";

  EXPECT_EQ(testhost::take_syslog(),
            testhost::SyslogLines({{LOG_WARNING, "A stream of Mine, channel 2" + reason},
                                   {LOG_WARNING, "A stream of Mine, channel 1" + reason}}));
  EXPECT_TRUE(testhost::spin_until([this] { return budget_.stream_count() == 0; }));
}

} // namespace
