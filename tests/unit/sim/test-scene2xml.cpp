/* SPDX-License-Identifier: MIT */
#include "scene2xml.h"

#include "hostiletext.h"
#include "metadata.h"
#include "metadatalimits.h"
#include "metadatareader.h"
#include "scenebuffer.h"
#include "scenefragment.h"
#include "scenes.h"
#include "schema.h"
#include "settingsfile.h"
#include "wallclock.h"
#include "worldevents.h"

#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>

using sim::Scene;
using sim::SceneObject;
using sim::SceneView;
using sim::WorldTime;

namespace
{

constexpr gint64 MILLISECOND = G_USEC_PER_SEC / 1000;
constexpr gint64 UTC = G_GINT64_CONSTANT(1704067200250000);

class SceneToXml : public testing::TestWithParam<Scenes>
{
protected:
  static void SetUpTestSuite()
  {
    gst_init(nullptr, nullptr);
    g_autoptr(GstPlugin) filters = gst_plugin_load_file(CORE_ELEMENTS, nullptr);
    ASSERT_NE(filters, nullptr) << CORE_ELEMENTS;
  }
  void TearDown() override
  {
    set_wall_clock_offset(0);
  }

  static GstElement *make()
  {
    return GST_ELEMENT(gst_object_ref_sink(gst_element_factory_make(GetParam().converter, nullptr)));
  }

  static SceneObject example()
  {
    SceneObject object = {.id = 105,
                          .type = sim::ObjectType::HUMAN,
                          .likelihood = 0.9,
                          .centre = {-0.4, 0.4},
                          .box = sim::Box{-0.6, 0.6, -0.2, 0.2},
                          .polygon = {{-0.6, 0.6}, {-0.2, 0.6}, {-0.2, 0.2}},
                          .velocity = sim::Velocity{2, 30}};
    if (GetParam().radar) {
      object.radar = sim::RadarEcho{{20, 50}, 1};
    }
    return object;
  }

  static Scene example_scene()
  {
    return {.utc = UTC, .objects = {example()}, .deleted = {104}};
  }
};

/* Starts @element with a stream of scenes. (transfer full) */
GstHarness *
feed(GstElement *element, const char *media_type)
{
  GstHarness *harness = gst_harness_new_with_element(element, "sink", "src");
  gst_object_unref(element);
  gst_harness_set_src_caps_str(harness, media_type);
  return harness;
}

std::string
convert(GstHarness *harness, const Scene &scene)
{
  EXPECT_EQ(gst_harness_push(harness, sim::scene_to_buffer(scene)), GST_FLOW_OK);
  return pull_text(harness);
}

std::string
fragment_text(const Scene &scene, const SceneView &view, const std::optional<sim::Ptz> &ptz = std::nullopt)
{
  g_autoptr(GstBuffer) buffer = sim::scene_to_fragment(scene, view, ptz);
  return buffer_text(buffer);
}

double
evaluate_number(const std::string &xml, const std::string &path)
{
  return g_ascii_strtod(evaluate(xml, path).c_str(), nullptr);
}

TEST_P(SceneToXml, DefaultsWriteTheMinimum)
{
  g_autoptr(GstHarness) harness = feed(make(), GetParam().media_type);
  EXPECT_EQ(convert(harness, example_scene()),
            fragment_text(example_scene(), {.velocity = !GetParam().radar}));
}

TEST_P(SceneToXml, PropertiesSelectTheContent)
{
  GstElement *element = make();
  g_object_set(element, "polygon", TRUE, "rotation", 270u, "source-name", "Front door", nullptr);
  g_autoptr(GstHarness) harness = feed(element, GetParam().media_type);
  SceneView view = {
      .source_name = "Front door", .rotation = 270, .polygon = true, .velocity = !GetParam().radar};
  EXPECT_EQ(convert(harness, example_scene()), fragment_text(example_scene(), view));
}

TEST_P(SceneToXml, PropertiesCanBeReadBack)
{
  g_autoptr(GstElement) element = make();
  g_object_set(element, "polygon", TRUE, "rotation", 45u, "source-name", "a\xff", nullptr);
  gboolean polygon = FALSE;
  guint rotation = 0;
  g_autofree char *name = nullptr;
  g_object_get(element, "polygon", &polygon, "rotation", &rotation, "source-name", &name, nullptr);
  EXPECT_TRUE(polygon);
  EXPECT_EQ(rotation, 45u);
  EXPECT_STREQ(name, "a\xff");
  g_object_set(element, "source-name", nullptr, nullptr);
  g_clear_pointer(&name, g_free);
  g_object_get(element, "source-name", &name, nullptr);
  EXPECT_EQ(name, nullptr);
}

TEST_P(SceneToXml, HasThePropertiesOfItsKindOnly)
{
  g_autoptr(GstElement) element = make();
  GObjectClass *klass = G_OBJECT_GET_CLASS(element);
  for (const char *name : {"polygon", "rotation", "source-name"}) {
    EXPECT_NE(g_object_class_find_property(klass, name), nullptr) << name;
  }
  for (const char *name : {"ptz-move-capabilities", "pan-tilt-space", "zoom-space", "channel", "ptz"}) {
    EXPECT_EQ(g_object_class_find_property(klass, name) != nullptr, !GetParam().radar) << name;
  }
  for (const char *name : {"velocity", "geolocation"}) {
    EXPECT_EQ(g_object_class_find_property(klass, name) != nullptr, GetParam().radar) << name;
  }
}

TEST_P(SceneToXml, AcceptsItsOwnKindOfScenesOnly)
{
  g_autoptr(GstElement) element = make();
  const char *other = GetParam().radar ? SCENE.media_type : RADAR_SCENE.media_type;
  g_autoptr(GstCaps) own_caps = gst_caps_from_string(GetParam().media_type);
  g_autoptr(GstCaps) other_caps = gst_caps_from_string(other);
  g_autoptr(GstPad) pad = gst_element_get_static_pad(element, "sink");
  EXPECT_TRUE(gst_pad_query_accept_caps(pad, own_caps));
  EXPECT_FALSE(gst_pad_query_accept_caps(pad, other_caps));

  g_autoptr(GstHarness) harness = feed(GST_ELEMENT(gst_object_ref(element)), GetParam().media_type);
  convert(harness, example_scene());
  g_autoptr(GstCaps) caps = gst_pad_get_current_caps(harness->sinkpad);
  g_autoptr(GstCaps) fragments = gst_caps_new_empty_simple(onvif::FRAGMENT_CAPS);
  EXPECT_TRUE(gst_caps_is_equal(caps, fragments));
}

TEST_P(SceneToXml, KeepsTimesAndForwardsSegmentFlushAndEndOfStream)
{
  g_autoptr(GstHarness) harness = feed(make(), GetParam().media_type);
  GstBuffer *buffer = sim::scene_to_buffer(example_scene());
  GST_BUFFER_PTS(buffer) = 7 * GST_SECOND;
  GST_BUFFER_DURATION(buffer) = GST_SECOND;
  ASSERT_EQ(gst_harness_push(harness, buffer), GST_FLOW_OK);
  g_autoptr(GstBuffer) fragment = gst_harness_pull(harness);
  EXPECT_EQ(GST_BUFFER_PTS(fragment), 7 * GST_SECOND);
  EXPECT_EQ(GST_BUFFER_DURATION(fragment), GST_SECOND);

  GstSegment segment;
  gst_segment_init(&segment, GST_FORMAT_TIME);
  ASSERT_TRUE(gst_harness_push_event(harness, gst_event_new_flush_start()));
  ASSERT_TRUE(gst_harness_push_event(harness, gst_event_new_flush_stop(TRUE)));
  ASSERT_TRUE(gst_harness_push_event(harness, gst_event_new_segment(&segment)));
  convert(harness, example_scene());
  ASSERT_TRUE(gst_harness_push_event(harness, gst_event_new_eos()));

  std::vector<GstEventType> types;
  for (GstEvent *event = gst_harness_try_pull_event(harness); event != nullptr;
       event = gst_harness_try_pull_event(harness)) {
    types.push_back(GST_EVENT_TYPE(event));
    gst_event_unref(event);
  }
  std::vector<GstEventType> expected = {GST_EVENT_STREAM_START, GST_EVENT_CAPS,       GST_EVENT_SEGMENT,
                                        GST_EVENT_FLUSH_START,  GST_EVENT_FLUSH_STOP, GST_EVENT_SEGMENT,
                                        GST_EVENT_EOS};
  EXPECT_EQ(types, expected);
}

TEST_P(SceneToXml, MalformedScenesAreDroppedWithOneWarning)
{
  GstElement *element = make();
  g_autoptr(GstBus) bus = gst_bus_new();
  gst_element_set_bus(element, bus);
  g_autoptr(GstHarness) harness = feed(element, GetParam().media_type);
  const std::string junk = repeat("\xfe<&%s", 20);
  for (int round = 0; round < 2; round++) {
    for (gsize size : {gsize{0}, gsize{1}, junk.size()}) {
      GstBuffer *hostile = gst_buffer_new_allocate(nullptr, size, nullptr);
      gst_buffer_fill(hostile, 0, junk.data(), size);
      EXPECT_EQ(gst_harness_push(harness, hostile), GST_FLOW_OK);
    }
    EXPECT_EQ(gst_harness_buffers_in_queue(harness), 0u);
    EXPECT_EQ(pop_message(bus, GST_MESSAGE_WARNING, GST_STREAM_ERROR, GST_STREAM_ERROR_DECODE),
              "A scene is malformed and left out.");
    EXPECT_FALSE(gst_bus_have_pending(bus));
    EXPECT_EQ(evaluate(convert(harness, example_scene()), "count(//tt:Object)"), "1");
  }
  gst_element_set_state(harness->element, GST_STATE_NULL);
  gst_element_set_bus(harness->element, nullptr);
}

TEST_P(SceneToXml, OtherRotationsWarnAndAreIgnored)
{
  GstElement *element = make();
  g_autoptr(GstBus) bus = gst_bus_new();
  gst_element_set_bus(element, bus);
  g_object_set(element, "rotation", 45u, nullptr);
  g_autoptr(GstHarness) harness = feed(element, GetParam().media_type);
  EXPECT_EQ(pop_message(bus, GST_MESSAGE_WARNING, GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_SETTINGS),
            "A picture cannot be rotated by 45 degrees, so it is not rotated.");
  EXPECT_EQ(convert(harness, example_scene()),
            fragment_text(example_scene(), {.velocity = !GetParam().radar}));
  gst_element_set_state(harness->element, GST_STATE_NULL);
  gst_element_set_bus(harness->element, nullptr);
}

struct Named {
  HostileText name;
  std::string source;
};

TEST_P(SceneToXml, HostileSourceNamesAreEscapedOrReplaced)
{
  const std::vector<Named> names = {
      {"", ""},
      {"\"/><tt:Object ObjectId=\"1\"/>", "\"/><tt:Object ObjectId=\"1\"/>"},
      {"<![CDATA[&lt;]]> &#0; %s%n", "<![CDATA[&lt;]]> &#0; %s%n"},
      {"a\nb\r\tc", "a\nb\r\tc"},
      {"a\x01\x1f\x7f", "a\xef\xbf\xbd\xef\xbf\xbd\x7f"},
      {"\xff\xc3(", "\xef\xbf\xbd\xef\xbf\xbd("},
      {"\xed\xa0\x80", "\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd"},
      {"\xef\xbf\xbe", "\xef\xbf\xbd"},
      {"\xf0\x9f\x8e\xa5", "\xf0\x9f\x8e\xa5"},
      {repeat("\xc3\xa9", 100000), repeat("\xc3\xa9", onvif::SOURCE_NAME_MAX)},
  };
  for (const Named &named : names) {
    GstElement *element = make();
    g_object_set(element, "source-name", named.name.text.c_str(), nullptr);
    g_autoptr(GstHarness) harness = feed(element, GetParam().media_type);
    std::string text = convert(harness, {.utc = UTC});
    EXPECT_EQ(evaluate(text, "string(/tt:VideoAnalytics/tt:Frame/@Source)"), named.source);
    EXPECT_EQ(evaluate(text, "count(//tt:Frame/*)"), "0");
    EXPECT_EQ(evaluate(text, "count(//tt:Frame/@Source)"), "1");
    EXPECT_EQ(text.find('\n'), text.npos);
  }
}

INSTANTIATE_TEST_SUITE_P(Plugins, SceneToXml, testing::Values(SCENE, RADAR_SCENE));

/* Properties of the radar's converter only. */
class RadarSceneToXml : public SceneToXml
{
};

TEST_P(RadarSceneToXml, VelocityAndGeolocationAreOptional)
{
  for (unsigned choice = 0; choice < 4; choice++) {
    bool velocity = (choice & 1) != 0;
    bool geolocation = (choice & 2) != 0;
    GstElement *element = make();
    g_object_set(element, "velocity", velocity, "geolocation", geolocation, nullptr);
    g_autoptr(GstHarness) harness = feed(element, GetParam().media_type);
    EXPECT_EQ(convert(harness, example_scene()),
              fragment_text(example_scene(), {.velocity = velocity, .geolocation = geolocation}));
  }
}

INSTANTIATE_TEST_SUITE_P(Radar, RadarSceneToXml, testing::Values(RADAR_SCENE));

/* Properties of scene2xml only. */
class PtzOfScenes : public SceneToXml
{
protected:
  static gboolean read_ptz(GstElement *element)
  {
    gboolean ptz = FALSE;
    g_object_get(element, "ptz", &ptz, nullptr);
    return ptz;
  }
};

TEST_P(PtzOfScenes, IsWrittenInTheSelectedSpaces)
{
  GstElement *element = make();
  g_object_set(element, "ptz-move-capabilities", 0, "pan-tilt-space", 1, "zoom-space", 2, "channel", 1, "ptz",
               TRUE, nullptr);
  EXPECT_TRUE(read_ptz(element));
  g_autoptr(GstHarness) harness = feed(element, GetParam().media_type);
  SceneView view = {.velocity = true, .ptz = {.pan_tilt_space = 1, .zoom_space = 2}};
  for (gint64 utc = UTC; utc < UTC + 30 * gint64{G_USEC_PER_SEC}; utc += 1700 * MILLISECOND) {
    Scene scene = {.utc = utc, .objects = {example()}};
    sim::Ptz ptz = DEFAULT_WORLD.ptz_at(sim::settings_world_time({}, utc));
    EXPECT_EQ(convert(harness, scene), fragment_text(scene, view, ptz));
  }
}

TEST_P(PtzOfScenes, HasOnlyMovableAxes)
{
  GstElement *element = make();
  g_object_set(element, "ptz-move-capabilities", static_cast<int>(sim::PTZ_MOVES_ZOOM), "ptz", TRUE, nullptr);
  g_autoptr(GstHarness) harness = feed(element, GetParam().media_type);
  std::string text = convert(harness, {.utc = UTC});
  EXPECT_EQ(evaluate(text, "count(//tt:PTZStatus/tt:Position/tt:Zoom)"), "1");
  EXPECT_EQ(evaluate(text, "count(//tt:PTZStatus/tt:Position/tt:PanTilt)"), "0");
}

TEST_P(PtzOfScenes, IsOptional)
{
  GstElement *element = make();
  EXPECT_FALSE(read_ptz(element));
  g_autoptr(GstHarness) harness = feed(element, GetParam().media_type);
  EXPECT_EQ(evaluate(convert(harness, example_scene()), "count(//tt:PTZStatus)"), "0");
}

TEST_P(PtzOfScenes, StaysFalseOnAChannelWithoutAHead)
{
  SettingsFile settings("[PTZ]\nchannels=2\n");
  GstElement *element = make();
  g_object_set(element, "pan-tilt-space", -1, "zoom-space", -1, "channel", 1, "ptz", TRUE, nullptr);
  EXPECT_FALSE(read_ptz(element));
  g_object_set(element, "channel", 2, nullptr);
  EXPECT_TRUE(read_ptz(element));
  g_object_set(element, "channel", 3, nullptr);
  EXPECT_FALSE(read_ptz(element));
  g_autoptr(GstHarness) harness = feed(element, GetParam().media_type);
  EXPECT_EQ(evaluate(convert(harness, example_scene()), "count(//tt:PTZStatus)"), "0");
}

/* A scene can have any time that the format allows. */
TEST_P(PtzOfScenes, IsWrittenForTheEarliestAndTheLatestTime)
{
  SettingsFile settings("[World]\nspeed=100\nepoch=2099-12-31T23:59:59Z\n");
  GstElement *element = make();
  g_object_set(element, "ptz", TRUE, nullptr);
  g_autoptr(GstHarness) harness = feed(element, GetParam().media_type);
  for (gint64 utc : {gint64{0}, G_GINT64_CONSTANT(4102444799000000)}) {
    std::string text = convert(harness, {.utc = utc});
    EXPECT_EQ(evaluate(text, "count(//tt:PTZStatus)"), "1");
  }
}

INSTANTIATE_TEST_SUITE_P(Scene, PtzOfScenes, testing::Values(SCENE));

/* Source, caps filter and converter, as in the daemon. */
class SceneChain : public SceneToXml
{
protected:
  static GstElement *make_chain(bool polygon)
  {
    GstElement *bin = GST_ELEMENT(gst_object_ref_sink(gst_bin_new(nullptr)));
    GstElement *source = gst_element_factory_make(GetParam().source, nullptr);
    GstElement *filter = gst_element_factory_make("capsfilter", nullptr);
    GstElement *converter = gst_element_factory_make(GetParam().converter, nullptr);
    g_autoptr(GstCaps) caps = gst_caps_new_simple(GetParam().media_type, "bounding-box", G_TYPE_BOOLEAN, TRUE,
                                                  "polygon", G_TYPE_BOOLEAN, polygon, "velocity",
                                                  G_TYPE_BOOLEAN, TRUE, "channel", G_TYPE_INT, 1, nullptr);
    g_object_set(source, "video-channel", 1, nullptr);
    g_object_set(filter, "caps", caps, nullptr);
    g_object_set(converter, "polygon", polygon, "rotation", 0u, "source-name", "Tracker", nullptr);
    if (GetParam().radar) {
      g_object_set(converter, "velocity", TRUE, "geolocation", TRUE, nullptr);
    } else {
      g_object_set(converter, "ptz-move-capabilities", 0, "pan-tilt-space", -1, "zoom-space", -1, "channel",
                   1, "ptz", TRUE, nullptr);
    }
    gst_bin_add_many(GST_BIN(bin), converter, filter, source, nullptr);
    EXPECT_TRUE(gst_element_link_many(source, filter, converter, nullptr));
    g_autoptr(GstPad) pad = gst_element_get_static_pad(converter, "src");
    gst_element_add_pad(bin, gst_ghost_pad_new("src", pad));
    return bin;
  }
};

TEST_P(SceneChain, CapsFilterSelectsTheContent)
{
  begin_where([](WorldTime time) { return is_busy(time - 500 * MILLISECOND, time + 2000 * MILLISECOND); });
  for (bool polygon : {false, true}) {
    g_autoptr(GstHarness) harness = play(make_chain(polygon));
    std::string text = pull_text(harness);
    EXPECT_NE(evaluate(text, "count(//tt:BoundingBox)"), "0") << text;
    EXPECT_EQ(evaluate(text, "count(//tt:Polygon) > 0"), polygon ? "true" : "false");
    EXPECT_EQ(evaluate(text, "count(//tt:Behaviour) = count(//tt:Object)"), "true");
    EXPECT_EQ(evaluate(text, "count(//tt:GeoLocation) > 0"), GetParam().radar ? "true" : "false");
    EXPECT_EQ(evaluate(text, "count(//tt:PTZStatus)"), GetParam().radar ? "0" : "1");
  }
}

TEST_P(SceneChain, SendsASceneImmediatelyAfterASyncPoint)
{
  begin_where([](WorldTime time) { return is_empty(time, time + 4 * gint64{G_USEC_PER_SEC}); });
  g_autoptr(GstHarness) harness = play(make_chain(false));
  gint64 first = parse_utc(evaluate(pull_text(harness), "string(//tt:Frame/@UtcTime)"));
  ASSERT_TRUE(gst_harness_push_upstream_event(harness, onvif::sync_point_event_new()));
  gint64 second = parse_utc(evaluate(pull_text(harness), "string(//tt:Frame/@UtcTime)"));
  EXPECT_LT(second - first, G_USEC_PER_SEC);
}

/* Negative on the left of the line, positive on its right. */
double
side(const sim::Line &line, double x, double y)
{
  double at = (y - line.bottom.y) / (line.top.y - line.bottom.y);
  return x - std::lerp(line.bottom.x, line.top.x, at);
}

const sim::Change *
find_crossing(const std::vector<sim::Change> &changes)
{
  auto found = std::find_if(changes.begin(), changes.end(), [](const sim::Change &change) {
    return change.type == sim::ChangeType::CROSSING;
  });
  return found != changes.end() ? &*found : nullptr;
}

/* The object of the event is on different sides of the line in the frames before and after the crossing. */
TEST_P(SceneChain, ShowsTheObjectThatCrossesTheLine)
{
  constexpr gint64 LEAD = 350 * MILLISECOND;
  WorldTime begin = begin_where([](WorldTime time) {
    return find_crossing(DEFAULT_WORLD.changes_between(time + LEAD, time + LEAD + 10 * MILLISECOND)) !=
           nullptr;
  });
  std::vector<sim::Change> changes =
      DEFAULT_WORLD.changes_between(begin + LEAD, begin + LEAD + 10 * MILLISECOND);
  const sim::Change *crossing = find_crossing(changes);
  ASSERT_NE(crossing, nullptr);
  onvif::EventMessage event = sim::world_event_from_change(*crossing, {}).value();
  const std::string &id = event.data.at(0).value;
  double to_right = event.data.at(1).value == "LeftToRight" ? 1 : -1;

  g_autoptr(GstHarness) harness = play(make_chain(false));
  int before = 0;
  int after = 0;
  for (int pulled = 0; pulled < 50 && after == 0; pulled++) {
    std::string text = pull_text(harness);
    std::string centre = "//tt:Object[@ObjectId='" + id + "']//tt:CenterOfGravity";
    ASSERT_EQ(evaluate(text, "count(" + centre + ")"), "1") << text;
    double beyond = to_right * side(DEFAULT_WORLD.line(), evaluate_number(text, "string(" + centre + "/@x)"),
                                    evaluate_number(text, "string(" + centre + "/@y)"));
    gint64 utc = parse_utc(evaluate(text, "string(//tt:Frame/@UtcTime)"));
    utc < event.utc ? before++ : after++;
    EXPECT_EQ(beyond > 0, utc >= event.utc) << beyond << " at " << utc - event.utc;
  }
  EXPECT_GT(before, 0);
  EXPECT_GT(after, 0);
}

TEST_P(SceneChain, OutputIsValid)
{
  if (!have_onvif_schemas()) {
    GTEST_SKIP() << "ONVIF_SCHEMA_DIR does not name the official schemas";
  }
  SettingsFile settings("[World]\nspeed=10\n");
  g_autoptr(GstHarness) harness = play(make_chain(true));
  std::string all;
  for (int pulled = 0; pulled < 40 && (pulled < 10 || all.find("tt:Delete") == all.npos); pulled++) {
    all += pull_text(harness);
  }
  EXPECT_NE(all.find("tt:Polygon"), all.npos);
  EXPECT_NE(all.find("tt:Delete"), all.npos);
  EXPECT_TRUE(is_valid_fragment(all));
}

INSTANTIATE_TEST_SUITE_P(Plugins, SceneChain, testing::Values(SCENE, RADAR_SCENE));

} // namespace
