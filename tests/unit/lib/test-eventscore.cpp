/* SPDX-License-Identifier: MIT */
#include "eventscore.h"

#include "fakereceiver.h"
#include "tessardevents.h"
#include "testlibrary.h"
#include "timers.h"
#include "worker.h"

#include <thread>

using testbus::refuse;
using testbus::reply;
using testlibrary::describe;
using testlibrary::failure;
using testlibrary::FakeReceiver;
using testlibrary::on_worker;
using Lengths = std::vector<guint>;
using Texts = std::vector<std::string>;

namespace
{

#define RECEIVER_ERROR(name) "com.quon.MetadataReceiver1.Error." name

const std::string ABSENT = failure(
    TESSARD_ERROR_NO_RECEIVER, "The receiver is not on the bus: 'com.quon.MetadataReceiver1' has no owner.");
const std::string DECLARE_ALARM = "Events.DeclareTopic ('tns1:Alarm', true, [('Source', 'xs:string')], "
                                  "[('State', 'xs:boolean')], {})";
const std::string DECLARE_CROSSED = "Events.DeclareTopic ('tns1:Crossed', false, [], [], {})";

std::string
not_taken(guint count)
{
  return failure(TESSARD_ERROR_NOT_TAKEN, "The receiver has not taken " + std::to_string(count) + " events.");
}

EventTopic
alarm_topic()
{
  return {"tns1:Alarm", TRUE, {{"Source", "xs:string"}}, {{"State", "xs:boolean"}}, {}};
}

EventTopic
crossed_topic()
{
  return {"tns1:Crossed", FALSE, {}, {}, {}};
}

/* The call that emits a state of a property, or another event. */
std::string
alarm(const std::string &operation, const std::string &source, const std::string &state)
{
  return "Events.Emit ('tns1:Alarm', '" + operation + "', {'Source': '" + source + "'}, {'State': '" + state +
         "'}, 5)";
}

std::string
crossed(guint number)
{
  return "Events.Emit ('tns1:Crossed', '', {}, {'Number': '" + std::to_string(number) + "'}, 5)";
}

class EventsCoreTest : public testlibrary::BusFixture
{
protected:
  void SetUp() override
  {
    BusFixture::SetUp();
    timers::take_begun();
    receiver_.emplace();
    object_ = G_OBJECT(g_object_new(G_TYPE_OBJECT, nullptr));
    g_object_set_data(object_, "test", this);
  }

  /* As when the application releases the last reference. */
  void TearDown() override
  {
    const std::weak_ptr<EventsCore> core = core_;

    outcomes_.expect({});
    g_clear_object(&object_);
    core_->close(nullptr);
    core_.reset();
    receiver_->expect_calls({});
    receiver_.reset();
    EXPECT_TRUE(testhost::spin_until([&] { return core.expired(); })) << "it has not ended";
    on_worker([] {});
    EXPECT_EQ(timers::count_set(), 0U);
    outcomes_.expect(late_);
    BusFixture::TearDown();
  }

  void start()
  {
    core_ = std::make_shared<EventsCore>("", Notifier::create(object_, on_news));
    core_->start();
  }

  void start_with_topics()
  {
    start();
    core_->declare(alarm_topic());
    core_->declare(crossed_topic());
    receiver_->expect_calls({DECLARE_ALARM, DECLARE_CROSSED});
  }

  void leave()
  {
    receiver_->leave();
    expect_told({"interrupted: " + ABSENT});
  }

  static void on_news(GObject *object)
  {
    static_cast<EventsCoreTest *>(g_object_get_data(object, "test"))->take_news();
  }

  void take_news()
  {
    EventsNews news;

    core_->take_news(&news);
    drained_ += news.drained ? 1 : 0;
    for (const GError *interruption : news.interruptions) {
      told_.push_back("interrupted: " + describe(interruption));
    }
    if (news.refusal != nullptr) {
      told_.push_back("refused " + news.refused_topic + ": " + describe(news.refusal));
    }
  }

  void expect_told(const Texts &texts)
  {
    EXPECT_TRUE(testhost::spin_until([&] { return told_.size() >= texts.size(); }));
    EXPECT_EQ(std::exchange(told_, {}), texts);
  }

  /* Returns what it fails with. The outcome of an event comes with its label, if it has one. */
  std::string emit(Event event, const std::string &label = "")
  {
    g_autoptr(GError) error = nullptr;

    event.time = 5;
    if (!label.empty()) {
      event.function = [this, label](const GError *failed) {
        outcomes_.add(label + ": " + describe(failed));
      };
    }
    const gboolean queued = core_->emit(std::move(event), &error);
    EXPECT_EQ(queued != FALSE, error == nullptr);
    return describe(error);
  }

  std::string emit_alarm(const std::string &operation, const std::string &source, const std::string &state,
                         const std::string &label = "")
  {
    Event event;

    event.topic = "tns1:Alarm";
    event.operation = operation;
    event.source["Source"] = source;
    event.data["State"] = state;
    return emit(event, label);
  }

  std::string emit_crossed(guint number, const std::string &label = "")
  {
    Event event;

    event.topic = "tns1:Crossed";
    event.data["Number"] = std::to_string(number);
    return emit(event, label);
  }

  std::optional<FakeReceiver> receiver_;
  GObject *object_ = nullptr;
  std::shared_ptr<EventsCore> core_;
  testlibrary::Told outcomes_;
  Texts late_; /* the outcomes that come at the end */
  Texts told_;
  guint drained_ = 0;
};

struct EventRefusal {
  const char *name;
  TessardError code;
};

/* The name of the test's parameter. */
void
PrintTo(const EventRefusal &refusal, std::ostream *stream)
{
  *stream << refusal.name;
}

class EventRefusalTest : public EventsCoreTest, public testing::WithParamInterface<EventRefusal>
{
};

const EventRefusal REFUSALS[] = {
    {RECEIVER_ERROR("InvalidTopic"), TESSARD_ERROR_INVALID_TOPIC},
    {RECEIVER_ERROR("InvalidItems"), TESSARD_ERROR_INVALID_ITEMS},
    {RECEIVER_ERROR("InvalidOperation"), TESSARD_ERROR_INVALID_OPERATION},
    {RECEIVER_ERROR("InvalidTime"), TESSARD_ERROR_INVALID_TIME},
    {RECEIVER_ERROR("UnknownProperty"), TESSARD_ERROR_UNKNOWN_PROPERTY},
    {RECEIVER_ERROR("TopicConflict"), TESSARD_ERROR_TOPIC_CONFLICT},
    {RECEIVER_ERROR("NotOwner"), TESSARD_ERROR_NOT_OWNER},
    {RECEIVER_ERROR("TooManyTopics"), TESSARD_ERROR_TOO_MANY_TOPICS},
    {RECEIVER_ERROR("TooManyProperties"), TESSARD_ERROR_TOO_MANY_PROPERTIES},
    {RECEIVER_ERROR("EventTooLarge"), TESSARD_ERROR_EVENT_TOO_LARGE},
    {RECEIVER_ERROR("Unheard"), TESSARD_ERROR_REFUSED},
    {"org.freedesktop.DBus.Error.UnknownMethod", TESSARD_ERROR_REFUSED},
};

class PassingEventRefusalTest : public EventsCoreTest, public testing::WithParamInterface<const char *>
{
};

} // namespace

TEST_F(EventsCoreTest, DeclaresAndEmitsInOrder)
{
  start_with_topics();
  EXPECT_EQ(emit_crossed(1, "first"), "no error");
  EXPECT_EQ(emit_alarm("Initialized", "a", "true", "second"), "no error");
  EXPECT_EQ(emit_crossed(2, "third"), "no error");
  receiver_->expect_calls({crossed(1), alarm("Initialized", "a", "true"), crossed(2)});
  outcomes_.expect({"first: no error", "second: no error", "third: no error"});
  EXPECT_TRUE(testhost::spin_until([&] { return drained_ > 0; }));
  EXPECT_EQ(core_->get_dropped(), 0U);
}

TEST_F(EventsCoreTest, DeclaresWithNamespaces)
{
  start();
  core_->declare({"acme:Alarm", FALSE, {{"A", "xs:int"}, {"B", "xs:string"}}, {}, {{"acme", "urn:acme"}}});
  receiver_->expect_calls({"Events.DeclareTopic ('acme:Alarm', false, [('A', 'xs:int'), ('B', 'xs:string')], "
                           "[], {'acme': 'urn:acme'})"});
}

TEST_F(EventsCoreTest, OneCallAtATime)
{
  receiver_->hold("Emit");
  start_with_topics();
  emit_crossed(1);
  emit_crossed(2);
  receiver_->wait_for_held(1);
  core_->declare(crossed_topic());
  core_->declare({"tns1:Other", FALSE, {}, {}, {}});
  on_worker([] {});
  receiver_->expect_calls({crossed(1)});
  receiver_->accept("Emit");
  receiver_->release(1, reply("()"));
  receiver_->expect_calls({"Events.DeclareTopic ('tns1:Other', false, [], [], {})", crossed(2)});
}

TEST_F(EventsCoreTest, RefusesAnEventOfATopicThatIsNotDeclared)
{
  start();
  EXPECT_EQ(emit_crossed(1, "never"),
            failure(TESSARD_ERROR_UNKNOWN_TOPIC, "The topic tns1:Crossed is not declared."));
}

TEST_P(EventRefusalTest, OfAnEventIsTold)
{
  const EventRefusal &refusal = GetParam();
  const std::string error = failure(refusal.code, "The reason");

  receiver_->set_answer("Emit", refuse(refusal.name, "The reason"));
  start_with_topics();
  emit_crossed(1, "refused");
  outcomes_.expect({"refused: " + error});
  expect_told({"refused tns1:Crossed: " + error});
  EXPECT_EQ(core_->get_dropped(), 1U);
  receiver_->accept("Emit");
  emit_crossed(2, "taken");
  outcomes_.expect({"taken: no error"});
  EXPECT_EQ(core_->get_dropped(), 1U);
  receiver_->expect_calls({crossed(1), crossed(2)});
}

TEST_P(EventRefusalTest, OfADeclarationDropsItsEvents)
{
  const EventRefusal &refusal = GetParam();
  const std::string error = failure(refusal.code, "The reason");

  receiver_->set_answer("DeclareTopic", refuse(refusal.name, "The reason"));
  start();
  core_->declare(crossed_topic());
  expect_told({"refused tns1:Crossed: " + error});
  emit_crossed(1, "first");
  outcomes_.expect({"first: " + error});
  EXPECT_EQ(core_->get_dropped(), 1U);
  expect_told({"refused tns1:Crossed: " + error});
  receiver_->accept("DeclareTopic");
  core_->declare(crossed_topic());
  emit_crossed(2, "second");
  outcomes_.expect({"second: no error"});
  receiver_->expect_calls({DECLARE_CROSSED, DECLARE_CROSSED, crossed(2)});
}

INSTANTIATE_TEST_SUITE_P(Errors, EventRefusalTest, testing::ValuesIn(REFUSALS));

TEST_P(PassingEventRefusalTest, IsFollowedByAnotherAttempt)
{
  const std::string busy = failure(TESSARD_ERROR_BUSY, "Not now");
  guint wait = TESSARD_FIRST_RETRY_MS;

  receiver_->set_answer("Emit", refuse(GetParam(), "Not now"));
  start_with_topics();
  emit_crossed(1, "event");
  for (guint round = 0; round < 7; round++) {
    expect_told({"interrupted: " + busy});
    receiver_->expect_calls({crossed(1)});
    EXPECT_EQ(timers::take_begun(), round == 0 ? (Lengths{TESSARD_CONNECT_MS, wait}) : Lengths{wait});
    EXPECT_TRUE(timers::fire(wait));
    wait = std::min<guint>(2 * wait, TESSARD_LAST_RETRY_MS);
  }
  expect_told({"interrupted: " + busy});
  receiver_->accept("Emit");
  EXPECT_TRUE(timers::fire(TESSARD_LAST_RETRY_MS));
  outcomes_.expect({"event: no error"});
  receiver_->expect_calls({crossed(1), crossed(1)});
  EXPECT_EQ(core_->get_dropped(), 0U);
}

INSTANTIATE_TEST_SUITE_P(Errors, PassingEventRefusalTest,
                         testing::Values(RECEIVER_ERROR("RateExceeded"), RECEIVER_ERROR("LimitExceeded"),
                                         "org.freedesktop.DBus.Error.NoReply",
                                         "org.freedesktop.DBus.Error.NameHasNoOwner",
                                         "org.freedesktop.DBus.Error.ServiceUnknown"));

TEST_F(EventsCoreTest, DeclarationThatIsRefusedForNowIsRepeated)
{
  receiver_->set_answer("DeclareTopic", refuse(RECEIVER_ERROR("LimitExceeded"), "Too many"));
  start();
  core_->declare(crossed_topic());
  emit_crossed(1, "event");
  expect_told({"interrupted: " + failure(TESSARD_ERROR_BUSY, "Too many")});
  receiver_->accept("DeclareTopic");
  EXPECT_TRUE(timers::fire(TESSARD_FIRST_RETRY_MS));
  outcomes_.expect({"event: no error"});
  receiver_->expect_calls({DECLARE_CROSSED, DECLARE_CROSSED, crossed(1)});
}

TEST_F(EventsCoreTest, TopicThatTheReceiverHasForgottenIsDeclaredAgain)
{
  receiver_->set_answer("Emit", refuse(RECEIVER_ERROR("UnknownTopic"), "Not declared"));
  start_with_topics();
  emit_crossed(1, "event");
  expect_told({"interrupted: " + failure(TESSARD_ERROR_UNKNOWN_TOPIC, "Not declared")});
  receiver_->accept("Emit");
  EXPECT_TRUE(timers::fire(TESSARD_FIRST_RETRY_MS));
  outcomes_.expect({"event: no error"});
  receiver_->expect_calls({crossed(1), DECLARE_CROSSED, crossed(1)});
}

TEST_F(EventsCoreTest, ReceiverThatForgetsATopicAtOnceIsAskedEverMoreSlowly)
{
  receiver_->set_answer("Emit", refuse(RECEIVER_ERROR("UnknownTopic"), "Not declared"));
  start_with_topics();
  timers::take_begun();
  emit_crossed(1);
  for (const guint wait : {TESSARD_FIRST_RETRY_MS, 2 * TESSARD_FIRST_RETRY_MS, 4 * TESSARD_FIRST_RETRY_MS}) {
    expect_told({"interrupted: " + failure(TESSARD_ERROR_UNKNOWN_TOPIC, "Not declared")});
    EXPECT_EQ(timers::take_begun(), Lengths{wait});
    EXPECT_TRUE(timers::fire(wait));
  }
  expect_told({"interrupted: " + failure(TESSARD_ERROR_UNKNOWN_TOPIC, "Not declared")});
  receiver_->expect_calls(
      {crossed(1), DECLARE_CROSSED, crossed(1), DECLARE_CROSSED, crossed(1), DECLARE_CROSSED, crossed(1)});
}

TEST_F(EventsCoreTest, PolicyThatForbidsCallsIsTold)
{
  const std::string not_allowed = failure(
      TESSARD_ERROR_NOT_ALLOWED, "The bus policy refused the call: only root and members of the group "
                                 "'tessard-producer' can emit events.");

  receiver_->set_answer("DeclareTopic", refuse("org.freedesktop.DBus.Error.AccessDenied", "Rejected"));
  start();
  core_->declare(crossed_topic());
  expect_told({"refused tns1:Crossed: " + not_allowed});
  receiver_->expect_calls({DECLARE_CROSSED});
}

TEST_F(EventsCoreTest, ReplyOfAWrongTypeIsARefusal)
{
  const std::string malformed =
      failure(TESSARD_ERROR_MALFORMED_REPLY,
              "The receiver sent a malformed reply: Method “com.quon.MetadataReceiver1.Events.Emit” returned "
              "type “(s)”, but expected “()”.");

  receiver_->set_answer("Emit", reply("('odd',)"));
  start_with_topics();
  emit_crossed(1, "event");
  outcomes_.expect({"event: " + malformed});
  expect_told({"refused tns1:Crossed: " + malformed});
  receiver_->expect_calls({crossed(1)});
}

TEST_F(EventsCoreTest, RefusalWithoutATextHasTheNameOfTheError)
{
  receiver_->set_answer("Emit", refuse(RECEIVER_ERROR("InvalidItems"), ""));
  start_with_topics();
  emit_crossed(1, "event");
  outcomes_.expect(
      {"event: " + failure(TESSARD_ERROR_INVALID_ITEMS, "com.quon.MetadataReceiver1.Error.InvalidItems")});
  receiver_->expect_calls({crossed(1)});
}

TEST_F(EventsCoreTest, NewReceiverGetsTopicsAndStatesBeforeTheEventsThatHaveWaited)
{
  start_with_topics();
  emit_alarm("Initialized", "a", "true");
  emit_alarm("Changed", "b", "false");
  emit_alarm("Initialized", "gone", "true");
  emit_alarm("Deleted", "gone", "true", "deleted");
  outcomes_.expect({"deleted: no error"});
  receiver_->expect_calls({alarm("Initialized", "a", "true"), alarm("Changed", "b", "false"),
                           alarm("Initialized", "gone", "true"), alarm("Deleted", "gone", "true")});
  leave();
  emit_crossed(1);
  emit_alarm("Changed", "b", "true");
  receiver_->come_back();
  receiver_->expect_calls({DECLARE_ALARM, DECLARE_CROSSED, alarm("Initialized", "a", "true"), crossed(1),
                           alarm("Changed", "b", "true")});
}

TEST_F(EventsCoreTest, EventOfAPendingCallIsSentAgain)
{
  receiver_->hold("Emit");
  start_with_topics();
  emit_crossed(1, "first");
  emit_crossed(2, "second");
  receiver_->wait_for_held(1);
  leave();
  receiver_->accept("Emit");
  receiver_->come_back();
  outcomes_.expect({"first: no error", "second: no error"});
  receiver_->expect_calls({crossed(1), DECLARE_ALARM, DECLARE_CROSSED, crossed(1), crossed(2)});
}

/* A pending call fails before the end of the connection is told. */
TEST_F(EventsCoreTest, EventOfACallThatTheEndOfTheBusEndsIsSentAgain)
{
  const std::string closed = failure(TESSARD_ERROR_BUS_CLOSED, "The bus closed the connection.");
  testlibrary::Told topics;

  receiver_->hold("Emit");
  receiver_->hold("GetTopics");
  start_with_topics();
  core_->get_topics([&](GVariant *, const GError *error) { topics.add(describe(error)); });
  emit_crossed(1, "event");
  receiver_->wait_for_held(2);
  bus_.reset();
  expect_told({"interrupted: " + closed});
  topics.expect({closed});
  EXPECT_EQ(core_->get_dropped(), 0U);
  receiver_->leave();
  receiver_->forget_calls();
  bus_.emplace();
  receiver_->accept("Emit");
  receiver_->come_back();
  EXPECT_TRUE(timers::fire(TESSARD_FIRST_RETRY_MS));
  outcomes_.expect({"event: no error"});
  receiver_->expect_calls({DECLARE_ALARM, DECLARE_CROSSED, crossed(1)});
}

TEST_F(EventsCoreTest, WhileTheReceiverIsAwayTheLastStateWaits)
{
  const std::string full =
      failure(TESSARD_ERROR_QUEUE_FULL, "The event was dropped while the receiver was away.");

  start_with_topics();
  leave();
  emit_alarm("Changed", "a", "true", "first");
  emit_alarm("Changed", "a", "false", "second");
  outcomes_.expect({"first: " + full});
  EXPECT_EQ(core_->get_dropped(), 1U);
  receiver_->come_back();
  outcomes_.expect({"second: no error"});
  receiver_->expect_calls({DECLARE_ALARM, DECLARE_CROSSED, alarm("Changed", "a", "false")});
}

TEST_F(EventsCoreTest, WhileTheReceiverIsAwayTheNewestEventsWait)
{
  start_with_topics();
  leave();
  for (guint i = 0; i < TESSARD_EVENTS_MAX_QUEUED + 2; i++) {
    EXPECT_EQ(emit_crossed(i), "no error");
  }
  EXPECT_EQ(core_->get_dropped(), 2U);
  Texts calls = {DECLARE_ALARM, DECLARE_CROSSED};
  for (guint i = 2; i < TESSARD_EVENTS_MAX_QUEUED + 2; i++) {
    calls.push_back(crossed(i));
  }
  receiver_->come_back();
  receiver_->expect_calls(calls);
}

TEST_F(EventsCoreTest, HasALimitOfProperties)
{
  start_with_topics();
  leave();
  for (guint i = 0; i < TESSARD_EVENTS_MAX_PROPERTIES; i++) {
    EXPECT_EQ(emit_alarm("Initialized", std::to_string(i), "true"), "no error");
  }
  EXPECT_EQ(emit_alarm("Initialized", "one more", "true", "never"),
            failure(TESSARD_ERROR_TOO_MANY_PROPERTIES, "There are 1024 properties already."));
  EXPECT_EQ(emit_alarm("Changed", "0", "false"), "no error");
  EXPECT_EQ(emit_alarm("Deleted", "1", "false"), "no error");
  EXPECT_EQ(emit_alarm("Initialized", "one more", "true"), "no error");
  EXPECT_EQ(core_->get_dropped(), 2U) << "the states that others have replaced";
  late_ = {};
}

/* A property that the receiver has refused is no state. */
TEST_F(EventsCoreTest, RefusedStateIsNotSentAgain)
{
  receiver_->set_answer("Emit", refuse(RECEIVER_ERROR("NotOwner"), "Another one has it"));
  start_with_topics();
  emit_alarm("Initialized", "a", "true", "refused");
  outcomes_.expect({"refused: " + failure(TESSARD_ERROR_NOT_OWNER, "Another one has it")});
  expect_told({"refused tns1:Alarm: " + failure(TESSARD_ERROR_NOT_OWNER, "Another one has it")});
  receiver_->accept("Emit");
  leave();
  receiver_->come_back();
  emit_crossed(1);
  receiver_->expect_calls({alarm("Initialized", "a", "true"), DECLARE_ALARM, DECLARE_CROSSED, crossed(1)});
}

TEST_F(EventsCoreTest, NewDeclarationReplacesOneThatIsPending)
{
  receiver_->hold("DeclareTopic");
  start();
  core_->declare(crossed_topic());
  receiver_->wait_for_held(1);
  core_->declare({"tns1:Crossed", FALSE, {{"Rule", "xs:string"}}, {}, {}});
  receiver_->accept("DeclareTopic");
  receiver_->release(1, refuse(RECEIVER_ERROR("TopicConflict"), "Old"));
  expect_told({"refused tns1:Crossed: " + failure(TESSARD_ERROR_TOPIC_CONFLICT, "Old")});
  emit_crossed(1, "event");
  outcomes_.expect({"event: no error"});
  receiver_->expect_calls({DECLARE_CROSSED,
                           "Events.DeclareTopic ('tns1:Crossed', false, [('Rule', 'xs:string')], [], {})",
                           crossed(1)});
}

TEST_F(EventsCoreTest, AsksForTheTopicsOfAllApplications)
{
  testlibrary::Told topics;
  const auto tell = [&](GVariant *found, const GError *error) {
    g_autofree gchar *text = found != nullptr ? g_variant_print(found, FALSE) : nullptr;
    topics.add(text != nullptr ? text : describe(error));
  };

  receiver_->set_answer("GetTopics", reply("([('tns1:A', true, [('B', 'xs:int')], @a(ss) [], @a{ss} {})],)"));
  start();
  core_->get_topics(tell);
  topics.expect({"([('tns1:A', true, [('B', 'xs:int')], [], {})],)"});
  receiver_->set_answer("GetTopics", reply("('odd',)"));
  core_->get_topics(tell);
  topics.expect({failure(TESSARD_ERROR_MALFORMED_REPLY,
                         "The receiver sent a malformed reply: Method “com.quon.MetadataReceiver1.Events."
                         "GetTopics” returned type “(s)”, but expected “(a(sba(ss)a(ss)a{ss}))”.")});
  receiver_->hold("GetTopics");
  core_->get_topics(tell);
  receiver_->wait_for_held(1);
  leave();
  topics.expect({failure(TESSARD_ERROR_BUSY, "Message recipient disconnected from message bus without "
                                             "replying")});
  core_->get_topics(tell);
  topics.expect({ABSENT});
  receiver_->expect_calls({"Events.GetTopics ()", "Events.GetTopics ()", "Events.GetTopics ()"});
}

TEST_F(EventsCoreTest, CloseWaitsUntilEverythingIsTaken)
{
  testlibrary::Told closed;

  receiver_->hold("Emit");
  start_with_topics();
  emit_crossed(1, "event");
  receiver_->wait_for_held(1);
  core_->close([&](const GError *error) { closed.add(describe(error)); });
  closed.expect({});
  EXPECT_EQ(emit_crossed(2, "never"), failure(TESSARD_ERROR_CLOSED, "The events are closed."));
  receiver_->release(1, reply("()"));
  outcomes_.expect({"event: no error"});
  closed.expect({"no error"});
  core_->close([&](const GError *error) { closed.add(describe(error)); });
  closed.expect({"no error"});
  receiver_->expect_calls({crossed(1)});
}

TEST_F(EventsCoreTest, CloseHasATimeLimit)
{
  testlibrary::Told closed;

  receiver_->hold("Emit");
  start_with_topics();
  emit_crossed(1, "first");
  emit_alarm("Changed", "a", "true", "second");
  receiver_->wait_for_held(1);
  core_->close([&](const GError *error) { closed.add(describe(error)); });
  EXPECT_TRUE(timers::fire(TESSARD_EVENTS_CLOSE_MS));
  closed.expect({not_taken(2)});
  outcomes_.expect({"first: " + not_taken(2), "second: " + not_taken(2)});
  EXPECT_EQ(core_->get_dropped(), 2U);
  receiver_->expect_calls({crossed(1)});
}

TEST_F(EventsCoreTest, CloseDoesNotWaitForAReceiverThatIsNotThere)
{
  testlibrary::Told closed;

  start_with_topics();
  leave();
  emit_crossed(1, "event");
  core_->close([&](const GError *error) { closed.add(describe(error)); });
  closed.expect({not_taken(1)});
  outcomes_.expect({"event: " + ABSENT});
  EXPECT_EQ(core_->get_dropped(), 1U);
  core_->close([&](const GError *error) { closed.add("late " + describe(error)); });
  closed.expect({"late " + not_taken(1)});
}

TEST_F(EventsCoreTest, CloseIsOverWhenTheReceiverLeaves)
{
  testlibrary::Told closed;

  receiver_->hold("Emit");
  start_with_topics();
  emit_crossed(1, "event");
  receiver_->wait_for_held(1);
  core_->close([&](const GError *error) { closed.add(describe(error)); });
  receiver_->leave();
  closed.expect({not_taken(1)});
  outcomes_.expect({"event: " + ABSENT});
  receiver_->expect_calls({crossed(1)});
}

TEST_F(EventsCoreTest, TopicsAfterTheEndAreAnError)
{
  testlibrary::Told topics;
  testlibrary::Told closed;

  start();
  core_->close([&](const GError *error) { closed.add(describe(error)); });
  closed.expect({"no error"});
  core_->get_topics([&](GVariant *, const GError *error) { topics.add(describe(error)); });
  topics.expect({failure(TESSARD_ERROR_CLOSED, "The events are closed.")});
}

/* The receiver can still come before the link to the bus ends. */
TEST_F(EventsCoreTest, KeepsNothingOfAReceiverThatComesAtTheEnd)
{
  const testbus::Peer peer;
  GObject *connection = G_OBJECT(peer.connection());

  start_with_topics();
  core_->close([&](const GError *) {
    worker_invoke([client = static_cast<BusLink::Client *>(core_.get()), bus = peer.connection()] {
      client->receiver_appeared(bus, ":1.1");
    });
  });
  EXPECT_TRUE(testhost::spin_until([&] { return core_.use_count() == 1; }));
  g_clear_object(&object_);
  EXPECT_TRUE(testhost::spin_until([&] { return g_atomic_int_get(&connection->ref_count) == 1; }));
}

/* Several threads emit while the receiver restarts: each event has one outcome. */
TEST_F(EventsCoreTest, EachEventHasOneOutcome)
{
  constexpr guint THREADS = 3;
  constexpr guint EVENTS = 300;
  std::vector<std::thread> threads;
  std::atomic<guint> taken = 0;
  std::atomic<guint> dropped = 0;

  start_with_topics();
  for (guint number = 0; number < THREADS; number++) {
    threads.emplace_back([&] {
      for (guint i = 0; i < EVENTS; i++) {
        Event event;
        event.topic = "tns1:Crossed";
        event.function = [&](const GError *error) { (error == nullptr ? taken : dropped)++; };
        EXPECT_TRUE(core_->emit(std::move(event), nullptr));
        std::this_thread::yield();
      }
    });
  }
  for (guint round = 0; round < 3; round++) {
    EXPECT_TRUE(testhost::spin_until([&] { return receiver_->calls_size() > (round + 1) * 20; }));
    receiver_->leave();
    receiver_->come_back();
  }
  for (std::thread &thread : threads) {
    thread.join();
  }
  EXPECT_TRUE(testhost::spin_until([&] { return taken + dropped == THREADS * EVENTS; }));
  EXPECT_EQ(core_->get_dropped(), dropped);
  EXPECT_GE(receiver_->calls_size(), taken);
  receiver_->forget_calls();
}
