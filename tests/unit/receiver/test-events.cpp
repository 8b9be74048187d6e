/* SPDX-License-Identifier: MIT */
#include "receiver/error.h"
#include "receiver/events.h"
#include "receiver/receiverlimits.h"
#include "testclock.h"
#include "testhost.h"
#include "testpipes.h"

#include <optional>

using receiver::Caller;
using receiver::EventRequest;
using testhost::SyslogLines;
using testpipes::Descriptor;
using testpipes::Texts;

namespace
{

const Caller APPLICATION = {":1.1", 1000};

constexpr const char *TOPIC = "tns1:A";
constexpr const char *CURRENT = R"({"Current":true})";
constexpr const char *RESYNC = R"({"Resync":true})";

/* The operation, the source and the data of an event, or the whole text. */
std::string
summary(const std::string &text)
{
  const auto part = [&text](const std::string &before) {
    const gsize begin = text.find(before) + before.size();
    return text.substr(begin, text.find('"', begin) - begin);
  };

  return text.starts_with(R"({"Topic")") ? part(R"("Operation":")") + " " + part(R"(["Source",")") + " " +
                                               part(R"(["State",")").substr(0, 20)
                                         : text;
}

class EventsTest : public testhost::Fixture
{
protected:
  void SetUp() override
  {
    testhost::Fixture::SetUp();
    testclock::reset();
    events_.emplace(&budget_);
    ASSERT_TRUE(events_->store()->declare(
        APPLICATION, {TOPIC, true, {{"Source", "xs:string"}}, {{"State", "xs:string"}}, {}}, nullptr));
  }

  void TearDown() override
  {
    events_.reset();
    EXPECT_EQ(budget_.stream_count(), 0U);
    EXPECT_EQ(receiver::shared_text_counted_bytes(), 0U);
    testhost::Fixture::TearDown();
  }

  void emit(const std::string &operation, const std::string &source, const std::string &state)
  {
    testclock::advance_ms(1); /* a token comes */
    EXPECT_TRUE(events_->store()->emit(
        APPLICATION.sender, {TOPIC, operation, {{"Source", source}}, {{"State", state}}, 0}, nullptr));
  }

  Descriptor open()
  {
    return Descriptor(events_->open_stream(nullptr));
  }

  static Texts summaries(const Descriptor &reader, gsize count)
  {
    Texts texts;
    for (const std::string &text : reader.messages(count)) {
      texts.push_back(summary(text));
    }
    return texts;
  }

  /* Reads up to this message, included. */
  static Texts summaries_to(const Descriptor &reader, const std::string &last)
  {
    Texts texts;
    while ((texts.empty() || texts.back() != last) && !HasFailure()) {
      texts.push_back(summaries(reader, 1)[0]);
    }
    return texts;
  }

  receiver::Budget budget_;
  std::optional<receiver::Events> events_;
};

TEST_F(EventsTest, AStreamBeginsWithTheStates)
{
  emit("Changed", "1", "a");
  emit("Changed", "2", "b");
  emit("Changed", "1", "c");
  const Descriptor reader = open();
  emit("Changed", "2", "d");
  emit("Deleted", "1", "e");

  EXPECT_EQ(summaries(reader, 5),
            (Texts{"Initialized 1 c", "Initialized 2 b", CURRENT, "Changed 2 d", "Deleted 1 e"}));
}

TEST_F(EventsTest, AStreamWithoutStatesIsCurrent)
{
  const Descriptor reader = open();

  EXPECT_EQ(summaries(reader, 1), Texts{CURRENT});
}

/* While the first state is being written. */
TEST_F(EventsTest, EventsWaitForTheStates)
{
  const std::string big(3 * RECEIVER_STREAM_PIPE_BYTES, 'x');
  emit("Changed", "1", big);
  emit("Changed", "2", "a");
  emit("Changed", "3", "b");
  const Descriptor reader = open();
  emit("Changed", "1", "sent already");
  emit("Changed", "2", "newer");
  emit("Deleted", "3", "");
  emit("Changed", "4", "new");

  EXPECT_EQ(summaries(reader, 5), (Texts{"Initialized 1 " + big.substr(0, 20), "Initialized 2 newer", CURRENT,
                                         "Changed 1 sent already", "Initialized 4 new"}));
}

TEST_F(EventsTest, StatesCanBeLongerThanAQueue)
{
  const std::string state(RECEIVER_QUEUE_MAX_BYTES / 32, 'x');
  for (int i = 0; i < 64; i++) {
    emit("Changed", std::to_string(i), state);
  }
  const Descriptor reader = open();

  const Texts texts = summaries_to(reader, CURRENT);
  EXPECT_EQ(texts.size(), 65U);
  EXPECT_EQ(texts[63], "Initialized 63 " + state.substr(0, 20));
}

TEST_F(EventsTest, AReaderThatLosesEventsGetsTheStatesAgain)
{
  emit("Changed", "gone", "a");
  const Descriptor reader = open();
  EXPECT_EQ(summaries(reader, 2), (Texts{"Initialized gone a", CURRENT}));
  const std::string state(RECEIVER_MAX_EVENT_BYTES / 2, 'x');
  for (int i = 0; i < 40; i++) {
    emit("Changed", "big", state);
  }
  emit("Deleted", "gone", "a");
  emit("Changed", "big", "last");

  const Texts texts = summaries_to(reader, CURRENT);
  EXPECT_EQ(testhost::take_syslog().size(), 2U);
  EXPECT_EQ(Texts(texts.end() - 3, texts.end()), (Texts{RESYNC, "Initialized big last", CURRENT}));
  EXPECT_LT(texts.size(), 40U);
  emit("Changed", "big", "after");
  EXPECT_EQ(summaries(reader, 1), Texts{"Changed big after"});
}

TEST_F(EventsTest, AReaderThatDoesNotReadTheStatesGetsThemAgain)
{
  const std::string state(RECEIVER_MAX_EVENT_BYTES / 2, 'x');
  emit("Changed", "big", state);
  const Descriptor reader = open();
  for (int i = 0; i < 40; i++) {
    emit("Changed", "big", state);
  }
  emit("Changed", "big", "last");

  EXPECT_EQ(summaries_to(reader, "Initialized big last"),
            (Texts{"Initialized big " + state.substr(0, 20), CURRENT, RESYNC, "Initialized big last"}));
  EXPECT_EQ(summaries(reader, 1), Texts{CURRENT});
}

TEST_F(EventsTest, AReaderThatDoesNotReadHoldsLittle)
{
  const Descriptor reader = open();
  const std::string state(RECEIVER_MAX_EVENT_BYTES / 2, 'x');
  for (int i = 0; i < 400; i++) {
    emit("Changed", "big", state);
  }

  EXPECT_LE(receiver::shared_text_counted_bytes(),
            gsize{RECEIVER_QUEUE_MAX_BYTES + RECEIVER_MAX_EVENT_BYTES});
  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{{4, "A stream of events: is not read, messages are dropped"}}));
  events_.reset();
  EXPECT_EQ(testhost::take_syslog().size(), 1U);
}

TEST_F(EventsTest, AClosedStreamEnds)
{
  Descriptor reader = open();
  EXPECT_EQ(budget_.stream_count(), 1U);
  reader.close();

  EXPECT_TRUE(testhost::spin_until([this] { return budget_.stream_count() == 0; }));
}

TEST_F(EventsTest, StreamsAreLimited)
{
  std::vector<Descriptor> readers;
  for (int i = 0; i < RECEIVER_MAX_EVENT_STREAMS; i++) {
    readers.push_back(open());
  }
  g_autoptr(GError) error = nullptr;

  EXPECT_EQ(events_->open_stream(&error), -1);
  EXPECT_TRUE(
      g_error_matches(error, receiver::error_quark(), static_cast<gint>(receiver::Error::LIMIT_EXCEEDED)));
}

TEST_F(EventsTest, NoDescriptorIsAnError)
{
  const testhost::FreeDescriptors none(0);
  g_autoptr(GError) error = nullptr;

  EXPECT_EQ(events_->open_stream(&error), -1);
  EXPECT_TRUE(
      g_error_matches(error, receiver::error_quark(), static_cast<gint>(receiver::Error::NO_DESCRIPTOR)));
}

TEST_F(EventsTest, ADisconnectedApplicationIsRemovedLater)
{
  emit("Changed", "1", "a");
  const Descriptor reader = open();
  events_->application_disconnected(APPLICATION.sender);
  EXPECT_EQ(summaries(reader, 2), (Texts{"Initialized 1 a", CURRENT}));

  testclock::advance_ms(RECEIVER_GRACE_SECONDS * 1000);
  events_->store()->remove_overdue();
  EXPECT_EQ(summaries(reader, 1), Texts{"Deleted 1 a"});
}

} // namespace
