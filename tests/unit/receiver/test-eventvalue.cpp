/* SPDX-License-Identifier: MIT */
#include "receiver/eventvalue.h"

#include <gtest/gtest.h>
#include <vector>

using receiver::event_value_check;

namespace
{

struct Case {
  const char *type;
  std::vector<std::string_view> allowed;
  std::vector<std::string_view> refused;
};

void
PrintTo(const Case &given, std::ostream *stream)
{
  *stream << given.type;
}

class EventValueTest : public testing::TestWithParam<Case>
{
};

TEST_P(EventValueTest, AllowsTheFormsOfItsType)
{
  for (const std::string_view value : GetParam().allowed) {
    EXPECT_TRUE(event_value_check(GetParam().type, value)) << value;
  }
  for (const std::string_view value : GetParam().refused) {
    EXPECT_FALSE(event_value_check(GetParam().type, value)) << value;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Types, EventValueTest,
    testing::Values(
        Case{"xs:boolean", {"true", "false", "1", "0"}, {"", "True", "yes", " true", "10"}},
        Case{"xs:int",
             {"0", "-2147483648", "+2147483647", "007"},
             {"", "2147483648", "-2147483649", "+", "+-1", "1.0", "1 ", "0x1"}},
        Case{"xs:integer", {"0", "-123456789012345678901234567890", "+1"}, {"", "-", "1e3", "1.", "--1"}},
        Case{"xs:float",
             {"1", "-1.5", "+.5", "5.", "1e3", "1E-3", "INF", "-INF", "NaN"},
             {"", ".", "+INF", "inf", "1e", "1e+", "0x1p1", "1 ", "e3", "1.5.", "nan"}},
        Case{"xs:double", {"0.1", "NaN"}, {"", "NaNs", "1,5"}},
        Case{"xs:dateTime",
             {"2026-02-28T00:00:00", "2024-02-29T23:59:59Z", "2026-11-22T19:44:44.123456Z",
              "2026-11-22T19:44:44+14:00", "2026-11-22T19:44:44.0-05:30"},
             {"", "2026-11-22", "2026-02-29T00:00:00Z", "2026-04-31T00:00:00Z", "2026-13-01T00:00:00Z",
              "0000-01-01T00:00:00Z", "2026-11-22T24:00:01Z", "2026-11-22T19:60:00Z", "2026-11-22T19:44:60Z",
              "2026-11-22T19:44:44.Z", "2026-11-22T19:44:44+14:01", "2026-11-22T19:44:44 Z",
              "2026-11-22 19:44:44Z", "2026-11-22T19:44:44Zx", "26-11-22T19:44:44Z"}},
        Case{"xs:string", {"", "any text", "tab\tnew\nline", "ä €"}, {"\x01", "\x1f", "\xEF\xBF\xBE"}},
        Case{"tt:ReferenceToken", {"", "VideoSource_1", "true"}, {"a\x02"}}));

} // namespace
