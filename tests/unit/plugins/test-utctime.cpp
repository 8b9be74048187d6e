/* SPDX-License-Identifier: MIT */
#include "utctime.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace
{

constexpr std::uint64_t SECOND = 1'000'000'000;

/* 2024-01-01T00:00:00Z */
constexpr std::uint64_t NEW_YEAR = 1704067200 * SECOND;

struct Time {
  const char *text;
  std::optional<std::uint64_t> time;
};

std::ostream &
operator<<(std::ostream &stream, const Time &time)
{
  return stream << time.text;
}

class UtcTimeTest : public testing::TestWithParam<Time>
{
};

class FindUtcTimeTest : public testing::TestWithParam<Time>
{
};

constexpr const char *UTC = "<a UtcTime=\"2024-01-01T00:00:00Z\"/>";

} // namespace

TEST_P(UtcTimeTest, IsParsed)
{
  EXPECT_EQ(plugins::parse_utc_time(GetParam().text), GetParam().time);
}

INSTANTIATE_TEST_SUITE_P(
    Valid, UtcTimeTest,
    testing::Values(Time{"1970-01-01T00:00:00Z", 0}, Time{"2024-01-01T00:00:00Z", NEW_YEAR},
                    Time{"2024-01-01T00:00:00", NEW_YEAR}, Time{"2024-02-29T12:34:56Z", 1709210096 * SECOND},
                    Time{"2000-02-29T00:00:00Z", 951782400 * SECOND},
                    Time{"2024-01-01T00:00:00.5Z", NEW_YEAR + SECOND / 2},
                    Time{"2024-01-01T00:00:00.000000001Z", NEW_YEAR + 1},
                    Time{"2024-01-01T00:00:00.1234567899999Z", NEW_YEAR + 123456789},
                    Time{"2024-01-01T00:00:00.250", NEW_YEAR + SECOND / 4},
                    Time{"2024-01-01T01:00:00+01:00", NEW_YEAR}, Time{"2023-12-31T18:30:00-05:30", NEW_YEAR},
                    Time{"2024-01-01T14:00:00+14:00", NEW_YEAR}, Time{"2023-12-31T10:00:00-14:00", NEW_YEAR},
                    Time{"2024-01-01T00:00:00+00:00", NEW_YEAR}, Time{"2024-01-01T00:00:00-00:00", NEW_YEAR},
                    Time{"2023-12-31T24:00:00Z", NEW_YEAR}, Time{"2023-12-31T24:00:00.000Z", NEW_YEAR},
                    Time{"1969-12-31T23:00:00-01:00", 0}, Time{" \t2024-01-01T00:00:00Z\r\n", NEW_YEAR},
                    Time{"2553-12-31T23:59:59.999999999Z", 18429292799 * SECOND + 999999999}));

INSTANTIATE_TEST_SUITE_P(
    Invalid, UtcTimeTest,
    testing::Values(Time{"", {}}, Time{" ", {}}, Time{"now", {}}, Time{"2024-01-01", {}},
                    Time{"2024-01-01Z", {}}, Time{"2024-01-01T00:00Z", {}}, Time{"2024-01-01 00:00:00Z", {}},
                    Time{"2024-01-01t00:00:00Z", {}}, Time{"2024-01-01T00:00:00z", {}},
                    Time{"2024-01-01T00:00:00ZZ", {}}, Time{"2024-01-01T00:00:00Z+01:00", {}},
                    Time{"2024-1-01T00:00:00Z", {}}, Time{"24-01-01T00:00:00Z", {}},
                    Time{"+2024-01-01T00:00:00Z", {}}, Time{"-2024-01-01T00:00:00Z", {}},
                    Time{"12024-01-01T00:00:00Z", {}}, Time{"2024-00-01T00:00:00Z", {}},
                    Time{"2024-13-01T00:00:00Z", {}}, Time{"2024-01-00T00:00:00Z", {}},
                    Time{"2024-01-32T00:00:00Z", {}}, Time{"2023-02-29T00:00:00Z", {}},
                    Time{"2100-02-29T00:00:00Z", {}}, Time{"2024-01-01T24:00:01Z", {}},
                    Time{"2024-01-01T24:00:00.1Z", {}}, Time{"2024-01-01T25:00:00Z", {}},
                    Time{"2024-01-01T00:60:00Z", {}}, Time{"2024-01-01T00:00:60Z", {}},
                    Time{"2024-01-01T00:00:00.Z", {}}, Time{"2024-01-01T00:00:00,5Z", {}},
                    Time{"2024-01-01T00:00:00+1:00", {}}, Time{"2024-01-01T00:00:00+0100", {}},
                    Time{"2024-01-01T00:00:00+14:01", {}}, Time{"2024-01-01T00:00:00+01:60", {}},
                    Time{"2024-01-01T00:00:00+", {}}, Time{"1969-12-31T23:59:59Z", {}},
                    Time{"1970-01-01T00:00:00+01:00", {}}, Time{"2554-01-01T00:00:00Z", {}},
                    Time{"2024-01-01T00:00:00Z&#10;", {}}, Time{"99999999999999999999", {}}));

TEST_P(FindUtcTimeTest, IsFoundInADocument)
{
  EXPECT_EQ(plugins::find_utc_time(GetParam().text), GetParam().time);
}

#define NEW_YEARS_TIME "2024-01-01T00:00:00Z"
#define OTHER_TIME "2025-01-01T00:00:00Z"

INSTANTIATE_TEST_SUITE_P(
    Present, FindUtcTimeTest,
    testing::Values(
        Time{UTC, NEW_YEAR}, Time{"<a UtcTime='" NEW_YEARS_TIME "'>", NEW_YEAR},
        Time{"<?xml version=\"1.0\"?><a><b x=\"1\" UtcTime=\"" NEW_YEARS_TIME "\"/></a>", NEW_YEAR},
        Time{"<tt:Frame UtcTime=\"" NEW_YEARS_TIME "\"/><tt:Frame UtcTime=\"" OTHER_TIME "\"/>", NEW_YEAR},
        Time{"<a\n\tUtcTime\r\n = \n\"" NEW_YEARS_TIME "\"\n>", NEW_YEAR},
        Time{"<!-- UtcTime=\"" OTHER_TIME "\" <b UtcTime=\"" OTHER_TIME "\"> -->"
             "<a UtcTime=\"" NEW_YEARS_TIME "\"/>",
             NEW_YEAR},
        Time{"<![CDATA[<b UtcTime=\"" OTHER_TIME "\"/>]]><a UtcTime=\"" NEW_YEARS_TIME "\"/>", NEW_YEAR},
        Time{"<?pi <b UtcTime=\"" OTHER_TIME "\"?><a UtcTime=\"" NEW_YEARS_TIME "\"/>", NEW_YEAR},
        Time{"<b>UtcTime=\"" OTHER_TIME "\"</b><a UtcTime=\"" NEW_YEARS_TIME "\"/>", NEW_YEAR},
        Time{"<b x='<c UtcTime=\"" OTHER_TIME "\">'/><a UtcTime=\"" NEW_YEARS_TIME "\"/>", NEW_YEAR},
        Time{"<b x:UtcTime=\"" OTHER_TIME "\" UtcTimes=\"" OTHER_TIME "\"/><a UtcTime=\"" NEW_YEARS_TIME
             "\"/>",
             NEW_YEAR},
        Time{"<b utctime=\"" OTHER_TIME "\" UtcTime=\"" NEW_YEARS_TIME "\"/>", NEW_YEAR},
        Time{"<UtcTime x=\"" OTHER_TIME "\" UtcTime=\"" NEW_YEARS_TIME "\"/>", NEW_YEAR},
        Time{"</b UtcTime=\"" OTHER_TIME "\"><a UtcTime=\"" NEW_YEARS_TIME "\"/>", NEW_YEAR},
        Time{"<b x=\"a>b\" UtcTime=\"" NEW_YEARS_TIME "\"/>", NEW_YEAR},
        Time{"<a UtcTime=\" " NEW_YEARS_TIME " \"/>", NEW_YEAR}));

INSTANTIATE_TEST_SUITE_P(
    Absent, FindUtcTimeTest,
    testing::Values(Time{"", {}}, Time{"<", {}}, Time{"<a", {}}, Time{"text", {}}, Time{"<a/>", {}},
                    Time{"<a UtcTime", {}}, Time{"<a UtcTime=", {}}, Time{"<a UtcTime=\"", {}},
                    Time{"<a UtcTime=\"" NEW_YEARS_TIME, {}}, Time{"<a UtcTime=" NEW_YEARS_TIME "/>", {}},
                    Time{"<a UtcTime/>", {}}, Time{"<a UtcTime=\"\"/>", {}},
                    Time{"UtcTime=\"" NEW_YEARS_TIME "\"", {}},
                    Time{"<a UtcTime=\"now\"/><a UtcTime=\"" NEW_YEARS_TIME "\"/>", {}},
                    Time{"<!-- <a UtcTime=\"" NEW_YEARS_TIME "\"/>", {}},
                    Time{"<![CDATA[<a UtcTime=\"" NEW_YEARS_TIME "\"/>", {}},
                    Time{"<?pi <a UtcTime=\"" NEW_YEARS_TIME "\"/>", {}}, Time{"</a", {}}, Time{"<!--", {}},
                    Time{"<!", {}},
                    Time{"<!DOCTYPE a [<!ENTITY x '<a UtcTime=\"" NEW_YEARS_TIME "\"/>'>]><a/>", {}}));

TEST(FindUtcTimeLimitTest, SearchesTheBeginOfADocument)
{
  const std::string tag = UTC;
  const std::string filler(plugins::UTC_TIME_MAX_SEARCHED_BYTES - tag.size(), ' ');
  EXPECT_EQ(plugins::find_utc_time(filler + tag), NEW_YEAR);
  EXPECT_EQ(plugins::find_utc_time(filler + std::string(8, ' ') + tag), std::nullopt);
}

TEST(FindUtcTimeLimitTest, ReadsNoByteBehindTheDocument)
{
  const std::string document = "<?xml version=\"1.0\"?><!-- c --><b x='1'><![CDATA[d]]></b>"
                               "<a UtcTime=\"2024-01-01T00:00:00.25+01:00\"/>";
  for (std::size_t size = 0; size <= document.size(); size++) {
    const std::vector<char> exact(document.begin(), document.begin() + static_cast<std::ptrdiff_t>(size));
    const bool is_complete = size > document.rfind('"');
    EXPECT_EQ(plugins::find_utc_time({exact.data(), exact.size()}).has_value(), is_complete) << size;
  }
}
