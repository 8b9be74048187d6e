/* SPDX-License-Identifier: MIT */
#include "metadata.h"
#include "metadatareader.h"
#include "ptzstatus.h"
#include "schema.h"
#include "settings.h"
#include "settingsfile.h"
#include "sourceharness.h"
#include "wallclock.h"

#include <algorithm>
#include <functional>
#include <gtest/gtest.h>
#include <set>

using sim::Ptz;
using sim::PtzView;
using sim::World;
using sim::WorldTime;

namespace
{

/* The head starts and stops dozens of times per second. */
constexpr const char *FAST = "[World]\nseed=7\nspeed=100\n";

constexpr gint64 MOVING_INTERVAL = G_USEC_PER_SEC / 5;
constexpr gint64 RESTING_INTERVAL = 5 * G_USEC_PER_SEC;

constexpr const char *EMPTY = "<tt:PTZ xmlns:tt=\"http://www.onvif.org/ver10/schema\"/>";
constexpr int CHANNEL_WITHOUT_HEAD = 2;

class PtzSrc : public testing::Test
{
protected:
  static void SetUpTestSuite()
  {
    gst_init(nullptr, nullptr);
  }

  void TearDown() override
  {
    set_wall_clock_offset(0);
  }
};

GstElement *
ptz_src_new()
{
  return GST_ELEMENT(gst_object_ref_sink(gst_element_factory_make("statuscacheptzsrc", nullptr)));
}

GstElement *
ptz_src_new_for_channel(int channel)
{
  GstElement *element = ptz_src_new();
  g_object_set(element, "channel", channel, nullptr);
  return element;
}

ReadPtzStatus
read_status(const std::string &text)
{
  std::vector<ReadPtzStatus> statuses = read_ptz_statuses(text);
  EXPECT_EQ(statuses.size(), 1u) << text;
  return statuses.size() == 1 ? statuses.front() : ReadPtzStatus();
}

gint64
utc_of(const std::string &text)
{
  return parse_utc(read_status(text).utc);
}

/* The expected content at @utc. */
std::string
expected_text(const PtzView &view, gint64 utc)
{
  sim::Settings settings = sim::settings_load();
  Ptz ptz = World(settings.seed).ptz_at(sim::settings_world_time(settings, utc));
  onvif::XmlWriter writer;
  writer.start(onvif::TT, "PTZ");
  writer.declare(onvif::TT);
  sim::ptz_status_write(&writer, ptz, view, utc);
  writer.end();
  return std::string(writer.written());
}

bool
is_of_the_head(const sim::Change &change)
{
  return change.type == sim::ChangeType::PAN_TILT || change.type == sim::ChangeType::ZOOM;
}

/* Whether a drive starts or stops after `after` and no later than `until`, both in world time. */
bool
head_changes(const World &world, WorldTime after, WorldTime until)
{
  std::vector<sim::Change> changes = world.changes_between(after, until);
  return std::any_of(changes.begin(), changes.end(), is_of_the_head);
}

bool
rests(const Ptz &ptz)
{
  return !ptz.pan_tilt_moving && !ptz.zoom_moving;
}

/* Settings for a world that is now as wanted. The clocks of the worlds differ by seconds. All worlds have
 * drives in the same places, so that at some moments there is no such world with another seed. */
std::string
settings_for_moment(const std::function<bool(const World &world, WorldTime now)> &is_wanted)
{
  constexpr gint64 MAX_SHIFT_S = 3600;
  sim::Settings settings;
  const gint64 last = settings.epoch - MAX_SHIFT_S;
  while (settings.epoch > last &&
         !is_wanted(World(settings.seed), sim::settings_world_time(settings, g_get_real_time()))) {
    settings.epoch--;
  }
  EXPECT_GT(settings.epoch, last) << "there is no such moment";
  g_autoptr(GDateTime) epoch = g_date_time_new_from_unix_utc(settings.epoch);
  g_autofree gchar *text = g_date_time_format(epoch, "%Y-%m-%dT%H:%M:%SZ");
  return "[World]\nepoch=" + std::string(text) + "\n";
}

/* Settings for a world whose head is idle, or moves, for `duration` from now on. */
std::string
settings_for_steady_head(bool resting, gint64 duration)
{
  return settings_for_moment([=](const World &world, WorldTime now) {
    return rests(world.ptz_at(now)) == resting && !head_changes(world, now, now + duration);
  });
}

/* A world without any change from now until `until`, with an idle head. */
struct QuietWorld {
  std::string settings;
  gint64 until; /* wall clock */
};

QuietWorld
find_quiet_world()
{
  constexpr gint64 QUIET = 2 * G_USEC_PER_SEC;
  gint64 utc = g_get_real_time();
  std::string settings = settings_for_moment([](const World &world, WorldTime now) {
    return world.next_change_after(now) - now >= QUIET && rests(world.ptz_at(now));
  });
  return {settings, utc + QUIET};
}

TEST_F(PtzSrc, StartsWithOneOfEachStickyEventInOrder)
{
  SettingsFile settings(FAST);
  g_autoptr(GstHarness) harness = play(ptz_src_new());
  for (int i = 0; i < 5; i++) {
    pull_text(harness);
  }

  expect_sticky_events_in_order(harness);
  g_autoptr(GstPad) pad = gst_element_get_static_pad(harness->element, "src");
  g_autoptr(GstCaps) caps = gst_pad_get_current_caps(pad);
  EXPECT_STREQ(gst_structure_get_name(gst_caps_get_structure(caps, 0)), onvif::FRAGMENT_CAPS);
}

TEST_F(PtzSrc, IsLiveAndTimestamps)
{
  SettingsFile settings(FAST);
  g_autoptr(GstHarness) harness = play(ptz_src_new());
  expect_live_with_timestamps(harness, 5);
}

TEST_F(PtzSrc, SendsTheCurrentStateOnStart)
{
  gint64 before = g_get_real_time();
  g_autoptr(GstHarness) harness = play(ptz_src_new());
  std::string text = pull_text(harness);
  EXPECT_GE(utc_of(text), before);
  EXPECT_LE(utc_of(text), g_get_real_time());
  EXPECT_EQ(text, expected_text({}, utc_of(text)));
}

/* A buffer before the regular repetition means that a drive has started or stopped. */
TEST_F(PtzSrc, SendsEveryStartAndStopOfADrive)
{
  SettingsFile file(FAST);
  sim::Settings settings = sim::settings_load();
  World world(settings.seed);
  g_autoptr(GstHarness) harness = play(ptz_src_new());

  gint64 last = utc_of(pull_text(harness));
  int early = 0;
  std::set<std::string> seen;
  for (int i = 0; i < 60; i++) {
    std::string text = pull_text(harness);
    ReadPtzStatus status = read_status(text);
    gint64 utc = parse_utc(status.utc);
    EXPECT_EQ(text, expected_text({}, utc));
    seen.insert("pan and tilt " + status.pan_tilt_status);
    seen.insert("zoom " + status.zoom_status);
    if (utc - last < MOVING_INTERVAL) {
      early++;
      EXPECT_TRUE(head_changes(world, sim::settings_world_time(settings, last),
                               sim::settings_world_time(settings, utc)));
    }
    last = utc;
  }
  EXPECT_GT(early, 30);
  EXPECT_EQ(seen.size(), 4u);
}

TEST_F(PtzSrc, RepeatsSeveralTimesASecondWhileTheHeadMoves)
{
  constexpr gint64 MOVING = G_USEC_PER_SEC * 5 / 2;
  gint64 until = g_get_real_time() + MOVING;
  SettingsFile settings(settings_for_steady_head(false, MOVING));
  g_autoptr(GstHarness) harness = play(ptz_src_new());

  ReadPtzStatus last = read_status(pull_text(harness));
  int repeated = 0;
  for (int i = 0; i < 5; i++) {
    ReadPtzStatus status = read_status(pull_text(harness));
    if (parse_utc(status.utc) > until) {
      break;
    }
    EXPECT_GE(parse_utc(status.utc) - parse_utc(last.utc), MOVING_INTERVAL * 9 / 10);
    EXPECT_TRUE(status.pan != last.pan || status.zoom != last.zoom);
    EXPECT_TRUE(status.pan_tilt_status == "MOVING" || status.zoom_status == "MOVING");
    last = status;
    repeated++;
  }
  EXPECT_EQ(repeated, 5);
}

TEST_F(PtzSrc, RepeatsRarelyWhileTheHeadIsIdle)
{
  SettingsFile settings(settings_for_steady_head(true, RESTING_INTERVAL + 2 * G_USEC_PER_SEC));
  g_autoptr(GstHarness) harness = play(ptz_src_new());
  ReadPtzStatus first = read_status(pull_text(harness));
  ReadPtzStatus second = read_status(pull_text(harness));
  EXPECT_GE(parse_utc(second.utc) - parse_utc(first.utc), RESTING_INTERVAL * 9 / 10);
  EXPECT_EQ(second.pan, first.pan);
  EXPECT_EQ(second.tilt, first.tilt);
  EXPECT_EQ(second.zoom, first.zoom);
  EXPECT_EQ(second.pan_tilt_status, "IDLE");
  EXPECT_EQ(second.zoom_status, "IDLE");
}

TEST_F(PtzSrc, SendsTheStateImmediatelyAfterASyncPoint)
{
  QuietWorld world = find_quiet_world();
  SettingsFile settings(world.settings);
  g_autoptr(GstHarness) harness = play(ptz_src_new());
  pull_text(harness);
  for (int round = 0; round < 3; round++) {
    ASSERT_TRUE(gst_harness_push_upstream_event(harness, onvif::sync_point_event_new()));
    std::string text = pull_text(harness);
    EXPECT_EQ(text, expected_text({}, utc_of(text)));
    EXPECT_LT(utc_of(text), world.until);
  }
  EXPECT_EQ(gst_harness_buffers_received(harness), 4u);
}

TEST_F(PtzSrc, IgnoresOtherEvents)
{
  g_autoptr(GstHarness) harness = play(ptz_src_new_for_channel(CHANNEL_WITHOUT_HEAD));
  pull_text(harness);
  expect_other_event_refused(harness);
  ASSERT_TRUE(gst_harness_push_upstream_event(harness, onvif::sync_point_event_new()));
  pull_text(harness);
  EXPECT_EQ(gst_harness_buffers_received(harness), 2u);
}

TEST_F(PtzSrc, ChannelWithoutHeadHasAnEmptyElement)
{
  SettingsFile settings(FAST);
  g_autoptr(GstHarness) harness = play(ptz_src_new_for_channel(CHANNEL_WITHOUT_HEAD));
  EXPECT_EQ(pull_text(harness), EMPTY);
  ASSERT_TRUE(gst_harness_push_upstream_event(harness, onvif::sync_point_event_new()));
  EXPECT_EQ(pull_text(harness), EMPTY);
}

/* Although the head of other channels moves. */
TEST_F(PtzSrc, ChannelWithoutHeadSendsNoChanges)
{
  SettingsFile settings(FAST);
  g_autoptr(GstHarness) with_head = play(ptz_src_new());
  g_autoptr(GstHarness) without_head = play(ptz_src_new_for_channel(CHANNEL_WITHOUT_HEAD));
  pull_text(without_head);
  for (int i = 0; i < 10; i++) {
    pull_text(with_head);
  }
  EXPECT_EQ(gst_harness_buffers_received(without_head), 1u);
}

TEST_F(PtzSrc, SettingsSelectTheChannelsWithAHead)
{
  SettingsFile settings("[PTZ]\nchannels=2;3\n");
  for (int channel = 0; channel < 5; channel++) {
    g_autoptr(GstHarness) harness = play(ptz_src_new_for_channel(channel));
    EXPECT_EQ(pull_text(harness) != EMPTY, channel == 2 || channel == 3) << "channel " << channel;
  }
}

struct Choice {
  const char *name;
  std::function<void(GstElement *element)> choose;
  PtzView view;
};

void
PrintTo(const Choice &choice, std::ostream *stream)
{
  *stream << choice.name;
}

std::function<void(GstElement *element)>
integer(const char *property, int value)
{
  return [property, value](GstElement *element) { g_object_set(element, property, value, nullptr); };
}

std::function<void(GstElement *element)>
filters(bool position, bool status)
{
  return [position, status](GstElement *element) {
    g_object_set(element, "filter-position", position, "filter-status", status, nullptr);
  };
}

class Chosen : public PtzSrc, public testing::WithParamInterface<Choice>
{
};

TEST_P(Chosen, IsShown)
{
  GstElement *element = ptz_src_new();
  GetParam().choose(element);
  g_autoptr(GstHarness) harness = play(element);
  std::string text = pull_text(harness);
  EXPECT_EQ(text, expected_text(GetParam().view, utc_of(text)));
  EXPECT_EQ(text.find("<tt:Position>") != text.npos, GetParam().view.with_position);
  EXPECT_EQ(text.find("<tt:MoveStatus>") != text.npos, GetParam().view.with_status);
  if (have_onvif_schemas()) {
    EXPECT_TRUE(is_valid_fragment(text));
  }
}

INSTANTIATE_TEST_SUITE_P(
    All, Chosen,
    testing::Values(
        Choice{"pan and tilt generic", integer("coordinate-space-pantilt", 0), {.pan_tilt_space = 0}},
        Choice{"pan and tilt in degrees", integer("coordinate-space-pantilt", 1), {.pan_tilt_space = 1}},
        Choice{"pan and tilt in radians", integer("coordinate-space-pantilt", 2), {.pan_tilt_space = 2}},
        Choice{"zoom generic", integer("coordinate-space-zoom", 0), {.zoom_space = 0}},
        Choice{"zoom in millimetres", integer("coordinate-space-zoom", 1), {.zoom_space = 1}},
        Choice{"zoom factor", integer("coordinate-space-zoom", 2), {.zoom_space = 2}},
        Choice{"pan and tilt only",
               integer("ptz-move-capabilities", sim::PTZ_MOVES_PAN | sim::PTZ_MOVES_TILT),
               {.move_capabilities = sim::PTZ_MOVES_PAN | sim::PTZ_MOVES_TILT}},
        Choice{"zoom only",
               integer("ptz-move-capabilities", sim::PTZ_MOVES_ZOOM),
               {.move_capabilities = sim::PTZ_MOVES_ZOOM}},
        Choice{"no filter", filters(false, false), {.with_position = true, .with_status = true}},
        Choice{"position", filters(true, false), {.with_position = true, .with_status = false}},
        Choice{"status", filters(false, true), {.with_position = false, .with_status = true}},
        Choice{"both filters", filters(true, true), {.with_position = true, .with_status = true}}));

TEST_F(PtzSrc, PropertiesHaveTheirDefaultsAndCanBeReadBack)
{
  struct {
    const char *name;
    int default_value;
    int other_value;
  } constexpr INTEGERS[] = {
      {"channel", 1, G_MAXINT},         {"coordinate-space-pantilt", -1, 2},
      {"coordinate-space-zoom", -1, 1}, {"ptz-move-capabilities", 0, G_MININT},
      {"filter-position", FALSE, TRUE}, {"filter-status", FALSE, TRUE},
  };
  g_autoptr(GstElement) element = ptz_src_new();
  for (const auto &integer : INTEGERS) {
    int value = 0;
    g_object_get(element, integer.name, &value, nullptr);
    EXPECT_EQ(value, integer.default_value) << integer.name;
  }
  for (const auto &integer : INTEGERS) {
    g_object_set(element, integer.name, integer.other_value, nullptr);
  }
  for (const auto &integer : INTEGERS) {
    int value = 0;
    g_object_get(element, integer.name, &value, nullptr);
    EXPECT_EQ(value, integer.other_value) << integer.name;
  }
}

TEST_F(PtzSrc, SendsTheStateAfterARestartWithOtherProperties)
{
  SettingsFile settings(settings_for_steady_head(true, 3 * G_USEC_PER_SEC));
  g_autoptr(GstHarness) harness = play(ptz_src_new());
  pull_text(harness);
  gst_element_set_state(harness->element, GST_STATE_NULL);
  drop_queued(harness);
  g_object_set(harness->element, "coordinate-space-pantilt", 1, nullptr);
  gst_element_set_state(harness->element, GST_STATE_PLAYING);
  std::string text = pull_text(harness);
  EXPECT_EQ(text, expected_text({.pan_tilt_space = 1}, utc_of(text)));
}

class PtzWallClock : public PtzSrc, public testing::WithParamInterface<gint64>
{
};

TEST_P(PtzWallClock, SettingItSendsTheStateOfTheNewTime)
{
  SettingsFile settings(FAST);
  g_autoptr(GstHarness) harness = play(ptz_src_new());
  pull_text(harness);
  set_wall_clock_offset(GetParam() * G_USEC_PER_SEC);
  gint64 earliest = g_get_real_time();
  gint64 utc = 0;
  for (int pulled = 0; pulled < 100 && (utc < earliest || utc > g_get_real_time()); pulled++) {
    std::string text = pull_text(harness);
    utc = utc_of(text);
    EXPECT_EQ(text, expected_text({}, utc));
  }
  EXPECT_GE(utc, earliest);
  EXPECT_LE(utc, g_get_real_time());
}

INSTANTIATE_TEST_SUITE_P(Offsets, PtzWallClock, testing::Values(gint64{-3600}, gint64{3600}));

/* Several times, because the stop may come before the wait. */
TEST_F(PtzSrc, StopsWithoutWaitingForTheNextChange)
{
  QuietWorld world = find_quiet_world();
  SettingsFile settings(world.settings);
  g_autoptr(GstHarness) harness = play(ptz_src_new());
  for (int round = 0; round < 20; round++) {
    pull_text(harness);
    EXPECT_EQ(gst_element_set_state(harness->element, GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
    EXPECT_EQ(gst_harness_buffers_in_queue(harness), 0u);
    gst_element_set_state(harness->element, GST_STATE_PLAYING);
  }
  EXPECT_LT(g_get_real_time(), world.until);
}

TEST_F(PtzSrc, EveryBufferIsValid)
{
  if (!have_onvif_schemas()) {
    GTEST_SKIP() << "ONVIF_SCHEMA_DIR does not name the official schemas";
  }
  SettingsFile settings(FAST);
  g_autoptr(GstHarness) harness = play(ptz_src_new());
  for (int i = 0; i < 20; i++) {
    EXPECT_TRUE(is_valid_fragment(pull_text(harness)));
  }
  EXPECT_TRUE(is_valid_fragment(EMPTY));
}

} // namespace
