/* SPDX-License-Identifier: MIT */
#include "scenebuffer.h"

#include <cmath>
#include <gtest/gtest.h>
#include <limits>

using sim::Box;
using sim::Scene;
using sim::SceneObject;

namespace sim
{

static bool
operator==(const SceneObject &one, const SceneObject &other)
{
  return one.id == other.id && one.type == other.type && one.likelihood == other.likelihood &&
         one.centre == other.centre && one.box == other.box && one.polygon == other.polygon &&
         one.velocity == other.velocity && one.radar == other.radar;
}

} // namespace sim

namespace
{

constexpr double NOT_A_NUMBER = std::numeric_limits<double>::quiet_NaN();
constexpr double INFINITE = std::numeric_limits<double>::infinity();

/* The documented format. */
constexpr const char *FORMAT = "(yxa(xyd(dd)m(dddd)a(dd)m(dd)m(ddd))ax)";

SceneObject
whole_object()
{
  return {.id = -3,
          .type = sim::ObjectType::VEHICLE,
          .likelihood = 0.5,
          .centre = {0.25, -0.5},
          .box = Box{-1, 1, 0.75, -1},
          .polygon = {{0, 0}, {1, 0}, {0, -1}},
          .velocity = sim::Velocity{12.5, -180},
          .radar = sim::RadarEcho{{179, 4000}, 2}};
}

std::optional<Scene>
pass_on(const Scene &scene)
{
  g_autoptr(GstBuffer) buffer = sim::scene_to_buffer(scene);
  return sim::scene_from_buffer(buffer);
}

std::optional<Scene>
pass_on(const SceneObject &object)
{
  return pass_on(Scene{.utc = 0, .objects = {object}});
}

bool
is_accepted(gconstpointer data, gsize size)
{
  g_autoptr(GstBuffer) buffer = gst_buffer_new_allocate(nullptr, size, nullptr);
  gst_buffer_fill(buffer, 0, data, size);
  return sim::scene_from_buffer(buffer).has_value();
}

bool
is_accepted(const char *text)
{
  g_autoptr(GError) error = nullptr;
  g_autoptr(GVariant) packed = g_variant_parse(G_VARIANT_TYPE(FORMAT), text, nullptr, nullptr, &error);
  EXPECT_EQ(error, nullptr) << error->message;
  return is_accepted(g_variant_get_data(packed), g_variant_get_size(packed));
}

class SceneBuffer : public testing::Test
{
protected:
  static void SetUpTestSuite()
  {
    gst_init(nullptr, nullptr);
  }
};

TEST_F(SceneBuffer, SceneIsReadAsItWasWritten)
{
  SceneObject bare = {.id = 2, .type = sim::ObjectType::HUMAN, .likelihood = 1, .centre = {1, -1}};
  Scene scene = {.utc = 1704067200123456, .objects = {whole_object(), bare}, .deleted = {G_MAXINT64, -1}};
  std::optional<Scene> arrived = pass_on(scene);
  ASSERT_TRUE(arrived.has_value());
  EXPECT_EQ(arrived->utc, scene.utc);
  EXPECT_EQ(arrived->objects, scene.objects);
  EXPECT_EQ(arrived->deleted, scene.deleted);
}

TEST_F(SceneBuffer, EmptySceneIsReadAsItWasWritten)
{
  std::optional<Scene> arrived = pass_on(Scene{.utc = 5});
  ASSERT_TRUE(arrived.has_value());
  EXPECT_TRUE(arrived->objects.empty());
  EXPECT_TRUE(arrived->deleted.empty());
}

TEST_F(SceneBuffer, FormatIsAsDocumented)
{
  EXPECT_TRUE(is_accepted("(1, 0, [], [])"));
  EXPECT_TRUE(
      is_accepted("(1, 0, [(7, 1, 0.9, (0.5, 0.5), just (0.0, 1.0, 1.0, 0.0), [(0.0, 0.0), (1.0, 0.0), "
                  "(1.0, 1.0)], just (5.0, 90.0), just (10.0, 20.0, 2.0))], [6])"));
}

TEST_F(SceneBuffer, AllScenesOfTheWorldAreAccepted)
{
  sim::World world(3);
  gsize count = 0;
  for (sim::WorldTime time = 0; time < 60 * G_USEC_PER_SEC; time += G_USEC_PER_SEC / 50) {
    Scene scene = {.utc = time, .objects = sim::scene_objects(world.objects_at(time), {.radar = true})};
    ASSERT_TRUE(pass_on(scene).has_value()) << time;
    count += scene.objects.size();
  }
  EXPECT_GT(count, 100u);
}

TEST_F(SceneBuffer, ClippedObjectsAreAccepted)
{
  sim::Object object = {.type = sim::ObjectType::VEHICLE, .centre = {0, 0.8}, .width = 0.44, .height = 0.28};
  for (double x : {-1.2, -1.0, 1.0, 1.2}) {
    object.centre.x = x;
    EXPECT_TRUE(pass_on(sim::scene_objects({object}, {.radar = true}).front()).has_value()) << x;
  }
}

TEST_F(SceneBuffer, TruncatedScenesAreRefused)
{
  g_autoptr(GstBuffer) buffer = sim::scene_to_buffer({.utc = 1, .objects = {whole_object()}, .deleted = {4}});
  GstMapInfo map;
  ASSERT_TRUE(gst_buffer_map(buffer, &map, GST_MAP_READ));
  EXPECT_TRUE(is_accepted(map.data, map.size));
  for (gsize size = 0; size < map.size; size++) {
    EXPECT_FALSE(is_accepted(map.data, size)) << size;
  }
  gst_buffer_unmap(buffer, &map);
}

/* A scene with a wrong byte that is accepted can be written and read again: all its parts are within the
 * limits. */
TEST_F(SceneBuffer, WrongBytesAreRefusedOrMakeAValidScene)
{
  g_autoptr(GstBuffer) buffer = sim::scene_to_buffer({.utc = 1, .objects = {whole_object()}, .deleted = {4}});
  gpointer data = nullptr;
  gsize size = 0;
  gst_buffer_extract_dup(buffer, 0, static_cast<gsize>(-1), &data, &size);
  g_autofree guint8 *bytes = static_cast<guint8 *>(data);
  gsize refused = 0;
  for (gsize at = 0; at < size; at++) {
    guint8 right = bytes[at];
    for (guint8 wrong : {0, 1, 2, 3, 0x3f, 0x40, 0x7f, 0x80, 0xbf, 0xf0, 0xff}) {
      bytes[at] = wrong;
      g_autoptr(GstBuffer) hostile = gst_buffer_new_memdup(bytes, size);
      std::optional<Scene> scene = sim::scene_from_buffer(hostile);
      if (!scene.has_value()) {
        refused++;
      } else {
        EXPECT_TRUE(pass_on(*scene).has_value()) << at << " " << unsigned{wrong};
      }
    }
    bytes[at] = right;
  }
  EXPECT_GT(refused, size);
}

TEST_F(SceneBuffer, TooLongBuffersAreRefused)
{
  std::vector<guint8> zeros(sim::SCENE_BYTES_MAX + 1);
  EXPECT_FALSE(is_accepted(zeros.data(), zeros.size()));

  Scene scene = {.utc = 1};
  scene.deleted.resize(sim::SCENE_BYTES_MAX);
  EXPECT_FALSE(pass_on(scene).has_value());
}

TEST_F(SceneBuffer, CountsHaveLimits)
{
  Scene scene = {.utc = 1};
  scene.objects.resize(sim::SCENE_OBJECTS_MAX, whole_object());
  scene.deleted.resize(sim::SCENE_OBJECTS_MAX);
  EXPECT_TRUE(pass_on(scene).has_value());
  scene.objects.push_back(whole_object());
  EXPECT_FALSE(pass_on(scene).has_value());
  scene.objects.clear();
  scene.deleted.push_back(1);
  EXPECT_FALSE(pass_on(scene).has_value());

  SceneObject object = whole_object();
  for (gsize points : {gsize{0}, gsize{3}, sim::SCENE_POINTS_MAX}) {
    object.polygon.resize(points);
    EXPECT_TRUE(pass_on(object).has_value()) << points;
  }
  for (gsize points : {gsize{1}, gsize{2}, sim::SCENE_POINTS_MAX + 1}) {
    object.polygon.resize(points);
    EXPECT_FALSE(pass_on(object).has_value()) << points;
  }
}

struct Impossible {
  const char *what;
  void (*spoil)(SceneObject &object);
};

void
PrintTo(const Impossible &impossible, std::ostream *stream)
{
  *stream << impossible.what;
}

class ImpossibleObject : public SceneBuffer, public testing::WithParamInterface<Impossible>
{
};

TEST_P(ImpossibleObject, IsRefused)
{
  SceneObject object = whole_object();
  ASSERT_TRUE(pass_on(object).has_value());
  GetParam().spoil(object);
  EXPECT_FALSE(pass_on(object).has_value());
}

INSTANTIATE_TEST_SUITE_P(
    Objects, ImpossibleObject,
    testing::Values(
        Impossible{"type", [](SceneObject &object) { object.type = static_cast<sim::ObjectType>(2); }},
        Impossible{"likelihood above 1", [](SceneObject &object) { object.likelihood = 1.01; }},
        Impossible{"negative likelihood", [](SceneObject &object) { object.likelihood = -0.01; }},
        Impossible{"likelihood NaN", [](SceneObject &object) { object.likelihood = NOT_A_NUMBER; }},
        Impossible{"centre right of the picture", [](SceneObject &object) { object.centre.x = 1.01; }},
        Impossible{"centre below the picture", [](SceneObject &object) { object.centre.y = -1.01; }},
        Impossible{"centre NaN", [](SceneObject &object) { object.centre.y = NOT_A_NUMBER; }},
        Impossible{"box outside", [](SceneObject &object) { object.box->right = 1.01; }},
        Impossible{"box infinite", [](SceneObject &object) { object.box->left = -INFINITE; }},
        Impossible{"box NaN", [](SceneObject &object) { object.box->top = NOT_A_NUMBER; }},
        Impossible{"box back to front",
                   [](SceneObject &object) { std::swap(object.box->left, object.box->right); }},
        Impossible{"box upside down",
                   [](SceneObject &object) { std::swap(object.box->top, object.box->bottom); }},
        Impossible{"point outside", [](SceneObject &object) { object.polygon[2].y = -1.01; }},
        Impossible{"point NaN", [](SceneObject &object) { object.polygon[1].x = NOT_A_NUMBER; }},
        Impossible{"negative speed", [](SceneObject &object) { object.velocity->speed = -0.01; }},
        Impossible{"infinite speed", [](SceneObject &object) { object.velocity->speed = INFINITE; }},
        Impossible{"angle of velocity", [](SceneObject &object) { object.velocity->angle = 180.01; }},
        Impossible{"angle of echo", [](SceneObject &object) { object.radar->position.angle = -180.01; }},
        Impossible{"range", [](SceneObject &object) { object.radar->position.range = 100000.01; }},
        Impossible{"size NaN", [](SceneObject &object) { object.radar->size = NOT_A_NUMBER; }}));

TEST_F(SceneBuffer, OtherVersionsAreRefused)
{
  EXPECT_FALSE(is_accepted("(0, 0, [], [])"));
  EXPECT_FALSE(is_accepted("(2, 0, [], [])"));
}

TEST_F(SceneBuffer, TimesOutsideTheLimitsAreRefused)
{
  EXPECT_TRUE(is_accepted("(1, 4102444799000000, [], [])"));
  EXPECT_FALSE(is_accepted("(1, 4102444799000001, [], [])"));
  EXPECT_FALSE(is_accepted("(1, 9223372036854775807, [], [])"));
  EXPECT_FALSE(is_accepted("(1, -1, [], [])"));
}

} // namespace
