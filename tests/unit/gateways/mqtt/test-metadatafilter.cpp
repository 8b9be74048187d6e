/* SPDX-License-Identifier: MIT */
#include "metadatafilter.h"

#include "mqttlimits.h"

#include <gtest/gtest.h>

namespace
{

using mqtt::MetadataFilter;

MetadataFilter
filter_of(const std::vector<std::string> &patterns)
{
  MetadataFilter filter;
  for (const std::string &pattern : patterns) {
    EXPECT_TRUE(filter.add(pattern, nullptr)) << pattern;
  }
  return filter;
}

bool
selects(const std::string &pattern, const std::string &path)
{
  return filter_of({pattern}).selects(path);
}

std::string
error_of(const std::string &pattern)
{
  MetadataFilter filter;
  g_autoptr(GError) error = nullptr;
  EXPECT_FALSE(filter.add(pattern, &error)) << pattern;
  return error->message;
}

TEST(MetadataFilterTest, SelectsAllWithoutPatterns)
{
  EXPECT_TRUE(MetadataFilter().selects("PTZ/1/1"));
}

TEST(MetadataFilterTest, SelectsAKind)
{
  EXPECT_TRUE(selects("PTZ", "PTZ/1/1"));
  EXPECT_FALSE(selects("PTZ", "VideoAnalytics/1/Entrance"));
  EXPECT_FALSE(selects("PT", "PTZ/1/1"));
  EXPECT_FALSE(selects("PTZZ", "PTZ/1/1"));
}

TEST(MetadataFilterTest, SelectsAProfile)
{
  EXPECT_TRUE(selects("VideoAnalytics/1", "VideoAnalytics/1/Entrance"));
  EXPECT_FALSE(selects("VideoAnalytics/1", "VideoAnalytics/2/Entrance"));
}

TEST(MetadataFilterTest, SelectsAModule)
{
  EXPECT_TRUE(selects("VideoAnalytics/1/Entrance", "VideoAnalytics/1/Entrance"));
  EXPECT_FALSE(selects("VideoAnalytics/1/Entrance", "VideoAnalytics/1/Exit"));
}

TEST(MetadataFilterTest, SelectsByAnyPattern)
{
  MetadataFilter filter = filter_of({"PTZ", "*/2"});
  EXPECT_TRUE(filter.selects("PTZ/1/1"));
  EXPECT_TRUE(filter.selects("VideoAnalytics/2/Entrance"));
  EXPECT_FALSE(filter.selects("VideoAnalytics/1/Entrance"));
}

TEST(MetadataFilterTest, HasWildcardsWithinALevel)
{
  EXPECT_TRUE(selects("*/*/Ent*", "VideoAnalytics/1/Entrance"));
  EXPECT_TRUE(selects("*/?/*an*e", "VideoAnalytics/1/Entrance"));
  EXPECT_TRUE(selects("*/1/**", "VideoAnalytics/1/Entrance"));
  EXPECT_TRUE(selects("*/1/G?te", "VideoAnalytics/1/G\xc3\xa4te"));
  EXPECT_FALSE(selects("*/1/G?te", "VideoAnalytics/1/Gte"));
  EXPECT_FALSE(selects("*/1?/*", "VideoAnalytics/1/Entrance"));
  EXPECT_FALSE(selects("*/1/*an", "VideoAnalytics/1/Entrance"));
}

TEST(MetadataFilterTest, MatchesLongTextsInTime)
{
  std::string stars;
  for (int i = 0; i < 100; i++) {
    stars += "*a";
  }
  EXPECT_FALSE(selects("*/1/" + stars + "b", "VideoAnalytics/1/" + std::string(1024, 'a')));
}

TEST(MetadataFilterTest, RefusesOtherForms)
{
  EXPECT_EQ(error_of(""), "\"\" is not KIND, KIND/PROFILE or KIND/PROFILE/MODULE.");
  EXPECT_EQ(error_of("a//b"), "\"a//b\" is not KIND, KIND/PROFILE or KIND/PROFILE/MODULE.");
  EXPECT_EQ(error_of("a/b/c/d"), "\"a/b/c/d\" is not KIND, KIND/PROFILE or KIND/PROFILE/MODULE.");
}

TEST(MetadataFilterTest, HasLimits)
{
  MetadataFilter filter = filter_of({std::string(MQTT_PATTERN_BYTES_MAX, 'a')});
  EXPECT_FALSE(filter.add(std::string(MQTT_PATTERN_BYTES_MAX + 1, 'a'), nullptr));
  for (int i = 1; i < MQTT_PATTERNS_MAX; i++) {
    EXPECT_TRUE(filter.add("a", nullptr));
  }
  g_autoptr(GError) error = nullptr;
  EXPECT_FALSE(filter.add("a", &error));
  EXPECT_STREQ(error->message, "There are more than 64 patterns.");
}

} // namespace
