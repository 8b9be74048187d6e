/* SPDX-License-Identifier: MIT */
#include "scenefragment.h"

#include "metadatareader.h"
#include "schema.h"

#include <gtest/gtest.h>

using sim::Scene;
using sim::SceneObject;
using sim::SceneView;

namespace
{

constexpr gint64 UTC = G_GINT64_CONSTANT(1704067200250000);

/* A point near each corner, clockwise from the upper left; no rotation maps the points to themselves. */
SceneObject
vehicle()
{
  return {.id = 105,
          .type = sim::ObjectType::VEHICLE,
          .likelihood = 0.92,
          .centre = {0.2, -0.1},
          .box = sim::Box{-0.9, 0.8, 0.7, -0.4},
          .polygon = {{-0.9, 0.8}, {0.7, 0.6}, {0.5, -0.4}, {-0.3, -0.2}},
          .velocity = sim::Velocity{4.5, 60}};
}

SceneObject
echo()
{
  SceneObject object = vehicle();
  object.radar = sim::RadarEcho{{20, 50}, 10};
  return object;
}

std::string
fragment_text(const Scene &scene, const SceneView &view, const std::optional<sim::Ptz> &ptz = std::nullopt)
{
  g_autoptr(GstBuffer) buffer = sim::scene_to_fragment(scene, view, ptz);
  return buffer_text(buffer);
}

std::string
fragment_text(const SceneObject &object, const SceneView &view)
{
  return fragment_text(Scene{.utc = UTC, .objects = {object}}, view);
}

SceneView
everything()
{
  return {.source_name = "Tracker", .polygon = true, .velocity = true, .geolocation = true};
}

class SceneFragment : public testing::Test
{
protected:
  static void SetUpTestSuite()
  {
    gst_init(nullptr, nullptr);
  }
};

TEST_F(SceneFragment, WritesAllPartsOfAScene)
{
  Scene scene = {.utc = UTC, .objects = {vehicle()}, .deleted = {11, -12}};
  EXPECT_EQ(
      fragment_text(scene, everything()),
      "<tt:VideoAnalytics xmlns:tt=\"http://www.onvif.org/ver10/schema\">"
      "<tt:Frame UtcTime=\"2024-01-01T00:00:00.250000Z\" Source=\"Tracker\">"
      "<tt:Object ObjectId=\"105\"><tt:Appearance><tt:Shape>"
      "<tt:BoundingBox left=\"-0.9000\" top=\"0.8000\" right=\"0.7000\" bottom=\"-0.4000\"/>"
      "<tt:CenterOfGravity x=\"0.2000\" y=\"-0.1000\"/>"
      "<tt:Polygon><tt:Point x=\"-0.9000\" y=\"0.8000\"/><tt:Point x=\"0.7000\" y=\"0.6000\"/>"
      "<tt:Point x=\"0.5000\" y=\"-0.4000\"/><tt:Point x=\"-0.3000\" y=\"-0.2000\"/></tt:Polygon>"
      "</tt:Shape><tt:Class>"
      "<tt:ClassCandidate><tt:Type>Vehical</tt:Type><tt:Likelihood>0.92</tt:Likelihood></tt:ClassCandidate>"
      "<tt:Type Likelihood=\"0.92\">Vehicle</tt:Type></tt:Class></tt:Appearance>"
      "<tt:Behaviour><tt:Speed>4.50</tt:Speed><tt:Direction yaw=\"30.00\"/></tt:Behaviour></tt:Object>"
      "<tt:ObjectTree><tt:Delete ObjectId=\"11\"/><tt:Delete ObjectId=\"-12\"/></tt:ObjectTree>"
      "</tt:Frame></tt:VideoAnalytics>");
}

TEST_F(SceneFragment, WritesRadarDataInTheExtension)
{
  std::string text = fragment_text(echo(), everything());
  EXPECT_NE(text.find("</tt:Class><tt:Extension>"
                      "<qurt:RadarObjectInfo xmlns:qurt=\"urn:tessard:simulated-camera:radar\">"
                      "<qurt:PolarCoordinate angle=\"20.00\" range=\"50.00\"/>"
                      "<qurt:Velocity m-s=\"4.50\" angle=\"60.00\"/><qurt:Size m=\"10.00\"/>"
                      "</qurt:RadarObjectInfo></tt:Extension><tt:GeoLocation lon=\""),
            text.npos)
      << text;
}

TEST_F(SceneFragment, EmptySceneIsAnEmptyFrame)
{
  EXPECT_EQ(fragment_text(Scene{.utc = UTC}, {}),
            "<tt:VideoAnalytics xmlns:tt=\"http://www.onvif.org/ver10/schema\">"
            "<tt:Frame UtcTime=\"2024-01-01T00:00:00.250000Z\"/></tt:VideoAnalytics>");
}

TEST_F(SceneFragment, PolygonIsOptional)
{
  EXPECT_EQ(evaluate(fragment_text(vehicle(), {.polygon = false}), "count(//tt:Polygon)"), "0");
  EXPECT_EQ(evaluate(fragment_text(vehicle(), {.polygon = true}), "count(//tt:Polygon/tt:Point)"), "4");
  SceneObject without = vehicle();
  without.polygon.clear();
  EXPECT_EQ(evaluate(fragment_text(without, {.polygon = true}), "count(//tt:Polygon)"), "0");
}

TEST_F(SceneFragment, VelocityIsOptional)
{
  std::string without = fragment_text(echo(), {.velocity = false});
  EXPECT_EQ(evaluate(without, "count(//tt:Behaviour | //qurt:Velocity)"), "0");
  EXPECT_EQ(evaluate(without, "count(//qurt:PolarCoordinate)"), "1");
  std::string with = fragment_text(echo(), {.velocity = true});
  EXPECT_EQ(evaluate(with, "count(//tt:Behaviour | //qurt:Velocity)"), "2");
  SceneObject still = echo();
  still.velocity.reset();
  EXPECT_EQ(evaluate(fragment_text(still, {.velocity = true}), "count(//tt:Behaviour | //qurt:Velocity)"),
            "0");
}

TEST_F(SceneFragment, GeolocationIsOptionalAndNeedsTheRadar)
{
  EXPECT_EQ(evaluate(fragment_text(echo(), {.geolocation = false}), "count(//tt:GeoLocation)"), "0");
  EXPECT_EQ(evaluate(fragment_text(vehicle(), {.geolocation = true}), "count(//tt:GeoLocation)"), "0");
  std::string with = fragment_text(echo(), {.geolocation = true});
  sim::GeoLocation location = sim::ground_location(echo().radar->position);
  EXPECT_NEAR(g_ascii_strtod(evaluate(with, "string(//@lat)").c_str(), nullptr), location.latitude, 1e-7);
  EXPECT_NEAR(g_ascii_strtod(evaluate(with, "string(//@lon)").c_str(), nullptr), location.longitude, 1e-7);
  EXPECT_EQ(evaluate(with, "string(//@elevation)"), "46.00");
}

/* ONVIF requires a box in a shape. */
TEST_F(SceneFragment, ObjectWithoutBoxHasNoShape)
{
  SceneObject object = vehicle();
  object.box.reset();
  std::string text = fragment_text(object, everything());
  EXPECT_EQ(evaluate(text, "count(//tt:Shape)"), "0");
  EXPECT_EQ(evaluate(text, "string(//tt:Class/tt:Type)"), "Vehicle");
}

TEST_F(SceneFragment, EveryTypeHasItsNames)
{
  SceneObject object = vehicle();
  object.type = sim::ObjectType::HUMAN;
  std::string text = fragment_text(object, {});
  EXPECT_EQ(evaluate(text, "string(//tt:ClassCandidate/tt:Type)"), "Human");
  EXPECT_EQ(evaluate(text, "string(//tt:Class/tt:Type)"), "Human");
}

TEST_F(SceneFragment, PtzStatusComesFirst)
{
  Scene scene = {.utc = UTC, .objects = {vehicle()}};
  sim::Ptz ptz = {.pan = -0.5, .tilt = 0.25, .zoom = 0.5, .pan_tilt_moving = true, .zoom_moving = false};
  SceneView view = {.ptz = {.pan_tilt_space = 1, .zoom_space = 0, .move_capabilities = 0}};
  std::string text = fragment_text(scene, view, ptz);
  EXPECT_EQ(evaluate(text, "local-name(//tt:Frame/*[1])"), "PTZStatus");
  EXPECT_EQ(evaluate(text, "count(//tt:PTZStatus)"), "1");
  std::vector<ReadPtzStatus> statuses = read_ptz_statuses(text);
  ASSERT_EQ(statuses.size(), 1u);
  EXPECT_EQ(statuses[0].pan, "-90.0000");
  EXPECT_EQ(statuses[0].pan_tilt_status, "MOVING");
  EXPECT_EQ(statuses[0].utc, evaluate(text, "string(//tt:Frame/@UtcTime)"));
}

struct Rotated {
  guint rotation;
  const char *box; /* left, top, right, bottom */
  const char *centre;
  const char *points;
  const char *yaw;
};

void
PrintTo(const Rotated &rotated, std::ostream *stream)
{
  *stream << rotated.rotation;
}

class Rotation : public SceneFragment, public testing::WithParamInterface<Rotated>
{
};

TEST_P(Rotation, RotatesEverythingInThePictureClockwise)
{
  SceneView view = everything();
  view.rotation = GetParam().rotation;
  std::string text = fragment_text(echo(), view);
  EXPECT_EQ(evaluate(text, "concat(//@left, ' ', //@top, ' ', //@right, ' ', //@bottom)"), GetParam().box);
  EXPECT_EQ(evaluate(text, "concat(//tt:CenterOfGravity/@x, ' ', //tt:CenterOfGravity/@y)"),
            GetParam().centre);
  std::string points;
  for (const char *number : {"1", "2", "3", "4"}) {
    std::string point = std::string("//tt:Point[") + number + "]";
    points += evaluate(text, "concat('(', " + point + "/@x, ' ', " + point + "/@y, ')')");
  }
  EXPECT_EQ(points, GetParam().points);
  EXPECT_EQ(evaluate(text, "string(//@yaw)"), GetParam().yaw);
  EXPECT_EQ(evaluate(text, "string(//tt:Speed)"), "4.50");
}

TEST_P(Rotation, DoesNotRotateRadarMeasurements)
{
  SceneView view = everything();
  std::string upright = fragment_text(echo(), view);
  view.rotation = GetParam().rotation;
  std::string turned = fragment_text(echo(), view);
  for (const char *path : {"string(//qurt:PolarCoordinate/@angle)", "string(//qurt:PolarCoordinate/@range)",
                           "string(//qurt:Velocity/@angle)", "string(//@lat)", "string(//@lon)"}) {
    EXPECT_NE(evaluate(upright, path), "");
    EXPECT_EQ(evaluate(turned, path), evaluate(upright, path)) << path;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Degrees, Rotation,
    testing::Values(Rotated{0, "-0.9000 0.8000 0.7000 -0.4000", "0.2000 -0.1000",
                            "(-0.9000 0.8000)(0.7000 0.6000)(0.5000 -0.4000)(-0.3000 -0.2000)", "30.00"},
                    Rotated{90, "-0.4000 0.9000 0.8000 -0.7000", "-0.1000 -0.2000",
                            "(0.8000 0.9000)(0.6000 -0.7000)(-0.4000 -0.5000)(-0.2000 0.3000)", "-60.00"},
                    Rotated{180, "-0.7000 0.4000 0.9000 -0.8000", "-0.2000 0.1000",
                            "(0.9000 -0.8000)(-0.7000 -0.6000)(-0.5000 0.4000)(0.3000 0.2000)", "-150.00"},
                    Rotated{270, "-0.8000 0.7000 0.4000 -0.9000", "0.1000 0.2000",
                            "(-0.8000 -0.9000)(-0.6000 0.7000)(0.4000 0.5000)(0.2000 -0.3000)", "120.00"}));

TEST_F(SceneFragment, PicturesRotateByRightAnglesOnly)
{
  for (guint rotation : {0u, 90u, 180u, 270u}) {
    EXPECT_TRUE(sim::scene_can_rotate(rotation)) << rotation;
  }
  for (guint rotation : {1u, 45u, 89u, 360u, 450u, G_MAXUINT}) {
    EXPECT_FALSE(sim::scene_can_rotate(rotation)) << rotation;
  }
}

TEST_F(SceneFragment, NumbersThatRoundToZeroHaveNoSign)
{
  SceneObject object = vehicle();
  object.centre = {-0.00001, 0};
  for (guint rotation : {0u, 90u, 180u, 270u}) {
    std::string text = fragment_text(object, {.rotation = rotation});
    EXPECT_EQ(text.find("-0.0000"), text.npos) << text;
  }
}

TEST_F(SceneFragment, SourceNameIsEscaped)
{
  std::string name = "a \"b\" <c/> & 'd' ]]> \n\t é";
  std::string text = fragment_text(Scene{.utc = UTC}, {.source_name = name});
  EXPECT_EQ(evaluate(text, "string(//@Source)"), name);
  EXPECT_EQ(evaluate(text, "count(//tt:Frame/*)"), "0");
  EXPECT_EQ(text.find('\n'), text.npos);
}

TEST_F(SceneFragment, OutputIsValid)
{
  if (!have_onvif_schemas()) {
    GTEST_SKIP() << "ONVIF_SCHEMA_DIR does not name the official schemas";
  }
  SceneObject bare = {.id = 1, .type = sim::ObjectType::HUMAN, .likelihood = 1, .centre = {0, 0}};
  sim::Ptz ptz = {.pan = 0, .tilt = 0, .zoom = 0, .pan_tilt_moving = true, .zoom_moving = true};
  Scene scene = {.utc = UTC, .objects = {vehicle(), echo(), bare}, .deleted = {1, 2}};
  EXPECT_TRUE(is_valid_fragment(fragment_text(scene, everything(), ptz) + fragment_text(scene, {}) +
                                fragment_text(Scene{.utc = UTC}, {})));
}

TEST_F(SceneFragment, SchemaRefusesAnUnknownAttribute)
{
  if (!have_onvif_schemas()) {
    GTEST_SKIP() << "ONVIF_SCHEMA_DIR does not name the official schemas";
  }
  std::string text = fragment_text(vehicle(), everything());
  text.replace(text.find("yaw="), 4, "jaw=");
  EXPECT_FALSE(is_valid_fragment(text));
}

} // namespace
