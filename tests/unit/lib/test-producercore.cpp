/* SPDX-License-Identifier: MIT */
#include "producercore.h"

#include "fakereceiver.h"
#include "tessardproducer.h"
#include "testclock.h"
#include "testlibrary.h"
#include "timers.h"

#include <algorithm>
#include <fcntl.h>
#include <thread>

using testbus::refuse;
using testbus::reply;
using testlibrary::describe;
using testlibrary::failure;
using testlibrary::FakeReceiver;
using testlibrary::on_worker;
using testpipes::Descriptor;
using Lengths = std::vector<guint>;
using Texts = std::vector<std::string>;

namespace
{

#define RECEIVER_ERROR(name) "com.quon.MetadataReceiver1.Error." name

constexpr const char *ITEM = R"({"Objects": []})";

const std::string ABSENT =
    "interrupted: " + failure(TESSARD_ERROR_NO_RECEIVER,
                              "The receiver is not on the bus: 'com.quon.MetadataReceiver1' has no owner.");
const std::string CHANNEL_CLOSED =
    "interrupted: " + failure(TESSARD_ERROR_CHANNEL_CLOSED, "The receiver has closed a channel.");
const std::string CLOSED = failure(TESSARD_ERROR_CLOSED, "The producer is closed.");

std::string
full(guint32 channel)
{
  return failure(TESSARD_ERROR_QUEUE_FULL, "Too much waits for the receiver on channel " +
                                               std::to_string(channel) + ": the item is dropped.");
}

std::string
not_taken(guint count)
{
  return failure(TESSARD_ERROR_NOT_TAKEN, "The receiver has not taken " + std::to_string(count) + " items.");
}

std::string
numbered(guint number)
{
  return "{\"Number\": " + std::to_string(number) + "}";
}

class ProducerCoreTest : public testlibrary::BusFixture
{
protected:
  void SetUp() override
  {
    BusFixture::SetUp();
    testclock::reset();
    timers::take_begun();
    receiver_.emplace();
    object_ = G_OBJECT(g_object_new(G_TYPE_OBJECT, nullptr));
    g_object_set_data(object_, "test", this);
  }

  /* As when the application releases the last reference. */
  void TearDown() override
  {
    const std::weak_ptr<ProducerCore> core = core_;

    g_clear_object(&object_);
    core_->close(nullptr);
    core_.reset();
    receiver_.reset();
    EXPECT_TRUE(testhost::spin_until([&] { return core.expired(); })) << "it has not ended";
    on_worker([] {});
    EXPECT_EQ(timers::count_set(), 0U);
    BusFixture::TearDown();
  }

  void make(const std::vector<guint32> &channels = {1})
  {
    core_ = std::make_shared<ProducerCore>("", ProducerDescription{"Mine", "My detector", channels},
                                           Notifier::create(object_, on_news));
  }

  void start(const std::vector<guint32> &channels = {1})
  {
    make(channels);
    core_->start();
  }

  /* Starts it without a bus, and asks for the connection before the first attempt has ended. */
  void start_without_bus(testlibrary::Told *connected)
  {
    receiver_->leave();
    bus_.reset();
    make();
    on_worker([&] {
      core_->start();
      call_when_connected(connected);
    });
    connected->expect(
        {failure(TESSARD_ERROR_NO_BUS, "Could not connect to the bus: Could not connect: No such "
                                       "file or directory.")});
  }

  void call_when_connected(testlibrary::Told *connected)
  {
    core_->call_when_connected([connected](const GError *error) { connected->add(describe(error)); });
  }

  static void on_news(GObject *object)
  {
    static_cast<ProducerCoreTest *>(g_object_get_data(object, "test"))->take_news();
  }

  void take_news()
  {
    ProducerNews news;

    core_->take_news(&news);
    EXPECT_LE(dropped_, news.dropped);
    dropped_ = news.dropped;
    drained_ += news.drained ? 1 : 0;
    enabled_ = news.enabled;
    for (const GError *interruption : news.interruptions) {
      told_.push_back("interrupted: " + describe(interruption));
    }
    if (news.failure != nullptr) {
      told_.push_back("failed: " + describe(news.failure));
    }
  }

  void start_ready(const std::vector<guint32> &channels = {1})
  {
    start(channels);
    core_->set_sample_frame(ITEM);
    wait_until_ready();
  }

  void wait_until_ready()
  {
    EXPECT_TRUE(testhost::spin_until([&] { return core_->is_ready() != FALSE; }));
  }

  void expect_told(const Texts &texts)
  {
    EXPECT_TRUE(testhost::spin_until([&] { return told_.size() >= texts.size(); }));
    EXPECT_EQ(std::exchange(told_, {}), texts);
  }

  /* Returns what it fails with. */
  std::string send(const std::string &text, guint32 channel = 1)
  {
    g_autoptr(GError) error = nullptr;
    const gboolean sent = core_->send(channel, text.c_str(), &error);

    EXPECT_EQ(sent != FALSE, error == nullptr);
    return describe(error);
  }

  void send_numbered(guint count)
  {
    for (guint i = 0; i < count; i++) {
      EXPECT_EQ(send(numbered(i)), "no error");
    }
  }

  void wait_until_pending(guint count)
  {
    EXPECT_TRUE(testhost::spin_until([&] { return core_->get_pending() == count; }));
  }

  /* Starts to close it; the outcome comes to @outcome. */
  void close(testlibrary::Told *outcome)
  {
    core_->close([outcome](const GError *error) { outcome->add(describe(error)); });
  }

  std::optional<FakeReceiver> receiver_;
  GObject *object_ = nullptr;
  std::shared_ptr<ProducerCore> core_;
  Texts told_;
  EnabledChannels enabled_;
  guint64 dropped_ = 0;
  guint drained_ = 0;
};

} // namespace

TEST_F(ProducerCoreTest, SendsItemsInTheirOrder)
{
  start();
  send_numbered(3);
  const Descriptor channel = receiver_->take_channel();
  EXPECT_EQ(channel.messages(3), (Texts{numbered(0), numbered(1), numbered(2)}));
  EXPECT_TRUE(testhost::spin_until([&] { return drained_ > 0; }));
  EXPECT_EQ(core_->get_pending(), 0U);
  EXPECT_EQ(core_->get_dropped(), 0U);
  receiver_->expect_calls({R"(Registry.RegisterProducer ('Mine', 'My detector', [1], '{"Number": 0}', {}))",
                           "Registry.OpenChannel ('Mine', 1)"});
}

TEST_F(ProducerCoreTest, EachChannelHasItsItems)
{
  start({7, 3});
  EXPECT_EQ(send("{\"Of\": 3}", 3), "no error");
  EXPECT_EQ(send("{\"Of\": 7}", 7), "no error");
  const Descriptor first = receiver_->take_channel();
  const Descriptor second = receiver_->take_channel();
  EXPECT_EQ(first.messages(1), Texts{"{\"Of\": 7}"});
  EXPECT_EQ(second.messages(1), Texts{"{\"Of\": 3}"});
}

TEST_F(ProducerCoreTest, FirstSampleFrameCounts)
{
  start();
  core_->set_sample_frame(ITEM);
  core_->set_sample_frame("{}");
  send_numbered(1);
  wait_until_ready();
  receiver_->expect_calls({R"(Registry.RegisterProducer ('Mine', 'My detector', [1], '{"Objects": []}', {}))",
                           "Registry.OpenChannel ('Mine', 1)"});
}

TEST_F(ProducerCoreTest, RefusesTextsThatWouldEndTheChannel)
{
  const std::string longest = "{" + std::string(TESSARD_PRODUCER_MAX_TEXT_BYTES - 2, ' ') + "}";
  const auto invalid = [](const std::string &flaw) {
    return failure(TESSARD_ERROR_INVALID_ITEM, "The text of the item " + flaw + ".");
  };

  start_ready();
  EXPECT_EQ(send(longest + " "), invalid("is too long for a message"));
  for (const char *text : {"", " ", "[]", "{", "}", "1", "{} ,", "x{}"}) {
    EXPECT_EQ(send(text), invalid("is no JSON object")) << text;
  }
  EXPECT_EQ(send("{\xff}"), invalid("is not UTF-8"));
  EXPECT_EQ(core_->get_dropped(), 0U);
  EXPECT_EQ(core_->get_pending(), 0U);
  EXPECT_EQ(send(" \t\r\n{},{} \t\r\n"), "no error");
  const Descriptor channel = receiver_->take_channel();
  EXPECT_EQ(channel.messages(1), Texts{" \t\r\n{},{} \t\r\n"});
  EXPECT_EQ(send(longest), "no error");
  EXPECT_EQ(channel.messages(1), Texts{longest});
}

TEST_F(ProducerCoreTest, RefusesOtherChannels)
{
  start({1, 2});
  EXPECT_EQ(send("{}", 3), failure(TESSARD_ERROR_UNKNOWN_CHANNEL, "The producer has no channel 3."));
  EXPECT_EQ(send("{}", 0), failure(TESSARD_ERROR_UNKNOWN_CHANNEL, "The producer has no channel 0."));
  EXPECT_EQ(core_->get_dropped(), 0U);
}

TEST_F(ProducerCoreTest, DropsTheNewestItemsOfAFullQueue)
{
  receiver_->hold("OpenChannel");
  start({1, 2});
  send_numbered(TESSARD_QUEUE_MAX_ITEMS);
  EXPECT_EQ(send("{}"), full(1));
  EXPECT_EQ(send("{}"), full(1));
  EXPECT_EQ(send("{}", 2), "no error");
  EXPECT_EQ(core_->get_dropped(), 2U);
  EXPECT_EQ(core_->get_pending(), guint{TESSARD_QUEUE_MAX_ITEMS} + 1);
}

TEST_F(ProducerCoreTest, TellsOfDroppedItemsNowAndThen)
{
  receiver_->hold("OpenChannel");
  start();
  send_numbered(TESSARD_QUEUE_MAX_ITEMS);
  receiver_->wait_for_held(1);
  timers::take_begun();
  send("{}");
  EXPECT_TRUE(testhost::spin_until([&] { return dropped_ == 1; }));
  EXPECT_EQ(timers::take_begun(), Lengths());
  send("{}");
  send("{}");
  EXPECT_TRUE(testhost::spin_until([&] { return timers::count_set() == 1; }));
  const Lengths begun = timers::take_begun();
  ASSERT_EQ(begun.size(), 1U);
  EXPECT_LE(begun[0], guint{TESSARD_PRODUCER_DROPPED_INTERVAL_MS});
  EXPECT_EQ(dropped_, 1U);
  EXPECT_EQ(core_->get_dropped(), 3U);
  EXPECT_TRUE(timers::fire(begun[0]));
  EXPECT_TRUE(testhost::spin_until([&] { return dropped_ == 3; }));
  testclock::advance_ms(TESSARD_PRODUCER_DROPPED_INTERVAL_MS);
  send("{}");
  EXPECT_TRUE(testhost::spin_until([&] { return dropped_ == 4; }));
  EXPECT_EQ(timers::count_set(), 0U);
}

TEST_F(ProducerCoreTest, DropsItemsThatWaitForTooLong)
{
  receiver_->hold("OpenChannel");
  start();
  send_numbered(2);
  receiver_->wait_for_held(1);
  testclock::advance_ms(TESSARD_QUEUE_MAX_AGE_MS + 1);
  EXPECT_EQ(send(numbered(2)), "no error");
  EXPECT_EQ(core_->get_dropped(), 2U);
  EXPECT_EQ(core_->get_pending(), 1U);
  EXPECT_TRUE(testhost::spin_until([&] { return dropped_ == 2; }));
}

TEST_F(ProducerCoreTest, OpensAChannelAgainAndCountsWhatIsLost)
{
  start_ready();
  {
    const Descriptor channel = receiver_->take_channel();
    send_numbered(3);
    EXPECT_EQ(channel.messages(1), Texts{numbered(0)});
    wait_until_pending(0);
  }
  expect_told({CHANNEL_CLOSED});
  EXPECT_TRUE(testhost::spin_until([&] { return dropped_ == 2; }));
  EXPECT_FALSE(core_->is_ready());
  send_numbered(1);
  EXPECT_TRUE(timers::fire(TESSARD_FIRST_RETRY_MS));
  const Descriptor channel = receiver_->take_channel();
  EXPECT_EQ(channel.messages(1), Texts{numbered(0)});
  EXPECT_TRUE(core_->is_ready());
  EXPECT_EQ(core_->get_dropped(), 2U);
}

TEST_F(ProducerCoreTest, SurvivesARestartOfTheReceiver)
{
  start_ready();
  const Descriptor channel = receiver_->take_channel();
  send_numbered(2);
  wait_until_pending(0);
  receiver_->leave();
  expect_told({ABSENT});
  EXPECT_FALSE(core_->is_ready());
  EXPECT_EQ(core_->get_dropped(), 2U) << "it has not read them";
  EXPECT_EQ(send(numbered(7)), "no error");
  receiver_->come_back();
  const Descriptor next = receiver_->take_channel();
  EXPECT_EQ(next.messages(1), Texts{numbered(7)});
  wait_until_ready();
  EXPECT_EQ(core_->get_dropped(), 2U);
}

TEST_F(ProducerCoreTest, RefusalIsTheErrorOfEachItem)
{
  const std::string refusal = failure(TESSARD_ERROR_REFUSED, "A name must be short");

  receiver_->set_answer("RegisterProducer", refuse(RECEIVER_ERROR("InvalidName"), "A name must be short"));
  start();
  send_numbered(2);
  expect_told({"failed: " + refusal});
  EXPECT_EQ(core_->get_pending(), 0U);
  EXPECT_EQ(send("{}"), refusal);
  EXPECT_EQ(core_->get_dropped(), 3U);
  receiver_->accept("RegisterProducer");
  receiver_->come_back_at_once();
  wait_until_ready();
  EXPECT_EQ(send("{}"), "no error");
  const Descriptor channel = receiver_->take_channel();
  EXPECT_EQ(channel.messages(1), Texts{"{}"});
  expect_told({ABSENT});
  EXPECT_EQ(core_->get_dropped(), 3U);
}

TEST_F(ProducerCoreTest, TellsEachInterruptionOnceSinceTheLastNews)
{
  receiver_->set_answer("RegisterProducer", refuse(RECEIVER_ERROR("NameTaken"), "Taken"));
  start();
  core_->set_sample_frame(ITEM);
  /* The main loop does not run meanwhile. */
  for (guint wait = TESSARD_FIRST_RETRY_MS; wait < 8 * TESSARD_FIRST_RETRY_MS; wait *= 2) {
    while (!timers::try_to_fire(wait)) {
      on_worker([] {});
    }
  }
  expect_told({"interrupted: " + failure(TESSARD_ERROR_NAME_TAKEN, "Taken")});
}

TEST_F(ProducerCoreTest, TellsWhereTheDaemonHasItEnabled)
{
  testbus::Service daemon("com.quon.MetadataServer1",
                          reply("(<[(1, true, 'front door'), (2, false, 'hall')]>,)"));
  start_ready();
  EXPECT_TRUE(testhost::spin_until([&] { return core_->is_listed() != FALSE; }));
  EXPECT_TRUE(core_->is_enabled(1));
  EXPECT_FALSE(core_->is_enabled(2));
  EXPECT_TRUE(testhost::spin_until([&] { return enabled_ == EnabledChannels{{1, "front door"}}; }));
}

TEST_F(ProducerCoreTest, TellsThatItIsConnected)
{
  testlibrary::Told connected;

  start();
  call_when_connected(&connected);
  connected.expect({"no error"});
  call_when_connected(&connected);
  connected.expect({"no error"});
}

TEST_F(ProducerCoreTest, TellsThatThereIsNoBus)
{
  testlibrary::Told connected;

  start_without_bus(&connected);
}

TEST_F(ProducerCoreTest, CloseUnregisters)
{
  testlibrary::Told outcome;

  start_ready();
  receiver_->expect_calls({R"(Registry.RegisterProducer ('Mine', 'My detector', [1], '{"Objects": []}', {}))",
                           "Registry.OpenChannel ('Mine', 1)"});
  send_numbered(2);
  close(&outcome);
  outcome.expect({"no error"});
  receiver_->expect_calls({"Registry.UnregisterProducer ('Mine',)"});
  const Descriptor channel = receiver_->take_channel();
  EXPECT_EQ(channel.messages(2), (Texts{numbered(0), numbered(1)}));
  EXPECT_TRUE(channel.reaches_end());
  EXPECT_EQ(send("{}"), CLOSED);
  EXPECT_EQ(core_->get_dropped(), 1U);
  EXPECT_FALSE(core_->is_ready());
  close(&outcome);
  outcome.expect({"no error"});
}

TEST_F(ProducerCoreTest, CloseWaitsUntilEverythingIsWritten)
{
  const std::string large = "{" + std::string(200000, ' ') + "}";
  testlibrary::Told outcome;

  start_ready();
  const Descriptor channel = receiver_->take_channel();
  EXPECT_EQ(send(large), "no error");
  EXPECT_EQ(send("{}"), "no error");
  close(&outcome);
  outcome.expect({});
  EXPECT_EQ(core_->get_pending(), 2U);
  EXPECT_EQ(channel.messages(2), (Texts{large, "{}"}));
  outcome.expect({"no error"});
  EXPECT_EQ(core_->get_dropped(), 0U);
}

TEST_F(ProducerCoreTest, CloseHasATimeLimit)
{
  const std::string large = "{" + std::string(200000, ' ') + "}";
  testlibrary::Told outcome;

  start_ready();
  const Descriptor channel = receiver_->take_channel();
  EXPECT_EQ(send(large), "no error");
  EXPECT_EQ(send("{}"), "no error");
  close(&outcome);
  EXPECT_TRUE(timers::fire(TESSARD_PRODUCER_CLOSE_MS));
  outcome.expect({not_taken(2)});
  EXPECT_EQ(core_->get_dropped(), 2U);
  EXPECT_EQ(core_->get_pending(), 0U);
}

TEST_F(ProducerCoreTest, CloseOfARegistrationThatGetsNoReply)
{
  testlibrary::Told outcome;

  receiver_->hold("UnregisterProducer");
  start_ready();
  close(&outcome);
  receiver_->wait_for_held(1);
  outcome.expect({});
  EXPECT_TRUE(timers::fire(TESSARD_PRODUCER_CLOSE_MS));
  outcome.expect({"no error"});
}

TEST_F(ProducerCoreTest, CloseDoesNotWaitForAReceiverThatIsNotThere)
{
  testlibrary::Told outcome;

  receiver_->leave();
  start();
  send_numbered(3);
  expect_told({ABSENT});
  close(&outcome);
  outcome.expect({not_taken(3)});
  EXPECT_EQ(core_->get_dropped(), 3U);
}

TEST_F(ProducerCoreTest, CloseDoesNotWaitForAReceiverThatHasRefused)
{
  testlibrary::Told outcome;

  receiver_->set_answer("RegisterProducer", refuse(RECEIVER_ERROR("InvalidName"), "No"));
  start();
  send_numbered(1);
  expect_told({"failed: " + failure(TESSARD_ERROR_REFUSED, "No")});
  close(&outcome);
  outcome.expect({"no error"});
}

TEST_F(ProducerCoreTest, CloseIsOverWhenTheReceiverLeaves)
{
  testlibrary::Told outcome;
  const std::string large = "{" + std::string(200000, ' ') + "}";

  start_ready();
  const Descriptor channel = receiver_->take_channel();
  EXPECT_EQ(send(large), "no error");
  close(&outcome);
  outcome.expect({});
  receiver_->leave();
  outcome.expect({not_taken(1)});
  EXPECT_EQ(core_->get_dropped(), 1U);
}

TEST_F(ProducerCoreTest, EveryCallerOfCloseGetsTheOutcome)
{
  testlibrary::Told outcome;

  receiver_->leave();
  start();
  send_numbered(1);
  core_->close([&](const GError *error) { outcome.add("first " + describe(error)); });
  core_->close([&](const GError *error) { outcome.add("second " + describe(error)); });
  outcome.expect({"first " + not_taken(1), "second " + not_taken(1)});
  core_->close([&](const GError *error) { outcome.add("late " + describe(error)); });
  outcome.expect({"late " + not_taken(1)});
}

TEST_F(ProducerCoreTest, CloseEndsTheWaitForTheBus)
{
  testlibrary::Told connected;

  start_without_bus(&connected);
  call_when_connected(&connected);
  core_->close(nullptr);
  connected.expect({CLOSED});
}

/* A pending call fails before the end of the connection is told. */
TEST_F(ProducerCoreTest, BusThatEndsDuringACallIsNoRefusal)
{
  receiver_->hold("RegisterProducer");
  start();
  send_numbered(2);
  receiver_->wait_for_held(1);
  bus_.reset();
  expect_told({"interrupted: " + failure(TESSARD_ERROR_BUS_CLOSED, "The bus closed the connection.")});
  EXPECT_EQ(core_->get_pending(), 2U);
  EXPECT_EQ(send("{}"), "no error");
}

/* The receiver restarts while several threads send: each item is either read or counted. */
TEST_F(ProducerCoreTest, EachItemIsTakenOrCounted)
{
  constexpr guint THREADS = 3;
  std::vector<std::thread> threads;
  std::atomic<bool> stopped = false;
  std::atomic<guint> sent = 0;
  guint read = 0;

  start_ready();
  for (guint number = 0; number < THREADS; number++) {
    threads.emplace_back([&] {
      while (!stopped) {
        core_->send(1, numbered(sent++).c_str(), nullptr);
        std::this_thread::yield();
      }
    });
  }
  for (guint round = 0; round < 3; round++) {
    const Descriptor channel = receiver_->take_channel();
    read += channel.messages(50).size();
    receiver_->leave();
    EXPECT_TRUE(testhost::spin_until([&] { return !core_->is_ready(); }));
    receiver_->come_back();
  }
  stopped = true;
  for (std::thread &thread : threads) {
    thread.join();
  }
  const Descriptor channel = receiver_->take_channel();
  while (read + core_->get_dropped() < sent && !HasFailure()) {
    read += channel.messages(1).size();
  }
  EXPECT_EQ(read + core_->get_dropped(), sent);
  EXPECT_EQ(core_->get_pending(), 0U);
  EXPECT_EQ(channel.read_some(1), "");
}
