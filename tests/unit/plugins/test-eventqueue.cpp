/* SPDX-License-Identifier: MIT */
#include "eventqueue.h"

#include "events.h"

#include <gtest/gtest.h>

using plugins::EventQueue;
using plugins::SharedEvent;
using testevents::plain;
using testevents::state;
using testevents::summary;
using Texts = std::vector<std::string>;

namespace
{

class EventQueueTest : public testing::Test
{
protected:
  Texts take_batch()
  {
    Texts texts;
    for (const SharedEvent &event : queue_.take_batch()) {
      texts.push_back(summary(event));
    }
    return texts;
  }

  /* All batches. */
  Texts take_all()
  {
    Texts texts;
    while (!queue_.is_empty()) {
      for (const std::string &text : take_batch()) {
        texts.push_back(text);
      }
    }
    return texts;
  }

  EventQueue queue_;
};

TEST_F(EventQueueTest, KeepsTheOrder)
{
  queue_.add(plain("a"));
  queue_.add_states({state("Initialized", "1", "b"), state("Initialized", "2", "c")});
  queue_.add(state("Changed", "1", "d"));

  EXPECT_EQ(take_batch(), (Texts{"  a", "Initialized 1 b", "Initialized 2 c", "Changed 1 d"}));
  EXPECT_TRUE(queue_.is_empty());
  EXPECT_EQ(take_batch(), Texts{});
}

TEST_F(EventQueueTest, BatchesAreLimited)
{
  for (gsize i = 0; i <= plugins::EVENT_BATCH_MAX_EVENTS; i++) {
    queue_.add(plain("a"));
  }
  queue_.add(plain(std::string(plugins::EVENT_BATCH_MAX_BYTES, 'x')));

  EXPECT_EQ(take_batch().size(), plugins::EVENT_BATCH_MAX_EVENTS);
  EXPECT_EQ(take_batch().size(), 1U);
  EXPECT_EQ(take_batch().size(), 1U);
  EXPECT_TRUE(queue_.is_empty());
}

TEST_F(EventQueueTest, ABatchHasOneNamespaceForAPrefix)
{
  const auto with = [](const std::string &uri) {
    auto event = std::make_shared<plugins::ReceiverEvent>(*plain(uri));
    event->namespaces = {{"acme", uri}};
    return event;
  };
  queue_.add(with("urn:a"));
  queue_.add(plain("x"));
  queue_.add(with("urn:a"));
  queue_.add(with("urn:b"));

  EXPECT_EQ(take_batch().size(), 3U);
  EXPECT_EQ(take_batch().size(), 1U);
}

TEST_F(EventQueueTest, TooManyEventsLeaveDeletionsAndNeedStates)
{
  queue_.add(state("Deleted", "1", "a"));
  for (gsize i = 0; i < plugins::EVENT_QUEUE_MAX_EVENTS; i++) {
    queue_.add(state("Changed", "2", "b"));
  }
  EXPECT_TRUE(queue_.needs_states());
  queue_.add(state("Changed", "2", "c"));
  queue_.add(state("Deleted", "2", "d"));
  queue_.add_states({state("Initialized", "3", "e")});
  queue_.add(state("Changed", "3", "f"));

  EXPECT_FALSE(queue_.needs_states());
  EXPECT_EQ(take_all(), (Texts{"Deleted 1 a", "Deleted 2 d", "Initialized 3 e", "Changed 3 f"}));
}

TEST_F(EventQueueTest, TooManyBytesNeedStates)
{
  const std::string large(plugins::EVENT_QUEUE_MAX_BYTES / 4, 'x');
  for (int i = 0; i < 3; i++) {
    queue_.add(plain(large));
  }
  EXPECT_FALSE(queue_.needs_states());
  queue_.add(plain(large + "x"));
  queue_.add(plain(large));

  EXPECT_TRUE(queue_.needs_states());
  EXPECT_TRUE(queue_.is_empty());
}

/* Sync points that are faster than the client. */
TEST_F(EventQueueTest, RepeatedStatesAreLimited)
{
  const std::vector<SharedEvent> states(plugins::EVENT_QUEUE_MAX_EVENTS / 2, state("Initialized", "1", "a"));
  for (int i = 0; i < 100; i++) {
    queue_.add_states(states);
  }

  EXPECT_LE(take_all().size(), plugins::EVENT_QUEUE_MAX_EVENTS);
}

TEST_F(EventQueueTest, DeletionsAreLimited)
{
  for (gsize i = 0; i < 2 * plugins::EVENT_QUEUE_MAX_EVENTS; i++) {
    queue_.add(state("Deleted", std::to_string(i), "a"));
  }

  EXPECT_TRUE(queue_.needs_states());
  const Texts left = take_all();
  EXPECT_EQ(left.size(), plugins::EVENT_QUEUE_MAX_EVENTS);
  EXPECT_EQ(left.back(), "Deleted " + std::to_string(2 * plugins::EVENT_QUEUE_MAX_EVENTS - 1) + " a");
}

TEST_F(EventQueueTest, ClearDropsAll)
{
  queue_.add(plain("a"));
  queue_.clear();

  EXPECT_TRUE(queue_.is_empty());
  EXPECT_FALSE(queue_.needs_states());
}

} // namespace
