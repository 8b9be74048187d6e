/* SPDX-License-Identifier: MIT */
#include "requestcheck.h"

#include "testhost.h"

namespace
{

constexpr guint PORT = 8480;

class RequestCheckTest : public testhost::Fixture
{
};

} // namespace

TEST_F(RequestCheckTest, OwnHosts)
{
  for (const char *host : {"127.0.0.1:8480", "localhost:8480", "LocalHost:8480", "[::1]:8480"}) {
    EXPECT_TRUE(view::is_own_host(host, PORT)) << host;
  }
  EXPECT_TRUE(view::is_own_host("127.0.0.1", 80));
  EXPECT_TRUE(view::is_own_host("localhost:80", 80));
}

TEST_F(RequestCheckTest, OtherHosts)
{
  for (const char *host : {"", "127.0.0.1", "localhost", "127.0.0.1:80", "127.0.0.1:84800", "127.0.0.1:08480",
                           "evil.example:8480", "localhost.evil.example:8480", "127.0.0.1:8480.evil.example",
                           "127.0.0.1:8480, evil.example", " 127.0.0.1:8480", "127.0.0.2:8480", "::1:8480"}) {
    EXPECT_FALSE(view::is_own_host(host, PORT)) << host;
  }
  EXPECT_FALSE(view::is_own_host(nullptr, PORT));
}

TEST_F(RequestCheckTest, Origin)
{
  EXPECT_TRUE(view::is_own_origin("http://127.0.0.1:8480", "127.0.0.1:8480"));
  EXPECT_TRUE(view::is_own_origin("http://LOCALHOST:8480", "localhost:8480"));
  EXPECT_TRUE(view::is_own_origin("https://camera.example", "camera.example"));
  for (const char *origin :
       {"", "null", "127.0.0.1:8480", "http://", "http://127.0.0.1", "http://127.0.0.1:8480/",
        "http://localhost:8480", "http://evil.example", "ftp://127.0.0.1:8480"}) {
    EXPECT_FALSE(view::is_own_origin(origin, "127.0.0.1:8480")) << origin;
  }
  EXPECT_FALSE(view::is_own_origin(nullptr, "127.0.0.1:8480"));
  EXPECT_FALSE(view::is_own_origin("http://127.0.0.1:8480", nullptr));
}

TEST_F(RequestCheckTest, Site)
{
  EXPECT_TRUE(view::is_own_site(nullptr));
  EXPECT_TRUE(view::is_own_site("same-origin"));
  EXPECT_TRUE(view::is_own_site("none"));
  for (const char *site : {"", "same-site", "cross-site", "same-origin, cross-site", "SAME-ORIGIN"}) {
    EXPECT_FALSE(view::is_own_site(site)) << site;
  }
}

TEST_F(RequestCheckTest, Token)
{
  EXPECT_TRUE(view::is_authorized("Bearer abc", "abc"));
  EXPECT_TRUE(view::is_authorized("bearer abc", "abc"));
  for (const char *authorization :
       {"", "Bearer", "Bearer ", "Bearer ab", "Bearer abcd", "Bearer abC", "Bearer abd", "Bearer  abc",
        "Bearer abc ", "abc", "Basic abc", "Bearer abc, Bearer abc"}) {
    EXPECT_FALSE(view::is_authorized(authorization, "abc")) << authorization;
  }
  EXPECT_FALSE(view::is_authorized(nullptr, "abc"));
}

TEST_F(RequestCheckTest, NoTokenMatchesNothing)
{
  EXPECT_FALSE(view::is_authorized("Bearer ", ""));
  EXPECT_FALSE(view::is_authorized("", ""));
}

TEST_F(RequestCheckTest, NewTokensHave256Bits)
{
  std::set<std::string> tokens;
  for (int count = 0; count < 100; count++) {
    const std::string token = view::new_token();
    EXPECT_EQ(token.size(), 64U);
    EXPECT_EQ(token.find_first_not_of("0123456789abcdef"), token.npos) << token;
    tokens.insert(token);
  }
  EXPECT_EQ(tokens.size(), 100U);
}

TEST_F(RequestCheckTest, Channel)
{
  EXPECT_EQ(view::parse_channel("1"), 1U);
  EXPECT_EQ(view::parse_channel("0"), 0U);
  EXPECT_EQ(view::parse_channel("2147483647"), 2147483647U);
  for (const char *text :
       {"", " 1", "\v1", "1 ", "+1", "-1", "1.0", "0x1", "2147483648", "99999999999999999999", "a"}) {
    EXPECT_EQ(view::parse_channel(text), std::nullopt) << text;
  }
  EXPECT_EQ(view::parse_channel(nullptr), std::nullopt);
}
