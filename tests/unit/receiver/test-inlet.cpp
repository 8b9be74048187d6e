/* SPDX-License-Identifier: MIT */
#include "receiver/inlet.h"
#include "receiver/receiverlimits.h"
#include "testclock.h"
#include "testhost.h"
#include "testpipes.h"

#include <optional>
#include <syslog.h>

using receiver::Inlet;
using testhost::SyslogLines;
using testpipes::Texts;
using testpipes::wire_form;

namespace
{

class InletTest : public testhost::Fixture
{
protected:
  void SetUp() override
  {
    testhost::Fixture::SetUp();
    testclock::reset();
    pipe_.emplace(testpipes::open_pipe());
    inlet_.emplace(
        testpipes::duplicate(pipe_->read_end), "The channel",
        [this](const receiver::SharedText &text) { texts_.emplace_back(receiver::shared_text_view(text)); },
        [this](Inlet *) {
          ended_++;
          inlet_.reset();
        });
    pipe_->read_end.close();
  }

  void TearDown() override
  {
    inlet_.reset();
    pipe_.reset();
    testhost::Fixture::TearDown();
  }

  void write(const std::string &bytes)
  {
    pipe_->write_end.write(bytes);
  }

  bool has_ended()
  {
    return testhost::spin_until([this] { return ended_ == 1; });
  }

  static SyslogLines because(const char *reason)
  {
    return {{LOG_WARNING, std::string("The channel: ended, because ") + reason}};
  }

  std::optional<testpipes::Pipe> pipe_;
  std::optional<Inlet> inlet_;
  Texts texts_;
  int ended_ = 0;
};

TEST_F(InletTest, ReadsMessagesInOrder)
{
  write(wire_form("one") + wire_form("two"));
  write(wire_form("three"));

  EXPECT_TRUE(testhost::spin_until([this] { return texts_.size() == 3; }));
  EXPECT_EQ(texts_, Texts({"one", "two", "three"}));
}

TEST_F(InletTest, EndsWithoutALogLineWhenTheApplicationCloses)
{
  write(wire_form("last"));
  pipe_->write_end.close();

  EXPECT_TRUE(has_ended());
  EXPECT_EQ(texts_, Texts({"last"}));
}

TEST_F(InletTest, LogsAnEndWithinAMessage)
{
  write(wire_form("last").substr(0, 5));
  pipe_->write_end.close();

  EXPECT_TRUE(has_ended());
  EXPECT_EQ(testhost::take_syslog(), because("the application closed it within a message"));
}

TEST_F(InletTest, EndsAtATooLongLength)
{
  write(wire_form("first") + "{\"Objects\":[]}\n");

  EXPECT_TRUE(has_ended());
  EXPECT_EQ(texts_, Texts({"first"}));
  EXPECT_EQ(testhost::take_syslog(), because("a message is longer than 1 MiB"));
}

TEST_F(InletTest, EndsAtInvalidText)
{
  write(wire_form("\xff"));

  EXPECT_TRUE(has_ended());
  EXPECT_EQ(testhost::take_syslog(), because("a message is not UTF-8 text"));
}

TEST_F(InletTest, TheTimeLimitIsForEachMessage)
{
  write(wire_form("one").substr(0, 5));
  testhost::dispatch_ready();
  testclock::advance_ms(RECEIVER_MESSAGE_TIMEOUT_MS - 1000);
  write(wire_form("one").substr(5) + wire_form("two").substr(0, 5));
  testhost::dispatch_ready();
  testclock::advance_ms(RECEIVER_MESSAGE_TIMEOUT_MS - 1000);
  write(wire_form("two").substr(5, 1));
  testhost::dispatch_ready();
  EXPECT_EQ(ended_, 0);

  write(wire_form("two").substr(6));
  EXPECT_TRUE(testhost::spin_until([this] { return texts_.size() == 2; }));
  EXPECT_EQ(ended_, 0);
}

TEST_F(InletTest, EndsWhenAMessageTakesTooLong)
{
  write(wire_form("one").substr(0, 5));
  testhost::dispatch_ready();
  testclock::advance_ms(RECEIVER_MESSAGE_TIMEOUT_MS);
  write(wire_form("one").substr(5, 1));

  EXPECT_TRUE(has_ended());
  EXPECT_EQ(testhost::take_syslog(), because("a message is not complete after 10 s"));
}

TEST_F(InletTest, DrainReadsAvailableMessagesAndReportsTheEnd)
{
  write(wire_form("one"));
  EXPECT_TRUE(inlet_->drain());
  EXPECT_EQ(texts_, Texts({"one"}));
  write(wire_form("two"));
  pipe_->write_end.close();

  EXPECT_FALSE(inlet_->drain());
  EXPECT_EQ(texts_, Texts({"one", "two"}));
  EXPECT_EQ(ended_, 0);
}

} // namespace
