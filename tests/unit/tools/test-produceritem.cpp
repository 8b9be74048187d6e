/* SPDX-License-Identifier: MIT */
#include "produceritem.h"

#include <cstring>
#include <gtest/gtest.h>

using plugins::ProducerFlaws;

namespace
{

class ProducerItemTest : public testing::Test
{
protected:
  void expect_good(const std::string &text)
  {
    EXPECT_TRUE(checker.check(text, &flaws)) << text << ": " << flaws.fatal;
    EXPECT_EQ(flaws.fatal, nullptr);
    EXPECT_EQ(flaws.partial, nullptr) << text << ": " << flaws.partial;
  }

  void expect_bad(const std::string &text, const char *flaw)
  {
    EXPECT_FALSE(checker.check(text, &flaws)) << text;
    EXPECT_STREQ(flaws.fatal, flaw) << text;
  }

  ProducerItemChecker checker;
  ProducerFlaws flaws;
};

TEST_F(ProducerItemTest, AcceptsOneItem)
{
  expect_good("{}");
  expect_good(" {} \t\r\n");
  expect_good(R"({"UtcTime":"2024-01-01T00:00:00Z","Objects":[{"Id":1}],"Deleted":[2],"Other":null})");
}

TEST_F(ProducerItemTest, RefusesWhatTheDaemonWouldDrop)
{
  constexpr const char *no_json = "it is no JSON, or beyond the limits";

  expect_bad("", "there is no item, or too many");
  expect_bad("{", no_json);
  expect_bad("{},", no_json);
  expect_bad("{}//", no_json);
  expect_bad("\xff", no_json);
  expect_bad(std::string("{}\0", 3), no_json);
  expect_bad("null", "an item is no object");
  expect_bad("[{}]", "an item is no object");
  expect_bad(R"({"Deleted":1})", "\"Objects\" or \"Deleted\" of an item is no array or too long");
}

/* A line cannot leave the place that the daemon has for its item. */
TEST_F(ProducerItemTest, RefusesMoreThanOneItem)
{
  expect_bad("{},{}", "it is more than one item");
  expect_bad("{}]},\"Data\":{\"Item\":[{}", "it is not one frame with one source");
  expect_bad("{}]}},{\"Source\":\"\",\"Data\":{\"Item\":[{}", "it is no JSON, or beyond the limits");
}

TEST_F(ProducerItemTest, ReportsWhatTheDaemonWouldLeaveOut)
{
  EXPECT_TRUE(checker.check(R"({"Objects":[{"Id":1},{}]})", &flaws));
  EXPECT_EQ(flaws.fatal, nullptr);
  EXPECT_STREQ(flaws.partial, "an object's \"Id\" is missing or no whole number of 64 bits");
}

TEST_F(ProducerItemTest, TheDaemonsFrameCounts)
{
  const gsize frame = strlen(R"({"Source":"","Data":{"Item":[]}})");
  const std::string longest = "{" + std::string(plugins::PRODUCER_FRAME_BYTES_MAX - frame - 2, ' ') + "}";

  expect_good(longest);
  expect_bad(longest + " ", "it is too long");
  EXPECT_GE(static_cast<gsize>(PRODUCE_MAX_LINE_BYTES), longest.size());
}

TEST_F(ProducerItemTest, FlawsAreThoseOfTheLastText)
{
  expect_bad("[]", "an item is no object");
  expect_good("{}");
}

} // namespace
