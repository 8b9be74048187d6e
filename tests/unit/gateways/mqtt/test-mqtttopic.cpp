/* SPDX-License-Identifier: MIT */
#include "mqtttopic.h"

#include "mqttlimits.h"

#include <gtest/gtest.h>

namespace
{

using namespace std::string_literals;

TEST(PrefixTest, CanHaveLevels)
{
  for (const char *prefix : {"a", "MyDevice", "site/camera 1", "Gerät", "a$b"}) {
    EXPECT_EQ(mqtt::prefix_fault(prefix), nullptr) << prefix;
  }
}

TEST(PrefixTest, IsNoTopicOfTheBrokerAndNoFilter)
{
  EXPECT_STREQ(mqtt::prefix_fault(""), "is empty");
  EXPECT_STREQ(mqtt::prefix_fault("$SYS"), "begins with $, which is the broker's");
  for (const char *prefix : {"/", "/a", "a/", "a//b"}) {
    EXPECT_STREQ(mqtt::prefix_fault(prefix), "has an empty level") << prefix;
  }
  for (const std::string &prefix : {"a+"s, "#"s, "a\nb"s, "a\0b"s, "a\xff"s, "a\xc2\x80"s}) {
    EXPECT_STREQ(mqtt::prefix_fault(prefix), "has a character that is not allowed") << prefix;
  }
}

TEST(PrefixTest, HasALimit)
{
  EXPECT_EQ(mqtt::prefix_fault(std::string(MQTT_PREFIX_BYTES_MAX, 'a')), nullptr);
  EXPECT_STREQ(mqtt::prefix_fault(std::string(MQTT_PREFIX_BYTES_MAX + 1, 'a')), "is too long");
}

TEST(TopicLevelTest, KeepsWhatATopicCanHave)
{
  EXPECT_EQ(mqtt::topic_level("My Important-Fence_1 & $x:y"), "My Important-Fence_1 & $x:y");
  EXPECT_EQ(mqtt::topic_level("Gerät 街 \U0001f600"), "Gerät 街 \U0001f600");
}

TEST(TopicLevelTest, LeavesOutSeparatorsAndWildcards)
{
  EXPECT_EQ(mqtt::topic_level("a/b+c#d"), "abcd");
  EXPECT_EQ(mqtt::topic_level("/+#"), "");
}

TEST(TopicLevelTest, LeavesOutControlCharactersAndInvalidBytes)
{
  EXPECT_EQ(mqtt::topic_level("a\0b\x01 c\x1f\x7f"s), "ab c");
  EXPECT_EQ(mqtt::topic_level("a\xc2\x80\xc2\x9f\xc2\xa0"), "a\xc2\xa0");
  EXPECT_EQ(mqtt::topic_level("a\xff\xc3(\xe2\x82"), "a(");
  EXPECT_EQ(mqtt::topic_level("a\xed\xa0\x80z"), "az"); /* a surrogate */
  EXPECT_EQ(mqtt::topic_level("a\xc0\x80z"), "az");     /* NUL in two bytes */
  EXPECT_EQ(mqtt::topic_level("a\xef\xbf\xbf\xef\xb7\x90\xef\xb7\xafz\xef\xbf\xbe"), "az");
}

TEST(TopicTest, HasTheStatusBelowThePrefix)
{
  EXPECT_EQ(mqtt::status_topic("site/a"), "site/a/status");
}

TEST(EventTopicTest, EndsWithTheSource)
{
  EXPECT_EQ(mqtt::event_topic("MyDevice", "RuleEngine/LineDetector/Crossed", {"1", "2", "MyImportantFence1"}),
            "MyDevice/onvif-ej/RuleEngine/LineDetector/Crossed/&1/2/MyImportantFence1");
}

TEST(EventTopicTest, HasNoSourceWithoutItems)
{
  EXPECT_EQ(mqtt::event_topic("MyDevice", "Device/HardwareFailure/acme:LensFailure", {}),
            "MyDevice/onvif-ej/Device/HardwareFailure/acme:LensFailure");
}

TEST(EventTopicTest, KeepsAnEmptyLevelForAnEmptyValue)
{
  EXPECT_EQ(mqtt::event_topic("a", "B", {"", "x"}), "a/onvif-ej/B/&/x");
}

TEST(EventTopicTest, LeavesOutWhatIsNotAllowed)
{
  EXPECT_EQ(mqtt::event_topic("a", "B+/C#\n", {"x/y", "+", "z#"}), "a/onvif-ej/B/C/&xy//z");
}

TEST(EventTopicTest, IsEmptyBeyondTheLimit)
{
  const std::string longest(MQTT_TOPIC_BYTES_MAX - "a/onvif-ej/"s.size(), 'b');
  EXPECT_EQ(mqtt::event_topic("a", longest, {}).size(), MQTT_TOPIC_BYTES_MAX);
  EXPECT_EQ(mqtt::event_topic("a", longest + "b", {}), "");
}

TEST(MetadataTopicTest, NamesKindProfileAndModule)
{
  const std::string path = mqtt::metadata_path("VideoAnalytics", "1", "MyClassifier");
  EXPECT_EQ(path, "VideoAnalytics/1/MyClassifier");
  EXPECT_EQ(mqtt::metadata_topic("MyDevice", path), "MyDevice/onvif-mj/VideoAnalytics/1/MyClassifier");
}

TEST(MetadataTopicTest, HasNoPathWithoutAModule)
{
  EXPECT_EQ(mqtt::metadata_path("VideoAnalytics", "1", ""), "");
  EXPECT_EQ(mqtt::metadata_path("VideoAnalytics", "1", "/#+"), "");
}

TEST(MetadataTopicTest, IsEmptyBeyondTheLimit)
{
  EXPECT_EQ(mqtt::metadata_topic("a", std::string(MQTT_TOPIC_BYTES_MAX, 'b')), "");
}

} // namespace
