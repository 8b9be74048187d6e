/* SPDX-License-Identifier: MIT */
#include "receiver/receiverlimits.h"
#include "receiver/stream.h"
#include "testclock.h"
#include "testhost.h"
#include "testpipes.h"

#include <optional>
#include <syslog.h>

using receiver::shared_text_copy;
using receiver::Stream;
using testhost::SyslogLines;
using testpipes::Texts;

namespace
{

constexpr int CAPACITY = RECEIVER_STREAM_PIPE_BYTES;

const SyslogLines NOT_READ = {{LOG_WARNING, "The stream: is not read, messages are dropped"}};

SyslogLines
counted(const char *what, gsize count)
{
  return {{LOG_WARNING,
           std::string("The stream: ") + what + ", " + std::to_string(count) + " messages were dropped"}};
}

class StreamTest : public testhost::Fixture
{
protected:
  void SetUp() override
  {
    testhost::Fixture::SetUp();
    testclock::reset();
    pipe_.emplace(testpipes::open_pipe(CAPACITY));
    stream_.emplace(testpipes::duplicate(pipe_->write_end), "The stream", [this](Stream *) { end(); });
    pipe_->write_end.close();
  }

  void TearDown() override
  {
    stream_.reset();
    pipe_.reset();
    testhost::Fixture::TearDown();
  }

  void end()
  {
    ended_++;
    stream_.reset();
  }

  void send(const std::string &text)
  {
    stream_->send(shared_text_copy(text));
  }

  const testpipes::Descriptor &reader() const
  {
    return pipe_->read_end;
  }

  std::optional<testpipes::Pipe> pipe_;
  std::optional<Stream> stream_;
  int ended_ = 0;
};

TEST_F(StreamTest, WritesImmediately)
{
  send("{}");

  EXPECT_TRUE(stream_->is_idle());
  EXPECT_EQ(reader().read_some(100), testpipes::wire_form("{}"));
}

TEST_F(StreamTest, WritesTheRestWhileTheReaderReads)
{
  const std::string text(10 * CAPACITY, 'x');
  send(text);
  send("{}");

  EXPECT_FALSE(stream_->is_idle());
  EXPECT_EQ(reader().messages(2), Texts({text, "{}"}));
  EXPECT_TRUE(testhost::spin_until([this] { return stream_->is_idle(); }));
  EXPECT_EQ(stream_->queued_bytes(), 0U);
}

TEST_F(StreamTest, EndsWhenTheReaderClosesItsEnd)
{
  pipe_->read_end.close();

  EXPECT_TRUE(testhost::spin_until([this] { return ended_ == 1; }));
}

TEST_F(StreamTest, EndsOnceAndNotInSend)
{
  pipe_->read_end.close();
  send("{}");
  send("{}");
  EXPECT_EQ(ended_, 0);

  testhost::dispatch_ready();
  EXPECT_EQ(ended_, 1);
}

TEST_F(StreamTest, FinishEndsItAfterTheQueue)
{
  const std::string text(2 * CAPACITY, 'x');
  send(text);
  stream_->finish();
  send("too late");
  testhost::dispatch_ready();
  EXPECT_EQ(ended_, 0);

  EXPECT_EQ(reader().messages(1), Texts({text}));
  EXPECT_TRUE(testhost::spin_until([this] { return ended_ == 1; }));
  EXPECT_TRUE(reader().reaches_end());
}

TEST_F(StreamTest, FinishEndsItImmediatelyWithoutAQueue)
{
  stream_->finish();

  EXPECT_TRUE(testhost::spin_until([this] { return ended_ == 1; }));
}

TEST_F(StreamTest, FinishEndsItAfterATimeIfTheReaderDoesNotRead)
{
  const gint64 begin = g_get_monotonic_time();
  send(std::string(2 * CAPACITY, 'x'));
  stream_->finish();

  EXPECT_TRUE(testhost::spin_until([this] { return ended_ == 1; }));
  EXPECT_GE(g_get_monotonic_time() - begin, RECEIVER_QUEUE_MAX_AGE_MS * G_TIME_SPAN_MILLISECOND);
}

TEST_F(StreamTest, DropsTheOldestBeyondTheLimitOfBytes)
{
  const std::string begun(CAPACITY, 'x');
  const std::string text(RECEIVER_QUEUE_MAX_BYTES / 4, 'y');
  send(begun);
  for (char number : {'0', '1', '2'}) {
    send(number + text);
  }
  EXPECT_EQ(testhost::take_syslog(), SyslogLines());
  send('3' + text);
  EXPECT_EQ(testhost::take_syslog(), NOT_READ);
  send('4' + text);

  EXPECT_EQ(reader().messages(4), Texts({begun, '2' + text, '3' + text, '4' + text}));
  EXPECT_TRUE(testhost::spin_until([this] { return stream_->is_idle(); }));
  EXPECT_EQ(testhost::take_syslog(), counted("is read again", 2));
}

TEST_F(StreamTest, DropsTheOldestBeyondTheLimitOfMessages)
{
  const std::string begun(CAPACITY, 'x');
  send(begun);
  for (int number = 0; number < RECEIVER_QUEUE_MAX_MESSAGES; number++) {
    send(std::to_string(number));
  }
  EXPECT_EQ(testhost::take_syslog(), SyslogLines());
  send("last");

  EXPECT_EQ(testhost::take_syslog(), NOT_READ);
  EXPECT_EQ(reader().messages(2), Texts({begun, "1"}));
  stream_.reset();
  EXPECT_EQ(testhost::take_syslog(), counted("has ended", 1));
}

TEST_F(StreamTest, DropsOldMessagesWhenTheReaderReadsAgain)
{
  const std::string begun(CAPACITY, 'x');
  send(begun);
  send("old");
  send("older than allowed");
  testclock::advance_ms(RECEIVER_QUEUE_MAX_AGE_MS + 1);
  send("new");

  EXPECT_EQ(testhost::take_syslog(), NOT_READ);
  EXPECT_EQ(reader().messages(2), Texts({begun, "new"}));
  EXPECT_TRUE(testhost::spin_until([this] { return stream_->is_idle(); }));
  EXPECT_EQ(testhost::take_syslog(), counted("is read again", 2));
}

TEST_F(StreamTest, KeepsTheNewestAtAnyAgeAndLength)
{
  const std::string begun(RECEIVER_QUEUE_MAX_BYTES, 'x');
  const std::string newest(RECEIVER_QUEUE_MAX_BYTES, 'y');
  send(begun);
  send(newest);
  testclock::advance_ms(60 * 1000);

  EXPECT_EQ(reader().messages(2), Texts({begun, newest}));
}

TEST_F(StreamTest, CountsFromZeroAfterAnEmptyQueue)
{
  const std::string begun(CAPACITY, 'x');
  const std::string text(RECEIVER_QUEUE_MAX_BYTES, 'y');
  for (int round = 0; round < 2; round++) {
    send(begun);
    send(text);
    send("last");
    EXPECT_EQ(testhost::take_syslog(), NOT_READ);
    EXPECT_EQ(reader().messages(2), Texts({begun, "last"}));
    EXPECT_TRUE(testhost::spin_until([this] { return stream_->is_idle(); }));
    EXPECT_EQ(testhost::take_syslog(), counted("is read again", 1));
  }
}

TEST_F(StreamTest, AbortEndsItWithinAMessage)
{
  send(std::string(2 * CAPACITY, 'x'));
  stream_->abort("it is a test");
  EXPECT_EQ(stream_->queued_bytes(), 0U);
  send("too late");

  EXPECT_TRUE(testhost::spin_until([this] { return ended_ == 1; }));
  EXPECT_EQ(testhost::take_syslog(), SyslogLines({{LOG_WARNING, "The stream: ends, because it is a test"}}));
}

} // namespace
