/* SPDX-License-Identifier: MIT */
#include "receiver/error.h"
#include "receiver/eventstore.h"
#include "receiver/receiverlimits.h"
#include "testclock.h"
#include "testhost.h"

using receiver::Caller;
using receiver::EventMap;
using receiver::EventRequest;
using receiver::EventStore;
using receiver::EventTopic;

namespace
{

const Caller APPLICATION = {":1.1", 1000};
const Caller SAME_USER = {":1.2", 1000};
const Caller THIRD = {":1.3", 1000};
const Caller OTHER_USER = {":1.4", 1001};

constexpr const char *MOTION = "tns1:VideoSource/MotionAlarm";
constexpr const char *CROSSED = "tns1:RuleEngine/LineDetector/Crossed";
constexpr gint64 TIME = 1700000000123456;

EventTopic
motion()
{
  return {MOTION, true, {{"Source", "tt:ReferenceToken"}}, {{"State", "xs:boolean"}}, {}};
}

EventTopic
crossed()
{
  return {CROSSED, false, {{"Source", "tt:ReferenceToken"}}, {{"ObjectId", "xs:integer"}}, {}};
}

EventTopic
named(const std::string &name)
{
  EventTopic topic = motion();
  topic.name = "tns1:" + name;
  return topic;
}

EventRequest
alarm(const std::string &operation, const std::string &source, const std::string &state = "true")
{
  return {MOTION, operation, {{"Source", source}}, {{"State", state}}, TIME};
}

std::string
message(const std::string &operation, const std::string &source, const std::string &state = "true")
{
  return R"({"Topic":"tns1:VideoSource/MotionAlarm","Namespaces":{},"Property":true,"Operation":")" +
         operation + R"(","UtcTime":"2023-11-14T22:13:20.123456Z","Source":[["Source",")" + source +
         R"("]],"Data":[["State",")" + state + R"("]]})";
}

/* An event with the time of its deletion, which varies. */
bool
is_deletion(const std::string &text, const std::string &source)
{
  return text.find(R"("Operation":"Deleted")") != text.npos &&
         text.find(R"("Source":[["Source",")" + source + R"("]],"Data":[["State","true"]]})") != text.npos;
}

class EventStoreTest : public testhost::Fixture
{
protected:
  /* GLib's names of errors keep a descriptor. */
  static void SetUpTestSuite()
  {
    g_autoptr(GError) error = g_error_new_literal(receiver::error_quark(), 0, "");
    EXPECT_EQ(name_of(error), "InvalidName");
  }

  /* The next store is made before the next SetUp(). */
  void TearDown() override
  {
    testclock::reset();
    testhost::Fixture::TearDown();
  }

  /* The name of the error without its prefix, or an empty text. */
  static std::string name_of(GError *error)
  {
    constexpr std::string_view PREFIX = "com.quon.MetadataReceiver1.Error.";
    g_autofree gchar *name = error != nullptr ? g_dbus_error_encode_gerror(error) : g_strdup("");
    const std::string_view found = name;
    return std::string(found.substr(found.starts_with(PREFIX) ? PREFIX.size() : 0));
  }

  std::string declare(const Caller &caller, const EventTopic &topic)
  {
    g_autoptr(GError) error = nullptr;
    const bool declared = store_.declare(caller, topic, &error);
    EXPECT_EQ(declared, error == nullptr);
    return name_of(error);
  }

  std::string emit(const Caller &caller, const EventRequest &request)
  {
    g_autoptr(GError) error = nullptr;
    const gsize before = events_.size();
    const bool emitted = store_.emit(caller.sender, request, &error);
    EXPECT_EQ(emitted, error == nullptr);
    EXPECT_EQ(events_.size(), before + (emitted ? 1 : 0));
    return name_of(error);
  }

  testhost::Texts states() const
  {
    testhost::Texts texts;
    guint64 last = 0;
    while (const auto state = store_.state_after(last, store_.newest_property())) {
      texts.push_back(state->text);
      last = state->property;
    }
    return texts;
  }

  void let_grace_pass()
  {
    testclock::advance_ms(RECEIVER_GRACE_SECONDS * 1000);
    store_.remove_overdue();
  }

  void refill()
  {
    testclock::advance_ms(1000);
  }

  testhost::Texts events_;
  EventStore store_{[this](const receiver::SharedText &text, guint64) {
    events_.emplace_back(receiver::shared_text_view(text));
  }};
};

TEST_F(EventStoreTest, EmitsWhatIsDeclared)
{
  EXPECT_EQ(declare(APPLICATION, crossed()), "");

  EXPECT_EQ(emit(APPLICATION, {CROSSED, "", {{"Source", "1"}}, {{"ObjectId", "7"}}, TIME}), "");
  EXPECT_EQ(
      events_,
      (testhost::Texts{R"({"Topic":"tns1:RuleEngine/LineDetector/Crossed","Namespaces":{},"Property":false,)"
                       R"("Operation":"","UtcTime":"2023-11-14T22:13:20.123456Z","Source":[["Source","1"]],)"
                       R"("Data":[["ObjectId","7"]]})"}));
  EXPECT_TRUE(states().empty());
}

TEST_F(EventStoreTest, EscapesTexts)
{
  EventTopic topic = motion();
  topic.data = {{"Text", "acme:Text"}};
  topic.namespaces = {{"acme", "urn:acme"}};
  declare(APPLICATION, topic);

  EXPECT_EQ(emit(APPLICATION, {MOTION, "Changed", {{"Source", "\"\\"}}, {{"Text", "a\nb\tc ä"}}, TIME}), "");
  EXPECT_EQ(events_[0],
            R"({"Topic":"tns1:VideoSource/MotionAlarm","Namespaces":{"acme":"urn:acme"},)"
            R"("Property":true,"Operation":"Initialized","UtcTime":"2023-11-14T22:13:20.123456Z",)"
            R"("Source":[["Source","\"\\"]],"Data":[["Text","a\u000ab\u0009c ä"]]})");
}

TEST_F(EventStoreTest, KeepsThePresentStateOfEachProperty)
{
  declare(APPLICATION, motion());

  EXPECT_EQ(emit(APPLICATION, alarm("Changed", "1", "false")), "");
  EXPECT_EQ(emit(APPLICATION, alarm("Initialized", "2", "true")), "");
  EXPECT_EQ(emit(APPLICATION, alarm("Changed", "1", "true")), "");
  EXPECT_EQ(emit(APPLICATION, alarm("Initialized", "1", "false")), "");
  EXPECT_EQ(states(),
            (testhost::Texts{message("Initialized", "1", "false"), message("Initialized", "2", "true")}));
  EXPECT_EQ(emit(APPLICATION, alarm("Deleted", "2")), "");
  EXPECT_EQ(events_, (testhost::Texts{message("Initialized", "1", "false"),
                                      message("Initialized", "2", "true"), message("Changed", "1", "true"),
                                      message("Initialized", "1", "false"), message("Deleted", "2")}));
  EXPECT_EQ(states(), (testhost::Texts{message("Initialized", "1", "false")}));
}

TEST_F(EventStoreTest, RefusesInvalidEvents)
{
  const auto with = [](auto change) {
    EventRequest request = alarm("Changed", "1");
    change(&request);
    return request;
  };
  declare(APPLICATION, motion());
  declare(APPLICATION, crossed());
  const EventRequest plain = {CROSSED, "", {{"Source", "1"}}, {{"ObjectId", "7"}}, 0};
  const EventRequest operation = {CROSSED, "Changed", {{"Source", "1"}}, {{"ObjectId", "7"}}, 0};
  const EventRequest object = {CROSSED, "", {{"Source", "1"}}, {{"ObjectId", "seven"}}, 0};

  EXPECT_EQ(emit(APPLICATION, plain), "");
  EXPECT_EQ(emit(APPLICATION, operation), "InvalidOperation");
  EXPECT_EQ(emit(APPLICATION, object), "InvalidItems");
  EXPECT_EQ(emit(APPLICATION, with([](EventRequest *it) { it->operation = ""; })), "InvalidOperation");
  EXPECT_EQ(emit(APPLICATION, with([](EventRequest *it) { it->operation = "changed"; })), "InvalidOperation");
  EXPECT_EQ(emit(APPLICATION, with([](EventRequest *it) { it->topic = "tns1:Other"; })), "UnknownTopic");
  EXPECT_EQ(emit(SAME_USER, alarm("Changed", "1")), "UnknownTopic");
  EXPECT_EQ(emit(APPLICATION, with([](EventRequest *it) { it->time = -1; })), "InvalidTime");
  EXPECT_EQ(emit(APPLICATION, with([](EventRequest *it) { it->time = G_MAXINT64; })), "InvalidTime");
  EXPECT_EQ(emit(APPLICATION, with([](EventRequest *it) { it->source = {}; })), "InvalidItems");
  EXPECT_EQ(emit(APPLICATION, with([](EventRequest *it) { it->data["More"] = ""; })), "InvalidItems");
  EXPECT_EQ(emit(APPLICATION, with([](EventRequest *it) { it->data["State"] = "yes"; })), "InvalidItems");
  EXPECT_EQ(emit(APPLICATION, alarm("Deleted", "1")), "UnknownProperty");
  EXPECT_TRUE(states().empty());
}

TEST_F(EventStoreTest, TheLongestEventHas64KiB)
{
  declare(APPLICATION, motion());
  const gsize rest = message("Initialized", "").size();
  const std::string longest(RECEIVER_MAX_EVENT_BYTES - rest, 'x');

  EXPECT_EQ(emit(APPLICATION, alarm("Changed", longest)), "");
  EXPECT_EQ(events_[0].size(), gsize{RECEIVER_MAX_EVENT_BYTES});
  EXPECT_EQ(emit(APPLICATION, alarm("Changed", longest + "x")), "EventTooLarge");
  EXPECT_EQ(emit(APPLICATION, alarm("Changed", std::string(RECEIVER_MAX_EVENT_BYTES / 2, '"'))),
            "EventTooLarge");
  EXPECT_EQ(emit(APPLICATION, alarm("Changed", std::string(2 * RECEIVER_MAX_EVENT_BYTES, 'x'))),
            "EventTooLarge");
}

TEST_F(EventStoreTest, TopicsHaveOneShape)
{
  EventTopic other = motion();
  other.data = {{"State", "xs:int"}};
  EventTopic event = motion();
  event.is_property = false;
  EXPECT_EQ(declare(APPLICATION, motion()), "");

  EXPECT_EQ(declare(APPLICATION, motion()), "");
  EXPECT_EQ(declare(OTHER_USER, motion()), "");
  EXPECT_EQ(declare(APPLICATION, other), "TopicConflict");
  EXPECT_EQ(declare(SAME_USER, other), "TopicConflict");
  EXPECT_EQ(declare(OTHER_USER, event), "TopicConflict");
  EXPECT_EQ(store_.topics().size(), 1U);
}

TEST_F(EventStoreTest, PrefixesHaveOneNamespace)
{
  EventTopic one = named("A");
  one.name = "acme:A";
  one.namespaces = {{"acme", "urn:one"}};
  EventTopic other = one;
  other.name = "acme:B";
  other.namespaces = {{"acme", "urn:other"}};
  EXPECT_EQ(declare(APPLICATION, one), "");

  EXPECT_EQ(declare(OTHER_USER, other), "TopicConflict");
  store_.disconnect(APPLICATION.sender);
  EXPECT_EQ(declare(OTHER_USER, other), "TopicConflict");
  let_grace_pass();
  EXPECT_EQ(declare(OTHER_USER, other), "");
}

TEST_F(EventStoreTest, ListsTopicsInTheOrderOfTheirNames)
{
  declare(APPLICATION, named("C"));
  declare(OTHER_USER, named("A"));
  declare(SAME_USER, named("B"));
  declare(OTHER_USER, named("C"));

  std::vector<std::string> names;
  for (const EventTopic *topic : store_.topics()) {
    names.push_back(topic->name);
  }
  EXPECT_EQ(names, (std::vector<std::string>{"tns1:A", "tns1:B", "tns1:C"}));
}

TEST_F(EventStoreTest, APropertyBelongsToItsApplication)
{
  declare(APPLICATION, motion());
  declare(SAME_USER, motion());
  emit(APPLICATION, alarm("Changed", "1"));

  EXPECT_EQ(emit(SAME_USER, alarm("Changed", "1")), "NotOwner");
  EXPECT_EQ(emit(SAME_USER, alarm("Deleted", "1")), "NotOwner");
  EXPECT_EQ(emit(SAME_USER, alarm("Changed", "2")), "");
  EXPECT_EQ(emit(APPLICATION, alarm("Changed", "2")), "NotOwner");
  EXPECT_EQ(states().size(), 2U);
}

TEST_F(EventStoreTest, DeletesPropertiesAfterTheGracePeriod)
{
  declare(APPLICATION, motion());
  declare(OTHER_USER, motion());
  emit(APPLICATION, alarm("Changed", "1"));
  emit(OTHER_USER, alarm("Changed", "2"));
  store_.disconnect(APPLICATION.sender);
  events_.clear();

  EXPECT_FALSE(store_.has_topic_of(APPLICATION.sender));
  testclock::advance_ms(RECEIVER_GRACE_SECONDS * 1000 - 1000);
  store_.remove_overdue();
  EXPECT_TRUE(events_.empty());
  EXPECT_EQ(states().size(), 2U);
  testclock::advance_ms(1000);
  store_.remove_overdue();
  ASSERT_EQ(events_.size(), 1U);
  EXPECT_TRUE(is_deletion(events_[0], "1")) << events_[0];
  EXPECT_EQ(states(), (testhost::Texts{message("Initialized", "2")}));
  EXPECT_FALSE(store_.next_removal().has_value());
  EXPECT_EQ(store_.topics().size(), 1U);
}

TEST_F(EventStoreTest, TheSameUserInheritsProperties)
{
  declare(APPLICATION, motion());
  emit(APPLICATION, alarm("Changed", "1"));
  store_.disconnect(APPLICATION.sender);
  declare(OTHER_USER, motion());
  EXPECT_EQ(emit(OTHER_USER, alarm("Changed", "1")), "NotOwner");
  events_.clear();

  EXPECT_EQ(declare(SAME_USER, motion()), "");
  EXPECT_FALSE(store_.next_removal().has_value());
  let_grace_pass();
  EXPECT_TRUE(events_.empty());
  EXPECT_EQ(states(), (testhost::Texts{message("Initialized", "1")}));
  EXPECT_EQ(emit(SAME_USER, alarm("Changed", "1", "false")), "");
  EXPECT_EQ(events_, (testhost::Texts{message("Changed", "1", "false")}));
}

/* Two applications of a user with the same topic come back in any order. */
TEST_F(EventStoreTest, AnInheritedPropertyIsOfTheApplicationThatEmitsIt)
{
  declare(APPLICATION, motion());
  emit(APPLICATION, alarm("Changed", "1"));
  emit(APPLICATION, alarm("Changed", "2"));
  store_.disconnect(APPLICATION.sender);
  declare(SAME_USER, motion());
  declare(THIRD, motion());

  EXPECT_EQ(emit(THIRD, alarm("Changed", "2", "false")), "");
  EXPECT_EQ(emit(SAME_USER, alarm("Changed", "2")), "NotOwner");
  EXPECT_EQ(emit(SAME_USER, alarm("Changed", "1", "false")), "");
  EXPECT_EQ(emit(THIRD, alarm("Changed", "1")), "NotOwner");
}

TEST_F(EventStoreTest, ATopicThatIsLeftBehindCanChange)
{
  EventTopic other = motion();
  other.data = {{"Level", "xs:int"}};
  declare(APPLICATION, motion());
  emit(APPLICATION, alarm("Changed", "1"));
  store_.disconnect(APPLICATION.sender);
  events_.clear();

  EXPECT_EQ(declare(OTHER_USER, other), "TopicConflict");
  EXPECT_EQ(declare(SAME_USER, other), "");
  ASSERT_EQ(events_.size(), 1U);
  EXPECT_TRUE(is_deletion(events_[0], "1")) << events_[0];
  EXPECT_EQ(store_.topics()[0]->data, other.data);
  let_grace_pass();
  EXPECT_EQ(store_.topics().size(), 1U);
}

TEST_F(EventStoreTest, AnApplicationHas256Topics)
{
  for (int i = 0; i < RECEIVER_MAX_APPLICATION_TOPICS; i++) {
    EXPECT_EQ(declare(APPLICATION, named("T" + std::to_string(i))), "");
  }

  EXPECT_EQ(declare(APPLICATION, named("More")), "TooManyTopics");
  EXPECT_EQ(declare(APPLICATION, named("T0")), "");
  EXPECT_EQ(declare(SAME_USER, named("More")), "");
}

TEST_F(EventStoreTest, AnApplicationHas1024Properties)
{
  declare(APPLICATION, motion());
  declare(SAME_USER, motion());
  for (int i = 0; i < RECEIVER_MAX_APPLICATION_PROPERTIES; i++) {
    if (i % 500 == 0) {
      refill();
    }
    EXPECT_EQ(emit(APPLICATION, alarm("Changed", std::to_string(i))), "");
  }

  EXPECT_EQ(emit(APPLICATION, alarm("Changed", "more")), "TooManyProperties");
  EXPECT_EQ(emit(APPLICATION, alarm("Changed", "0")), "");
  EXPECT_EQ(emit(SAME_USER, alarm("Changed", "more")), "");
  EXPECT_EQ(emit(APPLICATION, alarm("Deleted", "0")), "");
  EXPECT_EQ(emit(APPLICATION, alarm("Changed", "other")), "");
}

/* What does not fit stays with the application that has gone. */
TEST_F(EventStoreTest, InheritsAsManyPropertiesAsFit)
{
  declare(APPLICATION, motion());
  declare(SAME_USER, named("Other"));
  EventRequest other = alarm("Changed", "1");
  other.topic = "tns1:Other";
  for (int i = 0; i < RECEIVER_MAX_APPLICATION_PROPERTIES; i++) {
    if (i % 500 == 0) {
      refill();
    }
    emit(APPLICATION, alarm("Changed", std::to_string(i)));
  }
  EXPECT_EQ(emit(SAME_USER, other), "");
  store_.disconnect(APPLICATION.sender);
  EXPECT_EQ(declare(SAME_USER, motion()), "");
  events_.clear();

  let_grace_pass();
  EXPECT_EQ(events_.size(), 1U);
  EXPECT_EQ(states().size(), gsize{RECEIVER_MAX_APPLICATION_PROPERTIES});
}

TEST_F(EventStoreTest, AnApplicationEmits1000EventsASecond)
{
  testclock::stop();
  declare(APPLICATION, motion());
  declare(OTHER_USER, crossed());
  std::string refused;
  int emitted = 0;
  while (refused.empty() && emitted <= 2 * RECEIVER_EVENT_BURST) {
    refused = emit(APPLICATION, alarm("Changed", "1"));
    emitted++;
  }

  EXPECT_EQ(refused, "RateExceeded");
  EXPECT_EQ(emitted, RECEIVER_EVENT_BURST + 1);
  EXPECT_EQ(emit(OTHER_USER, {CROSSED, "", {{"Source", "1"}}, {{"ObjectId", "7"}}, TIME}), "");
  refill();
  EXPECT_EQ(emit(APPLICATION, alarm("Changed", "1")), "");
}

TEST_F(EventStoreTest, AllApplicationsTogetherHaveARate)
{
  testclock::stop();
  std::string refused;
  int emitted = 0;
  for (int user = 0; refused.empty() && user < 20; user++) {
    const Caller caller = {":2." + std::to_string(user), static_cast<guint32>(user)};
    declare(caller, motion());
    for (int i = 0; refused.empty() && i < RECEIVER_EVENT_BURST; i++) {
      refused = emit(caller, alarm("Changed", std::to_string(user)));
      emitted++;
    }
  }

  EXPECT_EQ(refused, "LimitExceeded");
  EXPECT_EQ(emitted, RECEIVER_MAX_EVENTS_PER_SECOND + 1);
}

TEST_F(EventStoreTest, OneUserCannotHaveAllPlacesOfTopics)
{
  std::string refused;
  gsize declared = 0;
  for (int application = 0; refused.empty() && application < 20; application++) {
    for (int i = 0; refused.empty() && i < RECEIVER_MAX_APPLICATION_TOPICS; i++) {
      refused = declare({":2." + std::to_string(application), 1000}, named("T" + std::to_string(i)));
      declared += refused.empty() ? 1 : 0;
    }
  }

  EXPECT_EQ(refused, "LimitExceeded");
  EXPECT_EQ(declared, gsize{RECEIVER_MAX_DECLARATIONS - RECEIVER_DECLARATIONS_KEPT});
  EXPECT_EQ(declare(OTHER_USER, motion()), "");
}

TEST_F(EventStoreTest, DeclarationsHaveALimitOfBytes)
{
  EventTopic large = motion();
  large.source.clear();
  for (int i = 0; i < RECEIVER_MAX_EVENT_ITEMS; i++) {
    large.source.emplace_back("N" + std::to_string(i),
                              "xs:" + std::string(RECEIVER_MAX_ITEM_TYPE_BYTES - 3, 'x'));
  }
  large.data = large.source;
  std::string refused;
  gsize bytes = 0;
  for (int application = 0; refused.empty() && application < 20; application++) {
    for (int i = 0; refused.empty() && i < RECEIVER_MAX_APPLICATION_TOPICS; i++) {
      large.name = "tns1:T" + std::to_string(i);
      refused = declare({":2." + std::to_string(application), 1000}, large);
      bytes += refused.empty() ? large.size() : 0;
    }
  }

  EXPECT_EQ(refused, "LimitExceeded");
  EXPECT_LE(bytes, gsize{RECEIVER_MAX_DECLARATION_BYTES - RECEIVER_DECLARATION_BYTES_KEPT});
  EXPECT_GT(bytes, gsize{RECEIVER_MAX_DECLARATION_BYTES - RECEIVER_DECLARATION_BYTES_KEPT - 10000});
  EXPECT_EQ(declare(OTHER_USER, motion()), "");
}

TEST_F(EventStoreTest, PropertiesHaveALimitOfBytes)
{
  const std::string longest(RECEIVER_MAX_EVENT_BYTES - 500, 'x');
  EventTopic topic = motion();
  topic.data = {{"State", "xs:string"}};
  declare(APPLICATION, topic);
  std::string refused;
  gsize emitted = 0;
  while (refused.empty() && emitted < RECEIVER_MAX_APPLICATION_PROPERTIES) {
    refused = emit(APPLICATION, alarm("Changed", std::to_string(emitted), longest));
    emitted += refused.empty() ? 1 : 0;
  }

  EXPECT_EQ(refused, "LimitExceeded");
  const gsize limit = RECEIVER_MAX_PROPERTY_BYTES - RECEIVER_PROPERTY_BYTES_KEPT;
  EXPECT_LE(emitted * longest.size(), limit);
  EXPECT_GT((emitted + 1) * RECEIVER_MAX_EVENT_BYTES, limit);
  EXPECT_EQ(emit(APPLICATION, alarm("Changed", "0", "shorter")), "");
  EXPECT_EQ(emit(APPLICATION, alarm("Deleted", "1", "")), "");
  EXPECT_EQ(emit(APPLICATION, alarm("Changed", "1", longest)), "");
}

TEST_F(EventStoreTest, PropertiesCountTheTextsOfTheirTopic)
{
  EventTopic large = motion();
  for (int i = 1; i < RECEIVER_MAX_EVENT_ITEMS; i++) {
    std::string name = "N" + std::to_string(i);
    name.resize(RECEIVER_MAX_ITEM_NAME_BYTES, 'x');
    large.data.emplace_back(name, "xs:string");
  }
  std::string refused;
  gsize emitted = 0;
  for (int application = 0; refused.empty() && application < 10; application++) {
    const Caller caller = {":2." + std::to_string(application), 1000};
    ASSERT_EQ(declare(caller, large), "");
    for (int i = 0; refused.empty() && i < RECEIVER_MAX_APPLICATION_PROPERTIES; i++) {
      EventRequest request = alarm("Changed", std::to_string(application) + "." + std::to_string(i));
      for (gsize item = 1; item < large.data.size(); item++) {
        request.data[large.data[item].first] = "";
      }
      refill();
      refused = emit(caller, request);
      emitted += refused.empty() ? 1 : 0;
    }
  }

  EXPECT_EQ(refused, "LimitExceeded");
  const gsize least = RECEIVER_MESSAGE_OVERHEAD + large.size() +
                      (large.source.size() + large.data.size()) * RECEIVER_EVENT_ITEM_OVERHEAD;
  const gsize limit = RECEIVER_MAX_PROPERTY_BYTES - RECEIVER_PROPERTY_BYTES_KEPT;
  EXPECT_LE(emitted * least, limit);
  EXPECT_GT((emitted + 1) * (least + 20), limit);
}

TEST_F(EventStoreTest, OneUserCannotHaveAllPlacesOfProperties)
{
  std::string refused;
  gsize emitted = 0;
  for (int application = 0; refused.empty() && application < 10; application++) {
    const Caller caller = {":2." + std::to_string(application), 1000};
    declare(caller, motion());
    for (int i = 0; refused.empty() && i < RECEIVER_MAX_APPLICATION_PROPERTIES; i++) {
      if (i % 500 == 0) {
        refill();
      }
      refused = emit(caller, alarm("Changed", std::to_string(emitted)));
      emitted += refused.empty() ? 1 : 0;
    }
  }

  EXPECT_EQ(refused, "LimitExceeded");
  EXPECT_EQ(emitted, gsize{RECEIVER_MAX_PROPERTIES - RECEIVER_PROPERTIES_KEPT});
  declare(OTHER_USER, motion());
  EXPECT_EQ(emit(OTHER_USER, alarm("Changed", "mine")), "");
}

/* A restart leaves nothing behind but what it inherits. */
TEST_F(EventStoreTest, AnApplicationCanRestartOften)
{
  for (int i = 0; i < 1000; i++) {
    const Caller caller = {":3." + std::to_string(i), 1000};
    ASSERT_EQ(declare(caller, motion()), "");
    ASSERT_EQ(emit(caller, alarm("Changed", "1")), "");
    if (i % 2 == 0) {
      ASSERT_EQ(declare(caller, crossed()), "");
    }
    store_.disconnect(caller.sender);
    testclock::advance_ms(10);
  }

  EXPECT_EQ(states().size(), 1U);
  events_.clear();
  let_grace_pass();
  EXPECT_EQ(events_.size(), 1U);
  EXPECT_TRUE(store_.topics().empty());
  EXPECT_FALSE(store_.next_removal().has_value());
}

} // namespace
