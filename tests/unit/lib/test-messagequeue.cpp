/* SPDX-License-Identifier: MIT */
#include "messagequeue.h"

#include "testclock.h"
#include "testhost.h"

#include <thread>

namespace
{

class MessageQueueTest : public testhost::Fixture
{
protected:
  void SetUp() override
  {
    testhost::Fixture::SetUp();
    testclock::reset();
  }

  /* Expects that so many items expire. */
  gboolean push(const std::string &text, guint expired = 0)
  {
    guint dropped = G_MAXUINT;
    const gboolean fits = queue_.push(text, &dropped);

    EXPECT_EQ(dropped, expired);
    return fits;
  }

  std::string pop(guint expired = 0)
  {
    guint dropped = G_MAXUINT;
    const std::optional<std::string> text = queue_.pop(&dropped);

    EXPECT_EQ(dropped, expired);
    return text.value_or("nothing");
  }

  MessageQueue queue_;
};

} // namespace

TEST_F(MessageQueueTest, ReturnsTheItemThatWaitsLongest)
{
  EXPECT_EQ(pop(), "nothing");
  EXPECT_TRUE(push("a"));
  EXPECT_TRUE(push("b"));
  EXPECT_EQ(pop(), "a");
  EXPECT_TRUE(push("c"));
  EXPECT_EQ(pop(), "b");
  EXPECT_EQ(pop(), "c");
  EXPECT_EQ(pop(), "nothing");
}

TEST_F(MessageQueueTest, HasALimitOfItems)
{
  for (guint i = 0; i < TESSARD_QUEUE_MAX_ITEMS; i++) {
    EXPECT_TRUE(push(std::to_string(i)));
  }
  EXPECT_FALSE(push("refused"));
  EXPECT_FALSE(push(""));
  EXPECT_EQ(pop(), "0");
  EXPECT_TRUE(push("last"));
  EXPECT_FALSE(push("refused"));
  for (guint i = 1; i < TESSARD_QUEUE_MAX_ITEMS; i++) {
    EXPECT_EQ(pop(), std::to_string(i));
  }
  EXPECT_EQ(pop(), "last");
}

TEST_F(MessageQueueTest, HasALimitOfBytes)
{
  EXPECT_TRUE(push(std::string(TESSARD_QUEUE_MAX_BYTES - 1, 'a')));
  EXPECT_FALSE(push("bb"));
  EXPECT_TRUE(push("b"));
  EXPECT_FALSE(push("c"));
  pop();
  EXPECT_TRUE(push(std::string(TESSARD_QUEUE_MAX_BYTES - 1, 'c')));
  EXPECT_FALSE(push("d"));
  EXPECT_EQ(pop(), "b");
}

TEST_F(MessageQueueTest, OneItemCanAlwaysWait)
{
  EXPECT_TRUE(push(std::string(TESSARD_QUEUE_MAX_BYTES + 1, 'a')));
  EXPECT_FALSE(push(""));
  EXPECT_EQ(pop().size(), gsize{TESSARD_QUEUE_MAX_BYTES + 1});
  EXPECT_TRUE(push("b"));
}

TEST_F(MessageQueueTest, DropsItemsThatWaitForTooLong)
{
  push("old");
  push("old");
  testclock::advance_ms(TESSARD_QUEUE_MAX_AGE_MS / 2);
  push("new");
  testclock::advance_ms(TESSARD_QUEUE_MAX_AGE_MS / 2 + 1);
  EXPECT_EQ(pop(2), "new");
  push("old");
  testclock::advance_ms(TESSARD_QUEUE_MAX_AGE_MS + 1);
  EXPECT_EQ(pop(1), "nothing");
}

TEST_F(MessageQueueTest, OldItemsMakeRoom)
{
  for (guint i = 0; i < TESSARD_QUEUE_MAX_ITEMS; i++) {
    push("old");
  }
  testclock::advance_ms(TESSARD_QUEUE_MAX_AGE_MS + 1);
  EXPECT_TRUE(push(std::string(TESSARD_QUEUE_MAX_BYTES, 'a'), TESSARD_QUEUE_MAX_ITEMS));
  testclock::advance_ms(TESSARD_QUEUE_MAX_AGE_MS + 1);
  EXPECT_TRUE(push(std::string(TESSARD_QUEUE_MAX_BYTES, 'b'), 1));
}

TEST_F(MessageQueueTest, ClearDropsEverything)
{
  EXPECT_EQ(queue_.clear(), 0U);
  push(std::string(TESSARD_QUEUE_MAX_BYTES - 1, 'a'));
  push("b");
  EXPECT_EQ(queue_.clear(), 2U);
  EXPECT_EQ(pop(), "nothing");
  EXPECT_TRUE(push("a"));
  EXPECT_TRUE(push(std::string(TESSARD_QUEUE_MAX_BYTES - 1, 'b')));
}

TEST_F(MessageQueueTest, KeepsTheOrderOfEachThread)
{
  constexpr guint THREADS = 3;
  constexpr guint ITEMS = 2000;
  std::vector<guint> next(THREADS);
  std::vector<std::thread> threads;
  guint taken = 0;

  for (guint number = 0; number < THREADS; number++) {
    threads.emplace_back([this, number] {
      for (guint i = 0; i < ITEMS; i++) {
        while (!push(std::to_string(number) + " " + std::to_string(i))) {
          std::this_thread::yield();
        }
      }
    });
  }
  EXPECT_TRUE(testhost::spin_until([&] {
    for (std::string text = pop(); text != "nothing"; text = pop(), taken++) {
      const guint number = std::stoi(text);
      EXPECT_EQ(text, std::to_string(number) + " " + std::to_string(next[number]++));
    }
    return taken == THREADS * ITEMS;
  }));
  for (std::thread &thread : threads) {
    thread.join();
  }
}
