/* SPDX-License-Identifier: MIT */
#include "viewoptions.h"

#include "testhost.h"

namespace
{

class ViewOptionsTest : public testhost::Fixture
{
protected:
  bool parse(std::vector<std::string> words)
  {
    words.insert(words.begin(), "tessard-view");
    std::vector<char *> arguments;
    for (std::string &word : words) {
      arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    int argc = static_cast<int>(words.size());
    char **argv = arguments.data();
    g_clear_error(&error);
    return view::parse_options(&options, &argc, &argv, &error);
  }

  void expect_refused(const std::vector<std::string> &words, const char *message)
  {
    EXPECT_FALSE(parse(words));
    EXPECT_STREQ(error != nullptr ? error->message : nullptr, message);
  }

  ~ViewOptionsTest() override
  {
    g_clear_error(&error);
  }

  view::Options options;
  GError *error = nullptr;
};

} // namespace

TEST_F(ViewOptionsTest, DefaultsShowAllKinds)
{
  ASSERT_TRUE(parse({}));
  EXPECT_EQ(options.port, 8480);
  EXPECT_EQ(options.channels, 1);
  EXPECT_NE(options.socket_path, nullptr);
  EXPECT_FALSE(options.control);
  EXPECT_TRUE(options.request.event);
  EXPECT_STREQ(options.request.analytics, "2");
  EXPECT_STREQ(options.request.ptz, "1");
}

TEST_F(ViewOptionsTest, OneKindIsAlone)
{
  ASSERT_TRUE(parse({"--ptz", "2"}));
  EXPECT_FALSE(options.request.event);
  EXPECT_EQ(options.request.analytics, nullptr);
  EXPECT_STREQ(options.request.ptz, "2");
}

TEST_F(ViewOptionsTest, AllOptions)
{
  ASSERT_TRUE(parse({"--socket", "/s", "--bus", "unix:path=/b", "--port", "0", "--channels", "2", "--video",
                     "a", "--video", "b", "--control"}));
  EXPECT_STREQ(options.socket_path, "/s");
  EXPECT_STREQ(options.bus_address, "unix:path=/b");
  EXPECT_EQ(options.port, 0);
  EXPECT_EQ(options.channels, 2);
  EXPECT_EQ(g_strv_length(options.videos), 2U);
  EXPECT_TRUE(options.control);
}

TEST_F(ViewOptionsTest, NothingIsCheckedForTheVersion)
{
  EXPECT_TRUE(parse({"--version", "--port", "-5"}));
}

TEST_F(ViewOptionsTest, WrongNumbers)
{
  for (const char *port : {"-1", "65536", "-2147483647"}) {
    expect_refused({"--port", port}, "The value of --port is not from 0 to 65535.");
  }
  options.port = 1;
  for (const char *channels : {"0", "-1", "65"}) {
    expect_refused({"--port", "1", "--channels", channels}, "The value of --channels is not from 1 to 64.");
  }
}

TEST_F(ViewOptionsTest, WrongCombinations)
{
  expect_refused({"word"}, "Too many arguments.");
  expect_refused({"--listen", "/l", "--port", "1"}, "--port and --listen exclude each other.");
}

TEST_F(ViewOptionsTest, MoreVideosThanChannels)
{
  expect_refused({"--video", "a", "--video", "b"}, "There are more videos than channels.");
}
