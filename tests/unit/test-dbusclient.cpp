/* SPDX-License-Identifier: MIT */
#include "testdbusclient.h"

#include "descriptorreserve.h"
#include "receiverwatch.h"
#include "sampleframequeue.h"

using testbus::Bus;
using testconverter::Behaviour;
using testconverter::Hold;
using testhost::spin_until;
using testhost::SyslogLine;
using testhost::Texts;
using testreceiver::Object;
using testreceiver::Receiver;

using namespace std::string_literals;

/* The start. */

TEST_F(DbusClientTest, ListsAProducerThatExistsBeforeTheStart)
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
  gint kind = -1;
  g_object_get(producer, "nice-name", &nice_name, "type", &kind, nullptr);
  EXPECT_STREQ(nice_name, "Face finder");
  expect_xml("Faces", R"(<tt:SampleFrame>{"Source":"Faces","Data":{"Item":[{}]}}</tt:SampleFrame>)");
  EXPECT_EQ(kind, ANALYTICS_PRODUCER_EXTERNAL);
  std::vector<guint32> channels;
  GPtrArray *entries = analytics_producer_get_all_channels_enabled(producer);
  for (guint i = 0; i < entries->len; i++) {
    channels.push_back(static_cast<AnalyticsProducerChannel *>(g_ptr_array_index(entries, i))->channel);
  }
  EXPECT_EQ(channels, std::vector<guint32>({3, 1, 2}));
  EXPECT_EQ(receiver_->take_calls(), Texts({"Faces GetSampleFrame ()"}));
}

TEST_F(DbusClientTest, ListsProducersAnnouncedAfterTheStart)
{
  start();

  receiver_->add("Faces");
  receiver_->add("Plates");
  expect_listed({"Faces", "Plates"});
}

TEST_F(DbusClientTest, WaitsForTheReceiver)
{
  receiver_->leave();
  start();

  receiver_->add("Faces");
  receiver_->come_back();
  expect_listed({"Faces"});
}

TEST_F(DbusClientTest, WaitsForTheBus)
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

TEST_F(DbusClientTest, WaitsForTheDescriptorsOfTheConnection)
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

TEST_F(DbusClientTest, RetriesWhenTheReceiverRefuses)
{
  receiver_->set_managed_objects(testbus::refuse());
  receiver_->add("Faces");
  start();
  const SyslogLine failure = warning("Failed to connect to metadata-receiver over DBus: "s + REFUSED);
  expect_lines({failure});

  /* Signals are handled before the retry. */
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

TEST_F(DbusClientTest, DoesNotBlockWhenTheReceiverHangsAtTheStart)
{
  receiver_->set_managed_objects(receiver_->hold());
  receiver_->add("Faces");
  start();
  wait_until_held(1);

  receiver_->add("Plates");
  expect_listed({"Plates"});
  receiver_->set_managed_objects({});
  receiver_->release_held(testbus::refuse());
  expect_lines({warning("Failed to connect to metadata-receiver over DBus: "s + REFUSED)});
  expect_listed({"Faces", "Plates"});
}

TEST_F(DbusClientTest, RefusesANullList)
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

/* Producers that go or change. */

TEST_F(DbusClientTest, RemovesOnlyTheProducerWhoseObjectGoes)
{
  start();
  receiver_->add("Faces");
  receiver_->add("Plates");
  expect_listed({"Faces", "Plates"});

  receiver_->remove("Faces");
  expect_listed({"Plates"});
}

TEST_F(DbusClientTest, RemovesAProducerByItsListedName)
{
  Object object = testreceiver::producer("Faces");
  start();
  receiver_->add("SomeObject", object);
  expect_listed({"Faces"});

  receiver_->remove("SomeObject");
  expect_listed({});
}

TEST_F(DbusClientTest, IgnoresTheRemovalOfAnUnlistedProducer)
{
  start();
  receiver_->add("Faces");
  expect_listed({"Faces"});
  analytics_producer_list_remove(producers_, "Faces");

  receiver_->remove("Faces");
  expect_listed_after_another({});
}

TEST_F(DbusClientTest, KeepsABuiltInProducerWhenItsNamesakeGoes)
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

TEST_F(DbusClientTest, KeepsTheFirstProducerWhenItsNamesakeGoes)
{
  start();
  receiver_->add("Faces");
  expect_listed({"Faces"});

  receiver_->add("Other", testreceiver::producer("Faces"));
  expect_lines({warning("tried to add a producer that already exists: Faces")});
  receiver_->remove("Other");
  expect_listed_after_another({"Faces"});
}

TEST_F(DbusClientTest, DoesNotListAProducerThatGoesBeforeItsReply)
{
  start();
  receiver_->add("Faces", with_sample_frame("Faces", receiver_->hold()));
  wait_until_held(1);

  receiver_->remove("Faces");
  receiver_->release_held(testbus::reply("('{}',)"));
  expect_listed_after_another({});
}

TEST_F(DbusClientTest, DoesNotListAProducerThatLosesItsInterfaceBeforeItsReply)
{
  Object faces = with_sample_frame("Faces", receiver_->hold());
  faces.interfaces.insert(1, "'com.quon.Other1': {'Name': <'Faces'>}, ");
  start();
  receiver_->add("Faces", faces);
  wait_until_held(1);

  receiver_->remove_interface("Faces", "com.quon.MetadataReceiver1.Producer");
  receiver_->release_held(testbus::reply("('{}',)"));
  expect_listed_after_another({});
}

TEST_F(DbusClientTest, IgnoresTheReplyOfAReplacedObject)
{
  start();
  receiver_->add("Faces", with_sample_frame("Faces", receiver_->hold()));
  wait_until_held(1);
  receiver_->remove("Faces");
  receiver_->add("Faces", with_sample_frame("Faces", testbus::reply("('new',)")));
  expect_listed({"Faces"});

  receiver_->release_held(testbus::reply("('old',)"));
  expect_listed_after_another({"Faces"});
  expect_xml("Faces", R"(<tt:SampleFrame>{"Source":"Faces","Data":{"Item":[new]}}</tt:SampleFrame>)");
}

TEST_F(DbusClientTest, ListsAnObjectWhoseInterfaceComesLater)
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

TEST_F(DbusClientTest, RemovesAProducerThatLosesItsInterface)
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

/* Conversions. */

TEST_F(DbusClientTest, LeavesOutAProducerWhoseSampleFrameCannotBeConverted)
{
  start();
  testconverter::set_behaviour(Behaviour::FAIL);

  receiver_->add("Faces");
  expect_lines({warning("failed to convert sample frame from: Faces")});
  testconverter::set_behaviour(Behaviour::CONVERT);
  expect_listed_after_another({});
}

TEST_F(DbusClientTest, ConvertsAnEmptySampleFrame)
{
  start();

  receiver_->add("Faces", with_sample_frame("Faces", testbus::reply("('',)")));
  expect_listed({"Faces"});
  expect_xml("Faces", R"(<tt:SampleFrame>{"Source":"Faces","Data":{"Item":[]}}</tt:SampleFrame>)");
}

TEST_F(DbusClientTest, DoesNotListAProducerThatGoesDuringItsConversion)
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

TEST_F(DbusClientTest, KeepsTheNameOfAProducerDuringItsConversion)
{
  start();
  testconverter::set_behaviour(Behaviour::HOLD);
  std::optional<Hold> hold(std::in_place);
  receiver_->add("Faces");
  ASSERT_TRUE(spin_until([&hold] { return hold->waiting() == 1; }));

  receiver_->add("Faces", testreceiver::producer("Others"));
  receiver_->emit(ROOT + "Faces"s, "org.freedesktop.DBus.Properties", "PropertiesChanged",
                  "('com.quon.MetadataReceiver1.Producer', {'Name': <'Plates'>}, @as [])");
  receive_all_signals();
  hold.reset();
  expect_listed({"Faces"});
}

TEST_F(DbusClientTest, DoesNotBlockTheMainLoopDuringAConversion)
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

TEST_F(DbusClientTest, LimitsConcurrentConversions)
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

TEST_F(DbusClientTest, DropsAProducerThatGoesWhileItWaitsForAConversion)
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

/* The receiver and the bus go and come back. */

TEST_F(DbusClientTest, ListsTheProducersOfAReturningReceiver)
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

TEST_F(DbusClientTest, ListsTheProducersOfAReceiverThatReturnsDuringConversions)
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

TEST_F(DbusClientTest, RetriesAfterTheReceiverReturns)
{
  start_with("Faces");
  receiver_->leave();
  expect_listed({});

  receiver_->set_managed_objects(testbus::refuse());
  receiver_->come_back();
  expect_lines({warning("Failed to connect to metadata-receiver over DBus: "s + REFUSED)});
  receiver_->set_managed_objects({});
  expect_listed({"Faces"});
}

TEST_F(DbusClientTest, DoesNotBlockWhenAReturningReceiverHangs)
{
  start_with("Faces");
  receiver_->leave();
  expect_listed({});

  receiver_->set_managed_objects(receiver_->hold());
  receiver_->come_back();
  wait_until_held(1);
  testhost::dispatch_ready();
  EXPECT_EQ(receiver_->held(), 1);
  receiver_->release_held(testbus::refuse());
  expect_lines({warning("Failed to connect to metadata-receiver over DBus: "s + REFUSED)});
}

TEST_F(DbusClientTest, ListsNothingWithoutTheBus)
{
  start_with("Faces");

  bus_.reset();
  expect_listed({});
  StreamClient client;
  EXPECT_FALSE(client.connect("Faces"));
  expect_lines({warning(NOT_FOUND)});
  EXPECT_EQ(client.calls, Texts());
}

TEST_F(DbusClientTest, ReleasesAClosedConnectionAndStartsAgain)
{
  start_with("Faces");
  receiver_.reset();
  close_bus();
  dbus_client_teardown();

  bus_.emplace();
  receiver_.emplace();
  start_with("Faces");
}

TEST_F(DbusClientTest, HandlesTheEndOfTheBusDuringAConversion)
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
  /* Each conversion and each pending call has a reference. */
  ASSERT_TRUE(spin_until([&connection] { return !connection.alive(); }));
  EXPECT_EQ(listed(), Texts());
  testhost::take_syslog();
}

TEST_F(DbusClientTest, ListsNothingAfterTeardown)
{
  start_with("Faces");

  dbus_client_teardown();
  EXPECT_EQ(listed(), Texts());
  StreamClient client;
  EXPECT_FALSE(client.connect("Faces"));
  expect_lines({warning(NOT_FOUND)});
  dbus_client_teardown();
}

TEST_F(DbusClientTest, CanBeTornDownDuringTheStart)
{
  receiver_->add("Faces");
  start();
  dbus_client_teardown();
  start();
  expect_listed({"Faces"});
  dbus_client_teardown();
  receiver_->set_managed_objects(receiver_->hold());
  start();
  wait_until_held(1);
  dbus_client_teardown();
  receiver_->release_held(testbus::refuse());
  receive_all_signals();
}
