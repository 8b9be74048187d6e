/* SPDX-License-Identifier: MIT */
#include "rtspoptions.h"

#include "metadataclient.h"
#include "rtsplimits.h"
#include "testhost.h"

namespace
{

using Arguments = std::vector<std::string>;

/* The domain's name and the message of the error; empty without an error. */
std::string
parse(rtsp::Options *options, Arguments arguments)
{
  arguments.insert(arguments.begin(), "tessard-rtsp");
  std::vector<char *> texts;
  for (std::string &argument : arguments)
    texts.push_back(argument.data());
  texts.push_back(nullptr);
  int count = static_cast<int>(arguments.size());
  char **values = texts.data();
  g_autoptr(GError) error = nullptr;
  const bool is_right = rtsp::parse_options(options, &count, &values, &error);
  EXPECT_EQ(is_right, error == nullptr);
  if (error == nullptr)
    return "";
  EXPECT_EQ(error->domain, G_OPTION_ERROR);
  return error->message;
}

std::string
message_of(const Arguments &arguments)
{
  rtsp::Options options;
  return parse(&options, arguments);
}

struct Refusal {
  const char *name;
  Arguments arguments;
  const char *message;
};

std::ostream &
operator<<(std::ostream &stream, const Refusal &refusal)
{
  return stream << refusal.name;
}

class RtspOptionsTest : public testhost::Fixture
{
};

class RtspOptionsRefusalTest : public RtspOptionsTest, public testing::WithParamInterface<Refusal>
{
};

} // namespace

TEST_F(RtspOptionsTest, HasDefaults)
{
  rtsp::Options options;
  ASSERT_EQ(parse(&options, {"--event"}), "");

  EXPECT_STREQ(options.socket_path, metadata_client_get_default_socket());
  EXPECT_STREQ(options.address, "127.0.0.1");
  EXPECT_EQ(options.port, 8554);
  EXPECT_EQ(options.channels, 1);
  EXPECT_EQ(options.ttl, 1);
  EXPECT_EQ(options.videos, nullptr);
  EXPECT_EQ(options.users, nullptr);
  EXPECT_EQ(options.certificate, nullptr);
  EXPECT_EQ(options.multicast, nullptr);
  EXPECT_FALSE(options.no_video);
  EXPECT_FALSE(options.gzip);
  EXPECT_FALSE(options.no_authentication);
}

TEST_F(RtspOptionsTest, TakesValues)
{
  rtsp::Options options;
  ASSERT_EQ(parse(&options, {"--analytics", "2",           "--socket",  "/s",    "--port",  "0",
                             "--channels",  "64",          "--video",   "a",     "--video", "b",
                             "--gzip",      "--multicast", "239.0.0.1", "--ttl", "255",     "--certificate",
                             "c",           "--key",       "k"}),
            "");

  EXPECT_STREQ(options.request.analytics, "2");
  EXPECT_STREQ(options.socket_path, "/s");
  EXPECT_EQ(options.port, 0);
  EXPECT_EQ(options.channels, RTSP_CHANNELS_MAX);
  ASSERT_EQ(g_strv_length(options.videos), 2U);
  EXPECT_STREQ(options.videos[1], "b");
  EXPECT_TRUE(options.gzip);
  EXPECT_STREQ(options.multicast, "239.0.0.1");
  EXPECT_EQ(options.ttl, 255);
  EXPECT_STREQ(options.certificate, "c");
  EXPECT_STREQ(options.key, "k");
}

TEST_F(RtspOptionsTest, PrintsTheVersionWithoutARequest)
{
  rtsp::Options options;
  EXPECT_EQ(parse(&options, {"--version"}), "");
  EXPECT_TRUE(options.version);
}

TEST_F(RtspOptionsTest, EveryKindIsARequest)
{
  for (const Arguments &kind : {Arguments{"--event"},
                                {"--event-topic", "a"},
                                {"--event-content", "a"},
                                {"--analytics", "1"},
                                {"--ptz", "1"}})
    EXPECT_EQ(message_of(kind), "") << kind.front();
}

TEST_F(RtspOptionsTest, AddressesOfThisMachineNeedNoPassword)
{
  for (const char *address : {"127.0.0.1", "127.1.2.3", "::1"})
    EXPECT_EQ(message_of({"--event", "--address", address}), "") << address;
}

TEST_F(RtspOptionsTest, OtherAddressesNeedASecondOption)
{
  for (const char *address : {"0.0.0.0", "192.0.2.1", "::", "2001:db8::1", "128.0.0.1"}) {
    EXPECT_EQ(message_of({"--event", "--address", address}),
              "An address other than 127.0.0.1 needs --users, or --no-authentication.")
        << address;
    EXPECT_EQ(message_of({"--event", "--address", address, "--users", "f"}), "") << address;
    EXPECT_EQ(message_of({"--event", "--address", address, "--no-authentication"}), "") << address;
  }
}

TEST_F(RtspOptionsTest, NoAuthenticationAloneChangesNoAddress)
{
  rtsp::Options options;
  ASSERT_EQ(parse(&options, {"--event", "--no-authentication"}), "");
  EXPECT_STREQ(options.address, "127.0.0.1");
}

TEST_P(RtspOptionsRefusalTest, NamesTheFault)
{
  EXPECT_EQ(message_of(GetParam().arguments), GetParam().message);
}

INSTANTIATE_TEST_SUITE_P(
    , RtspOptionsRefusalTest,
    testing::Values(
        Refusal{"unknown", {"--event", "--other"}, "Unknown option --other"},
        Refusal{"argument", {"--event", "other"}, "Too many arguments."},
        Refusal{"no_kind", {}, "No kind of metadata is asked for."},
        Refusal{"no_kind_but_space", {"--zoom-space", "1"}, "No kind of metadata is asked for."},
        Refusal{"empty_kind", {"--analytics", ""}, "The value of --analytics is empty."},
        Refusal{"two_lines", {"--ptz", "1\nevent=1"}, "The value of --ptz has more than one line."},
        Refusal{"port_below", {"--event", "--port", "-1"}, "The value of --port is not from 0 to 65535."},
        Refusal{"port_above", {"--event", "--port", "65536"}, "The value of --port is not from 0 to 65535."},
        Refusal{
            "channels_below", {"--event", "--channels", "0"}, "The value of --channels is not from 1 to 64."},
        Refusal{"channels_above",
                {"--event", "--channels", "65"},
                "The value of --channels is not from 1 to 64."},
        Refusal{"ttl_below", {"--event", "--ttl", "-1"}, "The value of --ttl is not from 0 to 255."},
        Refusal{"ttl_above", {"--event", "--ttl", "256"}, "The value of --ttl is not from 0 to 255."},
        Refusal{
            "no_number", {"--event", "--port", "x"}, "Cannot parse integer value \u201cx\u201d for --port"},
        Refusal{"host",
                {"--event", "--address", "localhost"},
                "The value of --address is not a numeric address."},
        Refusal{"empty_address",
                {"--event", "--address", ""},
                "The value of --address is not a numeric address."},
        Refusal{"video_and_none",
                {"--event", "--video", "a", "--no-video"},
                "--video and --no-video exclude each other."},
        Refusal{"users_and_none",
                {"--event", "--users", "f", "--no-authentication"},
                "--users and --no-authentication exclude each other."},
        Refusal{"certificate", {"--event", "--certificate", "f"}, "--certificate and --key need each other."},
        Refusal{"key", {"--event", "--key", "f"}, "--certificate and --key need each other."}),
    [](const auto &test) { return test.param.name; });
