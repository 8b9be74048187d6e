/* SPDX-License-Identifier: MIT */
#include "sendqueue.h"

#include "testhost.h"

namespace
{

class SendQueueTest : public testhost::Fixture
{
protected:
  bool push(const std::string &key, const std::string &text)
  {
    return queue.push(key, std::make_shared<std::string>(text));
  }

  /* All texts, which the queue then has no more. */
  testhost::Texts pop_all()
  {
    testhost::Texts texts;
    while (const view::Text text = queue.pop()) {
      texts.push_back(*text);
    }
    return texts;
  }

  view::SendQueue queue{10};
};

} // namespace

TEST_F(SendQueueTest, KeepsTheOrder)
{
  for (const char *text : {"a", "b", "c"}) {
    EXPECT_TRUE(push("", text));
  }
  EXPECT_EQ(pop_all(), (testhost::Texts{"a", "b", "c"}));
  EXPECT_TRUE(queue.is_empty());
  EXPECT_EQ(queue.pop(), nullptr);
}

TEST_F(SendQueueTest, TheNewestOfAKeyTakesThePlaceOfTheOneThatWaits)
{
  push("A", "a1");
  push("", "e");
  push("B", "b1");
  push("A", "a2");
  EXPECT_EQ(pop_all(), (testhost::Texts{"a2", "e", "b1"}));
  push("A", "a3");
  EXPECT_EQ(pop_all(), testhost::Texts{"a3"});
}

TEST_F(SendQueueTest, ReplacesNothingAcrossABarrier)
{
  push("A", "a1");
  queue.add_barrier();
  push("", "-");
  push("A", "a2");
  push("A", "a3");
  EXPECT_EQ(pop_all(), (testhost::Texts{"a1", "-", "a3"}));
  push("A", "a4");
  EXPECT_EQ(pop_all(), testhost::Texts{"a4"});
}

TEST_F(SendQueueTest, AnEarlierTextOfAKeyDoesNotHideTheLaterOne)
{
  push("A", "a1");
  queue.add_barrier();
  push("A", "a2");
  EXPECT_EQ(*queue.pop(), "a1");
  push("A", "a3");
  EXPECT_EQ(pop_all(), testhost::Texts{"a3"});
}

TEST_F(SendQueueTest, RefusesMoreThanItsBytes)
{
  EXPECT_TRUE(push("A", "12345"));
  EXPECT_TRUE(push("", "12345"));
  EXPECT_EQ(queue.bytes(), 10U);
  EXPECT_FALSE(push("", "1"));
  EXPECT_TRUE(push("A", "1234"));
  EXPECT_TRUE(push("", "1"));
  EXPECT_FALSE(push("A", "12345"));
  EXPECT_EQ(queue.bytes(), 10U);
  EXPECT_EQ(pop_all(), (testhost::Texts{"1234", "12345", "1"}));
  EXPECT_EQ(queue.bytes(), 0U);
  EXPECT_TRUE(push("", "1234567890"));
}
