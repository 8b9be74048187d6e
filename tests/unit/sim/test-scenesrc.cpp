/* SPDX-License-Identifier: MIT */
#include "metadata.h"
#include "scenebuffer.h"
#include "scenes.h"
#include "settingsfile.h"
#include "wallclock.h"

#include <algorithm>
#include <gtest/gtest.h>

using sim::Scene;
using sim::World;
using sim::WorldTime;

namespace
{

constexpr gint64 MILLISECOND = G_USEC_PER_SEC / 1000;
constexpr gint64 SECOND = G_USEC_PER_SEC;

class SceneSrc : public testing::TestWithParam<Scenes>
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

  static GstElement *make()
  {
    return GST_ELEMENT(gst_object_ref_sink(gst_element_factory_make(GetParam().source, nullptr)));
  }
};

std::string
caps_text(const Scenes &scenes, bool boxes, bool polygons, bool velocities)
{
  const char *words[] = {"false", "true"};
  return std::string(scenes.media_type) + ",bounding-box=(boolean)" + words[boxes] + ",polygon=(boolean)" +
         words[polygons] + ",velocity=(boolean)" + words[velocities] + ",channel=(int)1";
}

Scene
pull_scene(GstHarness *harness)
{
  g_autoptr(GstBuffer) buffer = gst_harness_pull(harness);
  EXPECT_NE(buffer, nullptr);
  std::optional<Scene> scene = buffer != nullptr ? sim::scene_from_buffer(buffer) : std::nullopt;
  EXPECT_TRUE(scene.has_value());
  return scene.value_or(Scene{});
}

bool
has_object(const Scene &scene, gint64 id)
{
  return std::any_of(scene.objects.begin(), scene.objects.end(),
                     [id](const sim::SceneObject &object) { return object.id == id; });
}

bool
is_deleted(const Scene &scene, gint64 id)
{
  return std::find(scene.deleted.begin(), scene.deleted.end(), id) != scene.deleted.end();
}

WorldTime
begin_busy()
{
  return begin_where([](WorldTime time) { return is_busy(time - SECOND, time + 2 * SECOND); });
}

WorldTime
begin_empty(gint64 length)
{
  return begin_where([length](WorldTime time) { return is_empty(time, time + length); });
}

void
ask_for_sync_point(GstHarness *harness)
{
  EXPECT_TRUE(gst_harness_push_upstream_event(harness, onvif::sync_point_event_new()));
}

TEST_P(SceneSrc, IsLiveAndTimestamps)
{
  begin_busy();
  g_autoptr(GstHarness) harness = play(make());
  expect_live_with_timestamps(harness, 3);
}

TEST_P(SceneSrc, OffersAllCapsOfItsChannel)
{
  g_autoptr(GstElement) element = make();
  g_object_set(element, "video-channel", 3, nullptr);
  int channel = 0;
  g_object_get(element, "video-channel", &channel, nullptr);
  EXPECT_EQ(channel, 3);

  g_autoptr(GstPad) pad = gst_element_get_static_pad(element, "src");
  g_autoptr(GstCaps) caps = gst_pad_query_caps(pad, nullptr);
  std::string text = std::string(GetParam().media_type) +
                     ",channel=(int)3,bounding-box=(boolean){true,false},polygon=(boolean){true,false},"
                     "velocity=(boolean){true,false}";
  g_autoptr(GstCaps) expected = gst_caps_from_string(text.c_str());
  EXPECT_TRUE(gst_caps_is_equal(caps, expected));
}

TEST_P(SceneSrc, SelectsEverythingByDefault)
{
  begin_busy();
  g_autoptr(GstHarness) harness = play(make());
  Scene scene = pull_scene(harness);
  g_autoptr(GstCaps) caps = gst_pad_get_current_caps(harness->sinkpad);
  g_autoptr(GstCaps) expected = gst_caps_from_string(caps_text(GetParam(), true, true, true).c_str());
  EXPECT_TRUE(gst_caps_is_equal(caps, expected));
  ASSERT_FALSE(scene.objects.empty());
  EXPECT_TRUE(scene.objects[0].box.has_value());
}

TEST_P(SceneSrc, BuffersHaveThePartsOfTheCaps)
{
  begin_busy();
  for (unsigned choice = 0; choice < 8; choice++) {
    bool boxes = (choice & 1) != 0;
    bool polygons = (choice & 2) != 0;
    bool velocities = (choice & 4) != 0;
    std::string caps = caps_text(GetParam(), boxes, polygons, velocities);
    g_autoptr(GstHarness) harness = play_with_caps(make(), caps);
    Scene scene = pull_scene(harness);
    ASSERT_FALSE(scene.objects.empty());
    for (const sim::SceneObject &object : scene.objects) {
      EXPECT_EQ(object.box.has_value(), boxes) << caps;
      EXPECT_EQ(!object.polygon.empty(), polygons) << caps;
      EXPECT_EQ(object.velocity.has_value(), velocities) << caps;
      EXPECT_EQ(object.radar.has_value(), GetParam().radar) << caps;
    }
  }
}

TEST_P(SceneSrc, DownstreamCanRenegotiate)
{
  begin_busy();
  g_autoptr(GstHarness) harness = play_with_caps(make(), caps_text(GetParam(), true, false, true));
  EXPECT_TRUE(pull_scene(harness).objects.at(0).polygon.empty());
  gst_harness_set_sink_caps_str(harness, caps_text(GetParam(), true, true, true).c_str());
  bool with_polygon = false;
  for (int pulled = 0; pulled < 10 && !with_polygon; pulled++) {
    with_polygon = !pull_scene(harness).objects.at(0).polygon.empty();
  }
  EXPECT_TRUE(with_polygon);
}

class RefusedCaps : public SceneSrc
{
protected:
  static void expect_refused(const std::string &caps)
  {
    g_autoptr(GstBus) bus = gst_bus_new();
    GstElement *element = make();
    gst_element_set_bus(element, bus);
    g_autoptr(GstHarness) harness = play_with_caps(element, caps);
    pop_message(bus, GST_MESSAGE_ERROR, GST_STREAM_ERROR, GST_STREAM_ERROR_FAILED);
    EXPECT_EQ(gst_harness_buffers_received(harness), 0u);
    gst_element_set_state(harness->element, GST_STATE_NULL);
    gst_element_set_bus(harness->element, nullptr);
  }
};

TEST_P(RefusedCaps, OtherChannel)
{
  expect_refused(std::string(GetParam().media_type) + ",channel=(int)2");
}

TEST_P(RefusedCaps, OtherKindOfScene)
{
  expect_refused(GetParam().radar ? SCENE.media_type : RADAR_SCENE.media_type);
}

TEST_P(SceneSrc, ShowsTheWorld)
{
  begin_busy();
  g_autoptr(GstHarness) harness = play(make());
  for (int i = 0; i < 5; i++) {
    Scene scene = pull_scene(harness);
    std::vector<sim::Object> objects = DEFAULT_WORLD.objects_at(sim::settings_world_time({}, scene.utc));
    ASSERT_EQ(scene.objects.size(), objects.size());
    for (gsize at = 0; at < objects.size(); at++) {
      EXPECT_EQ(scene.objects[at].id, objects[at].id);
      EXPECT_EQ(scene.objects[at].type, objects[at].type);
      EXPECT_EQ(scene.objects[at].velocity, sim::ground_velocity(objects[at]));
      if (GetParam().radar) {
        EXPECT_EQ(scene.objects[at].radar->position, sim::ground_position(objects[at]));
      }
    }
  }
}

TEST_P(SceneSrc, UsesTheSimulationOfItsSettings)
{
  SettingsFile file("[World]\nseed=77\nspeed=10\nepoch=2023-05-01T00:00:00Z\n");
  sim::Settings settings = sim::settings_load();
  World world(settings.seed);
  g_autoptr(GstHarness) harness = play(make());
  for (int i = 0; i < 5; i++) {
    Scene scene = pull_scene(harness);
    std::vector<sim::Object> objects = world.objects_at(sim::settings_world_time(settings, scene.utc));
    ASSERT_EQ(scene.objects.size(), objects.size());
    for (gsize at = 0; at < objects.size(); at++) {
      EXPECT_EQ(scene.objects[at].id, objects[at].id);
    }
    ask_for_sync_point(harness);
  }
}

TEST_P(SceneSrc, SendsTenScenesASecondWhileThePictureIsNotEmpty)
{
  begin_busy();
  g_autoptr(GstHarness) harness = play(make());
  gint64 last = pull_scene(harness).utc;
  gint64 shortest = G_MAXINT64;
  for (int i = 0; i < 8; i++) {
    gint64 utc = pull_scene(harness).utc;
    EXPECT_GE(utc - last, 95 * MILLISECOND);
    shortest = std::min(shortest, utc - last);
    last = utc;
  }
  EXPECT_LE(shortest, 150 * MILLISECOND);
}

TEST_P(SceneSrc, SendsAnEmptyPictureImmediatelyAndThenRarely)
{
  begin_empty(4 * SECOND);
  gint64 before = g_get_real_time();
  g_autoptr(GstHarness) harness = play(make());
  Scene first = pull_scene(harness);
  EXPECT_TRUE(first.objects.empty());
  EXPECT_GE(first.utc, before);
  EXPECT_LT(g_get_real_time() - before, SECOND);
  Scene second = pull_scene(harness);
  EXPECT_TRUE(second.objects.empty());
  EXPECT_GE(second.utc - first.utc, 1900 * MILLISECOND);
}

TEST_P(SceneSrc, SendsASceneImmediatelyAfterASyncPoint)
{
  begin_empty(4 * SECOND);
  g_autoptr(GstHarness) harness = play(make());
  gint64 first = pull_scene(harness).utc;
  ask_for_sync_point(harness);
  gint64 second = pull_scene(harness).utc;
  EXPECT_GT(second, first);
  EXPECT_LT(second - first, SECOND);
}

TEST_P(SceneSrc, SendsASceneWhenAnObjectArrives)
{
  WorldTime begin = begin_where([](WorldTime time) {
    return is_empty(time, time + 600 * MILLISECOND) && !is_empty(time, time + 650 * MILLISECOND);
  });
  g_autoptr(GstHarness) harness = play(make());
  EXPECT_TRUE(pull_scene(harness).objects.empty());
  Scene second = pull_scene(harness);
  EXPECT_EQ(second.objects.size(), 1u);
  WorldTime time = sim::settings_world_time({}, second.utc);
  EXPECT_GT(time, begin + 600 * MILLISECOND);
  EXPECT_LT(time, begin + 1800 * MILLISECOND);
}

bool
is_there(gint64 id, WorldTime time)
{
  std::vector<sim::Object> objects = DEFAULT_WORLD.objects_at(time);
  return std::any_of(objects.begin(), objects.end(),
                     [id](const sim::Object &object) { return object.id == id; });
}

/* The id of an object that is in the picture at a time and has left half a second later; 0 if there is none.
 */
gint64
who_leaves_after(WorldTime time)
{
  for (const sim::Object &object : DEFAULT_WORLD.objects_at(time)) {
    if (is_there(object.id, time + 450 * MILLISECOND) && !is_there(object.id, time + 500 * MILLISECOND)) {
      return object.id;
    }
  }
  return 0;
}

TEST_P(SceneSrc, ListsADeletedObjectOnce)
{
  WorldTime begin = begin_where([](WorldTime time) { return who_leaves_after(time) != 0; });
  gint64 id = who_leaves_after(begin);
  g_autoptr(GstHarness) harness = play(make());
  Scene scene = pull_scene(harness);
  EXPECT_TRUE(has_object(scene, id));
  EXPECT_TRUE(scene.deleted.empty());
  for (int pulled = 0; pulled < 20 && has_object(scene, id); pulled++) {
    EXPECT_FALSE(is_deleted(scene, id));
    scene = pull_scene(harness);
  }
  EXPECT_FALSE(has_object(scene, id));
  EXPECT_TRUE(is_deleted(scene, id));
  for (int i = 0; i < 3; i++) {
    ask_for_sync_point(harness);
    scene = pull_scene(harness);
    EXPECT_FALSE(has_object(scene, id));
    EXPECT_FALSE(is_deleted(scene, id));
  }
}

TEST_P(SceneSrc, RestartForgetsThePreviousObjects)
{
  begin_busy();
  g_autoptr(GstHarness) harness = play(make());
  EXPECT_FALSE(pull_scene(harness).objects.empty());
  gst_element_set_state(harness->element, GST_STATE_NULL);
  while (gst_harness_buffers_in_queue(harness) > 0) {
    pull_scene(harness);
  }
  set_wall_clock_offset(0);
  begin_empty(4 * SECOND);
  gst_element_set_state(harness->element, GST_STATE_PLAYING);
  EXPECT_TRUE(pull_scene(harness).deleted.empty());
}

TEST_P(SceneSrc, ContinuesWhenTheWallClockIsSet)
{
  begin_busy();
  g_autoptr(GstHarness) harness = play(make());
  pull_scene(harness);
  for (gint64 offset : {-3600 * SECOND, 3600 * SECOND}) {
    set_wall_clock_offset(offset);
    bool at_new_time = false;
    for (int pulled = 0; pulled < 10 && !at_new_time; pulled++) {
      at_new_time = std::abs(pull_scene(harness).utc - g_get_real_time()) < 60 * SECOND;
    }
    EXPECT_TRUE(at_new_time);
  }
}

TEST_P(SceneSrc, StopsWithoutWaitingForTheNextScene)
{
  begin_empty(4 * SECOND);
  g_autoptr(GstHarness) harness = play(make());
  pull_scene(harness);
  gint64 before = g_get_monotonic_time();
  EXPECT_EQ(gst_element_set_state(harness->element, GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
  EXPECT_LT(g_get_monotonic_time() - before, SECOND);
}

TEST_P(SceneSrc, IgnoresOtherEvents)
{
  g_autoptr(GstHarness) harness = play(make());
  pull_scene(harness);
  expect_other_event_refused(harness);
}

INSTANTIATE_TEST_SUITE_P(Plugins, SceneSrc, testing::Values(SCENE, RADAR_SCENE));
INSTANTIATE_TEST_SUITE_P(Plugins, RefusedCaps, testing::Values(SCENE, RADAR_SCENE));

} // namespace
