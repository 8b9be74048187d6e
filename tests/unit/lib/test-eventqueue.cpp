/* SPDX-License-Identifier: MIT */
#include "eventqueue.h"

#include "testhost.h"

#include <set>

namespace
{

class EventQueueTest : public testhost::Fixture
{
protected:
  static Event event(const std::string &value)
  {
    Event made;
    made.topic = "tns1:Other";
    made.data["Value"] = value;
    return made;
  }

  static Event state(const std::string &source, const std::string &value)
  {
    Event made = event(value);
    made.topic = "tns1:Property";
    made.is_property = TRUE;
    made.source["Source"] = source;
    return made;
  }

  std::vector<std::string> values()
  {
    std::vector<std::string> found;
    while (!queue.is_empty()) {
      found.push_back(queue.pop().data["Value"]);
    }
    return found;
  }

  EventQueue queue;
};

} // namespace

TEST_F(EventQueueTest, KeepsEveryStateWhileTheReceiverIsThere)
{
  queue.push(state("1", "a"), FALSE);
  queue.push(event("b"), FALSE);
  EXPECT_TRUE(queue.push(state("1", "c"), FALSE).empty());
  EXPECT_EQ(values(), (std::vector<std::string>{"a", "b", "c"}));
}

TEST_F(EventQueueTest, KeepsTheLastStateOfEachPropertyWhileItIsAway)
{
  queue.push(state("1", "a"), TRUE);
  queue.push(state("2", "b"), TRUE);
  const std::vector<Event> dropped = queue.push(state("1", "c"), TRUE);
  ASSERT_EQ(dropped.size(), 1U);
  EXPECT_EQ(dropped[0].data.at("Value"), "a");
  EXPECT_EQ(values(), (std::vector<std::string>{"b", "c"}));
}

TEST_F(EventQueueTest, KeepsTheNewestOfTheOthersAndEveryProperty)
{
  queue.push(state("1", "state"), TRUE);
  for (guint i = 0; i < TESSARD_EVENTS_MAX_QUEUED; i++) {
    EXPECT_TRUE(queue.push(event(std::to_string(i)), TRUE).empty());
  }
  const std::vector<Event> dropped = queue.push(event("last"), TRUE);
  ASSERT_EQ(dropped.size(), 1U);
  EXPECT_EQ(dropped[0].data.at("Value"), "0");
  EXPECT_TRUE(queue.has_property(event_key(state("1", ""))));
  EXPECT_FALSE(queue.has_property(event_key(state("2", ""))));
  const std::vector<std::string> left = values();
  EXPECT_EQ(left.size(), gsize{TESSARD_EVENTS_MAX_QUEUED + 1});
  EXPECT_EQ(left.front(), "state");
  EXPECT_EQ(left.back(), "last");
}

TEST_F(EventQueueTest, PutsBackInFront)
{
  queue.push(event("b"), FALSE);
  queue.put_back(event("a"));
  EXPECT_EQ(values(), (std::vector<std::string>{"a", "b"}));
}

TEST_F(EventQueueTest, PutsBackInFrontOfAFullQueue)
{
  for (guint i = 0; i < TESSARD_EVENTS_MAX_QUEUED; i++) {
    queue.push(event(std::to_string(i)), TRUE);
  }
  queue.put_back(event("pending"));
  const std::vector<Event> dropped = queue.push(event("last"), TRUE);
  ASSERT_EQ(dropped.size(), 1U);
  EXPECT_EQ(dropped[0].data.at("Value"), "pending");
  EXPECT_EQ(values().size(), gsize{TESSARD_EVENTS_MAX_QUEUED + 1});
}

TEST_F(EventQueueTest, KeepsTheLastStateAlsoForASlowReceiver)
{
  queue.push(state("1", "a"), FALSE);
  for (guint i = 1; i < TESSARD_EVENTS_MAX_QUEUED; i++) {
    queue.push(event(std::to_string(i)), FALSE);
  }
  const std::vector<Event> dropped = queue.push(state("1", "b"), FALSE);
  ASSERT_EQ(dropped.size(), 1U);
  EXPECT_EQ(dropped[0].data.at("Value"), "a");
}

TEST_F(EventQueueTest, ClearReturnsEverything)
{
  queue.push(state("1", "a"), FALSE);
  queue.push(event("b"), FALSE);
  const std::vector<Event> dropped = queue.clear();
  ASSERT_EQ(dropped.size(), 2U);
  EXPECT_EQ(dropped[0].data.at("Value"), "a");
  EXPECT_EQ(dropped[1].data.at("Value"), "b");
  EXPECT_TRUE(queue.is_empty());
  for (guint i = 0; i < TESSARD_EVENTS_MAX_QUEUED; i++) {
    EXPECT_TRUE(queue.push(event(std::to_string(i)), TRUE).empty());
  }
}

TEST_F(EventQueueTest, PropertiesDifferByTopicAndSource)
{
  Event other = state("1", "a");
  other.topic = "tns1:Other";
  Event more = state("1", "a");
  more.source["More"] = "1";
  const std::set<std::string> keys = {event_key(state("1", "a")), event_key(state("2", "a")),
                                      event_key(other), event_key(more)};

  EXPECT_EQ(keys.size(), 4U);
  EXPECT_EQ(event_key(state("1", "a")), event_key(state("1", "b")));
}

/* While the receiver is away, an application can make and delete any number of properties. */
TEST_F(EventQueueTest, KeepsTheNewestOfTheDeletedProperties)
{
  const auto deleted = [](guint number) {
    Event made = state(std::to_string(number), "");
    made.operation = "Deleted";
    return made;
  };

  for (guint i = 0; i < TESSARD_EVENTS_MAX_PROPERTIES; i++) {
    queue.push(state(std::to_string(i), ""), TRUE);
    EXPECT_EQ(queue.push(deleted(i), TRUE).size(), 1U) << "the state";
  }
  const std::vector<Event> dropped = queue.push(deleted(TESSARD_EVENTS_MAX_PROPERTIES), TRUE);
  ASSERT_EQ(dropped.size(), 1U);
  EXPECT_EQ(event_key(dropped[0]), event_key(deleted(0)));
  EXPECT_TRUE(queue.push(event("other"), TRUE).empty());
  EXPECT_EQ(values().size(), gsize{TESSARD_EVENTS_MAX_PROPERTIES + 1});
}

/* A property that is there again takes the place of its deletion. */
TEST_F(EventQueueTest, CountsNoDeletionThatIsReplaced)
{
  Event deleted = state("1", "");
  deleted.operation = "Deleted";

  for (guint i = 0; i < TESSARD_EVENTS_MAX_PROPERTIES + 10; i++) {
    EXPECT_EQ(queue.push(deleted, TRUE).size(), i == 0 ? 0U : 1U);
    EXPECT_EQ(queue.push(state("1", "again"), TRUE).size(), 1U);
  }
  EXPECT_EQ(values(), std::vector<std::string>{"again"});
}
