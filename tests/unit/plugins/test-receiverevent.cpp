/* SPDX-License-Identifier: MIT */
#include "receiverevent.h"

#include "hostiletext.h"

#include <gtest/gtest.h>

using plugins::ReceiverMessage;
using Kind = plugins::ReceiverMessage::Kind;

namespace
{

std::optional<ReceiverMessage>
parse(std::string text)
{
  simdjson::dom::parser parser;
  const gsize size = text.size();
  text.resize(size + simdjson::SIMDJSON_PADDING);
  return plugins::receiver_message_parse(&parser, {text.data(), size});
}

std::string
replaced(std::string text, std::string_view what, std::string_view with)
{
  const gsize at = text.find(what);
  EXPECT_NE(at, text.npos) << what;
  return text.replace(at, what.size(), with);
}

const std::string PROPERTY =
    R"({"Topic":"tns1:VideoSource/acme:Alarm","Namespaces":{"acme":"urn:acme"},"Property":true,)"
    R"("Operation":"Changed","UtcTime":"2023-11-14T22:13:20.123456Z","Source":[["Source","1"],["Rule","a"]],)"
    R"("Data":[["State","\"<&\n"]]})";

TEST(ReceiverEventTest, ReadsAnEvent)
{
  const std::optional<ReceiverMessage> message = parse(PROPERTY);

  ASSERT_TRUE(message.has_value());
  EXPECT_EQ(message->kind, Kind::EVENT);
  const onvif::EventMessage &event = message->event->message;
  EXPECT_EQ(event.topic, "tns1:VideoSource/acme:Alarm");
  EXPECT_EQ(event.operation, "Changed");
  EXPECT_EQ(event.utc, 1700000000123456);
  ASSERT_EQ(event.source.size(), 2U);
  EXPECT_EQ(event.source[1].name, "Rule");
  EXPECT_EQ(event.source[1].value, "a");
  ASSERT_EQ(event.data.size(), 1U);
  EXPECT_EQ(event.data[0].value, "\"<&\n");
  EXPECT_EQ(message->event->namespaces, (std::map<std::string, std::string>{{"acme", "urn:acme"}}));
}

TEST(ReceiverEventTest, AnEventWithoutStateHasNoProperty)
{
  std::string text = replaced(PROPERTY, R"("Property":true)", R"("Property":false)");
  EXPECT_FALSE(parse(text).has_value());
  const std::optional<ReceiverMessage> message = parse(replaced(text, "Changed", ""));

  ASSERT_TRUE(message.has_value());
  EXPECT_EQ(message->event->property, "");
  EXPECT_NE(parse(PROPERTY)->event->property, "");
}

TEST(ReceiverEventTest, APropertyIsATopicWithASource)
{
  const auto property = [](const std::string &text) { return parse(text)->event->property; };

  EXPECT_EQ(property(PROPERTY), property(replaced(PROPERTY, "\\\"<&\\n", "other")));
  EXPECT_NE(property(PROPERTY), property(replaced(PROPERTY, R"("Rule","a")", R"("Rule","b")")));
  EXPECT_NE(property(PROPERTY), property(replaced(PROPERTY, "VideoSource", "AudioSource")));
  EXPECT_NE(property(PROPERTY), property(replaced(PROPERTY, R"(["Source","1"],)", "")));
}

TEST(ReceiverEventTest, ReadsMarks)
{
  EXPECT_EQ(parse(R"({"Current":true})")->kind, Kind::CURRENT);
  EXPECT_EQ(parse(R"({"Resync":true})")->kind, Kind::RESYNC);
  EXPECT_FALSE(parse(R"({"Current":false})").has_value());
  EXPECT_FALSE(parse(R"({"Resync":1})").has_value());
}

TEST(ReceiverEventTest, IgnoresOtherMembers)
{
  EXPECT_TRUE(parse(replaced(PROPERTY, "{", R"({"More":[1,{"x":null}],)")).has_value());
}

TEST(ReceiverEventTest, RefusesLongMessages)
{
  const gsize rest = PROPERTY.size() - 1;
  const std::string longest(plugins::RECEIVER_EVENT_MAX_BYTES - rest, 'x');

  EXPECT_TRUE(parse(replaced(PROPERTY, R"("1")", "\"" + longest + "\"")).has_value());
  EXPECT_FALSE(parse(replaced(PROPERTY, R"("1")", "\"" + longest + "x\"")).has_value());
}

class Malformed : public testing::TestWithParam<HostileText>
{
};

TEST_P(Malformed, IsRefused)
{
  EXPECT_FALSE(parse(GetParam().text).has_value());
}

INSTANTIATE_TEST_SUITE_P(Text, Malformed,
                         testing::Values<HostileText>("", " ", "{}", "[]", "null", "true", "{", "\xff",
                                                      R"({"Current":true)",
                                                      R"({"Current":true,"Resync":true})",
                                                      repeat("[", 10000)));

INSTANTIATE_TEST_SUITE_P(
    Member, Malformed,
    testing::Values<HostileText>(
        replaced(PROPERTY, "tns1:VideoSource", "VideoSource"),
        replaced(PROPERTY, "VideoSource/", "VideoSource//"),
        replaced(PROPERTY, "VideoSource/", "Video Source/"), replaced(PROPERTY, "\"Topic\"", "\"Topics\""),
        replaced(PROPERTY, R"("tns1:VideoSource/acme:Alarm")", "7"),
        replaced(PROPERTY, R"({"acme":"urn:acme"})", "{}"),
        replaced(PROPERTY, R"({"acme":"urn:acme"})", "[]"), replaced(PROPERTY, "urn:acme", ""),
        replaced(PROPERTY, "\"urn:acme\"", "1"), replaced(PROPERTY, R"({"acme")", R"({"tt":"urn:x","acme")"),
        replaced(PROPERTY, R"({"acme")", R"({"a b":"urn:x","acme")"),
        replaced(PROPERTY, R"({"acme")", R"({"x\" y=\"":"urn:x","acme")"),
        replaced(PROPERTY, R"({"acme")", R"({"acme":"urn:x","acme")"), replaced(PROPERTY, "true", "\"true\""),
        replaced(PROPERTY, "Changed", "Removed"), replaced(PROPERTY, "Changed", ""),
        replaced(PROPERTY, "2023-", "23-"), replaced(PROPERTY, "2023-", "2123-"),
        replaced(PROPERTY, "\"2023-11-14T22:13:20.123456Z\"", "1"),
        replaced(PROPERTY, R"(["Source","1"],)", R"(["Source"],)"),
        replaced(PROPERTY, R"(["Source","1"],)", R"(["Source","1","2"],)"),
        replaced(PROPERTY, R"(["Source","1"],)", R"({"Source":"1"},)"),
        replaced(PROPERTY, R"("Rule","a")", R"("Rule",1)"), replaced(PROPERTY, "\"Data\"", "\"data\""),
        replaced(PROPERTY, R"("1")", R"("\u0000")"), replaced(PROPERTY, R"("1")", R"("\ud800")")));

} // namespace
