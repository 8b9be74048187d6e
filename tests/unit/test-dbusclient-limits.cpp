/* SPDX-License-Identifier: MIT */
#include "testdbusclient.h"

#include "producerproperties.h"
#include "receiverwatch.h"

#include <cstring>

using testconverter::Behaviour;
using testhost::spin_until;
using testhost::SyslogLine;
using testhost::SyslogLines;
using testhost::Texts;
using testreceiver::Object;

using namespace std::string_literals;

namespace
{

/* A text as the log clips it. */
std::string
clip(const std::string &text)
{
  return text.substr(0, LOG_TEXT_MAX_BYTES) + "... (" + std::to_string(text.size() - LOG_TEXT_MAX_BYTES) +
         " bytes left out)";
}

class OddSampleFrameTest : public DbusClientTest, public testing::WithParamInterface<const char *>
{
};

/* A producer whose sample frame is converted to XML of this length. */
Object
with_xml_bytes(const std::string &name, gsize length)
{
  const gsize around = testconverter::converted(R"({"Source":")" + name + R"(","Data":{"Item":[]}})").size();

  return with_sample_frame(name, testbus::reply("('" + std::string(length - around, 'x') + "',)"));
}

struct OddObject {
  const char *behaviour;
  std::string interfaces;
  const char *reason;
};

void
PrintTo(const OddObject &object, std::ostream *stream)
{
  *stream << object.behaviour;
}

constexpr const char *NO_NAME = "it has no property Name of type s";
constexpr const char *NO_NICE_NAME = "it has no property NiceName of type s";
constexpr const char *NO_CHANNELS = "it has no property SupportedChannels of type au";
constexpr const char *NO_ELEMENT = "its name cannot end an object's path";

std::string
properties(const std::string &name, const std::string &nice_name, const std::string &channels)
{
  return testreceiver::with_properties("{'Name': <" + name + ">, 'NiceName': <" + nice_name +
                                       ">, 'SupportedChannels': <" + channels + ">}");
}

std::string
quoted(gsize length)
{
  return "'" + std::string(length, 'x') + "'";
}

std::string
channels(gsize count)
{
  std::string text = "[uint32 1";

  for (gsize i = 1; i < count; i++) {
    text += ", " + std::to_string(i + 1);
  }
  return text + "]";
}

class OddObjectTest : public DbusClientTest, public testing::WithParamInterface<OddObject>
{
};

class TooManyObjectsTest : public DbusClientTest
{
protected:
  static std::string name(unsigned i)
  {
    return "P" + std::to_string(10000 + i);
  }

  void add_too_many()
  {
    for (unsigned i = 0; i < DBUS_CLIENT_MAX_OBJECTS + 10; i++) {
      receiver_->add(name(i));
    }
    receive_all_signals();
  }

  /* The log names the first objects that wait, and the first one that is not remembered. */
  void expect_too_many() const
  {
    ASSERT_TRUE(spin_until([this] { return listed().size() == DBUS_CLIENT_MAX_PRODUCERS; }));
    const SyslogLines lines = testhost::take_syslog();
    ASSERT_EQ(lines.size(), RATE_LIMITED_LOG_BURST + 1);
    EXPECT_EQ(lines.front(), left_out(name(DBUS_CLIENT_MAX_PRODUCERS), "there are too many"));
    EXPECT_EQ(lines.back(), left_out(name(DBUS_CLIENT_MAX_OBJECTS), "there are too many"));
    rate_limited_log_flush();
    expect_lines(
        {with_count(left_out(name(DBUS_CLIENT_MAX_OBJECTS - 1), "there are too many"),
                    DBUS_CLIENT_MAX_OBJECTS - DBUS_CLIENT_MAX_PRODUCERS - RATE_LIMITED_LOG_BURST - 1)});
  }

  /* A waiting object goes. The first one that was not remembered waits in its place, and the next one is not
   * remembered. */
  void expect_the_next_when_one_goes()
  {
    receiver_->remove(name(DBUS_CLIENT_MAX_OBJECTS - 1));
    expect_lines({left_out(name(DBUS_CLIENT_MAX_OBJECTS), "there are too many"),
                  left_out(name(DBUS_CLIENT_MAX_OBJECTS + 1), "there are too many")});
  }
};

/* Replies and signals of the receiver with bodies of the wrong type. */
class OddManagerTest : public DbusClientTest, public testing::WithParamInterface<const char *>
{
protected:
  static SyslogLine failure()
  {
    g_autoptr(GVariant) body = g_variant_ref_sink(g_variant_new_parsed(GetParam()));

    return warning("Failed to connect to metadata-receiver over DBus: Method "
                   "\u201corg.freedesktop.DBus.ObjectManager.GetManagedObjects\u201d "
                   "returned type \u201c"s +
                   g_variant_get_type_string(body) + "\u201d, but expected \u201c(a{oa{sa{sv}}})\u201d");
  }
};

} // namespace

/* Sample frames. */

TEST_F(DbusClientTest, LeavesOutAProducerThatRefusesTheCall)
{
  start();

  receiver_->add("Faces", with_sample_frame("Faces", testbus::refuse()));
  expect_lines({warning("on_get_sample_frame failed: "s + REFUSED)});
  expect_listed_after_another({});
}

TEST_F(DbusClientTest, ClipsErrorTexts)
{
  const std::string long_text(LOG_TEXT_MAX_BYTES - 1, 'x');
  start();

  receiver_->add("Faces", with_sample_frame("Faces", [&](GDBusMessage *call) {
                   return g_dbus_message_new_method_error_literal(call, "org.freedesktop.DBus.Error.Failed",
                                                                  (long_text + "\u00e4\u00e4").c_str());
                 }));
  const std::string whole = "GDBus.Error:org.freedesktop.DBus.Error.Failed: " + long_text;
  expect_lines({warning("on_get_sample_frame failed: " + clip(whole + "\u00e4\u00e4"))});
}

TEST_P(OddSampleFrameTest, IsRejected)
{
  start();

  receiver_->add("Faces", with_sample_frame("Faces", testbus::reply(GetParam())));
  expect_lines({warning("failed to fetch sample frame")});
  expect_listed_after_another({});
}

INSTANTIATE_TEST_SUITE_P(Replies, OddSampleFrameTest,
                         testing::Values("()", "(1,)", "('{}', 'more')", "(['{}'],)"));

TEST_F(DbusClientTest, LimitsTheSampleFrame)
{
  const std::string longest(DBUS_CLIENT_MAX_SAMPLE_FRAME_BYTES, 'x');
  start();

  receiver_->add("Faces", with_sample_frame("Faces", testbus::reply("('" + longest + "',)")));
  expect_lines({warning("failed to convert sample frame from: Faces")});
  receiver_->add("Plates", with_sample_frame("Plates", testbus::reply("('" + longest + "x',)")));
  expect_lines({left_out("Plates", "its sample frame is too long")});
}

TEST_F(DbusClientTest, LimitsTheXml)
{
  start();

  receiver_->add("Faces", with_xml_bytes("Faces", DBUS_CLIENT_MAX_XML_BYTES));
  expect_listed({"Faces"});
  receiver_->add("Plates", with_xml_bytes("Plates", DBUS_CLIENT_MAX_XML_BYTES + 1));
  expect_lines({warning("failed to convert sample frame from: Plates")});
  expect_listed_after_another({"Faces"});
}

/* Each invalid byte becomes three bytes on the bus. */
TEST_F(DbusClientTest, LimitsTheXmlAsEncodedOnTheBus)
{
  testconverter::set_behaviour(Behaviour::BAD_TEXT);
  start();

  receiver_->add("Faces", with_sample_frame("Faces", testbus::reply("('" + std::string(1000, 'x') + "',)")));
  expect_listed({"Faces"});
  const std::string third(DBUS_CLIENT_MAX_XML_BYTES / 3 + 1, 'x');
  receiver_->add("Plates", with_sample_frame("Plates", testbus::reply("('" + third + "',)")));
  expect_lines({warning("failed to convert sample frame from: Plates")});
}

/* A producer without room is called again when another one goes. */
TEST_F(DbusClientTest, LimitsTheXmlOfAllProducers)
{
  constexpr gsize COUNT = DBUS_CLIENT_MAX_XML_BYTES_IN_ALL / DBUS_CLIENT_MAX_XML_BYTES;
  Texts names;
  for (gsize i = 0; i < COUNT; i++) {
    names.push_back("P" + std::to_string(i));
    receiver_->add(names.back(), with_xml_bytes(names.back(), DBUS_CLIENT_MAX_XML_BYTES));
  }
  std::sort(names.begin(), names.end());
  start();
  expect_listed(names);

  receiver_->add("Faces");
  expect_lines({warning("failed to convert sample frame from: Faces")});
  receiver_->add("Plates", with_sample_frame("Plates", testbus::reply("()")));
  expect_lines({warning("failed to fetch sample frame")});
  receiver_->take_calls();
  /* A producer that was not listed leaves no room. */
  receiver_->remove("Plates");
  receive_all_signals();
  receive_all_signals();
  EXPECT_EQ(receiver_->calls_size(), 0U);
  receiver_->remove("P0");
  names.erase(std::find(names.begin(), names.end(), "P0"));
  names.insert(names.begin(), "Faces");
  expect_listed(names);
  EXPECT_EQ(receiver_->take_calls(), Texts({"Faces GetSampleFrame ()"}));
}

/* Objects. */

TEST_P(OddObjectTest, IsLeftOutWithoutEffectOnOthers)
{
  Object odd = testreceiver::producer("Odd");
  odd.interfaces = GetParam().interfaces;
  receiver_->add("Odd", odd);
  start();

  expect_lines({left_out("Odd", GetParam().reason)});
  expect_listed_after_another({});
  receiver_->remove_interface("Odd", "com.quon.Other1");
  receiver_->remove("Odd");
  receiver_->remove("Zebras");
  expect_listed({});
}

INSTANTIATE_TEST_SUITE_P(
    Objects, OddObjectTest,
    testing::Values(
        OddObject{"WithoutInterface", "{'com.quon.Other1': {'Name': <'Odd'>}}",
                  "it has no interface com.quon.MetadataReceiver1.Producer"},
        OddObject{"WithoutProperties", testreceiver::with_properties("@a{sv} {}"), NO_NAME},
        OddObject{"WithoutName",
                  testreceiver::with_properties("{'NiceName': <'Odd'>, 'SupportedChannels': <[uint32 1]>}"),
                  NO_NAME},
        OddObject{"WithoutNiceName",
                  testreceiver::with_properties("{'Name': <'Odd'>, 'SupportedChannels': <[uint32 1]>}"),
                  NO_NICE_NAME},
        OddObject{"WithoutChannels", testreceiver::with_properties("{'Name': <'Odd'>, 'NiceName': <'Odd'>}"),
                  NO_CHANNELS},
        OddObject{"NameOfAnotherType", properties("4711", "'Odd'", "[uint32 1]"), NO_NAME},
        OddObject{"NiceNameOfAnotherType", properties("'Odd'", "['Odd']", "[uint32 1]"), NO_NICE_NAME},
        OddObject{"ChannelsOfAnotherType", properties("'Odd'", "'Odd'", "[1, 2]"), NO_CHANNELS},
        OddObject{"OneChannelAlone", properties("'Odd'", "'Odd'", "uint32 1"), NO_CHANNELS},
        OddObject{"EmptyName", properties("''", "'Odd'", "[uint32 1]"), NO_ELEMENT},
        OddObject{"NameOfSeveralElements", properties("'Odd/One'", "'Odd'", "[uint32 1]"), NO_ELEMENT},
        OddObject{"NameWithABlank", properties("'Odd one'", "'Odd'", "[uint32 1]"), NO_ELEMENT},
        OddObject{"NameBeyondAscii", properties("'\u00d6dd'", "'Odd'", "[uint32 1]"), NO_ELEMENT},
        OddObject{"NameTooLong",
                  properties(quoted(PRODUCER_PROPERTIES_MAX_NAME_BYTES + 1), "'Odd'", "[uint32 1]"),
                  "its name is too long"},
        OddObject{"NameOfAMegabyte", properties(quoted(1000000), "'Odd'", "[uint32 1]"),
                  "its name is too long"},
        OddObject{"NiceNameTooLong",
                  properties("'Odd'", quoted(PRODUCER_PROPERTIES_MAX_NICE_NAME_BYTES + 1), "[uint32 1]"),
                  "its nice name is too long"},
        OddObject{"TooManyChannels",
                  properties("'Odd'", "'Odd'", channels(PRODUCER_PROPERTIES_MAX_CHANNELS + 1)),
                  "it supports too many channels"}),
    [](const auto &object) { return std::string(object.param.behaviour); });

TEST_F(DbusClientTest, ListsProducersAtTheLimits)
{
  Object longest = testreceiver::producer("Longest");
  longest.interfaces =
      properties(quoted(PRODUCER_PROPERTIES_MAX_NAME_BYTES), quoted(PRODUCER_PROPERTIES_MAX_NICE_NAME_BYTES),
                 channels(PRODUCER_PROPERTIES_MAX_CHANNELS));
  receiver_->add("Longest", longest);
  Object shortest = testreceiver::producer("Shortest");
  shortest.interfaces = properties("'_'", "''", "@au []");
  receiver_->add("Shortest", shortest);
  start();

  expect_listed({"_", std::string(PRODUCER_PROPERTIES_MAX_NAME_BYTES, 'x')});
}

TEST_F(DbusClientTest, ClipsALongPath)
{
  const std::string element(2 * LOG_TEXT_MAX_BYTES, 'x');
  start();

  receiver_->add(element);
  expect_lines({warning("left out producer object " + clip(ROOT + element) + ": its path is too long")});
  expect_listed_after_another({});
}

TEST_F(DbusClientTest, LimitsThePath)
{
  const std::string longest(PRODUCER_PROPERTIES_MAX_NAME_BYTES, 'x');
  receiver_->add(longest);
  receiver_->add(longest + "x", testreceiver::producer("Odd"));
  start();

  expect_lines({left_out(longest + "x", "its path is too long")});
  expect_listed({longest});
}

TEST_F(DbusClientTest, IgnoresInterfacesWithInvalidNames)
{
  Object faces = testreceiver::producer("Faces");
  faces.interfaces.insert(1, "'': @a{sv} {}, 'no name': {'Name': <'Odd'>, '': <1>}, ");
  Object none = testreceiver::producer("None");
  none.interfaces = "@a{sa{sv}} {}";
  start_with("Faces", faces);

  Object plates = testreceiver::producer("Plates");
  plates.interfaces.insert(1, "'': @a{sv} {}, 'no name': {'Name': <'Odd'>, '': <1>}, ");
  receiver_->add("Plates", plates);
  expect_listed({"Faces", "Plates"});
  receiver_->add("None", none);
  expect_lines({left_out("None", "it has no interface com.quon.MetadataReceiver1.Producer")});
}

TEST_F(DbusClientTest, LeavesOutObjectsOutsideTheRoot)
{
  constexpr const char *MANAGER = "org.freedesktop.DBus.ObjectManager";
  const std::string root = std::string(ROOT).substr(0, strlen(ROOT) - 1);
  start();
  expect_listed_after_another({});

  for (const char *path : {"/", "/other", "/com/quon/MetadataReceiver1/Producers",
                           "/com/quon/MetadataReceiver1/ProducersToo", "/com/quon/a/b"}) {
    receiver_->emit(root, MANAGER, "InterfacesRemoved",
                    "(objectpath '"s + path + "', ['com.quon.MetadataReceiver1.Producer'])");
    receiver_->emit(root, MANAGER, "InterfacesAdded",
                    "(objectpath '"s + path + "', @a{sa{sv}} " + testreceiver::producer("Faces").interfaces +
                        ")");
    receiver_->emit(path, "org.freedesktop.DBus.Properties", "PropertiesChanged",
                    "('com.quon.MetadataReceiver1.Producer', {'Name': <'Odd'>}, @as [])");
    expect_lines({warning("left out producer object "s + path +
                          ": it is not below /com/quon/MetadataReceiver1/Producers")});
  }
  EXPECT_EQ(listed(), Texts({"Zebras"}));
}

/* The number of objects. */

TEST_F(DbusClientTest, LimitsTheNumberOfProducers)
{
  Texts names;
  for (unsigned i = 0; i < DBUS_CLIENT_MAX_PRODUCERS; i++) {
    names.push_back("P" + std::to_string(i));
    receiver_->add(names.back());
  }
  std::sort(names.begin(), names.end());
  start();
  expect_listed(names);

  receiver_->add("Faces");
  expect_lines({left_out("Faces", "there are too many")});
  receiver_->remove("Faces");
  receiver_->remove(names.back());
  names.pop_back();
  expect_listed_after_another(names);
}

TEST_F(DbusClientTest, DoesNotCountProducersThatItLeftOut)
{
  start();
  for (unsigned i = 0; i < DBUS_CLIENT_MAX_PRODUCERS; i++) {
    receiver_->add("P" + std::to_string(i), with_sample_frame("P", testbus::reply("()")));
  }
  expect_lines(SyslogLines(DBUS_CLIENT_MAX_PRODUCERS, warning("failed to fetch sample frame")));

  expect_listed_after_another({});
}

TEST_F(DbusClientTest, ListsWaitingProducersWhenOthersGo)
{
  constexpr unsigned COUNT = 120;
  constexpr unsigned GONE = 90;
  Texts names;
  for (unsigned i = 0; i < COUNT; i++) {
    names.push_back("P" + std::to_string(1000 + i));
    receiver_->add(names.back());
  }
  start();
  ASSERT_TRUE(spin_until([this] { return listed().size() == DBUS_CLIENT_MAX_PRODUCERS; }));
  EXPECT_EQ(testhost::take_syslog().size(), RATE_LIMITED_LOG_BURST);
  rate_limited_log_flush();
  const Texts first = listed();
  const SyslogLines lines = testhost::take_syslog();
  ASSERT_EQ(lines.size(), 1U);
  /* The replies decide which one is the last. */
  EXPECT_EQ(std::count_if(names.begin(), names.end(),
                          [&](const std::string &name) {
                            return std::find(first.begin(), first.end(), name) == first.end() &&
                                   lines[0] == with_count(left_out(name, "there are too many"),
                                                          COUNT - DBUS_CLIENT_MAX_PRODUCERS -
                                                              RATE_LIMITED_LOG_BURST - 1);
                          }),
            1);

  for (unsigned i = 0; i < GONE; i++) {
    receiver_->remove(first[i]);
    names.erase(std::find(names.begin(), names.end(), first[i]));
  }
  expect_listed(names);
}

TEST_F(TooManyObjectsTest, AreRequestedAgainWhenTheyExistAtTheStart)
{
  add_too_many();
  start();
  expect_too_many();
  expect_the_next_when_one_goes();
}

TEST_F(TooManyObjectsTest, AreRequestedAgainWhenTheyAreAnnounced)
{
  start();
  expect_listed_after_another({});
  receiver_->remove("Zebras");
  expect_listed({});

  add_too_many();
  expect_too_many();
  expect_the_next_when_one_goes();
}

TEST_F(DbusClientTest, LimitsTheLinesAboutObjectsThatAreNoProducers)
{
  const Object odd = {"@a{sa{sv}} {}", {}, {}};
  for (unsigned i = 0; i < RECEIVER_WATCH_MAX_OBJECTS + 10; i++) {
    receiver_->add("P" + std::to_string(10000 + i), odd);
  }
  receive_all_signals();
  start();

  ASSERT_TRUE(spin_until([] { return testhost::syslog_size() > RATE_LIMITED_LOG_BURST; }));
  const SyslogLines lines = testhost::take_syslog();
  ASSERT_EQ(lines.size(), RATE_LIMITED_LOG_BURST + 1);
  EXPECT_EQ(lines.front(), left_out("P10000", "it has no interface com.quon.MetadataReceiver1.Producer"));
  EXPECT_EQ(lines.back(), left_out("P11024", "there are too many"));
  rate_limited_log_flush();
  expect_lines({with_count(left_out("P11023", "it has no interface com.quon.MetadataReceiver1.Producer"),
                           RECEIVER_WATCH_MAX_OBJECTS - RATE_LIMITED_LOG_BURST - 1)});
}

/* Malformed messages. */

TEST_P(OddManagerTest, IsLoggedWhenItRepliesAtTheStart)
{
  receiver_->add("Faces");
  receiver_->set_managed_objects(testbus::reply(GetParam()));

  start();
  expect_lines({failure()});
  EXPECT_EQ(listed(), Texts());
}

TEST_P(OddManagerTest, IsLoggedWhenItRepliesAfterItsReturn)
{
  start_with("Faces");
  receiver_->leave();
  expect_listed({});

  receiver_->set_managed_objects(testbus::reply(GetParam()));
  receiver_->come_back();
  expect_lines({failure()});
  EXPECT_EQ(listed(), Texts());
}

TEST_P(OddManagerTest, IsLoggedWhenItSendsSignals)
{
  constexpr const char *MANAGER = "org.freedesktop.DBus.ObjectManager";
  constexpr const char *PROPERTIES = "org.freedesktop.DBus.Properties";
  const std::string root = std::string(ROOT).substr(0, strlen(ROOT) - 1);
  start_with("Faces");

  receiver_->emit(root, MANAGER, "InterfacesAdded", GetParam());
  receiver_->emit(root, MANAGER, "InterfacesRemoved", GetParam());
  for (const std::string &path : {root, ROOT + "Faces"s, ROOT + "Others"s, "/elsewhere"s}) {
    receiver_->emit(path, PROPERTIES, "PropertiesChanged", GetParam());
  }
  expect_listed_after_another({"Faces"});
  const SyslogLine line = warning("left out a signal of the metadata receiver: it has the wrong type");
  expect_lines({line});
  rate_limited_log_flush();
  expect_lines({with_count(line, 4)});
}

TEST_P(OddManagerTest, IsLoggedOnceWhenANewerCallIsPending)
{
  start();
  expect_listed_after_another({});
  receiver_->set_managed_objects(receiver_->hold());
  receiver_->come_back_at_once();
  wait_until_held(1);
  receiver_->come_back_at_once();
  wait_until_held(2);

  receiver_->release_held(testbus::reply(GetParam()));
  expect_lines({failure()});
  EXPECT_EQ(listed(), Texts());
}

INSTANTIATE_TEST_SUITE_P(Bodies, OddManagerTest,
                         testing::Values("()", "(1,)", "('x',)", "([('x', 1)],)", "(objectpath '/x',)",
                                         "(@a{oa{sa{sv}}} {}, 1)"));
