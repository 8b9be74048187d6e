#include "dbusclient.h"

#include "descriptorreserve.h"
#include "faults.h"
#include "logtext.h"
#include "producerconfig.h"
#include "producerproperties.h"
#include "ratelimitedlog.h"
#include "receivercalls.h"
#include "receiverwatch.h"
#include "sampleframequeue.h"
#include "systembus.h"
#include "testbus.h"
#include "testconverter.h"
#include "testhost.h"
#include "testreceiver.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <optional>
#include <syslog.h>
#include <thread>
#include <unistd.h>
#include <utility>

using testbus::Bus;
using testconverter::Behaviour;
using testconverter::Hold;
using testhost::spin_until;
using testhost::SyslogLine;
using testhost::SyslogLines;
using testhost::Texts;
using testreceiver::Object;
using testreceiver::Receiver;

using namespace std::string_literals;

namespace
{

constexpr const char *ROOT = "/com/quon/MetadataReceiver1/Producers/";
constexpr const char *XML = R"(<tt:SampleFrame>{"Source":"Faces","Data":{"Item":[{}]}}</tt:SampleFrame>)";
constexpr const char *NOT_FOUND = "tried to find a dbus object for producer which did not exist";
constexpr const char *NO_FD = "Failed to parse fd from variant: the reply holds no such descriptor\n";
constexpr const char *REFUSED = "GDBus.Error:com.quon.Test.Error: No.";

SyslogLine
warning(const std::string &text)
{
  return {LOG_WARNING, text};
}

SyslogLine
left_out(const std::string &element, const std::string &reason)
{
  return warning("left out producer object " + (ROOT + element) + ": " + reason);
}

/* As the last one of many. */
SyslogLine
with_count(const SyslogLine &line, guint count)
{
  return {line.priority, line.text + " (" + std::to_string(count) + " more since the last such line)"};
}

/* Of a text that is longer than the log takes. */
std::string
clip(const std::string &text)
{
  return text.substr(0, LOG_TEXT_MAX_BYTES) + "... (" + std::to_string(text.size() - LOG_TEXT_MAX_BYTES) +
         " bytes left out)";
}

class DbusClientTest : public testhost::Fixture
{
protected:
  static void SetUpTestSuite()
  {
    testbus::install();
    testconverter::install();
  }

  void SetUp() override
  {
    Fixture::SetUp();
    std::ofstream(path("producers.conf")) << "# none\n";
    ASSERT_TRUE(producer_config_setup(path("producers.conf").c_str()));
    producers_ = analytics_producer_list_new();
    bus_.emplace();
    receiver_.emplace();
  }

  void TearDown() override
  {
    testconverter::set_behaviour(Behaviour::CONVERT);
    dbus_client_teardown();
    receiver_.reset();
    close_bus();
    producer_config_free();
    Fixture::TearDown();
    testconverter::take_inputs();
    analytics_producer_list_free(producers_);
  }

  /* Waits until nobody has the connection any more, nor anything is on its way from it. */
  void close_bus()
  {
    std::optional<testhost::Observed> connection;
    {
      g_autoptr(GDBusConnection) shared = system_bus_get(nullptr, nullptr);
      if (shared != nullptr) {
        connection.emplace(shared);
      }
    }
    bus_.reset();
    EXPECT_TRUE(spin_until([&connection] { return !connection.has_value() || !connection->alive(); }));
  }

  /* What the receiver has said until now comes before its answer to something else. */
  static void hear_all()
  {
    g_autoptr(GDBusConnection) shared = system_bus_get(nullptr, nullptr);
    g_autoptr(GError) error = nullptr;
    g_autoptr(GVariant) reply =
        g_dbus_connection_call_sync(shared, "com.quon.MetadataReceiver1", "/", "com.quon.Other1", "Anything",
                                    nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);

    EXPECT_STREQ(error != nullptr ? error->message : "", REFUSED);
    testhost::dispatch_ready();
  }

  void start()
  {
    dbus_client_init(producers_);
  }

  /* Names, in their order. */
  Texts listed() const
  {
    Texts names;

    analytics_producer_list_foreach(
        producers_,
        [](AnalyticsProducer *producer, gpointer user_data) {
          g_autofree gchar *name = nullptr;
          g_object_get(producer, "name", &name, nullptr);
          static_cast<Texts *>(user_data)->emplace_back(name);
        },
        &names);
    std::sort(names.begin(), names.end());
    return names;
  }

  void expect_listed(const Texts &names) const
  {
    EXPECT_TRUE(spin_until([&] { return listed() == names; })) << testing::PrintToString(listed());
  }

  static void expect_lines(const SyslogLines &lines)
  {
    EXPECT_TRUE(spin_until([&] { return testhost::syslog_size() >= lines.size(); }));
    EXPECT_EQ(testhost::take_syslog(), lines);
  }

  /* Whatever comes before this producer is through by the time that it is listed. */
  void expect_listed_after_another(const Texts &names)
  {
    Texts all = names;

    receiver_->add("Zebras");
    all.emplace_back("Zebras");
    expect_listed(all);
  }

  AnalyticsProducerList *producers_ = nullptr;
  std::optional<Bus> bus_;
  std::optional<Receiver> receiver_;
};

Object
with_sample_frame(const std::string &name, testbus::Answer answer)
{
  Object object = testreceiver::producer(name);

  object.sample_frame = std::move(answer);
  return object;
}

Object
with_stream(const std::string &name, testbus::Answer answer)
{
  Object object = testreceiver::producer(name);

  object.stream_fd = std::move(answer);
  return object;
}

/* Somebody who asks for a stream. */
struct Client {
  std::vector<std::string> calls; /* "on_fd <name>" and "free", in their order */
  gint fd = -2;
  std::thread::id thread;
  GCancellable *cancellable = g_cancellable_new();

  Client() = default;
  Client(const Client &) = delete;
  Client &operator=(const Client &) = delete;

  ~Client()
  {
    g_object_unref(cancellable);
    if (fd >= 0) {
      close(fd);
    }
  }

  bool connect(const char *producer, gint channel = 1)
  {
    return dbus_client_connect_producer(producer, "front door", channel, cancellable, on_fd, this, on_free) !=
           FALSE;
  }

  bool is_done() const
  {
    return !calls.empty() && calls.back() == "free";
  }

  static void on_fd(gint fd, const gchar *source_name, gpointer user_data)
  {
    auto *self = static_cast<Client *>(user_data);

    self->fd = fd;
    self->thread = std::this_thread::get_id();
    self->calls.push_back("on_fd "s + source_name);
  }

  static void on_free(gpointer user_data)
  {
    static_cast<Client *>(user_data)->calls.emplace_back("free");
  }
};

const std::vector<std::string> SERVED = {"on_fd front door", "free"};
const std::vector<std::string> NOT_SERVED = {"free"};

/* Both ends of a pipe, of which the test's own are closed with this object. */
struct Pipe {
  std::array<int, 2> ends = {-1, -1};

  Pipe()
  {
    EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
  }

  ~Pipe()
  {
    close_reader();
    close(ends[1]);
  }

  Pipe(const Pipe &) = delete;
  Pipe &operator=(const Pipe &) = delete;

  void close_reader()
  {
    if (ends[0] >= 0) {
      close(std::exchange(ends[0], -1));
    }
  }
};

} // namespace

TEST_F(DbusClientTest, ListsWhatIsAnnouncedBeforeItStarts)
{
  Object faces = testreceiver::producer("Faces");
  faces.interfaces = testreceiver::with_properties(
      "{'Name': <'Faces'>, 'NiceName': <'Face finder'>, 'SupportedChannels': <[uint32 3, 1, 2]>}");
  receiver_->add("Faces", faces);
  start();
  EXPECT_EQ(listed(), Texts());

  expect_listed({"Faces"});
  g_autoptr(AnalyticsProducer) producer = analytics_producer_list_get_producer(producers_, "Faces");
  g_autofree gchar *nice_name = nullptr;
  g_autofree gchar *xml = nullptr;
  gint kind = -1;
  g_object_get(producer, "nice-name", &nice_name, "sample-frame-xml", &xml, "type", &kind, nullptr);
  EXPECT_STREQ(nice_name, "Face finder");
  EXPECT_STREQ(xml, XML);
  EXPECT_EQ(kind, ANALYTICS_PRODUCER_EXTERNAL);
  std::vector<guint32> channels;
  GPtrArray *entries = analytics_producer_get_all_channels_enabled(producer);
  for (guint i = 0; i < entries->len; i++) {
    channels.push_back(static_cast<AnalyticsProducerChannel *>(g_ptr_array_index(entries, i))->channel);
  }
  EXPECT_EQ(channels, std::vector<guint32>({3, 1, 2}));
  EXPECT_EQ(receiver_->take_calls(), Texts({"Faces GetSampleFrame ()"}));
}

TEST_F(DbusClientTest, ListsWhatIsAnnouncedLater)
{
  start();

  receiver_->add("Faces");
  receiver_->add("Plates");
  expect_listed({"Faces", "Plates"});
}

TEST_F(DbusClientTest, WaitsForAReceiverThatIsNotThereYet)
{
  receiver_->leave();
  start();

  receiver_->add("Faces");
  receiver_->come_back();
  expect_listed({"Faces"});
}

TEST_F(DbusClientTest, LeavesOutWhatCannotBeConverted)
{
  start();
  testconverter::set_behaviour(Behaviour::FAIL);

  receiver_->add("Faces");
  expect_lines({warning("failed to convert sample frame from: Faces")});
  testconverter::set_behaviour(Behaviour::CONVERT);
  expect_listed_after_another({});
}

TEST_F(DbusClientTest, LeavesOutWhatDoesNotAnswer)
{
  start();

  receiver_->add("Faces", with_sample_frame("Faces", testbus::refuse()));
  expect_lines({warning("on_get_sample_frame failed: "s + REFUSED)});
  expect_listed_after_another({});
}

TEST_F(DbusClientTest, ClipsWhatAnErrorSays)
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

class OddSampleFrameTest : public DbusClientTest, public testing::WithParamInterface<const char *>
{
};

TEST_P(OddSampleFrameTest, IsNone)
{
  start();

  receiver_->add("Faces", with_sample_frame("Faces", testbus::reply(GetParam())));
  expect_lines({warning("failed to fetch sample frame")});
  expect_listed_after_another({});
}

INSTANTIATE_TEST_SUITE_P(Replies, OddSampleFrameTest,
                         testing::Values("()", "(1,)", "('{}', 'more')", "(['{}'],)"));

TEST_F(DbusClientTest, GivesAnEmptySampleFrameToTheConverter)
{
  start();

  receiver_->add("Faces", with_sample_frame("Faces", testbus::reply("('',)")));
  expect_listed({"Faces"});
  g_autoptr(AnalyticsProducer) producer = analytics_producer_list_get_producer(producers_, "Faces");
  g_autofree gchar *xml = nullptr;
  g_object_get(producer, "sample-frame-xml", &xml, nullptr);
  EXPECT_STREQ(xml, R"(<tt:SampleFrame>{"Source":"Faces","Data":{"Item":[]}}</tt:SampleFrame>)");
}

TEST_F(DbusClientTest, BoundsTheSampleFrame)
{
  const std::string longest(DBUS_CLIENT_MAX_SAMPLE_FRAME_BYTES, 'x');
  start();

  receiver_->add("Faces", with_sample_frame("Faces", testbus::reply("('" + longest + "',)")));
  expect_lines({warning("failed to convert sample frame from: Faces")});
  receiver_->add("Plates", with_sample_frame("Plates", testbus::reply("('" + longest + "x',)")));
  expect_lines({left_out("Plates", "its sample frame is too long")});
}

namespace
{

/* A producer whose sample frame becomes XML of this length. */
Object
with_xml_bytes(const std::string &name, gsize length)
{
  const gsize around = testconverter::converted(R"({"Source":")" + name + R"(","Data":{"Item":[]}})").size();

  return with_sample_frame(name, testbus::reply("('" + std::string(length - around, 'x') + "',)"));
}

} // namespace

TEST_F(DbusClientTest, BoundsTheXml)
{
  start();

  receiver_->add("Faces", with_xml_bytes("Faces", DBUS_CLIENT_MAX_XML_BYTES));
  expect_listed({"Faces"});
  receiver_->add("Plates", with_xml_bytes("Plates", DBUS_CLIENT_MAX_XML_BYTES + 1));
  expect_lines({warning("failed to convert sample frame from: Plates")});
  expect_listed_after_another({"Faces"});
}

/* Each byte that is no text becomes three on the bus. */
TEST_F(DbusClientTest, BoundsTheXmlAsItIsOnTheBus)
{
  testconverter::set_behaviour(Behaviour::BAD_TEXT);
  start();

  receiver_->add("Faces", with_sample_frame("Faces", testbus::reply("('" + std::string(1000, 'x') + "',)")));
  expect_listed({"Faces"});
  const std::string third(DBUS_CLIENT_MAX_XML_BYTES / 3 + 1, 'x');
  receiver_->add("Plates", with_sample_frame("Plates", testbus::reply("('" + third + "',)")));
  expect_lines({warning("failed to convert sample frame from: Plates")});
}

/* Who had no room is asked again when another one goes. */
TEST_F(DbusClientTest, BoundsTheXmlOfAllTogether)
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
  receiver_->remove("P0");
  names.erase(std::find(names.begin(), names.end(), "P0"));
  names.insert(names.begin(), "Faces");
  expect_listed(names);
  EXPECT_EQ(receiver_->take_calls(), Texts({"Faces GetSampleFrame ()"}));
}

namespace
{

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

} // namespace

class OddObjectTest : public DbusClientTest, public testing::WithParamInterface<OddObject>
{
};

TEST_P(OddObjectTest, IsLeftOutAndTheOthersGoOn)
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

TEST_F(DbusClientTest, ListsWhatIsAtTheBounds)
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

TEST_F(DbusClientTest, BoundsThePath)
{
  const std::string longest(PRODUCER_PROPERTIES_MAX_NAME_BYTES, 'x');
  receiver_->add(longest);
  receiver_->add(longest + "x", testreceiver::producer("Odd"));
  start();

  expect_lines({left_out(longest + "x", "its path is too long")});
  expect_listed({longest});
}

TEST_F(DbusClientTest, BoundsHowManyAreTakenUp)
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

TEST_F(DbusClientTest, ListsThoseThatWereTooManyWhenOthersGo)
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
  expect_lines({with_count(left_out(names.back(), "there are too many"),
                           COUNT - DBUS_CLIENT_MAX_PRODUCERS - RATE_LIMITED_LOG_BURST - 1)});

  const Texts first = listed();
  for (unsigned i = 0; i < GONE; i++) {
    receiver_->remove(first[i]);
    names.erase(std::find(names.begin(), names.end(), first[i]));
  }
  expect_listed(names);
}

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
    hear_all();
  }

  /* The first ones of those that wait, and the first one that is not remembered, are told at once. */
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

  /* One that waits goes: the first that was missed waits in its place, and the next one is missed. */
  void expect_the_next_when_one_goes()
  {
    receiver_->remove(name(DBUS_CLIENT_MAX_OBJECTS - 1));
    expect_lines({left_out(name(DBUS_CLIENT_MAX_OBJECTS), "there are too many"),
                  left_out(name(DBUS_CLIENT_MAX_OBJECTS + 1), "there are too many")});
  }
};

TEST_F(TooManyObjectsTest, AreAskedForAgainWhenTheyAreThereAtTheStart)
{
  add_too_many();
  start();
  expect_too_many();
  expect_the_next_when_one_goes();
}

TEST_F(TooManyObjectsTest, AreAskedForAgainWhenTheyAreAnnounced)
{
  start();
  expect_listed_after_another({});
  receiver_->remove("Zebras");
  expect_listed({});

  add_too_many();
  expect_too_many();
  expect_the_next_when_one_goes();
}

/* Each of them has a reason to be left out, and takes a part of what is looked at. */
TEST_F(DbusClientTest, LogsFewOfManyObjectsThatAreNoProducers)
{
  const Object odd = {"@a{sa{sv}} {}", {}, {}};
  for (unsigned i = 0; i < RECEIVER_WATCH_MAX_OBJECTS + 10; i++) {
    receiver_->add("P" + std::to_string(10000 + i), odd);
  }
  hear_all();
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

TEST_F(DbusClientTest, DoesNotCountWhatItLeftOut)
{
  start();
  for (unsigned i = 0; i < DBUS_CLIENT_MAX_PRODUCERS; i++) {
    receiver_->add("P" + std::to_string(i), with_sample_frame("P", testbus::reply("()")));
  }
  expect_lines(SyslogLines(DBUS_CLIENT_MAX_PRODUCERS, warning("failed to fetch sample frame")));

  expect_listed_after_another({});
}

TEST_F(DbusClientTest, RemovesExactlyTheOneWhoseObjectGoes)
{
  start();
  receiver_->add("Faces");
  receiver_->add("Plates");
  expect_listed({"Faces", "Plates"});

  receiver_->remove("Faces");
  expect_listed({"Plates"});
}

TEST_F(DbusClientTest, ForgetsByTheNameThatWasListed)
{
  Object object = testreceiver::producer("Faces");
  start();
  receiver_->add("SomeObject", object);
  expect_listed({"Faces"});

  receiver_->remove("SomeObject");
  expect_listed({});
}

TEST_F(DbusClientTest, IgnoresThatANameGoesThatIsNotListed)
{
  start();
  receiver_->add("Faces");
  expect_listed({"Faces"});
  analytics_producer_list_remove(producers_, "Faces");

  receiver_->remove("Faces");
  expect_listed_after_another({});
}

TEST_F(DbusClientTest, LeavesTheBuiltInOneWhenItsNamesakeGoes)
{
  g_autoptr(GArray) none = g_array_new(FALSE, FALSE, sizeof(guint32));
  g_autoptr(AnalyticsProducer) built_in =
      analytics_producer_new("Radar", "Radar", "<xml/>", none, ANALYTICS_PRODUCER_BUILT_IN);
  analytics_producer_list_add(producers_, built_in);
  start();

  receiver_->add("Radar");
  expect_lines({warning("tried to add a producer that already exists: Radar")});
  receiver_->remove("Radar");
  expect_listed_after_another({"Radar"});
  g_autoptr(AnalyticsProducer) still = analytics_producer_list_get_producer(producers_, "Radar");
  EXPECT_EQ(still, built_in);
}

TEST_F(DbusClientTest, LeavesTheFirstOneWhenItsNamesakeGoes)
{
  start();
  receiver_->add("Faces");
  expect_listed({"Faces"});

  receiver_->add("Other", testreceiver::producer("Faces"));
  expect_lines({warning("tried to add a producer that already exists: Faces")});
  receiver_->remove("Other");
  expect_listed_after_another({"Faces"});
}

TEST_F(DbusClientTest, DoesNotListWhatGoesBeforeItsReply)
{
  start();
  receiver_->add("Faces", with_sample_frame("Faces", receiver_->hold()));
  ASSERT_TRUE(spin_until([this] { return receiver_->held() == 1; }));

  receiver_->remove("Faces");
  receiver_->release_held(testbus::reply("('{}',)"));
  expect_listed_after_another({});
}

TEST_F(DbusClientTest, DoesNotListWhatLosesItsInterfaceBeforeItsReply)
{
  Object faces = with_sample_frame("Faces", receiver_->hold());
  faces.interfaces.insert(1, "'com.quon.Other1': {'Name': <'Faces'>}, ");
  start();
  receiver_->add("Faces", faces);
  ASSERT_TRUE(spin_until([this] { return receiver_->held() == 1; }));

  receiver_->remove_interface("Faces", "com.quon.MetadataReceiver1.Producer");
  receiver_->release_held(testbus::reply("('{}',)"));
  expect_listed_after_another({});
}

TEST_F(DbusClientTest, DoesNotListWhatGoesDuringItsConversion)
{
  start();
  testconverter::set_behaviour(Behaviour::HOLD);
  {
    const Hold hold;
    receiver_->add("Faces");
    ASSERT_TRUE(spin_until([&hold] { return hold.waiting() == 1; }));
    receiver_->remove("Faces");
    testconverter::set_behaviour(Behaviour::CONVERT);
    expect_listed_after_another({});
  }
  receiver_->remove("Zebras");
  expect_listed({});
  expect_listed_after_another({});
}

TEST_F(DbusClientTest, CountsOnlyTheOneThatCameBackUnderAPath)
{
  start();
  receiver_->add("Faces", with_sample_frame("Faces", receiver_->hold()));
  ASSERT_TRUE(spin_until([this] { return receiver_->held() == 1; }));
  receiver_->remove("Faces");
  receiver_->add("Faces", with_sample_frame("Faces", testbus::reply("('new',)")));
  expect_listed({"Faces"});

  receiver_->release_held(testbus::reply("('old',)"));
  expect_listed_after_another({"Faces"});
  g_autoptr(AnalyticsProducer) producer = analytics_producer_list_get_producer(producers_, "Faces");
  g_autofree gchar *xml = nullptr;
  g_object_get(producer, "sample-frame-xml", &xml, nullptr);
  EXPECT_STREQ(xml, R"(<tt:SampleFrame>{"Source":"Faces","Data":{"Item":[new]}}</tt:SampleFrame>)");
}

TEST_F(DbusClientTest, KeepsTheMainLoopGoingWhileItConverts)
{
  start();
  testconverter::set_behaviour(Behaviour::HOLD);
  {
    const Hold hold;
    receiver_->add("Faces");
    ASSERT_TRUE(spin_until([&hold] { return hold.waiting() == 1; }));
    EXPECT_EQ(listed(), Texts());
    testconverter::set_behaviour(Behaviour::CONVERT);
    expect_listed_after_another({});
  }
  expect_listed({"Faces", "Zebras"});
}

TEST_F(DbusClientTest, ConvertsOnlySoManyAtATime)
{
  constexpr unsigned COUNT = 3 * SAMPLE_FRAME_QUEUE_MAX_RUNNING;
  Texts names;
  for (unsigned i = 0; i < COUNT; i++) {
    names.push_back("P" + std::to_string(i));
    receiver_->add(names.back());
  }
  start();
  testconverter::set_behaviour(Behaviour::HOLD);
  std::optional<Hold> hold(std::in_place);

  ASSERT_TRUE(spin_until([&hold] { return hold->waiting() == SAMPLE_FRAME_QUEUE_MAX_RUNNING; }));
  ASSERT_TRUE(spin_until([this] { return receiver_->calls_size() == COUNT; }));
  testhost::dispatch_ready();
  EXPECT_EQ(hold->most_waiting(), SAMPLE_FRAME_QUEUE_MAX_RUNNING);
  hold.reset();
  expect_listed(names);
}

TEST_F(DbusClientTest, DropsWhatGoesWhileItWaitsForAConversion)
{
  start();
  testconverter::set_behaviour(Behaviour::HOLD);
  std::optional<Hold> hold(std::in_place);
  for (unsigned i = 0; i < SAMPLE_FRAME_QUEUE_MAX_RUNNING; i++) {
    receiver_->add("P" + std::to_string(i));
  }
  ASSERT_TRUE(spin_until([&hold] { return hold->waiting() == SAMPLE_FRAME_QUEUE_MAX_RUNNING; }));
  testconverter::take_inputs();
  receiver_->add("Faces");
  ASSERT_TRUE(spin_until([this] { return receiver_->calls_size() == SAMPLE_FRAME_QUEUE_MAX_RUNNING + 1; }));
  receiver_->remove("Faces");
  receiver_->add("Plates");
  ASSERT_TRUE(spin_until([this] { return receiver_->calls_size() == SAMPLE_FRAME_QUEUE_MAX_RUNNING + 2; }));

  hold.reset();
  expect_listed({"P0", "P1", "Plates"});
  EXPECT_EQ(testconverter::take_inputs().size(), 1);
}

TEST_F(DbusClientTest, TakesUpAnObjectWhoseInterfaceComesLater)
{
  Object faces = testreceiver::producer("Faces");
  faces.interfaces = "{'com.quon.Other1': {'Name': <'Faces'>}}";
  start();
  receiver_->add("Faces", faces);
  expect_lines({left_out("Faces", "it has no interface com.quon.MetadataReceiver1.Producer")});

  receiver_->add("Faces");
  expect_listed({"Faces"});
  receiver_->remove_interface("Faces", "com.quon.Other1");
  expect_listed_after_another({"Faces"});
}

TEST_F(DbusClientTest, WithdrawsAProducerThatLosesItsInterface)
{
  Object faces = testreceiver::producer("Faces");
  faces.interfaces.insert(1, "'com.quon.Other1': {'Name': <'Faces'>}, ");
  start();
  receiver_->add("Faces", faces);
  expect_listed({"Faces"});
  receiver_->add("Faces", testreceiver::producer("Others"));
  expect_listed_after_another({"Faces"});

  receiver_->remove_interface("Faces", "com.quon.MetadataReceiver1.Producer");
  expect_listed({"Zebras"});
  receiver_->remove_interface("Faces", "com.quon.Other1");
  receiver_->add("Faces");
  expect_listed({"Faces", "Zebras"});
  EXPECT_EQ(receiver_->take_calls(),
            Texts({"Faces GetSampleFrame ()", "Zebras GetSampleFrame ()", "Faces GetSampleFrame ()"}));
}

/* Names that are none are as good as any that is not asked for. */
TEST_F(DbusClientTest, IgnoresInterfacesWithoutAProperName)
{
  Object faces = testreceiver::producer("Faces");
  faces.interfaces.insert(1, "'': @a{sv} {}, 'no name': {'Name': <'Odd'>, '': <1>}, ");
  Object none = testreceiver::producer("None");
  none.interfaces = "@a{sa{sv}} {}";
  receiver_->add("Faces", faces);
  start();
  expect_listed({"Faces"});

  Object plates = testreceiver::producer("Plates");
  plates.interfaces.insert(1, "'': @a{sv} {}, 'no name': {'Name': <'Odd'>, '': <1>}, ");
  receiver_->add("Plates", plates);
  expect_listed({"Faces", "Plates"});
  receiver_->add("None", none);
  expect_lines({left_out("None", "it has no interface com.quon.MetadataReceiver1.Producer")});
}

TEST_F(DbusClientTest, FollowsAReceiverThatLeavesAndComesBack)
{
  receiver_->add("Faces");
  receiver_->add("Plates");
  start();
  expect_listed({"Faces", "Plates"});

  receiver_->leave();
  expect_listed({});
  receiver_->come_back();
  expect_listed({"Faces", "Plates"});
}

TEST_F(DbusClientTest, TakesUpAReceiverThatComesBackDuringConversions)
{
  constexpr unsigned COUNT = DBUS_CLIENT_MAX_PRODUCERS;
  for (unsigned i = 0; i < COUNT; i++) {
    receiver_->add("P" + std::to_string(i));
  }
  start();
  testconverter::set_behaviour(Behaviour::HOLD);
  std::optional<Hold> hold(std::in_place);
  ASSERT_TRUE(spin_until([this, &hold] {
    return hold->waiting() == SAMPLE_FRAME_QUEUE_MAX_RUNNING && receiver_->calls_size() == COUNT;
  }));

  receiver_->leave();
  receiver_->come_back();
  ASSERT_TRUE(spin_until([this] { return receiver_->calls_size() == 2 * COUNT; }));
  hold.reset();
  EXPECT_TRUE(spin_until([this] { return listed().size() == COUNT; }));
  testhost::take_syslog();
}

TEST_F(DbusClientTest, ListsNothingAnyMoreWithoutTheBus)
{
  receiver_->add("Faces");
  start();
  expect_listed({"Faces"});

  bus_.reset();
  expect_listed({});
  Client client;
  EXPECT_FALSE(client.connect("Faces"));
  expect_lines({warning(NOT_FOUND)});
  EXPECT_EQ(client.calls, std::vector<std::string>());
}

TEST_F(DbusClientTest, LetsGoOfADeadConnectionAndCanStartAgain)
{
  receiver_->add("Faces");
  start();
  expect_listed({"Faces"});
  receiver_.reset();
  close_bus();
  dbus_client_teardown();

  bus_.emplace();
  receiver_.emplace();
  receiver_->add("Faces");
  start();
  expect_listed({"Faces"});
}

TEST_F(DbusClientTest, ListsNothingAnyMoreAfterItsEnd)
{
  receiver_->add("Faces");
  start();
  expect_listed({"Faces"});

  dbus_client_teardown();
  EXPECT_EQ(listed(), Texts());
  Client client;
  EXPECT_FALSE(client.connect("Faces"));
  expect_lines({warning(NOT_FOUND)});
  dbus_client_teardown();
}

/* Nothing that was under way at its end comes to anything. */
TEST_F(DbusClientTest, EndsWhileItStarts)
{
  receiver_->add("Faces");
  start();
  dbus_client_teardown();
  start();
  expect_listed({"Faces"});
  dbus_client_teardown();
  receiver_->set_managed_objects(receiver_->hold());
  start();
  ASSERT_TRUE(spin_until([this] { return receiver_->held() == 1; }));
  dbus_client_teardown();
  receiver_->release_held(testbus::refuse());
  hear_all();
}

TEST_F(DbusClientTest, SurvivesTheBusDuringAConversion)
{
  start();
  testconverter::set_behaviour(Behaviour::HOLD);
  std::optional<Hold> hold(std::in_place);
  for (unsigned i = 0; i < 2 * SAMPLE_FRAME_QUEUE_MAX_RUNNING; i++) {
    receiver_->add("P" + std::to_string(i));
  }
  ASSERT_TRUE(spin_until([&hold] { return hold->waiting() == SAMPLE_FRAME_QUEUE_MAX_RUNNING; }));
  ASSERT_TRUE(spin_until([this] { return receiver_->calls_size() == 2 * SAMPLE_FRAME_QUEUE_MAX_RUNNING; }));

  g_autoptr(GDBusConnection) shared = system_bus_get(nullptr, nullptr);
  const testhost::Observed connection(shared);
  g_clear_object(&shared);
  receiver_.reset();
  bus_.reset();
  testconverter::take_inputs();
  hold.reset();
  /* Every conversion and every call that is under way has it. */
  ASSERT_TRUE(spin_until([&connection] { return !connection.alive(); }));
  EXPECT_EQ(listed(), Texts());
  testhost::take_syslog();
}

TEST_F(DbusClientTest, WaitsForABusThatIsNotThereYet)
{
  receiver_.reset();
  bus_.reset();
  g_autoptr(GError) error = nullptr;
  EXPECT_EQ(system_bus_get(nullptr, &error), nullptr);

  start();
  expect_lines({warning("Failed to connect to metadata-receiver over DBus: "s + error->message)});
  bus_.emplace();
  receiver_.emplace();
  receiver_->add("Faces");
  expect_listed({"Faces"});
}

TEST_F(DbusClientTest, WaitsForDescriptorsToReachTheBus)
{
  receiver_->add("Faces");
  {
    const testhost::FreeDescriptors too_few(DESCRIPTOR_RESERVE_SIZE + SYSTEM_BUS_CALL_DESCRIPTORS - 1);
    start();
    expect_lines(
        {warning("Failed to connect to metadata-receiver over DBus: Too few free file descriptors")});
  }
  expect_listed({"Faces"});
}

TEST_F(DbusClientTest, AsksAgainWhenTheReceiverRefuses)
{
  receiver_->set_managed_objects(testbus::refuse());
  receiver_->add("Faces");
  start();
  const SyslogLine failure = warning("Failed to connect to metadata-receiver over DBus: "s + REFUSED);
  expect_lines({failure});

  /* What it tells by itself is heard meanwhile. */
  receiver_->add("Plates");
  expect_listed({"Plates"});
  const gint64 failed_us = g_get_monotonic_time();
  expect_lines({failure});
  const gint64 failed_again_us = g_get_monotonic_time();
  receiver_->set_managed_objects({});
  expect_listed({"Faces", "Plates"});
  const gint64 listed_us = g_get_monotonic_time();
  EXPECT_LT(failed_again_us - failed_us, 2 * RECEIVER_WATCH_FIRST_RETRY_S * G_USEC_PER_SEC);
  EXPECT_GT(listed_us - failed_again_us, RECEIVER_WATCH_FIRST_RETRY_S * G_USEC_PER_SEC);
}

TEST_F(DbusClientTest, NeedsAList)
{
  dbus_client_init(nullptr);
  EXPECT_EQ(testhost::take_failed_preconditions(), Texts({"list != NULL"}));
}

TEST_F(DbusClientTest, StartsOnce)
{
  start();
  dbus_client_init(producers_);
  EXPECT_EQ(testhost::take_failed_preconditions(), Texts({"dbus_client.producers == NULL"}));
}

TEST_F(DbusClientTest, HandsOverAStream)
{
  Pipe pipe;
  receiver_->add("Faces", with_stream("Faces", testreceiver::reply_with_fds("(handle 0,)", {pipe.ends[0]})));
  start();
  expect_listed({"Faces"});
  Client client;

  ASSERT_TRUE(client.connect("Faces", 3));
  EXPECT_EQ(client.calls, std::vector<std::string>());
  ASSERT_TRUE(spin_until([&client] { return client.is_done(); }));
  EXPECT_EQ(client.calls, SERVED);
  EXPECT_EQ(client.thread, std::this_thread::get_id());
  pipe.close_reader();
  ASSERT_EQ(write(pipe.ends[1], "x", 1), 1);
  char byte = '\0';
  EXPECT_EQ(read(client.fd, &byte, 1), 1);
  EXPECT_EQ(byte, 'x');
  EXPECT_TRUE((fcntl(client.fd, F_GETFD) & FD_CLOEXEC) != 0);
  expect_listed({"Faces"});
  EXPECT_EQ(receiver_->take_calls(), Texts({"Faces GetSampleFrame ()", "Faces GetStreamFd (3,)"}));
}

TEST_F(DbusClientTest, ClosesTheDescriptorsThatNobodyAskedFor)
{
  Pipe wanted;
  Pipe other;
  receiver_->add("Faces", with_stream("Faces", testreceiver::reply_with_fds(
                                                   "(handle 1,)", {other.ends[0], wanted.ends[0]})));
  start();
  expect_listed({"Faces"});
  Client client;

  ASSERT_TRUE(client.connect("Faces"));
  ASSERT_TRUE(spin_until([&client] { return client.is_done(); }));
  wanted.close_reader();
  other.close_reader();
  EXPECT_EQ(write(wanted.ends[1], "x", 1), 1);
  /* Closed by the sender too, but on a thread of its own. */
  EXPECT_TRUE(spin_until([&other] { return write(other.ends[1], "x", 1) < 0; }));
  expect_listed({"Faces"});
}

namespace
{

struct OddStream {
  const char *body;
  bool with_fd;
};

void
PrintTo(const OddStream &stream, std::ostream *out)
{
  *out << stream.body << (stream.with_fd ? " with a descriptor" : " without one");
}

class OddStreamTest : public DbusClientTest, public testing::WithParamInterface<OddStream>
{
};

} // namespace

TEST_P(OddStreamTest, GivesNoDescriptor)
{
  const auto [body, with_fd] = GetParam();
  Pipe pipe;
  std::vector<int> fds;
  if (with_fd) {
    fds.push_back(pipe.ends[0]);
  }
  receiver_->add("Faces", with_stream("Faces", with_fd ? testreceiver::reply_with_fds(body, fds)
                                                       : testbus::reply(body)));
  start();
  expect_listed({"Faces"});
  Client client;

  ASSERT_TRUE(client.connect("Faces"));
  ASSERT_TRUE(spin_until([&client] { return client.is_done(); }));
  EXPECT_EQ(client.calls, SERVED);
  EXPECT_EQ(client.fd, -1);
  expect_lines({warning(NO_FD)});
}

INSTANTIATE_TEST_SUITE_P(Replies, OddStreamTest,
                         testing::Values(OddStream{"(handle 0,)", false}, OddStream{"(handle 1,)", true},
                                         OddStream{"(handle -1,)", true},
                                         OddStream{"(handle 2147483647,)", true}, OddStream{"()", true},
                                         OddStream{"()", false}, OddStream{"(0,)", true},
                                         OddStream{"('0',)", false}, OddStream{"(handle 0, 'x')", true}));

TEST_F(DbusClientTest, ReleasesTheUserDataOfAFailedCall)
{
  receiver_->add("Faces");
  start();
  expect_listed({"Faces"});
  Client client;

  ASSERT_TRUE(client.connect("Faces"));
  ASSERT_TRUE(spin_until([&client] { return client.is_done(); }));
  EXPECT_EQ(client.calls, NOT_SERVED);
  expect_lines({{LOG_INFO, "handle_get_stream_fd failed: "s + REFUSED}});
}

TEST_F(DbusClientTest, NeedsNoReleaseOfTheUserData)
{
  receiver_->add("Faces", with_stream("Faces", testbus::reply("(handle 0,)")));
  start();
  expect_listed({"Faces"});
  Client client;

  ASSERT_TRUE(
      dbus_client_connect_producer("Faces", "front door", 1, nullptr, Client::on_fd, &client, nullptr));
  ASSERT_TRUE(spin_until([&client] { return !client.calls.empty(); }));
  EXPECT_EQ(client.calls, std::vector<std::string>({"on_fd front door"}));
  expect_lines({warning(NO_FD)});
}

TEST_F(DbusClientTest, CallsNothingBackForAnObjectThatIsGone)
{
  start();
  receiver_->add("Faces");
  expect_listed({"Faces"});
  receiver_->remove("Faces");
  expect_listed({});
  Client client;

  for (const char *name : {"Faces", "", "Fa/ces", "Fa ces", "F\u00e4ces"}) {
    EXPECT_FALSE(client.connect(name)) << name;
    expect_lines({warning(NOT_FOUND)});
  }
  EXPECT_EQ(receiver_->take_calls(), Texts({"Faces GetSampleFrame ()"}));
  EXPECT_EQ(client.calls, std::vector<std::string>());
}

TEST_F(DbusClientTest, NeedsTheNamesAndWhoTakesTheDescriptor)
{
  EXPECT_FALSE(
      dbus_client_connect_producer(nullptr, "front door", 1, nullptr, Client::on_fd, nullptr, nullptr));
  EXPECT_FALSE(dbus_client_connect_producer("Faces", nullptr, 1, nullptr, Client::on_fd, nullptr, nullptr));
  EXPECT_FALSE(dbus_client_connect_producer("Faces", "front door", 1, nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(testhost::take_failed_preconditions(),
            Texts({"producer_name != NULL", "source_name != NULL", "on_fd != NULL"}));
}

TEST_F(DbusClientTest, EndsARequestWhoseReceiverLeaves)
{
  receiver_->add("Faces", with_stream("Faces", receiver_->hold()));
  start();
  expect_listed({"Faces"});
  Client client;
  ASSERT_TRUE(client.connect("Faces"));
  ASSERT_TRUE(spin_until([this] { return receiver_->held() == 1; }));

  receiver_->leave();
  ASSERT_TRUE(spin_until([&client] { return client.is_done(); }));
  EXPECT_EQ(client.calls, NOT_SERVED);
  const SyslogLines lines = testhost::take_syslog();
  ASSERT_EQ(lines.size(), 1);
  EXPECT_EQ(lines[0].priority, LOG_INFO);
  EXPECT_TRUE(lines[0].text.starts_with("handle_get_stream_fd failed: ")) << lines[0];
  expect_listed({});
  receiver_->come_back();
  receiver_->release_held(testbus::refuse());
  expect_listed({"Faces"});
}

TEST_F(DbusClientTest, EndsARequestWhoseBusGoes)
{
  receiver_->add("Faces", with_stream("Faces", receiver_->hold()));
  start();
  expect_listed({"Faces"});
  Client client;
  ASSERT_TRUE(client.connect("Faces"));
  ASSERT_TRUE(spin_until([this] { return receiver_->held() == 1; }));

  bus_.reset();
  ASSERT_TRUE(spin_until([&client] { return client.is_done(); }));
  EXPECT_EQ(client.calls, NOT_SERVED);
  EXPECT_EQ(testhost::take_syslog().size(), 1);
}

TEST_F(DbusClientTest, ServesRequestsOfOtherThreads)
{
  constexpr unsigned THREADS = 2;
  constexpr unsigned REQUESTS = 50;
  Pipe pipe;
  receiver_->add("Faces", with_stream("Faces", testreceiver::reply_with_fds("(handle 0,)", {pipe.ends[0]})));
  start();
  expect_listed({"Faces"});
  std::vector<Client> clients(THREADS * REQUESTS);
  std::vector<std::thread> threads;

  for (unsigned thread = 0; thread < THREADS; thread++) {
    threads.emplace_back([&clients, thread] {
      for (unsigned i = 0; i < REQUESTS; i++) {
        EXPECT_TRUE(clients[thread * REQUESTS + i].connect("Faces"));
      }
    });
  }
  for (std::thread &thread : threads) {
    thread.join();
  }
  for (const Client &client : clients) {
    ASSERT_TRUE(spin_until([&client] { return client.is_done(); }));
    EXPECT_EQ(client.calls, SERVED);
    EXPECT_EQ(client.thread, std::this_thread::get_id());
    EXPECT_GE(client.fd, 0);
  }
}

TEST_F(DbusClientTest, LosesNoDescriptorToARequestWhoseClientIsGone)
{
  constexpr unsigned RACES = 500;
  constexpr unsigned AT_A_TIME = 50; /* the bus has a limit */
  Pipe pipe;
  receiver_->add("Faces", with_stream("Faces", testreceiver::reply_with_fds("(handle 0,)", {pipe.ends[0]})));
  start();
  expect_listed({"Faces"});
  std::atomic<unsigned> freed = 0;
  std::atomic<unsigned> requests = 0;

  /* What takes the descriptor is gone before the reply, or is not: both threads drop a reference to it. */
  std::thread requester([&] {
    for (unsigned i = 0; i < RACES; i++) {
      while (requests - freed >= AT_A_TIME) {
        g_thread_yield();
      }
      g_autoptr(GCancellable) taker = g_cancellable_new();
      g_object_set_data_full(G_OBJECT(taker), "freed", &freed,
                             [](gpointer count) { ++*static_cast<std::atomic<unsigned> *>(count); });
      requests += dbus_client_connect_producer(
          "Faces", "front door", 1, nullptr, [](gint fd, const gchar *, gpointer) { close(fd); },
          g_object_ref(taker), g_object_unref);
    }
  });
  ASSERT_TRUE(spin_until([&freed] { return freed == RACES; }));
  requester.join();
  EXPECT_EQ(requests, RACES);
}

TEST_F(DbusClientTest, LosesNoRequestWhenTheBusGoesMeanwhile)
{
  constexpr unsigned RACES = 500;
  receiver_->add("Faces", with_stream("Faces", testbus::reply("(handle 0,)")));
  start();
  expect_listed({"Faces"});
  std::atomic<unsigned> ended = 0;
  std::atomic<unsigned> refused = 0;
  std::atomic<bool> begun = false;

  std::thread requester([&] {
    for (unsigned i = 0; i < RACES; i++) {
      const gboolean made = dbus_client_connect_producer(
          "Faces", "front door", 1, nullptr, [](gint, const gchar *, gpointer) {}, &ended,
          [](gpointer count) { ++*static_cast<std::atomic<unsigned> *>(count); });
      refused += made ? 0 : 1;
      begun = true;
    }
  });
  ASSERT_TRUE(spin_until([&begun] { return begun.load(); }));
  close_bus();
  ASSERT_TRUE(spin_until([&] { return ended + refused == RACES; }));
  requester.join();
  Client client;
  EXPECT_FALSE(client.connect("Faces"));
  EXPECT_EQ(testhost::take_syslog().size(), RACES + 1);
}

/* More streams at once than the bus allows calls. */
TEST_F(DbusClientTest, AsksForABurstOfStreamsInTurn)
{
  constexpr unsigned PRODUCERS = 8;
  constexpr unsigned CLIENTS = 40;
  Pipe pipe;
  std::atomic<unsigned> under_way = 0;
  std::atomic<unsigned> most = 0;
  const testbus::Answer answer = testreceiver::reply_with_fds("(handle 0,)", {pipe.ends[0]});
  for (unsigned i = 0; i < PRODUCERS; i++) {
    receiver_->add("P" + std::to_string(i), with_stream("P" + std::to_string(i), receiver_->hold()));
  }
  start();
  ASSERT_TRUE(spin_until([this] { return listed().size() == PRODUCERS; }));
  std::vector<Client> clients(PRODUCERS * CLIENTS);
  for (unsigned i = 0; i < clients.size(); i++) {
    ASSERT_TRUE(clients[i].connect(("P" + std::to_string(i % PRODUCERS)).c_str()));
  }

  const auto count_done = [&clients] {
    return std::count_if(clients.begin(), clients.end(),
                         [](const Client &client) { return client.is_done(); });
  };
  for (unsigned done = 0; done < clients.size(); done += RECEIVER_CALLS_MAX_UNDER_WAY) {
    ASSERT_TRUE(spin_until([this] { return receiver_->held() == RECEIVER_CALLS_MAX_UNDER_WAY; }));
    hear_all();
    EXPECT_EQ(receiver_->held(), RECEIVER_CALLS_MAX_UNDER_WAY);
    EXPECT_EQ(count_done(), done);
    receiver_->release_held(answer);
    ASSERT_TRUE(spin_until([&] { return count_done() == done + RECEIVER_CALLS_MAX_UNDER_WAY; }));
  }
  for (const Client &client : clients) {
    EXPECT_EQ(client.calls, SERVED);
    EXPECT_GE(client.fd, 0);
  }
}

TEST_F(DbusClientTest, ForgetsTheWaitingRequestsOfAClientThatGoes)
{
  receiver_->add("Faces", with_stream("Faces", receiver_->hold()));
  start();
  expect_listed({"Faces"});
  std::vector<Client> clients(RECEIVER_CALLS_MAX_UNDER_WAY + 3);
  for (Client &client : clients) {
    ASSERT_TRUE(client.connect("Faces"));
  }
  ASSERT_TRUE(spin_until([this] { return receiver_->held() == RECEIVER_CALLS_MAX_UNDER_WAY; }));

  /* One that is under way, whose place the next one gets, and one that waits, from another thread. */
  std::thread([&clients] {
    g_cancellable_cancel(clients.front().cancellable);
    g_cancellable_cancel(clients.back().cancellable);
  }).join();
  ASSERT_TRUE(spin_until([&] { return clients.front().is_done() && clients.back().is_done(); }));
  ASSERT_TRUE(spin_until([this] { return receiver_->held() == RECEIVER_CALLS_MAX_UNDER_WAY + 1; }));
  receiver_->release_held(testbus::reply("(handle 0,)"));
  ASSERT_TRUE(spin_until([this] { return receiver_->held() == 1; }));
  receiver_->release_held(testbus::reply("(handle 0,)"));
  for (unsigned i = 1; i < clients.size() - 1; i++) {
    ASSERT_TRUE(spin_until([&clients, i] { return clients[i].is_done(); }));
    EXPECT_EQ(clients[i].calls, SERVED);
  }
  EXPECT_EQ(clients.front().calls, NOT_SERVED);
  EXPECT_EQ(clients.back().calls, NOT_SERVED);
  EXPECT_EQ(testhost::take_syslog(), SyslogLines(clients.size() - 2, warning(NO_FD)));
}

TEST_F(DbusClientTest, DoesNotAskForAClientThatIsGoneAlready)
{
  receiver_->add("Faces");
  start();
  expect_listed({"Faces"});
  Client client;

  ASSERT_TRUE(client.connect("Faces"));
  g_cancellable_cancel(client.cancellable);
  ASSERT_TRUE(spin_until([&client] { return client.is_done(); }));
  EXPECT_EQ(client.calls, NOT_SERVED);
  hear_all();
}

namespace
{

testbus::Answer
refuse_as_beyond_limits(std::atomic<unsigned> *left, testbus::Answer otherwise)
{
  return [left, otherwise = std::move(otherwise)](GDBusMessage *call) {
    return (*left)-- > 0 ? g_dbus_message_new_method_error_literal(
                               call, "org.freedesktop.DBus.Error.LimitsExceeded", "No more.")
                         : otherwise(call);
  };
}

} // namespace

TEST_F(DbusClientTest, CallsAgainWhenTheLimitsAreExceeded)
{
  constexpr unsigned REFUSALS = 3;
  Pipe pipe;
  std::atomic<unsigned> sample_frame_refusals = REFUSALS;
  std::atomic<unsigned> stream_refusals = REFUSALS;
  Object faces = testreceiver::producer("Faces");
  faces.sample_frame = refuse_as_beyond_limits(&sample_frame_refusals, faces.sample_frame);
  faces.stream_fd =
      refuse_as_beyond_limits(&stream_refusals, testreceiver::reply_with_fds("(handle 0,)", {pipe.ends[0]}));
  receiver_->add("Faces", faces);
  start();
  expect_listed({"Faces"});
  Client client;

  ASSERT_TRUE(client.connect("Faces"));
  ASSERT_TRUE(spin_until([&client] { return client.is_done(); }));
  EXPECT_EQ(client.calls, SERVED);
  EXPECT_EQ(receiver_->calls_size(), 2 * (REFUSALS + 1));
}

TEST_F(DbusClientTest, GivesUpWhenTheLimitsStayExceeded)
{
  std::atomic<unsigned> refusals = G_MAXUINT;
  Object faces = testreceiver::producer("Faces");
  faces.stream_fd = refuse_as_beyond_limits(&refusals, testbus::refuse());
  receiver_->add("Faces", faces);
  start();
  expect_listed({"Faces"});
  receiver_->take_calls();
  Client client;

  ASSERT_TRUE(client.connect("Faces"));
  ASSERT_TRUE(spin_until([&client] { return client.is_done(); }));
  EXPECT_EQ(client.calls, NOT_SERVED);
  EXPECT_EQ(receiver_->calls_size(), RECEIVER_CALLS_MAX_TRIES);
  expect_lines({{LOG_INFO, "handle_get_stream_fd failed: GDBus.Error:org.freedesktop.DBus.Error."
                           "LimitsExceeded: No more."}});
}

/* The requests wait, and say so once. */
TEST_F(DbusClientTest, ReservesADescriptorForEachStream)
{
  Pipe pipe;
  /* Without a conversion, whose threads would close descriptors of theirs at any time. */
  Object faces = with_sample_frame("Faces", receiver_->hold());
  faces.stream_fd = testreceiver::reply_with_fds("(handle 0,)", {pipe.ends[0]});
  receiver_->add("Faces", faces);
  start();
  ASSERT_TRUE(spin_until([this] { return receiver_->held() == 1; }));
  std::vector<Client> clients(3);
  const auto count_done = [&clients] {
    return std::count_if(clients.begin(), clients.end(),
                         [](const Client &client) { return client.is_done(); });
  };
  {
    const testhost::FreeDescriptors one(DESCRIPTOR_RESERVE_SIZE + 1);
    for (Client &client : clients) {
      ASSERT_TRUE(client.connect("Faces"));
    }
    expect_lines({warning("streams of external producers wait: too few free file descriptors")});
    ASSERT_TRUE(spin_until([&] { return count_done() == 1; }));
  }
  ASSERT_TRUE(spin_until([&] { return count_done() == 3; }));
  for (const Client &client : clients) {
    EXPECT_EQ(client.calls, SERVED);
    EXPECT_GE(client.fd, 0);
  }
}

TEST_F(DbusClientTest, AsksAReceiverThatComesBackAgain)
{
  receiver_->add("Faces");
  start();
  expect_listed({"Faces"});
  receiver_->leave();
  expect_listed({});

  receiver_->set_managed_objects(testbus::refuse());
  receiver_->come_back();
  expect_lines({warning("Failed to connect to metadata-receiver over DBus: "s + REFUSED)});
  receiver_->set_managed_objects({});
  expect_listed({"Faces"});
}

/* What appears while descriptors are short is dealt with as soon as there are some. */
TEST_F(DbusClientTest, MissesNothingWhileDescriptorsAreShort)
{
  Pipe pipe;
  start();
  expect_listed_after_another({});
  for (rlim_t free = 0; free <= DESCRIPTOR_RESERVE_SIZE + SAMPLE_FRAME_QUEUE_DESCRIPTORS; free++) {
    const std::string name = "P" + std::to_string(free);
    const Object object = with_stream(name, testreceiver::reply_with_fds("(handle 0,)", {pipe.ends[0]}));
    Client client;
    {
      const testhost::FreeDescriptors few(free);
      receiver_->add(name, object);
      ASSERT_TRUE(spin_until([&] { return client.connect(name.c_str()) != FALSE; }));
    }
    expect_listed({name, "Zebras"});
    ASSERT_TRUE(spin_until([&client] { return client.is_done(); }));
    EXPECT_EQ(client.calls, SERVED);
    receiver_->remove(name);
    expect_listed({"Zebras"});
    testhost::take_syslog();
  }
}

/* GDBus then drops the descriptors and delivers the rest. */
TEST_F(DbusClientTest, KeepsTheBusWhenNoDescriptorIsFreeForAReply)
{
  Pipe pipe;
  receiver_->add("Faces", with_stream("Faces", receiver_->hold()));
  start();
  expect_listed({"Faces"});
  Client client;
  ASSERT_TRUE(client.connect("Faces"));
  ASSERT_TRUE(spin_until([this] { return receiver_->held() == 1; }));
  {
    /* The sender's copy of the descriptor stays open as long as the message. */
    g_autoptr(GDBusMessage) sent = nullptr;
    std::optional<testhost::FreeDescriptors> none;
    receiver_->release_held([&](GDBusMessage *call) {
      sent = testreceiver::reply_with_fds("(handle 0,)", {pipe.ends[0]})(call);
      none.emplace(0);
      return G_DBUS_MESSAGE(g_object_ref(sent));
    });
    ASSERT_TRUE(spin_until([&client] { return client.is_done(); }));
  }
  expect_lines({warning(NO_FD)});
  EXPECT_EQ(client.calls, SERVED);
  EXPECT_EQ(client.fd, -1);
  expect_listed_after_another({"Faces"});
}

/* Of the wrong type. */
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

TEST_P(OddManagerTest, HasFailedWhenItsReplyHasTheWrongType)
{
  receiver_->add("Faces");
  receiver_->set_managed_objects(testbus::reply(GetParam()));

  start();
  expect_lines({failure()});
  EXPECT_EQ(listed(), Texts());
}

TEST_P(OddManagerTest, IsLeftOutWhenASignalHasTheWrongType)
{
  constexpr const char *MANAGER = "org.freedesktop.DBus.ObjectManager";
  constexpr const char *PROPERTIES = "org.freedesktop.DBus.Properties";
  const std::string root = std::string(ROOT).substr(0, strlen(ROOT) - 1);
  receiver_->add("Faces");
  start();
  expect_listed({"Faces"});

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

TEST_P(OddManagerTest, HasFailedWhenItComesBack)
{
  receiver_->add("Faces");
  start();
  expect_listed({"Faces"});
  receiver_->leave();
  expect_listed({});

  receiver_->set_managed_objects(testbus::reply(GetParam()));
  receiver_->come_back();
  expect_lines({failure()});
  EXPECT_EQ(listed(), Texts());
}

TEST_P(OddManagerTest, IsIgnoredWhenItIsLateAndThereIsANewerQuestion)
{
  start();
  expect_listed_after_another({});
  receiver_->set_managed_objects(receiver_->hold());
  receiver_->come_back_at_once();
  ASSERT_TRUE(spin_until([this] { return receiver_->held() == 1; }));
  receiver_->come_back_at_once();
  ASSERT_TRUE(spin_until([this] { return receiver_->held() == 2; }));

  receiver_->release_held(testbus::reply(GetParam()));
  expect_lines({failure()});
  EXPECT_EQ(listed(), Texts());
}

INSTANTIATE_TEST_SUITE_P(Bodies, OddManagerTest,
                         testing::Values("()", "(1,)", "('x',)", "([('x', 1)],)", "(objectpath '/x',)",
                                         "(@a{oa{sa{sv}}} {}, 1)"));

TEST_F(DbusClientTest, LeavesOutObjectsFromElsewhere)
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

TEST_F(DbusClientTest, DoesNotWaitForAReceiverThatComesBackAndHangs)
{
  receiver_->add("Faces");
  start();
  expect_listed({"Faces"});
  receiver_->leave();
  expect_listed({});

  receiver_->set_managed_objects(receiver_->hold());
  receiver_->come_back();
  EXPECT_TRUE(spin_until([this] { return receiver_->held() == 1; }));
  testhost::dispatch_ready();
  EXPECT_EQ(receiver_->held(), 1);
  receiver_->release_held(testbus::refuse());
  expect_lines({warning("Failed to connect to metadata-receiver over DBus: "s + REFUSED)});
}

TEST_F(DbusClientTest, DoesNotWaitForAReceiverThatHangsAtTheStart)
{
  receiver_->set_managed_objects(receiver_->hold());
  receiver_->add("Faces");
  start();
  ASSERT_TRUE(spin_until([this] { return receiver_->held() == 1; }));

  receiver_->add("Plates");
  expect_listed({"Plates"});
  receiver_->set_managed_objects({});
  receiver_->release_held(testbus::refuse());
  expect_lines({warning("Failed to connect to metadata-receiver over DBus: "s + REFUSED)});
  expect_listed({"Faces", "Plates"});
}
