/* SPDX-License-Identifier: MIT */
#include "switchrequest.h"

#include "testhost.h"

namespace
{

class SwitchRequestTest : public testhost::Fixture
{
protected:
  static std::string message_of(const std::string &body)
  {
    g_autoptr(GError) error = nullptr;
    EXPECT_FALSE(view::parse_switch_request(body, &error).has_value()) << body;
    return error != nullptr ? error->message : "no error";
  }
};

} // namespace

TEST_F(SwitchRequestTest, AllMembers)
{
  const auto request = view::parse_switch_request(
      R"( {"producer":"Video\u004dotion","channel":2,"enabled":true,"configuration":"profile 1"} )", nullptr);
  ASSERT_TRUE(request.has_value());
  EXPECT_EQ(request->producer, "VideoMotion");
  EXPECT_EQ(request->channel, 2);
  EXPECT_TRUE(request->enabled);
  EXPECT_EQ(request->configuration, "profile 1");
}

TEST_F(SwitchRequestTest, MembersInAnyOrderWithoutAConfiguration)
{
  const auto request =
      view::parse_switch_request(R"({"enabled":false,"channel":-1,"producer":"A"})", nullptr);
  ASSERT_TRUE(request.has_value());
  EXPECT_EQ(request->producer, "A");
  EXPECT_EQ(request->channel, -1);
  EXPECT_FALSE(request->enabled);
  EXPECT_EQ(request->configuration, "");
}

TEST_F(SwitchRequestTest, NoJson)
{
  for (const char *body :
       {"", "x", "[]", "null", "{", R"({"producer")", R"({"producer":})", R"({"producer":"A",})",
        R"({"producer":"A"}})", R"({"producer":1,"channel":1,"enabled":true})",
        R"({"producer":"A","channel":"1","enabled":true})", R"({"producer":"A","channel":1,"enabled":1})",
        R"({"producer":"A","channel":1.5,"enabled":true})",
        R"({"producer":"A","channel":99999999999,"enabled":true})",
        "{\"producer\":\"A\xff\",\"channel\":1,\"enabled\":true}"}) {
    EXPECT_NE(message_of(body).find("line 1, column "), std::string::npos) << body;
  }
  EXPECT_NE(message_of(std::string("{}\0", 3)).find("line 1, column 3"), std::string::npos);
}

TEST_F(SwitchRequestTest, MissingMembers)
{
  EXPECT_EQ(message_of("{}"), "The request has no member 'producer'.");
  EXPECT_EQ(message_of(R"({"producer":"A","enabled":true})"), "The request has no member 'channel'.");
  EXPECT_EQ(message_of(R"({"producer":"A","channel":1})"), "The request has no member 'enabled'.");
}

TEST_F(SwitchRequestTest, MembersThatAreTooMany)
{
  EXPECT_EQ(message_of(R"({"producer":"A","other":1})"), "line 1, column 17: there is no member 'other'");
  EXPECT_EQ(message_of(R"({"producer":"A","producer":"B"})"),
            "line 1, column 17: the member 'producer' comes again");
}

TEST_F(SwitchRequestTest, NamesThatFitNoProducer)
{
  EXPECT_EQ(message_of(R"({"producer":"","channel":1,"enabled":true})"),
            "The name of the producer is empty.");
  EXPECT_EQ(message_of(R"({"producer":"A","channel":1,"enabled":true,"configuration":"a\"b"})"),
            "The configuration contains a quotation mark, which would make the producer's frames malformed.");
}
