/* SPDX-License-Identifier: MIT */
#include "outbox.h"

#include "mqttlimits.h"

#include <gtest/gtest.h>

namespace
{

using mqtt::Message;
using mqtt::MessageKind;
using mqtt::Outbox;

constexpr gint64 SETTLE_US = MQTT_SETTLE_SECONDS * G_TIME_SPAN_SECOND;

class OutboxTest : public testing::Test
{
protected:
  void connect(gint64 now_us = 0)
  {
    outbox_.connect(now_us);
  }

  const Message *take(gint64 now_us = 0)
  {
    return outbox_.take(now_us, &due_us_);
  }

  /* Takes all that may be sent, as the broker does that acknowledges it at once. */
  std::vector<std::string> take_all(gint64 now_us = 0)
  {
    std::vector<std::string> taken;
    const Message *message;
    while ((message = take(now_us)) != nullptr) {
      taken.push_back(message->topic + "=" + message->payload);
      outbox_.acknowledge(message->id);
    }
    return taken;
  }

  void set(const std::string &topic, const std::string &payload, bool is_initial = false)
  {
    outbox_.set_state(topic, payload, is_initial);
  }

  Outbox outbox_{0};
  gint64 due_us_ = 0;
};

using Taken = std::vector<std::string>;

TEST_F(OutboxTest, IsEmptyAtFirst)
{
  connect();
  EXPECT_EQ(take(), nullptr);
  EXPECT_EQ(due_us_, G_MAXINT64);
  EXPECT_FALSE(outbox_.has_events());
}

TEST_F(OutboxTest, SendsEventsAndChangesInTheirOrder)
{
  connect();
  set("state", "1");
  outbox_.add_event("event", "2");
  set("state", "3");
  outbox_.add_event("event", "4");
  EXPECT_EQ(take_all(), (Taken{"state=1", "event=2", "state=3", "event=4"}));
}

TEST_F(OutboxTest, TellsStatesFromEventsAndFrames)
{
  connect();
  set("state", "1");
  EXPECT_EQ(take()->kind, MessageKind::STATE);
  outbox_.add_event("event", "2");
  EXPECT_EQ(take()->kind, MessageKind::EVENT);
  outbox_.add_frame("frame", "3");
  EXPECT_EQ(take()->kind, MessageKind::FRAME);
}

TEST_F(OutboxTest, LetsFramesAndEventsTakeTurns)
{
  connect();
  for (const char *payload : {"1", "2"}) {
    outbox_.add_event("event", payload);
    outbox_.add_frame("frame", payload);
  }
  const Taken taken = take_all();
  ASSERT_EQ(taken.size(), 4u);
  EXPECT_NE(taken[0].substr(0, 5), taken[1].substr(0, 5));
  EXPECT_NE(taken[1].substr(0, 5), taken[2].substr(0, 5));
}

TEST_F(OutboxTest, SendsNothingAgainThatIsShownAgain)
{
  connect();
  set("a", "1", true);
  set("a", "1", true);
  EXPECT_EQ(take_all(), Taken{"a=1"});
  set("a", "1", true);
  EXPECT_EQ(take_all(), Taken());
}

TEST_F(OutboxTest, SendsTheLastStatesWhenTheBrokerComes)
{
  set("a", "1");
  set("a", "2");
  set("b", "1");
  set("c", "1");
  set("c", "");
  connect();
  EXPECT_EQ(take_all(), (Taken{"a=2", "b=1"}));
}

TEST_F(OutboxTest, SendsAllStatesAgainWhenTheBrokerComesBack)
{
  connect();
  set("a", "1");
  set("b", "1");
  EXPECT_EQ(take_all(), (Taken{"a=1", "b=1"}));
  outbox_.disconnect();
  connect();
  EXPECT_EQ(take_all(), (Taken{"a=1", "b=1"}));
}

TEST_F(OutboxTest, SendsADeletionThatTheBrokerHasNotAcknowledged)
{
  connect();
  set("a", "1");
  set("b", "1");
  take_all();
  set("a", "");
  take();
  outbox_.disconnect();
  set("b", "");
  connect();
  EXPECT_EQ(take_all(), (Taken{"a=", "b="}));
  outbox_.disconnect();
  connect();
  EXPECT_EQ(take_all(), Taken());
}

TEST_F(OutboxTest, SendsEventsAgainThatTheBrokerHasNotAcknowledged)
{
  connect();
  for (const char *payload : {"1", "2", "3", "4"}) {
    outbox_.add_event("e", payload);
  }
  const guint64 first = take()->id;
  take();
  take();
  outbox_.acknowledge(first);
  outbox_.disconnect();
  outbox_.add_event("e", "5");
  connect();
  EXPECT_EQ(take_all(), (Taken{"e=2", "e=3", "e=4", "e=5"}));
  EXPECT_EQ(outbox_.dropped().events, 0u);
}

TEST_F(OutboxTest, SendsTheNewestFrameAfterAnOutage)
{
  connect();
  outbox_.add_frame("a", "1");
  outbox_.add_frame("a", "2");
  outbox_.add_frame("b", "1");
  take();
  take();
  take();
  outbox_.disconnect();
  outbox_.add_frame("b", "2");
  connect();
  EXPECT_EQ(take_all(), (Taken{"b=2", "a=2"}));
  EXPECT_EQ(outbox_.dropped().frames, 2u);
}

TEST_F(OutboxTest, KeepsTheNewestEventsWhileTheBrokerIsAway)
{
  for (int i = 0; i < MQTT_EVENTS_MAX + 3; i++) {
    outbox_.add_event("e", std::to_string(i));
  }
  set("a", "1");
  EXPECT_EQ(outbox_.dropped().events, 3u);
  connect();
  const Taken taken = take_all();
  ASSERT_EQ(taken.size(), MQTT_EVENTS_MAX + 1u);
  EXPECT_EQ(taken.front(), "e=3");
  EXPECT_EQ(taken.back(), "a=1");
}

TEST_F(OutboxTest, KeepsTheNewestEventsAfterSomeWereInFlight)
{
  connect();
  outbox_.add_event("e", "in flight");
  take();
  for (int i = 0; i < MQTT_EVENTS_MAX; i++) {
    outbox_.add_event("e", "waits");
  }
  EXPECT_EQ(outbox_.dropped().events, 0u);
  outbox_.disconnect();
  EXPECT_EQ(outbox_.dropped().events, 1u);
  connect();
  EXPECT_EQ(take_all(), Taken(MQTT_EVENTS_MAX, "e=waits"));
}

TEST_F(OutboxTest, HasALimitOfTheBytesOfEvents)
{
  const std::string half(MQTT_EVENTS_BYTES_MAX / 2 - 1, 'x');
  outbox_.add_event("a", half);
  outbox_.add_event("b", half);
  outbox_.add_event("c", "1");
  EXPECT_EQ(outbox_.dropped().events, 1u);
}

TEST_F(OutboxTest, KeepsTheLastChangesOfAStateIfManyWait)
{
  connect();
  set("b", "1");
  for (int i = 0; i < MQTT_CHANGES_MAX; i++) {
    set("a", std::to_string(i));
  }
  EXPECT_EQ(outbox_.dropped().events, MQTT_CHANGES_MAX - 1u);
  EXPECT_EQ(take_all(), (Taken{"b=1", "a=" + std::to_string(MQTT_CHANGES_MAX - 1)}));
}

TEST_F(OutboxTest, DeletesAStateThatExceedsTheLimit)
{
  connect();
  set("a", "1");
  take_all();
  set("a", std::string(MQTT_STATES_BYTES_MAX, 'x'));
  EXPECT_EQ(take_all(), Taken{"a="});
  set("b", std::string(MQTT_STATES_BYTES_MAX, 'x'));
  EXPECT_EQ(take_all(), Taken());
  EXPECT_EQ(outbox_.dropped().events, 2u);
}

TEST_F(OutboxTest, HasALimitOfMessagesInFlight)
{
  connect();
  std::vector<guint64> ids;
  for (int i = 0; i < MQTT_IN_FLIGHT_MAX + 1; i++) {
    outbox_.add_event("e", "x");
  }
  for (int i = 0; i < MQTT_IN_FLIGHT_MAX; i++) {
    ids.push_back(take()->id);
  }
  EXPECT_EQ(take(), nullptr);
  outbox_.acknowledge(ids[3]);
  EXPECT_NE(take(), nullptr);
  EXPECT_EQ(take(), nullptr);
}

TEST_F(OutboxTest, HasALimitOfBytesInFlight)
{
  connect();
  outbox_.add_event("e", std::string(MQTT_IN_FLIGHT_BYTES_MAX, 'x'));
  outbox_.add_event("e", "1");
  const Message *message = take();
  EXPECT_EQ(take(), nullptr);
  outbox_.acknowledge(message->id);
  EXPECT_NE(take(), nullptr);
}

TEST_F(OutboxTest, HasEventsUntilTheyAreAcknowledged)
{
  connect();
  outbox_.add_event("e", "1");
  EXPECT_TRUE(outbox_.has_events());
  const Message *message = take();
  EXPECT_TRUE(outbox_.has_events());
  outbox_.acknowledge(message->id);
  EXPECT_FALSE(outbox_.has_events());
  outbox_.add_frame("f", "1");
  EXPECT_FALSE(outbox_.has_events());
}

TEST_F(OutboxTest, DeletesWhatANewStreamDoesNotShowInTime)
{
  connect();
  outbox_.begin_stream(0);
  set("a", "1", true);
  set("b", "1", true);
  take_all();
  outbox_.begin_stream(SETTLE_US);
  set("a", "1", true);
  EXPECT_EQ(take_all(2 * SETTLE_US - 1), Taken());
  EXPECT_EQ(due_us_, 2 * SETTLE_US);
  EXPECT_EQ(take_all(2 * SETTLE_US), Taken{"b="});
  EXPECT_EQ(due_us_, G_MAXINT64);
}

TEST_F(OutboxTest, WaitsAgainWhenTheStreamBeginsAgain)
{
  connect();
  set("a", "1", true);
  take_all();
  outbox_.begin_stream(0);
  outbox_.begin_stream(SETTLE_US - 1);
  EXPECT_EQ(take_all(SETTLE_US), Taken());
  set("a", "1", true);
  EXPECT_EQ(take_all(3 * SETTLE_US), Taken());
}

TEST_F(OutboxTest, DeletesWhatTheStreamDidNotShowWhileTheBrokerWasAway)
{
  connect();
  set("a", "1", true);
  take_all();
  outbox_.disconnect();
  outbox_.begin_stream(0);
  connect(SETTLE_US);
  EXPECT_EQ(take_all(SETTLE_US), Taken{"a="});
}

TEST_F(OutboxTest, CountsWhatIsNotPublished)
{
  outbox_.count_dropped(MessageKind::STATE);
  outbox_.count_dropped(MessageKind::EVENT);
  outbox_.count_dropped(MessageKind::FRAME);
  EXPECT_EQ(outbox_.dropped().events, 2u);
  EXPECT_EQ(outbox_.dropped().frames, 1u);
}

TEST(OutboxRateTest, TellsWhenAFrameIsDue)
{
  Outbox outbox(1000);
  gint64 due_us = 0;
  outbox.connect(0);
  outbox.add_frame("a", "1");
  EXPECT_NE(outbox.take(5000, &due_us), nullptr);
  outbox.add_frame("a", "2");
  EXPECT_EQ(outbox.take(5001, &due_us), nullptr);
  EXPECT_EQ(due_us, 6000);
  EXPECT_NE(outbox.take(6000, &due_us), nullptr);
}

} // namespace
