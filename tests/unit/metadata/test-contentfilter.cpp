/* SPDX-License-Identifier: MIT */
#include "contentfilter.h"

#include "hostiletext.h"

#include <cstring>
#include <gtest/gtest.h>

using onvif::ContentFilter;
using onvif::EventMessage;

namespace
{

EventMessage
input_on()
{
  return {"tns1:Device/Trigger/DigitalInput",
          "Changed",
          0,
          {{"InputToken", "DigitalInput_1"}},
          {{"LogicalState", "true"}}};
}

EventMessage
motion_off()
{
  return {"tns1:VideoSource/MotionAlarm", "Changed", 0, {{"Source", "VideoSource_1"}}, {{"State", "false"}}};
}

EventMessage
crossing()
{
  return {"tns1:VideoAnalytics/tnsimcam:LineDetector/Crossed",
          "",
          0,
          {{"VideoSourceConfigurationToken", "VideoSourceConfiguration_1"}, {"Rule", "Line_1"}},
          {{"ObjectId", "12"}, {"Direction", "RightToLeft"}}};
}

std::optional<ContentFilter>
compile(const char *text, GError **error)
{
  return ContentFilter::compile(text, onvif::event_message_examples(), error);
}

struct MatchCase {
  const char *expression;
  bool input_on;
  bool motion_off;
  bool crossing;
};

class Matching : public testing::TestWithParam<MatchCase>
{
};

TEST_P(Matching, SelectsMessages)
{
  const MatchCase &expected = GetParam();
  g_autoptr(GError) error = nullptr;
  std::optional<ContentFilter> filter = compile(expected.expression, &error);
  ASSERT_TRUE(filter.has_value()) << expected.expression << ": " << error->message;
  EXPECT_EQ(filter->matches(input_on(), &error), expected.input_on);
  EXPECT_EQ(filter->matches(motion_off(), &error), expected.motion_off);
  EXPECT_EQ(filter->matches(crossing(), &error), expected.crossing);
  EXPECT_EQ(error, nullptr);
}

INSTANTIATE_TEST_SUITE_P(
    Expressions, Matching,
    testing::Values(
        MatchCase{"boolean(//tt:SimpleItem[@Name=\"State\" and @Value=\"true\"])", false, false, false},
        MatchCase{"boolean(//tt:SimpleItem[@Name=\"State\" and @Value=\"false\"])", false, true, false},
        MatchCase{"boolean(//tt:SimpleItem[@Name='LogicalState' and @Value='true'])", true, false, false},
        MatchCase{"boolean(//tt:SimpleItem[@Name='ObjectId' and @Value>10])", false, false, true},
        MatchCase{"boolean(//tt:SimpleItem[@Name='ObjectId' and @Value>12])", false, false, false},
        MatchCase{"boolean(//tt:SimpleItem[@Value='true']) or boolean(//tt:SimpleItem[@Name='Rule'])", true,
                  false, true},
        MatchCase{"not(boolean(//tt:SimpleItem[@Value='true']))", false, true, true},
        /* A result of any type is converted to a boolean. */
        MatchCase{"//tt:SimpleItem[@Name='State']", false, true, false},
        MatchCase{"count(//tt:SimpleItem) - 4", true, true, false},
        MatchCase{"string(//@PropertyOperation)", true, true, false},
        /* The message is the root and the context node. */
        MatchCase{"/tt:Message/@PropertyOperation='Changed'", true, true, false},
        MatchCase{"@PropertyOperation", true, true, false},
        MatchCase{"tt:Source/tt:SimpleItem[@Name='InputToken']", true, false, false},
        MatchCase{"//wsnt:Topic or //tns1:Device", false, false, false},
        MatchCase{"//SimpleItem", false, false, false}));

class Refused : public testing::TestWithParam<HostileText>
{
};

TEST_P(Refused, WithAnErrorThatDoesNotRepeatIt)
{
  g_autoptr(GError) error = nullptr;
  testing::internal::CaptureStderr();
  EXPECT_FALSE(compile(GetParam().text.c_str(), &error).has_value());
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain, onvif::content_filter_error_quark());
  EXPECT_TRUE(g_str_is_ascii(error->message));
  EXPECT_LT(strlen(error->message), 100u);
}

INSTANTIATE_TEST_SUITE_P(Malformed, Refused,
                         testing::Values<HostileText>("", " ", "1 +", "'", "\"unfinished", "//*[", "]",
                                                      "boolean(", "a b", "()", "//", "@", "$",
                                                      "<tt:Message/>", "tt:", ":x", "true() and", "\x01",
                                                      "//tt:Sim\xff\xfe", "%s%n%s%n("));

INSTANTIATE_TEST_SUITE_P(Unknown, Refused,
                         testing::Values<HostileText>("frobnicate()", "not(frobnicate())", "x:frobnicate()",
                                                      "not(x:frobnicate())", "$variable", "not($variable)",
                                                      "$x:variable", "//x:SimpleItem",
                                                      "document('/etc/hostname')", "boolean()",
                                                      "string-length(1, 2)", "count('text')", "1 | 2"));

INSTANTIATE_TEST_SUITE_P(TooMuch, Refused,
                         testing::Values<HostileText>(repeat("a", ContentFilter::MAX_LENGTH + 1),
                                                      repeat("a", 10 * 1000 * 1000), repeat("(", 4000),
                                                      repeat("a[", 2000), repeat("a/", 2048) + "(",
                                                      repeat("not(", 900) + "1" + repeat(")", 900),
                                                      repeat("//*[count(", 9) + "//*" + repeat(")>0]", 9)));

TEST(ContentFilterLimits, LongestExpressionIsAccepted)
{
  std::string head = "boolean(//tt:SimpleItem[@Name='";
  std::string tail = "'])";
  std::string text = head + std::string(ContentFilter::MAX_LENGTH - head.size() - tail.size(), 'a') + tail;
  ASSERT_EQ(text.size(), ContentFilter::MAX_LENGTH);
  EXPECT_TRUE(compile(text.c_str(), nullptr).has_value());
}

TEST(ContentFilterEvaluation, FailureOnASingleMessageIsReported)
{
  std::optional<ContentFilter> filter =
      compile("not(//@PropertyOperation='Initialized') or frobnicate()", nullptr);
  ASSERT_TRUE(filter.has_value());
  EventMessage message = motion_off();
  EXPECT_EQ(filter->matches(message, nullptr), true);
  message.operation = "Initialized";
  g_autoptr(GError) error = nullptr;
  EXPECT_FALSE(filter->matches(message, &error).has_value());
  EXPECT_NE(error, nullptr);
}

} // namespace
