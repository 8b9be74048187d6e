/* SPDX-License-Identifier: MIT */
#include "optionvalidation.h"

#include "logtext.h"
#include "testfactory.h"
#include "testhost.h"

#include <cerrno>
#include <syslog.h>

using testfactory::make_params;
using testhost::SyslogLines;

using namespace std::string_literals;

namespace
{

class OptionValidationTest : public testhost::Fixture
{
protected:
  void SetUp() override
  {
    Fixture::SetUp();
    errno = 0;
  }
};

void
expect_error(const GError *error, const std::string &text, const std::string &line)
{
  ASSERT_TRUE(g_error_matches(error, option_validation_error_quark(), 0));
  EXPECT_EQ(error->message, text);
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_WARNING, line}}));
}

void
expect_error(const GError *error, const std::string &text)
{
  expect_error(error, text, text);
}

void
expect_channel(const char *text, gint32 channel)
{
  g_autoptr(GError) error = nullptr;

  EXPECT_EQ(option_validation_parse_channel(text, &error), channel);
  EXPECT_EQ(error, nullptr);
}

void
expect_channel_refused(const char *text, const std::string &message)
{
  g_autoptr(GError) error = nullptr;

  EXPECT_EQ(option_validation_parse_channel(text, &error), -1);
  expect_error(error, message);
}

void
expect_channel_of(const testfactory::Params &pairs, gint32 channel)
{
  g_autoptr(GHashTable) params = make_params(pairs);
  g_autoptr(GError) error = nullptr;

  EXPECT_EQ(option_validation_lookup_channel(params, &error), channel);
  EXPECT_EQ(error, nullptr);
}

std::string
invalid_channel(const std::string &text)
{
  return "Invalid value of 'channel'           parameter: '" + text + "'.";
}

std::string
channel_out_of_bounds(const std::string &text)
{
  return "Value out of bounds for 'channel'         parameter: '" + text + "'.";
}

} // namespace

TEST_F(OptionValidationTest, HasItsOwnErrorDomain)
{
  EXPECT_STREQ(g_quark_to_string(option_validation_error_quark()), "option_validation_error");
}

TEST_F(OptionValidationTest, ParsesAnEmptyChannelAsZero)
{
  expect_channel("", 0);
}

TEST_F(OptionValidationTest, ParsesDecimalDigitsAsAChannel)
{
  expect_channel("0", 0);
  expect_channel("1", 1);
  expect_channel("007", 7);
  expect_channel("010", 10);
  expect_channel("2147483646", 2147483646);
}

TEST_F(OptionValidationTest, RefusesAChannelWithOtherCharacters)
{
  for (const char *text : {"-1", "+1", " 1", "1 ", "1a", "a1", "0x1", "1.0", "\u0661", "%s", "-", "é"}) {
    expect_channel_refused(text, invalid_channel(text));
  }
}

/* The error has the unchanged value. */
TEST_F(OptionValidationTest, EscapesAndClipsAHostileValueInTheLog)
{
  const std::string digits(LOG_TEXT_MAX_BYTES, '9');
  for (const auto &[value, logged] :
       {std::pair("\t1"s, R"(\x091)"s), std::pair(digits + "x", digits + "... (1 bytes left out)"),
        std::pair("\xff\n"s, R"(\xff\x0a)"s)}) {
    g_autoptr(GError) error = nullptr;
    EXPECT_EQ(option_validation_parse_channel(value.c_str(), &error), -1);
    expect_error(error, invalid_channel(value), invalid_channel(logged));

    g_autoptr(GError) other_error = nullptr;
    EXPECT_EQ(option_validation_parse_analytics(value.c_str(), &other_error), 3);
    expect_error(other_error, "Invalid value of 'analytics' parameter: '" + value + "'.",
                 "Invalid value of 'analytics' parameter: '" + logged + "'.");
  }
}

TEST_F(OptionValidationTest, ClipsAChannelWithTooManyDigitsInTheLog)
{
  const std::string digits(LOG_TEXT_MAX_BYTES, '9');
  g_autoptr(GError) error = nullptr;

  EXPECT_EQ(option_validation_parse_channel((digits + "99").c_str(), &error), -1);
  expect_error(error, channel_out_of_bounds(digits + "99"),
               channel_out_of_bounds(digits + "... (2 bytes left out)"));
}

TEST_F(OptionValidationTest, HasElevenBlanksInTheFirstChannelTextAndNineInTheOther)
{
  expect_channel_refused("x", "Invalid value of 'channel'" + std::string(11, ' ') + "parameter: 'x'.");
  expect_channel_refused("99999999999", "Value out of bounds for 'channel'" + std::string(9, ' ') +
                                            "parameter: '99999999999'.");
}

TEST_F(OptionValidationTest, RefusesAChannelBeyond32Bits)
{
  for (const char *text :
       {"2147483648", "4294967295", "4294967296", "4294967297", "99999999999", "9223372036854775807",
        "9223372036854775808", "18446744073709551617", "99999999999999999999999999999999"}) {
    errno = 0;
    expect_channel_refused(text, channel_out_of_bounds(text));
  }
}

TEST_F(OptionValidationTest, AcceptsTheLargestChannelUnlessErrnoIsErange)
{
  expect_channel("2147483647", G_MAXINT32);

  errno = ERANGE;
  expect_channel_refused("2147483647", channel_out_of_bounds("2147483647"));

  errno = EINVAL;
  expect_channel("2147483647", G_MAXINT32);
}

TEST_F(OptionValidationTest, KeepsErrnoForAValidChannel)
{
  errno = ERANGE;

  expect_channel("2147483646", 2147483646);
  EXPECT_EQ(errno, ERANGE);
}

TEST_F(OptionValidationTest, RefusesAChannelForACallerWithoutAnError)
{
  EXPECT_EQ(option_validation_parse_channel("one", nullptr), -1);
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_WARNING, invalid_channel("one")}}));
}

TEST_F(OptionValidationTest, UsesTheFirstChannelForARequestWithoutOne)
{
  expect_channel_of({}, OPTION_VALIDATION_DEFAULT_CHANNEL);
  expect_channel_of({{"channel", "7"}, {"analytics", "2"}}, 1);
}

TEST_F(OptionValidationTest, UsesTheChannelOfARequest)
{
  expect_channel_of({{"video_channel", "7"}}, 7);
  expect_channel_of({{"video_channel", ""}}, 0);
}

TEST_F(OptionValidationTest, RefusesABadChannelOfARequest)
{
  g_autoptr(GHashTable) params = make_params({{"video_channel", "1a"}});
  g_autoptr(GError) error = nullptr;

  EXPECT_EQ(option_validation_lookup_channel(params, &error), -1);
  expect_error(error, invalid_channel("1a"));
}

TEST_F(OptionValidationTest, ParsesAbsentAnalyticsAsOff)
{
  g_autoptr(GError) error = nullptr;

  EXPECT_EQ(option_validation_parse_analytics(nullptr, &error), 0);
  EXPECT_EQ(error, nullptr);
}

TEST_F(OptionValidationTest, ParsesTheThreeValuesOfAnalytics)
{
  g_autoptr(GError) error = nullptr;

  EXPECT_EQ(option_validation_parse_analytics("0", &error), 0);
  EXPECT_EQ(option_validation_parse_analytics("1", &error), 1);
  EXPECT_EQ(option_validation_parse_analytics("2", &error), 2);
  EXPECT_EQ(error, nullptr);
}

TEST_F(OptionValidationTest, ReturnsThreeForInvalidAnalytics)
{
  for (const char *text : {"3", "", " 1", "1 ", "01", "-1", "true", "22", "%d"}) {
    g_autoptr(GError) error = nullptr;

    EXPECT_EQ(option_validation_parse_analytics(text, &error), 3);
    expect_error(error, "Invalid value of 'analytics' parameter: '" + std::string(text) + "'.");
  }
  EXPECT_EQ(OPTION_VALIDATION_ANALYTICS_INVALID, 3);
}

TEST_F(OptionValidationTest, DistinguishesRequestsWithAndWithoutAChannel)
{
  const std::vector<std::pair<std::string, gint32>> channels = {{"7", 7}, {"0", 0}, {"", 0}};
  g_autoptr(GHashTable) without = make_params({{"channel", "7"}});
  g_autoptr(GError) error = nullptr;
  gint32 channel = 99;

  EXPECT_TRUE(option_validation_lookup_named_channel(without, &channel, &error));
  EXPECT_EQ(channel, -1);
  for (const auto &[text, expected] : channels) {
    g_autoptr(GHashTable) with = make_params({{"video_channel", text}});
    EXPECT_TRUE(option_validation_lookup_named_channel(with, &channel, &error)) << text;
    EXPECT_EQ(channel, expected);
  }
  EXPECT_EQ(error, nullptr);
  g_autoptr(GHashTable) bad = make_params({{"video_channel", "1a"}});
  EXPECT_FALSE(option_validation_lookup_named_channel(bad, &channel, &error));
  expect_error(error, invalid_channel("1a"));
}

TEST_F(OptionValidationTest, ParsesTheAnalyticsOfARequest)
{
  g_autoptr(GHashTable) without = make_params({{"video_channel", "2"}});
  g_autoptr(GHashTable) with = make_params({{"analytics", "2"}});
  g_autoptr(GError) error = nullptr;

  EXPECT_EQ(option_validation_lookup_analytics(without, option_validation_error_quark(), &error),
            OPTION_VALIDATION_ANALYTICS_OFF);
  EXPECT_EQ(option_validation_lookup_analytics(with, option_validation_error_quark(), &error),
            OPTION_VALIDATION_ANALYTICS_POLYGONS);
  EXPECT_EQ(error, nullptr);
}

TEST_F(OptionValidationTest, RefusesAnalyticsOfARequestInTheCallersDomain)
{
  const GQuark domain = g_quark_from_static_string("another_error");
  g_autoptr(GHashTable) params = make_params({{"analytics", "3"}});
  g_autoptr(GError) error = nullptr;

  EXPECT_EQ(option_validation_lookup_analytics(params, domain, &error), OPTION_VALIDATION_ANALYTICS_INVALID);
  EXPECT_TRUE(g_error_matches(error, domain, 0));
  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{{LOG_WARNING, "Invalid value of 'analytics' parameter: '3'."}}));
}
