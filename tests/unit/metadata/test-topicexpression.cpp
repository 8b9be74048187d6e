/* SPDX-License-Identifier: MIT */
#include "topicexpression.h"

#include "hostiletext.h"

#include <cstring>
#include <gtest/gtest.h>

using onvif::TopicExpression;

namespace
{

constexpr const char *INPUT = "tns1:Device/Trigger/DigitalInput";
constexpr const char *MOTION = "tns1:VideoSource/MotionAlarm";
constexpr const char *CROSSING = "tns1:VideoAnalytics/tnsimcam:LineDetector/Crossed";

struct MatchCase {
  const char *expression;
  bool input;
  bool motion;
  bool crossing;
};

class Matching : public testing::TestWithParam<MatchCase>
{
};

TEST_P(Matching, SelectsTopics)
{
  const MatchCase &expected = GetParam();
  g_autoptr(GError) error = nullptr;
  std::optional<TopicExpression> expression = TopicExpression::parse(expected.expression, &error);
  ASSERT_TRUE(expression.has_value()) << expected.expression << ": " << error->message;
  EXPECT_EQ(error, nullptr);
  EXPECT_EQ(expression->matches(INPUT), expected.input);
  EXPECT_EQ(expression->matches(MOTION), expected.motion);
  EXPECT_EQ(expression->matches(CROSSING), expected.crossing);
}

INSTANTIATE_TEST_SUITE_P(
    Expressions, Matching,
    testing::Values(
        MatchCase{INPUT, true, false, false}, MatchCase{MOTION, false, true, false},
        MatchCase{CROSSING, false, false, true},
        /* A topic does not include the topics below it, and a subtree does not begin within a name. */
        MatchCase{"tns1:Device", false, false, false}, MatchCase{"tns1:Device/Trigger", false, false, false},
        MatchCase{"tns1:Dev//.", false, false, false}, MatchCase{"tns1:Device/Trig//.", false, false, false},
        MatchCase{"tns1:Device/Trigger/DigitalInput/More", false, false, false},
        MatchCase{"tns1:Device//.", true, false, false},
        MatchCase{"tns1:Device/Trigger//.", true, false, false},
        MatchCase{"tns1:Device/Trigger/DigitalInput//.", true, false, false},
        MatchCase{"tns1:VideoSource//.", false, true, false},
        MatchCase{"tns1:VideoAnalytics//.", false, false, true},
        MatchCase{"tns1:VideoAnalytics/tnsimcam:LineDetector//.", false, false, true},
        MatchCase{"tns1:VideoAnalytics/LineDetector//.", false, false, false},
        MatchCase{"tns1:Device//.|tns1:VideoSource/MotionAlarm", true, true, false},
        MatchCase{"tns1:Device//.|tns1:VideoSource//.|tns1:VideoAnalytics//.", true, true, true},
        MatchCase{" tns1:Device//. |\n\ttns1:VideoSource//.\r\n", true, true, false},
        /* Well-formed but unknown topics. */
        MatchCase{"tns1:Nothing//.", false, false, false}, MatchCase{"other:Device//.", false, false, false},
        MatchCase{"tns1:Ger\xc3\xa4t//.", false, false, false}));

class Malformed : public testing::TestWithParam<HostileText>
{
};

TEST_P(Malformed, IsRefusedWithAnErrorThatDoesNotRepeatIt)
{
  g_autoptr(GError) error = nullptr;
  EXPECT_FALSE(TopicExpression::parse(GetParam().text.c_str(), &error).has_value());
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain, onvif::topic_expression_error_quark());
  EXPECT_TRUE(g_str_is_ascii(error->message));
  EXPECT_LT(strlen(error->message), 100u);
}

INSTANTIATE_TEST_SUITE_P(Expressions, Malformed,
                         testing::Values<HostileText>(
                             "", " ", "|", "tns1:Device|", "|tns1:Device", "tns1:Device||tns1:Device", "//.",
                             "/", "//", "/tns1:Device", "tns1:Device/", "tns1:Device//",
                             "tns1:Device//Trigger", "tns1:Device//./Trigger", "tns1:Device//.//.",
                             "tns1:Device/.", "tns1:Device///.", "tns1:Device//. x", "tns1:Device Trigger//.",
                             "tns1: Device", "tns1:", ":Device", "tns1:a:b", "Device//.", "tns1:*",
                             "tns1:Device/*", "*//.", "tns1:1Device", "tns1:Device[1]", "tns1:Dev\x01ice",
                             "tns1:Dev\xff\xfeice", "tns1:Dev%sice%n", "\xc3", "<!ENTITY x>",
                             "tns1:Device&tns1:Device", "tns1:Device;//.",
                             repeat("a", TopicExpression::MAX_LENGTH + 1), repeat("a", 10 * 1000 * 1000),
                             repeat("|", 4000), repeat("/", 4000), repeat("tns1:a/", 500) + "b",
                             repeat("tns1:a|", TopicExpression::MAX_PATHS) + "tns1:a",
                             "tns1:a" + repeat("/a", TopicExpression::MAX_DEPTH)));

TEST(TopicExpressionLimits, AreReachable)
{
  std::string longest_name = "tns1:" + repeat("a", TopicExpression::MAX_LENGTH - strlen("tns1:"));
  std::string most_paths = repeat("tns1:a|", TopicExpression::MAX_PATHS - 1) + "tns1:Device//.";
  std::string deepest = "tns1:a" + repeat("/a", TopicExpression::MAX_DEPTH - 1);
  for (const std::string &text : {longest_name, most_paths, deepest}) {
    EXPECT_TRUE(TopicExpression::parse(text.c_str(), nullptr).has_value()) << text;
  }
  EXPECT_TRUE(TopicExpression::parse(most_paths.c_str(), nullptr)->matches(INPUT));
}

} // namespace
