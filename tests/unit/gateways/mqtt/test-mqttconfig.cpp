/* SPDX-License-Identifier: MIT */
#include "mqttconfig.h"

#include "mqttlimits.h"
#include "testhost.h"

#include <fstream>

namespace
{

using mqtt::Config;

class MqttConfigTest : public testhost::Fixture
{
protected:
  void parse(const std::string &text)
  {
    g_autoptr(GError) error = nullptr;
    EXPECT_TRUE(mqtt::parse_config(text, &config_, &error)) << text << ": " << error->message;
  }

  std::string write(const std::string &name, const std::string &text)
  {
    std::ofstream(path(name), std::ios::binary) << text;
    return path(name);
  }

  Config config_;
};

std::string
error_of(const std::string &text)
{
  Config config;
  g_autoptr(GError) error = nullptr;
  EXPECT_FALSE(mqtt::parse_config(text, &config, &error)) << text;
  return error == nullptr ? "" : error->message;
}

TEST_F(MqttConfigTest, HasADefaultForEverything)
{
  parse("");
  EXPECT_EQ(config_.broker.address, "mqtt://127.0.0.1:1883");
  EXPECT_EQ(config_.broker.host, "127.0.0.1");
  EXPECT_EQ(config_.broker.port, 1883);
  EXPECT_FALSE(config_.broker.is_tls);
  EXPECT_EQ(config_.broker.keepalive, 30);
  EXPECT_EQ(config_.broker.qos, 1);
  EXPECT_EQ(config_.prefix, std::string("tessard-") + g_get_host_name());
  EXPECT_EQ(config_.broker.client_id, config_.prefix);
  EXPECT_TRUE(config_.publishes_events);
  EXPECT_TRUE(config_.events.event);
  EXPECT_EQ(config_.events.event_topic, nullptr);
  EXPECT_EQ(config_.events.event_content, nullptr);
  EXPECT_TRUE(config_.publishes_metadata);
  EXPECT_STREQ(config_.metadata.analytics, "2");
  EXPECT_STREQ(config_.metadata.ptz, "1");
  EXPECT_EQ(config_.metadata.pantilt_space, nullptr);
  EXPECT_FALSE(config_.metadata.event);
  ASSERT_EQ(config_.channels.size(), 1u);
  EXPECT_EQ(config_.channels[0].number, 1u);
  EXPECT_EQ(config_.channels[0].profile, "1");
  EXPECT_EQ(config_.channels[0].ptz_configuration, "1");
  EXPECT_EQ(config_.max_frame_rate, 0);
}

TEST_F(MqttConfigTest, ReadsTheBroker)
{
  parse("[Broker]\naddress=mqtts://broker.example:1234\nclient-id=c\nuser=u\npassword=p\nca-file=/ca\n"
        "certificate=/crt\nkey=/key\nkeepalive=5\nqos=2\n");
  EXPECT_EQ(config_.broker.address, "mqtts://broker.example:1234");
  EXPECT_EQ(config_.broker.host, "broker.example");
  EXPECT_EQ(config_.broker.port, 1234);
  EXPECT_TRUE(config_.broker.is_tls);
  EXPECT_EQ(config_.broker.client_id, "c");
  EXPECT_EQ(config_.broker.user, "u");
  EXPECT_EQ(config_.broker.password, "p");
  EXPECT_EQ(config_.broker.ca_file, "/ca");
  EXPECT_EQ(config_.broker.certificate, "/crt");
  EXPECT_EQ(config_.broker.key, "/key");
  EXPECT_EQ(config_.broker.keepalive, 5);
  EXPECT_EQ(config_.broker.qos, 2);
}

TEST_F(MqttConfigTest, KnowsTheDefaultPorts)
{
  parse("[Broker]\naddress=mqtt://[::1]\n");
  EXPECT_EQ(config_.broker.host, "::1");
  EXPECT_EQ(config_.broker.port, 1883);
  Config other;
  EXPECT_TRUE(mqtt::parse_config("[Broker]\naddress=mqtts://h\n", &other, nullptr));
  EXPECT_EQ(other.broker.port, 8883);
}

TEST_F(MqttConfigTest, TakesAnEmptyTextAsNone)
{
  parse("[Broker]\nuser=\npassword=\nca-file=\n[Events]\nfilter=\n");
  EXPECT_EQ(config_.broker.user, "");
  EXPECT_EQ(config_.events.event_topic, nullptr);
  EXPECT_EQ(config_.broker.client_id, config_.prefix);
}

TEST_F(MqttConfigTest, ReadsTopicsAndChannels)
{
  parse("[Topics]\nprefix=site/a\nprofiles=main;side\nptz-configurations=p1;p2;\n[Metadata]\nchannels=3;1\n");
  EXPECT_EQ(config_.prefix, "site/a");
  EXPECT_EQ(config_.broker.client_id, "site/a");
  ASSERT_EQ(config_.channels.size(), 2u);
  EXPECT_EQ(config_.channels[0].number, 3u);
  EXPECT_EQ(config_.channels[0].profile, "main");
  EXPECT_EQ(config_.channels[0].ptz_configuration, "p1");
  EXPECT_EQ(config_.channels[1].number, 1u);
  EXPECT_EQ(config_.channels[1].profile, "side");
  EXPECT_EQ(config_.channels[1].ptz_configuration, "p2");
}

TEST_F(MqttConfigTest, NamesAChannelByItsNumber)
{
  parse("[Metadata]\nchannels=3;1\n");
  ASSERT_EQ(config_.channels.size(), 2u);
  EXPECT_EQ(config_.channels[0].profile, "3");
  EXPECT_EQ(config_.channels[1].ptz_configuration, "1");
}

TEST_F(MqttConfigTest, ReadsWhatToPublish)
{
  parse("[Events]\nfilter=tns1:VideoSource//.\ncontent-filter=boolean(//x)\n"
        "[Metadata]\nanalytics=1\nptz=3\npantilt-space=0\nzoom-space=2\nfilter=PTZ;VideoAnalytics/1\n"
        "max-frame-rate=0.5\n");
  EXPECT_STREQ(config_.events.event_topic, "tns1:VideoSource//.");
  EXPECT_STREQ(config_.events.event_content, "boolean(//x)");
  EXPECT_STREQ(config_.metadata.analytics, "1");
  EXPECT_STREQ(config_.metadata.ptz, "3");
  EXPECT_STREQ(config_.metadata.pantilt_space, "0");
  EXPECT_STREQ(config_.metadata.zoom_space, "2");
  EXPECT_TRUE(config_.filter.selects("PTZ/1/1"));
  EXPECT_FALSE(config_.filter.selects("VideoAnalytics/2/a"));
  EXPECT_EQ(config_.max_frame_rate, 0.5);
}

TEST_F(MqttConfigTest, CanLeaveAPartOut)
{
  parse("[Events]\npublish=false\n");
  EXPECT_FALSE(config_.publishes_events);
  EXPECT_TRUE(config_.publishes_metadata);
  Config metadata;
  EXPECT_TRUE(mqtt::parse_config("[Metadata]\nanalytics=0\nptz=0\n", &metadata, nullptr));
  EXPECT_FALSE(metadata.publishes_metadata);
}

TEST_F(MqttConfigTest, NamesWhatItDoesNotKnow)
{
  EXPECT_EQ(error_of("[Brocker]\nqos=1\n"), "There is no group Brocker.");
  EXPECT_EQ(error_of("[Broker]\nadress=x\n"), "There is no key adress in the group Broker.");
  EXPECT_EQ(error_of("[Broker]\nprefix=x\n"), "There is no key prefix in the group Broker.");
  EXPECT_EQ(error_of("[Broker]\nuser[de]=x\n"), "There is no key user[de] in the group Broker.");
}

TEST_F(MqttConfigTest, NamesTheKeyOfAWrongValue)
{
  EXPECT_EQ(error_of("[Broker]\nqos=3\n"), "qos in the group Broker: The value is not a number from 0 to 2.");
  EXPECT_EQ(error_of("[Broker]\nkeepalive=4\n"),
            "keepalive in the group Broker: The value is not a number from 5 to 3600.");
  EXPECT_EQ(error_of("[Events]\npublish=maybe\n"),
            "publish in the group Events: The value is neither true nor false.");
  EXPECT_EQ(error_of("[Topics]\nprefix=a/#\n"),
            "prefix in the group Topics: The prefix has a character that is not allowed.");
  EXPECT_EQ(error_of("[Topics]\nprefix=\n"), "prefix in the group Topics: The prefix is empty.");
  EXPECT_EQ(error_of("[Metadata]\nanalytics=3\n"),
            "analytics in the group Metadata: The value is not a number from 0 to 2.");
  EXPECT_EQ(error_of("[Metadata]\nptz=1x\n"),
            "ptz in the group Metadata: The value is not a number from 0 to 3.");
  EXPECT_EQ(error_of("[Metadata]\nfilter=a//b\n"),
            "filter in the group Metadata: \"a//b\" is not KIND, KIND/PROFILE or KIND/PROFILE/MODULE.");
}

TEST_F(MqttConfigTest, RefusesOtherAddresses)
{
  for (const char *address :
       {"", "broker", "http://a", "mqtt://", "mqtt://a:0", "mqtt://a:65536", "mqtt://u@a", "mqtt://a/x",
        "mqtt://a?b", "mqtt://a#b", "mqtt://a b", "mqtt://a\\nb"}) {
    EXPECT_EQ(error_of(std::string("[Broker]\naddress=") + address + "\n"),
              "address in the group Broker: The value is neither mqtt://HOST[:PORT] nor mqtts://HOST[:PORT].")
        << address;
  }
}

TEST_F(MqttConfigTest, RefusesOtherRates)
{
  for (const char *rate : {"0", "-1", "nan", "inf", "1001", "x"}) {
    EXPECT_EQ(error_of(std::string("[Metadata]\nmax-frame-rate=") + rate + "\n"),
              "max-frame-rate in the group Metadata: The value is not a number above 0 and up to 1000.")
        << rate;
  }
}

TEST_F(MqttConfigTest, RefusesOtherChannels)
{
  for (const char *channels : {"0", "-1", "a", "1;;2", "4294967297"}) {
    EXPECT_EQ(error_of(std::string("[Metadata]\nchannels=") + channels + "\n"),
              "channels in the group Metadata: The value is not a list of channels with ; between them.")
        << channels;
  }
  std::string many;
  for (int i = 1; i <= MQTT_CHANNELS_MAX + 1; i++) {
    many += std::to_string(i) + ";";
  }
  EXPECT_EQ(error_of("[Metadata]\nchannels=" + many + "\n"),
            "channels in the group Metadata: The number of channels is not from 1 to 64.");
  EXPECT_EQ(error_of("[Metadata]\nchannels=\n"),
            "channels in the group Metadata: The number of channels is not from 1 to 64.");
}

TEST_F(MqttConfigTest, RefusesNamesThatDoNotFitTheChannels)
{
  EXPECT_EQ(error_of("[Topics]\nprofiles=a;b\n"),
            "The group Topics does not have one name for each channel.");
  EXPECT_EQ(error_of("[Metadata]\nchannels=1;2\n[Topics]\nprofiles=a;a\n"),
            "A channel or a profile is given twice.");
  EXPECT_EQ(error_of("[Metadata]\nchannels=1;1\n"), "A channel or a profile is given twice.");
  for (const char *profiles : {"a/b", "+", "a;;b"}) {
    EXPECT_EQ(
        error_of(std::string("[Topics]\nprofiles=") + profiles + "\n"),
        "profiles in the group Topics: A name is empty, too long or has a character that is not allowed.")
        << profiles;
  }
}

TEST_F(MqttConfigTest, RefusesWhatDoesNotFitTogether)
{
  EXPECT_EQ(error_of("[Broker]\npassword=a\n"), "password in the group Broker: It needs a user.");
  EXPECT_EQ(error_of("[Broker]\nuser=u\npassword=a\npassword-file=b\n"),
            "password and password-file in the group Broker exclude each other.");
  EXPECT_EQ(error_of("[Broker]\naddress=mqtts://a\ncertificate=a\n"),
            "certificate and key in the group Broker need each other.");
  EXPECT_EQ(error_of("[Broker]\nca-file=a\n"),
            "ca-file and certificate in the group Broker need an address with mqtts://.");
  EXPECT_EQ(error_of("[Events]\npublish=false\n[Metadata]\npublish=false\n"), "There is nothing to publish.");
}

TEST_F(MqttConfigTest, RefusesWhatIsNoKeyFile)
{
  EXPECT_NE(error_of("qos=1\n"), "");
  EXPECT_NE(error_of("[Broker]\nqos\n"), "");
  EXPECT_NE(error_of(std::string("[Broker]\nuser=\xff\n")), "");
}

TEST_F(MqttConfigTest, ReadsTheFileAndItsPassword)
{
  std::string password = write("password", "secret\nsecond line\n");
  std::string file = write("conf", "[Broker]\nuser=u\npassword-file=" + password + "\n");
  g_autoptr(GError) error = nullptr;
  ASSERT_TRUE(mqtt::load_config(file.c_str(), &config_, &error)) << error->message;
  EXPECT_EQ(config_.broker.password, "secret");
}

TEST_F(MqttConfigTest, NamesAFileThatItCannotRead)
{
  g_autoptr(GError) error = nullptr;
  EXPECT_FALSE(mqtt::load_config("/nowhere/conf", &config_, &error));
  EXPECT_STREQ(error->message, "/nowhere/conf: No such file or directory");
  g_clear_error(&error);
  std::string file = write("conf", "[Broker]\nuser=u\npassword-file=/nowhere/password\n");
  EXPECT_FALSE(mqtt::load_config(file.c_str(), &config_, &error));
  EXPECT_STREQ(error->message, "/nowhere/password: No such file or directory");
}

TEST_F(MqttConfigTest, ReadsFilesUpToTheirLimits)
{
  std::string file = write("conf", std::string(MQTT_CONFIG_BYTES_MAX - 1, '#') + "\n");
  EXPECT_TRUE(mqtt::load_config(file.c_str(), &config_, nullptr));
  file = write("conf", std::string(MQTT_CONFIG_BYTES_MAX, '#') + "\n");
  Config other;
  g_autoptr(GError) error = nullptr;
  EXPECT_FALSE(mqtt::load_config(file.c_str(), &other, &error));
  EXPECT_EQ(error->message, file + ": The file has more than 65536 bytes.");
}

TEST_F(MqttConfigTest, ReadsAPasswordUpToItsLimit)
{
  g_autoptr(GError) error = nullptr;
  std::string password = write("password", std::string(MQTT_PASSWORD_BYTES_MAX + 1, 'p'));
  std::string file = write("conf", "[Broker]\nuser=u\npassword-file=" + password + "\n");
  EXPECT_FALSE(mqtt::load_config(file.c_str(), &config_, &error));
  EXPECT_EQ(error->message, password + ": The file has more than 4096 bytes.");
}

} // namespace
