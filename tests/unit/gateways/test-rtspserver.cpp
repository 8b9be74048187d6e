/* SPDX-License-Identifier: MIT */
#include "rtspserver.h"

#include "rtspoptions.h"
#include "tessardsrc.h"
#include "testhost.h"

#include <fstream>

namespace
{

constexpr const char *USER = "anna:tessard:0123456789abcdef0123456789abcdef\n";

/* An address of a network that does not exist. */
constexpr const char *ELSEWHERE = "192.0.2.1";

class RtspServerTest : public testhost::Fixture
{
protected:
  void SetUp() override
  {
    testhost::Fixture::SetUp();
    gst_element_register(nullptr, "tessardsrc", GST_RANK_NONE, TESSARD_TYPE_SRC);
    options_.request.event = TRUE;
    options_.socket_path = g_strdup(path("metadata").c_str());
    options_.port = 0;
    set(&options_.address, "127.0.0.1");
    options_.no_video = TRUE;
  }

  static void set(gchar **option, const std::string &text)
  {
    g_free(*option);
    *option = g_strdup(text.c_str());
  }

  std::string write(const std::string &name, const std::string &text)
  {
    std::ofstream(path(name)) << text;
    return path(name);
  }

  /* The message of the error of set_up(); empty without one. */
  std::string set_up()
  {
    rtsp::Server server;
    g_autoptr(GError) error = nullptr;
    const bool is_set_up = server.set_up(options_, &error);
    EXPECT_EQ(is_set_up, error == nullptr);
    return error != nullptr ? error->message : "";
  }

  rtsp::Options options_;
};

} // namespace

TEST_F(RtspServerTest, ListensAtItsAddress)
{
  rtsp::Server server;
  g_autoptr(GError) error = nullptr;
  ASSERT_TRUE(server.set_up(options_, &error)) << error->message;
  ASSERT_TRUE(server.listen(&error)) << error->message;
  EXPECT_TRUE(server.address().starts_with("rtsp://127.0.0.1:")) << server.address();
  EXPECT_TRUE(server.address().ends_with("/")) << server.address();
  EXPECT_EQ(server.address().find(":0/"), std::string::npos) << server.address();
}

TEST_F(RtspServerTest, PortCanBeInUse)
{
  rtsp::Server first;
  rtsp::Server second;
  g_autoptr(GError) error = nullptr;
  ASSERT_TRUE(first.set_up(options_, &error) && first.listen(&error)) << error->message;
  options_.port = std::stoi(first.address().substr(first.address().rfind(':') + 1));
  ASSERT_TRUE(second.set_up(options_, &error)) << error->message;
  EXPECT_FALSE(second.listen(&error));
  ASSERT_NE(error, nullptr);
  EXPECT_TRUE(g_error_matches(error, G_IO_ERROR, G_IO_ERROR_ADDRESS_IN_USE)) << error->message;
}

TEST_F(RtspServerTest, AddressMustBeOfThisMachine)
{
  set(&options_.address, ELSEWHERE);
  options_.port = 8554;
  rtsp::Server server;
  g_autoptr(GError) error = nullptr;
  ASSERT_TRUE(server.set_up(options_, &error)) << error->message;
  EXPECT_FALSE(server.listen(&error));
  ASSERT_NE(error, nullptr);
  EXPECT_STREQ(error->message, "Error binding to address 192.0.2.1:8554: Cannot assign requested address");
}

TEST_F(RtspServerTest, TakesTheOptions)
{
  set(&options_.users, write("users", USER));
  set(&options_.multicast, "239.255.1.1-239.255.1.9");
  set(&options_.address, "0.0.0.0");
  options_.channels = 3;
  options_.gzip = TRUE;
  EXPECT_EQ(set_up(), "");
  set(&options_.multicast, "239.255.1.1");
  EXPECT_EQ(set_up(), "");
}

TEST_F(RtspServerTest, RefusesUsersThatCannotBeRead)
{
  set(&options_.users, path("users"));
  EXPECT_EQ(set_up(), "Could not read the users of '" + path("users") + "': No such file or directory.");
}

TEST_F(RtspServerTest, RefusesACertificateThatCannotBeRead)
{
  set(&options_.certificate, write("certificate", "no certificate"));
  set(&options_.key, path("key"));
  EXPECT_EQ(set_up(), "Failed to open file \u201c" + path("key") + "\u201d: No such file or directory");
  write("key", "no key");
  EXPECT_EQ(set_up(), "No PEM-encoded private key found");
}

TEST_F(RtspServerTest, RefusesGroupsThatAreNone)
{
  for (const char *group :
       {"", "a", "127.0.0.1", "239.255.1.2-239.255.1.1", "239.255.1.1-", "239.255.1.1-::1"}) {
    set(&options_.multicast, group);
    EXPECT_EQ(set_up(),
              std::string("The value of --multicast is '") + group + "', not a group or a range of groups.");
  }
}

TEST_F(RtspServerTest, RefusesAVideoThatIsNone)
{
  options_.no_video = FALSE;
  options_.videos = g_strdupv(
      const_cast<gchar **>(std::array<const gchar *, 3>{"videotestsrc", "nosuchelement", nullptr}.data()));
  EXPECT_EQ(set_up(), "");
  options_.channels = 2;
  EXPECT_EQ(set_up(), "no element \"nosuchelement\"");
}

TEST_F(RtspServerTest, RefusesAnUnknownValue)
{
  set(&options_.request.ptz, "all");
  EXPECT_EQ(set_up(), "There is no value ptz=all.");
}
