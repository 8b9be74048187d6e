/* SPDX-License-Identifier: MIT */
#include "framequeue.h"

#include "mqttlimits.h"

#include <gtest/gtest.h>

namespace
{

using mqtt::FrameQueue;
using mqtt::Message;
using mqtt::MessageKind;

constexpr gint64 MS = G_TIME_SPAN_MILLISECOND;

Message
frame(const std::string &topic, const std::string &payload)
{
  return {1, MessageKind::FRAME, topic, payload};
}

/* Returns: the payload of the next frame; empty if none may be sent */
std::string
pop(FrameQueue *queue, gint64 now_us = 0, gint64 *due_us = nullptr)
{
  gint64 due = G_MAXINT64;
  std::optional<Message> message = queue->pop(now_us, &due);
  if (due_us != nullptr) {
    *due_us = due;
  }
  return message.has_value() ? message->payload : "";
}

TEST(FrameQueueTest, IsEmptyAtFirst)
{
  FrameQueue queue(0);
  gint64 due_us = 0;
  EXPECT_EQ(pop(&queue, 0, &due_us), "");
  EXPECT_EQ(due_us, G_MAXINT64);
}

TEST(FrameQueueTest, KeepsTheOrderOfATopic)
{
  FrameQueue queue(0);
  for (const char *payload : {"1", "2", "3"}) {
    EXPECT_EQ(queue.push(frame("a", payload), false), 0u);
  }
  EXPECT_EQ(pop(&queue), "1");
  EXPECT_EQ(pop(&queue), "2");
  EXPECT_EQ(pop(&queue), "3");
  EXPECT_EQ(pop(&queue), "");
}

TEST(FrameQueueTest, LetsTopicsTakeTurns)
{
  FrameQueue queue(0);
  for (const char *payload : {"a1", "a2", "b1", "b2", "c1"}) {
    queue.push(frame(std::string(payload, 1), payload), false);
  }
  std::string order;
  for (std::string next = pop(&queue); !next.empty(); next = pop(&queue)) {
    order += next + " ";
  }
  EXPECT_EQ(order, "a1 b1 c1 a2 b2 ");
}

TEST(FrameQueueTest, DropsTheOldestOfATopicBeyondTheLimit)
{
  FrameQueue queue(0);
  for (int i = 0; i < MQTT_MODULE_FRAMES_MAX; i++) {
    EXPECT_EQ(queue.push(frame("a", std::to_string(i)), false), 0u);
  }
  EXPECT_EQ(queue.push(frame("a", "last"), false), 1u);
  EXPECT_EQ(pop(&queue), "1");
}

TEST(FrameQueueTest, KeepsTheNewestWhileTheBrokerIsAway)
{
  FrameQueue queue(0);
  queue.push(frame("a", "1"), false);
  queue.push(frame("a", "2"), false);
  queue.push(frame("b", "3"), false);
  EXPECT_EQ(queue.keep_newest(), 1u);
  EXPECT_EQ(queue.push(frame("a", "4"), true), 1u);
  EXPECT_EQ(queue.push(frame("c", "5"), true), 0u);
  EXPECT_EQ(pop(&queue), "4");
  EXPECT_EQ(pop(&queue), "3");
  EXPECT_EQ(pop(&queue), "5");
  EXPECT_EQ(pop(&queue), "");
}

TEST(FrameQueueTest, TakesBackTheNewestFrameOnly)
{
  FrameQueue queue(0);
  queue.push(frame("a", "1"), false);
  queue.push(frame("b", "1"), false);
  queue.push(frame("b", "2"), false);
  pop(&queue);
  pop(&queue);
  EXPECT_TRUE(queue.put_back(frame("a", "1")));
  EXPECT_FALSE(queue.put_back(frame("b", "1")));
  EXPECT_FALSE(queue.put_back(frame("a", "0")));
  EXPECT_EQ(pop(&queue), "1");
  EXPECT_EQ(pop(&queue), "2");
  EXPECT_EQ(pop(&queue), "");
}

TEST(FrameQueueTest, LimitsTheRateOfEachTopic)
{
  FrameQueue queue(100 * MS);
  gint64 due_us = 0;
  queue.push(frame("a", "a1"), false);
  EXPECT_EQ(pop(&queue, 1000 * MS), "a1");
  EXPECT_EQ(queue.push(frame("a", "a2"), false), 0u);
  EXPECT_EQ(pop(&queue, 1050 * MS, &due_us), "");
  EXPECT_EQ(due_us, 1100 * MS);
  queue.push(frame("b", "b1"), false);
  EXPECT_EQ(pop(&queue, 1050 * MS), "b1");
  EXPECT_EQ(queue.push(frame("a", "a3"), false), 0u); /* left out for the rate, not dropped */
  EXPECT_EQ(pop(&queue, 1099 * MS), "");
  EXPECT_EQ(pop(&queue, 1100 * MS), "a3");
  EXPECT_EQ(pop(&queue, 5000 * MS), "");
}

TEST(FrameQueueTest, KeepsTheMeanRateOfFramesThatAreLate)
{
  FrameQueue queue(100 * MS);
  int sent = 0;
  for (gint64 now_us = 1000 * MS; now_us < 11000 * MS; now_us += 30 * MS) {
    queue.push(frame("a", "x"), false);
    sent += pop(&queue, now_us).empty() ? 0 : 1;
  }
  EXPECT_NEAR(sent, 100, 1);
}

TEST(FrameQueueTest, ForgetsTheTopicThatWasSilentForLongest)
{
  FrameQueue queue(1000 * MS);
  for (int i = 0; i < MQTT_MODULES_MAX; i++) {
    queue.push(frame(std::to_string(i), "x"), false);
    EXPECT_EQ(pop(&queue, i), "x");
  }
  EXPECT_EQ(queue.push(frame("new", "y"), false), 0u);
  EXPECT_EQ(pop(&queue, MQTT_MODULES_MAX), "y");
  EXPECT_EQ(queue.push(frame("1", "x"), false), 0u);
  EXPECT_EQ(pop(&queue, MQTT_MODULES_MAX), "") << "it is known, and its rate limited";
}

TEST(FrameQueueTest, RefusesATopicWhenFramesOfAllOthersWait)
{
  FrameQueue queue(0);
  for (int i = 0; i < MQTT_MODULES_MAX; i++) {
    queue.push(frame(std::to_string(i), "x"), false);
  }
  EXPECT_EQ(queue.push(frame("new", "y"), false), 1u);
  EXPECT_EQ(queue.push(frame("0", "z"), false), 0u);
}

TEST(FrameQueueTest, HasALimitOfBytes)
{
  FrameQueue queue(0);
  const std::string half(MQTT_FRAMES_BYTES_MAX / 2 - 1, 'x');
  EXPECT_EQ(queue.push(frame("a", half), false), 0u);
  EXPECT_EQ(queue.push(frame("b", half), false), 0u);
  EXPECT_EQ(queue.push(frame("c", "1"), false), 1u);
  EXPECT_EQ(queue.push(frame("a", "2"), false), 1u) << "the older one of its topic";
  EXPECT_EQ(queue.push(frame("c", "3"), false), 0u);
  EXPECT_EQ(pop(&queue), "2");
  EXPECT_EQ(pop(&queue), half);
  EXPECT_EQ(pop(&queue), "3");
}

} // namespace
