/* SPDX-License-Identifier: MIT */
#include "statetable.h"

#include "mqttlimits.h"

#include <gtest/gtest.h>

namespace
{

using mqtt::StateTable;
using States = std::map<std::string, std::string>;

States
states_of(const StateTable &table)
{
  States states;
  table.foreach (
      [&states](const std::string &topic, const std::string &payload) { states[topic] = payload; });
  return states;
}

States
delete_unseen(StateTable *table)
{
  States deleted;
  table->delete_unseen(
      [&deleted](const std::string &topic, const std::string &payload) { deleted[topic] = payload; });
  return deleted;
}

/* A state that the broker has. */
void
set_sent(StateTable *table, const std::string &topic, const std::string &payload)
{
  ASSERT_TRUE(table->set(topic, payload, false));
  table->add_waiting(topic);
  table->mark_sent(topic);
  table->drop_waiting(topic);
}

TEST(StateTableTest, PublishesWhatIsNew)
{
  StateTable table;
  EXPECT_TRUE(table.set("a", "1", true));
  EXPECT_TRUE(table.set("b", "1", false));
  EXPECT_EQ(states_of(table), (States{{"a", "1"}, {"b", "1"}}));
}

TEST(StateTableTest, PublishesNothingAgainThatIsShownAgain)
{
  StateTable table;
  table.set("a", R"({"UtcTime":"2026-11-23T00:00:00Z","Source":{},"Data":{"State":"true"}})", false);
  EXPECT_FALSE(
      table.set("a", R"({"UtcTime":"2026-11-23T00:00:09Z","Source":{},"Data":{"State":"true"}})", true));
  EXPECT_TRUE(
      table.set("a", R"({"UtcTime":"2026-11-23T00:00:09Z","Source":{},"Data":{"State":"false"}})", true));
}

TEST(StateTableTest, PublishesEachChange)
{
  StateTable table;
  EXPECT_TRUE(table.set("a", "1", false));
  EXPECT_TRUE(table.set("a", "1", false));
}

TEST(StateTableTest, ComparesTextsOfAnyForm)
{
  StateTable table;
  table.set("a", R"({"UtcTime":")", false);
  EXPECT_FALSE(table.set("a", R"({"UtcTime":")", true));
  EXPECT_TRUE(table.set("a", "x", true));
  EXPECT_TRUE(table.set("a", "y", true));
}

TEST(StateTableTest, KeepsADeletionUntilTheBrokerHasIt)
{
  StateTable table;
  set_sent(&table, "a", "1");
  EXPECT_TRUE(table.set("a", "", false));
  table.add_waiting("a");
  EXPECT_FALSE(table.set("a", "", false));
  EXPECT_EQ(states_of(table), (States{{"a", ""}}));
  table.drop_waiting("a");
  EXPECT_EQ(states_of(table), States());
}

TEST(StateTableTest, KeepsADeletionWhileAnotherMessageWaits)
{
  StateTable table;
  set_sent(&table, "a", "1");
  for (const char *payload : {"", "2", ""}) {
    EXPECT_TRUE(table.set("a", payload, false));
    table.add_waiting("a");
  }
  table.drop_waiting("a");
  table.drop_waiting("a");
  EXPECT_TRUE(table.has("a"));
  table.drop_waiting("a");
  EXPECT_FALSE(table.has("a"));
}

TEST(StateTableTest, KeepsADeletionThroughAnOutage)
{
  StateTable table;
  set_sent(&table, "a", "1");
  table.set("a", "", false);
  table.add_waiting("a");
  table.drop_all_waiting();
  table.forget_unsent("a");
  EXPECT_EQ(states_of(table), (States{{"a", ""}}));
}

TEST(StateTableTest, ForgetsADeletionThatTheBrokerNeedNotKnow)
{
  StateTable table;
  table.set("a", "1", false);
  table.forget_unsent("a");
  EXPECT_TRUE(table.has("a"));
  table.set("a", "", false);
  table.forget_unsent("a");
  EXPECT_FALSE(table.has("a"));
  table.set("b", "1", false);
  table.set("b", "", false);
  table.drop_all_waiting();
  EXPECT_FALSE(table.has("b"));
}

TEST(StateTableTest, PublishesTheDeletionOfAnUnknownProperty)
{
  StateTable table;
  EXPECT_TRUE(table.set("a", "", false));
  table.drop_all_waiting();
  EXPECT_EQ(states_of(table), (States{{"a", ""}}));
}

TEST(StateTableTest, DeletesWhatANewStreamDoesNotShow)
{
  StateTable table;
  for (const char *topic : {"a", "b", "c"}) {
    table.set(topic, "1", false);
  }
  table.mark_all_unseen();
  table.set("a", "1", true);
  table.set("b", "2", false);
  EXPECT_EQ(delete_unseen(&table), (States{{"c", ""}}));
  EXPECT_EQ(delete_unseen(&table), States());
  EXPECT_EQ(states_of(table), (States{{"a", "1"}, {"b", "2"}, {"c", ""}}));
}

TEST(StateTableTest, HasALimitOfProperties)
{
  StateTable table;
  for (int i = 0; i < MQTT_STATES_MAX; i++) {
    const std::string topic = std::to_string(i);
    ASSERT_TRUE(table.fits(topic, "1"));
    table.set(topic, "1", false);
  }
  EXPECT_FALSE(table.fits("a", "1"));
  EXPECT_TRUE(table.fits("0", "2"));
  table.set("0", "", false);
  table.forget_unsent("0");
  EXPECT_TRUE(table.fits("a", "1"));
}

TEST(StateTableTest, HasALimitOfBytes)
{
  StateTable table;
  const std::string half(MQTT_STATES_BYTES_MAX / 2 - 1, 'x');
  table.set("a", half, false);
  EXPECT_TRUE(table.fits("b", half));
  table.set("b", half, false);
  EXPECT_FALSE(table.fits("c", ""));
  EXPECT_FALSE(table.fits("b", half + "y"));
  EXPECT_TRUE(table.fits("b", half));
  table.set("b", "", false);
  EXPECT_TRUE(table.fits("c", "1"));
  table.forget_unsent("b");
  table.set("c", half, false);
  EXPECT_FALSE(table.fits("b", "1"));
}

} // namespace
