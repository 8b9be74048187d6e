/* SPDX-License-Identifier: MIT */
#include "jsontext.h"

#include "hostiletext.h"

#include <gtest/gtest.h>

using plugins::JSON_DEPTH_MAX;
using plugins::JSON_MEMBERS_MAX;
using plugins::JSON_VALUES_MAX;

namespace
{

/* The parser keeps its memory from text to text. */
bool
is_accepted(const std::string &text)
{
  static simdjson::dom::parser parser;
  std::string padded = text + std::string(simdjson::SIMDJSON_PADDING, 'x');
  return plugins::json_text_parse(&parser, {padded.data(), text.size()}).has_value();
}

/* An array of @count values; the array is one more value. */
std::string
array_of(gsize count)
{
  return "[" + (count > 0 ? "0" + repeat(",0", count - 1) : "") + "]";
}

std::string
object_of(gsize count)
{
  return "{" + (count > 0 ? "\"\":0" + repeat(",\"\":0", count - 1) : "") + "}";
}

std::string
nested(const char *open, const char *close, gsize depth)
{
  return repeat(open, depth) + repeat(close, depth);
}

class Json : public testing::TestWithParam<HostileText>
{
};

TEST_P(Json, IsAccepted)
{
  EXPECT_TRUE(is_accepted(GetParam().text));
}

INSTANTIATE_TEST_SUITE_P(Texts, Json,
                         testing::Values("{}", "[]", " \t\r\n[ \t\r\n] \t\r\n", "true", "false", "null",
                                         "\"\"", "[true,false,null]", "{\"a\":{\"b\":[]},\"c\":[{}]}",
                                         "{\"a\":1,\"a\":2}", "\"\\\"\\\\\\/\\b\\f\\n\\r\\t\"",
                                         "\"\\u0001\\uFFFF\\u00e9\"", "\"\\ud83c\\udfa5\"", "\"\xc3\xa9\"",
                                         "\"\x7f\"", "\"]}[{,:\"", "0", "-0", "-0.0", "10", "1.5", "1e5",
                                         "1E+5", "1e-5", "0.0e0", "1e-999", "-1.25E-3",
                                         "123456789012345678901234567890.5"));

class InvalidJson : public testing::TestWithParam<HostileText>
{
};

TEST_P(InvalidJson, IsRefused)
{
  EXPECT_FALSE(is_accepted(GetParam().text));
  EXPECT_FALSE(is_accepted("[" + GetParam().text + "]")) << "in an array";
}

INSTANTIATE_TEST_SUITE_P(
    Texts, InvalidJson,
    testing::Values(" ,", "{", "[", "}", "]", "{]", "[}", "[}]", "[1}", "{\"a\":1]", "[[]", "[1,]", "[,1]",
                    "[1,,2]", "[1 2]", "[1:2]", "{\"a\"}", "{\"a\":}", "{\"a\" 1}", "{\"a\":1,}", "{,}",
                    "{1:2}", "{a:1}", "{\"a\":1:2}", "{\"a\",1}", "{\"a\":1 \"b\":2}", "1 2", "{}{}", "[]x",
                    "tru", "truefalse", "True", "nul", "NaN", "Infinity", "-Infinity", "'a'", "var a = 1",
                    "/* a */ 1", "// a\n1", "# a\n1", "\f1", "\"", "\"a", "\"a\\\"", "\"\\", "\"a\nb\"",
                    "\"\t\"", "\"\\x\"", "\"\\'\"", "\"\\u12\"", "\"\\u123", "\"\\u12g4\"", "\"\\u-123\"",
                    "\"\\u0000\"", "\"\\ud83c\"", "\"\\ud83c\\u0041\"", "\"\\ud83cx\"", "\"\\ud83c\\",
                    "\"\\udfa5\"", "01", "-", "--1", "- 1", "+1", ".5", "1.", "1.e5", "1e", "1e+", "1e5.5",
                    "0x10", "1f", "1_000", "\"\xff\"", "\"\xc3\"", "\"\xed\xa0\x80\"", "\xef\xbb\xbf{}",
                    std::string("\"a\0b\"", 5), std::string("\0", 1)));

TEST(JsonText, EmptyTextIsRefused)
{
  EXPECT_FALSE(is_accepted(""));
  EXPECT_FALSE(is_accepted("   "));
}

TEST(JsonText, DepthIsBounded)
{
  EXPECT_TRUE(is_accepted(nested("[", "]", JSON_DEPTH_MAX)));
  EXPECT_FALSE(is_accepted(nested("[", "]", JSON_DEPTH_MAX + 1)));
  EXPECT_TRUE(is_accepted(repeat("{\"\":", JSON_DEPTH_MAX) + "0" + repeat("}", JSON_DEPTH_MAX)));
  EXPECT_FALSE(is_accepted(repeat("{\"\":", JSON_DEPTH_MAX + 1) + "0" + repeat("}", JSON_DEPTH_MAX + 1)));
}

TEST(JsonText, BracketsInStringsDoNotCount)
{
  EXPECT_TRUE(is_accepted("\"" + repeat("[", 1000000) + "\""));
  EXPECT_TRUE(is_accepted("\"" + repeat("\\\"[", 1000000) + "\""));
}

TEST(JsonText, AMillionBracketsAreRefused)
{
  EXPECT_FALSE(is_accepted(repeat("[", 1000000)));
  EXPECT_FALSE(is_accepted(repeat("{\"a\":", 1000000)));
  EXPECT_FALSE(is_accepted(nested("[", "]", 1000000)));
}

TEST(JsonText, ValuesAreBounded)
{
  EXPECT_TRUE(is_accepted(array_of(JSON_VALUES_MAX - 1)));
  EXPECT_FALSE(is_accepted(array_of(JSON_VALUES_MAX)));
}

TEST(JsonText, MembersOfEachObjectAreBounded)
{
  EXPECT_TRUE(is_accepted(object_of(JSON_MEMBERS_MAX)));
  EXPECT_FALSE(is_accepted(object_of(JSON_MEMBERS_MAX + 1)));
  EXPECT_TRUE(is_accepted("[" + object_of(JSON_MEMBERS_MAX) + "," + object_of(JSON_MEMBERS_MAX) + "]"));
}

TEST(JsonText, NumbersAreInTheRangeOfADoubleOrOf64Bits)
{
  for (const char *number :
       {"1e308", "-1.7976931348623157e308", "9223372036854775807", "-9223372036854775808",
        "9223372036854775808", "18446744073709551615", "18446744073709551616.0", "1e-400"}) {
    EXPECT_TRUE(is_accepted(number)) << number;
  }
  for (const char *number : {"1e309", "-1e309", "1e999", "-9223372036854775809", "18446744073709551616",
                             "123456789012345678901234567890"}) {
    EXPECT_FALSE(is_accepted(number)) << number;
    EXPECT_FALSE(is_accepted("{\"a\":[" + std::string(number) + "]}")) << number;
    EXPECT_TRUE(is_accepted("\"" + std::string(number) + "\"")) << number;
  }
}

TEST(JsonText, EscapesOfNamesAreChecked)
{
  EXPECT_TRUE(is_accepted("{\"\\u0061\":1}"));
  EXPECT_FALSE(is_accepted("{\"\\u0000\":1}"));
  EXPECT_FALSE(is_accepted("{\"\\ud83c\":1}"));
}

TEST(JsonText, EscapedBackslashBeginsNoEscape)
{
  EXPECT_TRUE(is_accepted("\"\\\\u0000\""));
  EXPECT_FALSE(is_accepted("\"\\\\\\u0000\""));
  EXPECT_FALSE(is_accepted("\"\\ud83c\\\\udfa5\""));
  EXPECT_FALSE(is_accepted("\"\\ud83c\\ue000\"")) << "not the second half of a pair";
}

} // namespace
