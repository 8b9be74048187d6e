/* SPDX-License-Identifier: MIT */
#include "metadata.h"
#include "metadatareader.h"
#include "settings.h"
#include "settingsfile.h"
#include "sourceharness.h"
#include "wallclock.h"
#include "worldevents.h"

#include <algorithm>
#include <cstdlib>
#include <gtest/gtest.h>
#include <map>

using sim::World;

namespace
{

/* There are dozens of events per second. */
constexpr const char *FAST = "[World]\nseed=7\nspeed=50\n";

constexpr const char *ALL_OF_INPUTS = "tns1:Device//.";
constexpr const char *NOTHING = "tns1:Nothing//.";

class EventSrc : public testing::Test
{
protected:
  static void SetUpTestSuite()
  {
    gst_init(nullptr, nullptr);
  }
};

GstElement *
event_src_new(const char *topic = nullptr, const char *content = nullptr)
{
  GstElement *element = gst_element_factory_make("onvifeventsrc", nullptr);
  g_object_set(element, "event-topic", topic, "event-content", content, nullptr);
  return GST_ELEMENT(gst_object_ref_sink(element));
}

std::vector<ReadEvent>
pull_events(GstHarness *harness)
{
  return read_events(pull_text(harness));
}

/* Pulls until there are at least `count` events. */
std::vector<ReadEvent>
pull_at_least(GstHarness *harness, gsize count)
{
  std::vector<ReadEvent> all;
  while (all.size() < count && !testing::Test::HasFailure()) {
    for (const ReadEvent &event : pull_events(harness)) {
      all.push_back(event);
    }
  }
  return all;
}

std::vector<ReadEvent>
as_read(const std::vector<onvif::EventMessage> &messages)
{
  g_autoptr(GstBuffer) buffer = onvif::event_messages_to_fragment(messages, {});
  return read_events(buffer_text(buffer));
}

bool
has_operation(const ReadEvent &event, const char *operation)
{
  return event.operation == operation;
}

gsize
count_operation(const std::vector<ReadEvent> &events, const char *operation)
{
  return static_cast<gsize>(std::count_if(events.begin(), events.end(), [operation](const ReadEvent &event) {
    return has_operation(event, operation);
  }));
}

constexpr gsize PROPERTIES = World::INPUT_COUNT + 1;

TEST_F(EventSrc, StartsWithOneOfEachStickyEventInOrder)
{
  SettingsFile settings(FAST);
  g_autoptr(GstHarness) harness = play(event_src_new());
  for (int i = 0; i < 5; i++) {
    pull_text(harness);
  }

  expect_sticky_events_in_order(harness);
}

TEST_F(EventSrc, IsLiveAndTimestamps)
{
  SettingsFile settings(FAST);
  g_autoptr(GstHarness) harness = play(event_src_new());
  expect_live_with_timestamps(harness, 5);
}

TEST_F(EventSrc, BufferIsOneSelfContainedElement)
{
  g_autoptr(GstHarness) harness = play(event_src_new());
  std::string text = pull_text(harness);
  EXPECT_EQ(root_name(text), "http://www.onvif.org/ver10/schema Event");
  EXPECT_TRUE(text.starts_with("<tt:Event ")) << text;
  EXPECT_EQ(text.find('\n'), text.npos);
  EXPECT_EQ(text.find('\0'), text.npos);
  for (const char *prefix : {"tt", "wsnt", "tns1", "tnsimcam"}) {
    EXPECT_NE(text.find(" xmlns:" + std::string(prefix) + "=\""), text.npos) << prefix;
  }
}

TEST_F(EventSrc, SendsEveryStateThenTheChangesOfTheWorld)
{
  SettingsFile file(FAST);
  sim::Settings settings = sim::settings_load();
  World world(settings.seed);
  g_autoptr(GstHarness) harness = play(event_src_new());

  std::vector<ReadEvent> first = pull_events(harness);
  ASSERT_FALSE(first.empty());
  gint64 start_utc = parse_utc(first.front().utc);
  sim::WorldTime start = sim::settings_world_time(settings, start_utc);
  EXPECT_EQ(first, as_read(sim::world_events_of_state(world, start, settings)));
  EXPECT_EQ(count_operation(first, "Initialized"), PROPERTIES);

  std::vector<ReadEvent> received = pull_at_least(harness, 40);
  std::vector<onvif::EventMessage> happened;
  for (sim::WorldTime time = start; happened.size() < received.size();) {
    sim::WorldTime next = world.next_change_after(time);
    for (const sim::Change &change : world.changes_between(time, next)) {
      if (std::optional<onvif::EventMessage> message = sim::world_event_from_change(change, settings)) {
        happened.push_back(*message);
      }
    }
    time = next;
  }
  happened.resize(received.size(), happened.front());
  EXPECT_EQ(received, as_read(happened));

  std::map<std::string, int> operations;
  for (const ReadEvent &event : received) {
    operations[event.topic.substr(0, event.topic.find('/')) + " " + event.operation]++;
  }
  EXPECT_EQ(operations.size(), 3u);
  EXPECT_GT(operations["tns1:Device Changed"], 0);
  EXPECT_GT(operations["tns1:VideoSource Changed"], 0);
  EXPECT_GT(operations["tns1:VideoAnalytics "], 0);
}

TEST_F(EventSrc, SendsChangesWhenTheyHappen)
{
  SettingsFile settings(FAST);
  g_autoptr(GstHarness) harness = play(event_src_new());
  for (int i = 0; i < 10; i++) {
    std::vector<ReadEvent> events = pull_events(harness);
    ASSERT_FALSE(events.empty());
    for (const ReadEvent &event : events) {
      EXPECT_LE(parse_utc(event.utc), g_get_real_time());
    }
  }
}

TEST_F(EventSrc, SendsEveryStateAfterASyncPoint)
{
  SettingsFile settings(FAST);
  g_autoptr(GstHarness) harness = play(event_src_new());
  EXPECT_EQ(count_operation(pull_events(harness), "Initialized"), PROPERTIES);
  for (int round = 0; round < 3; round++) {
    ASSERT_TRUE(gst_harness_push_upstream_event(harness, onvif::sync_point_event_new()));
    std::vector<ReadEvent> events;
    for (int pulled = 0; pulled < 1000 && count_operation(events, "Initialized") == 0; pulled++) {
      for (const ReadEvent &event : pull_events(harness)) {
        events.push_back(event);
      }
    }
    EXPECT_EQ(count_operation(events, "Initialized"), PROPERTIES);
  }
}

/* With a filter that no event passes, only start and sync point cause a buffer. */
TEST_F(EventSrc, SendsABufferOnStartAndSyncPointEvenIfNothingMatches)
{
  g_autoptr(GstHarness) harness = play(event_src_new(NOTHING));
  EXPECT_TRUE(pull_events(harness).empty());
  ASSERT_TRUE(gst_harness_push_upstream_event(harness, onvif::sync_point_event_new()));
  std::string text = pull_text(harness);
  EXPECT_EQ(root_name(text), "http://www.onvif.org/ver10/schema Event");
  EXPECT_TRUE(read_events(text).empty());
  EXPECT_EQ(gst_harness_buffers_received(harness), 2u);
}

TEST_F(EventSrc, IgnoresOtherEvents)
{
  g_autoptr(GstHarness) harness = play(event_src_new(NOTHING));
  pull_text(harness);
  expect_other_event_refused(harness);
  ASSERT_TRUE(gst_harness_push_upstream_event(harness, onvif::sync_point_event_new()));
  pull_text(harness);
  EXPECT_EQ(gst_harness_buffers_received(harness), 2u);
}

TEST_F(EventSrc, TopicFilterSelectsEvents)
{
  SettingsFile settings(FAST);
  g_autoptr(GstHarness) harness = play(event_src_new(ALL_OF_INPUTS));
  EXPECT_EQ(pull_events(harness).size(), World::INPUT_COUNT);
  for (const ReadEvent &event : pull_at_least(harness, 20)) {
    EXPECT_EQ(event.topic, "tns1:Device/Trigger/DigitalInput");
  }
}

TEST_F(EventSrc, ContentFilterSelectsEvents)
{
  SettingsFile settings(FAST);
  g_autoptr(GstHarness) harness =
      play(event_src_new(nullptr, "boolean(//tt:SimpleItem[@Name=\"LogicalState\" and @Value=\"true\"])"));
  pull_events(harness);
  for (const ReadEvent &event : pull_at_least(harness, 20)) {
    ASSERT_EQ(event.items.size(), 2u);
    EXPECT_EQ(event.items.back(), std::make_pair(std::string("LogicalState"), std::string("true")));
  }
}

TEST_F(EventSrc, BothFiltersApply)
{
  SettingsFile settings(FAST);
  g_autoptr(GstHarness) harness = play(
      event_src_new("tns1:VideoSource//.|tns1:VideoAnalytics//.", "not(//tt:SimpleItem[@Value=\"false\"])"));
  pull_events(harness);
  std::map<std::string, int> topics;
  for (const ReadEvent &event : pull_at_least(harness, 30)) {
    topics[event.topic]++;
    EXPECT_NE(event.items.back().second, "false");
  }
  EXPECT_EQ(topics.size(), 2u);
  EXPECT_EQ(topics.count("tns1:Device/Trigger/DigitalInput"), 0u);
}

TEST_F(EventSrc, PropertiesCanBeReadBack)
{
  g_autoptr(GstElement) element = event_src_new("tns1:A", "true()");
  g_autofree char *topic = nullptr;
  g_autofree char *content = nullptr;
  g_object_get(element, "event-topic", &topic, "event-content", &content, nullptr);
  EXPECT_STREQ(topic, "tns1:A");
  EXPECT_STREQ(content, "true()");
  g_object_set(element, "event-topic", nullptr, "event-content", nullptr, nullptr);
  g_clear_pointer(&topic, g_free);
  g_clear_pointer(&content, g_free);
  g_object_get(element, "event-topic", &topic, "event-content", &content, nullptr);
  EXPECT_EQ(topic, nullptr);
  EXPECT_EQ(content, nullptr);
}

struct Malformed {
  const char *topic;
  const char *content;
  const char *beginning;
};

void
PrintTo(const Malformed &malformed, std::ostream *stream)
{
  *stream << malformed.beginning;
}

class MalformedFilter : public EventSrc, public testing::WithParamInterface<Malformed>
{
};

/* The first message is the element's own; the base class adds a general one. */
std::string
first_error(GstBus *bus, GQuark *domain, int *code)
{
  g_autoptr(GstMessage) message = gst_bus_timed_pop_filtered(bus, 5 * GST_SECOND, GST_MESSAGE_ERROR);
  EXPECT_NE(message, nullptr);
  if (message == nullptr) {
    return {};
  }
  g_autoptr(GError) error = nullptr;
  gst_message_parse_error(message, &error, nullptr);
  *domain = error->domain;
  *code = error->code;
  return error->message;
}

TEST_P(MalformedFilter, FailsTheStateChangeWithOneError)
{
  g_autoptr(GstElement) element = event_src_new(GetParam().topic, GetParam().content);
  g_autoptr(GstBus) bus = gst_bus_new();
  gst_element_set_bus(element, bus);
  EXPECT_EQ(gst_element_set_state(element, GST_STATE_PAUSED), GST_STATE_CHANGE_FAILURE);

  GQuark domain = 0;
  int code = 0;
  std::string text = first_error(bus, &domain, &code);
  EXPECT_EQ(domain, GST_RESOURCE_ERROR);
  EXPECT_EQ(code, GST_RESOURCE_ERROR_SETTINGS);
  EXPECT_TRUE(text.starts_with(GetParam().beginning)) << text;

  gst_element_set_state(element, GST_STATE_NULL);
  gst_element_set_bus(element, nullptr);
}

INSTANTIATE_TEST_SUITE_P(
    Filters, MalformedFilter,
    testing::Values(Malformed{"", nullptr, "The topic filter of the events is malformed: Path 1 "},
                    Malformed{"tns1:Device/*", nullptr,
                              "The topic filter of the events is malformed: Path 1 "},
                    Malformed{"tns1:A|%s%n", nullptr, "The topic filter of the events is malformed: Path 2 "},
                    Malformed{nullptr, "", "The content filter of the events is malformed: "},
                    Malformed{nullptr, "boolean(", "The content filter of the events is malformed: "},
                    Malformed{nullptr, "%s%n()", "The content filter of the events is malformed: "},
                    Malformed{"tns1:A", "\xff", "The content filter of the events is malformed: "}));

TEST_F(EventSrc, CanStartAfterItsFilterIsCorrected)
{
  g_autoptr(GstElement) element = event_src_new("malformed");
  EXPECT_EQ(gst_element_set_state(element, GST_STATE_PAUSED), GST_STATE_CHANGE_FAILURE);
  gst_element_set_state(element, GST_STATE_NULL);
  g_object_set(element, "event-topic", ALL_OF_INPUTS, nullptr);
  EXPECT_EQ(gst_element_set_state(element, GST_STATE_PAUSED), GST_STATE_CHANGE_NO_PREROLL);
  gst_element_set_state(element, GST_STATE_NULL);
}

/* The check of the filter on start cannot detect that it fails for a later message. */
TEST_F(EventSrc, FilterThatFailsWhileStreamingEndsTheStream)
{
  g_autoptr(GstBus) bus = gst_bus_new();
  GstElement *element = event_src_new(nullptr, "not(//@PropertyOperation='Initialized') or frobnicate()");
  gst_element_set_bus(element, bus);
  g_autoptr(GstHarness) harness = play(element);
  GQuark domain = 0;
  int code = 0;
  std::string text = first_error(bus, &domain, &code);
  EXPECT_EQ(domain, GST_RESOURCE_ERROR);
  EXPECT_EQ(code, GST_RESOURCE_ERROR_SETTINGS);
  EXPECT_EQ(text, "The content filter of the events cannot be evaluated: It has an unknown function.");
  EXPECT_EQ(gst_harness_buffers_received(harness), 0u);
  gst_element_set_state(harness->element, GST_STATE_NULL);
  gst_element_set_bus(harness->element, nullptr);
}

TEST_F(EventSrc, SendsTheStateAfterARestart)
{
  SettingsFile settings(FAST);
  g_autoptr(GstHarness) harness = play(event_src_new());
  EXPECT_EQ(count_operation(pull_events(harness), "Initialized"), PROPERTIES);
  gst_element_set_state(harness->element, GST_STATE_NULL);
  drop_queued(harness);
  gst_element_set_state(harness->element, GST_STATE_PLAYING);
  EXPECT_EQ(count_operation(pull_events(harness), "Initialized"), PROPERTIES);
}

class WallClock : public EventSrc, public testing::WithParamInterface<gint64>
{
protected:
  void TearDown() override
  {
    set_wall_clock_offset(0);
  }
};

TEST_P(WallClock, SettingItSendsTheState)
{
  SettingsFile settings(FAST);
  g_autoptr(GstHarness) harness = play(event_src_new());
  pull_at_least(harness, PROPERTIES + 1);
  set_wall_clock_offset(GetParam() * G_USEC_PER_SEC);
  std::vector<ReadEvent> events;
  for (int pulled = 0; pulled < 100 && count_operation(events, "Initialized") == 0; pulled++) {
    events = pull_events(harness);
  }
  EXPECT_EQ(events.size(), PROPERTIES);
  EXPECT_EQ(count_operation(events, "Initialized"), PROPERTIES);
  EXPECT_LT(std::abs(parse_utc(events.front().utc) - g_get_real_time()), 60 * G_USEC_PER_SEC);
}

TEST_P(WallClock, SettingItDuringAPauseSendsTheState)
{
  SettingsFile settings(FAST);
  g_autoptr(GstHarness) harness = play(event_src_new());
  pull_at_least(harness, PROPERTIES + 1);
  ASSERT_EQ(gst_element_set_state(harness->element, GST_STATE_PAUSED), GST_STATE_CHANGE_NO_PREROLL);
  drop_queued(harness);
  set_wall_clock_offset(GetParam() * G_USEC_PER_SEC);
  gst_element_set_state(harness->element, GST_STATE_PLAYING);
  std::vector<ReadEvent> events;
  for (int pulled = 0; pulled < 100 && count_operation(events, "Initialized") == 0; pulled++) {
    events = pull_events(harness);
  }
  EXPECT_EQ(count_operation(events, "Initialized"), PROPERTIES);
}

INSTANTIATE_TEST_SUITE_P(Offsets, WallClock, testing::Values(gint64{-3600}, gint64{3600}));

/* A seed with no change in the world for `quiet` from `now` on. For two seconds there is such a seed at any
 * time, because an input may keep its state longer. */
guint64
find_quiet_seed(sim::WorldTime now, gint64 quiet)
{
  guint64 seed = 0;
  while (World(seed).next_change_after(now) - now < quiet) {
    seed++;
  }
  return seed;
}

TEST_F(EventSrc, StopsWithoutWaitingForTheNextChange)
{
  constexpr gint64 QUIET = 2 * G_USEC_PER_SEC;
  sim::WorldTime now = sim::settings_world_time({}, g_get_real_time());
  guint64 seed = find_quiet_seed(now, QUIET);
  SettingsFile settings("[World]\nseed=" + std::to_string(seed) + "\n");
  g_autoptr(GstHarness) harness = play(event_src_new());
  pull_text(harness);
  EXPECT_EQ(gst_element_set_state(harness->element, GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
  EXPECT_LT(g_get_real_time(), sim::settings_utc({}, now + QUIET));
  EXPECT_EQ(gst_harness_buffers_in_queue(harness), 0u);
}

} // namespace
