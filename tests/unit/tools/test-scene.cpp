/* SPDX-License-Identifier: MIT */
#include "command.h"
#include "scene.h"

#include <gtest/gtest.h>

namespace
{

std::string
document(const std::string &frames)
{
  return "<tt:MetadataStream xmlns:tt=\"http://www.onvif.org/ver10/schema\"><tt:VideoAnalytics>" + frames +
         "</tt:VideoAnalytics></tt:MetadataStream>";
}

std::string
repeated(gsize count, const std::string &text)
{
  std::string result;
  for (gsize i = 0; i < count; i++) {
    result += text;
  }
  return result;
}

Scene
read(const std::string &frames)
{
  g_autoptr(GError) error = nullptr;
  std::optional<Scene> scene = scene_read(document(frames), &error);
  EXPECT_TRUE(scene.has_value()) << error->message;
  return scene.value_or(Scene());
}

/* Of one object in one frame. */
SceneObject
read_object(const std::string &content, const std::string &transformation = "")
{
  Scene scene =
      read("<tt:Frame UtcTime=\"t\" Source=\"s\">" + transformation +
           "<tt:Object ObjectId=\"1\"><tt:Appearance>" + content + "</tt:Appearance></tt:Object></tt:Frame>");
  return scene.objects == 1 ? scene.frames.at(0).objects.at(0) : SceneObject();
}

TEST(Scene, CombinesTransformations)
{
  constexpr const char *frame = "<tt:Transformation><tt:Translate x=\"-1\" y=\"1\"/>"
                                "<tt:Scale x=\"0.01\" y=\"-0.02\"/></tt:Transformation>";
  constexpr const char *object = "<tt:Transformation><tt:Translate x=\"5\" y=\"6\"/></tt:Transformation>";
  constexpr const char *shape = "<tt:Shape><tt:BoundingBox left=\"5\" top=\"4\" right=\"15\" bottom=\"14\"/>"
                                "<tt:CenterOfGravity x=\"10\" y=\"9\"/></tt:Shape>";
  SceneObject found = read_object(std::string(object) + shape, frame);

  ASSERT_TRUE(found.box.has_value() && found.centre.has_value());
  EXPECT_DOUBLE_EQ(found.box->left_top.x, -0.9);
  EXPECT_DOUBLE_EQ(found.box->left_top.y, 0.8);
  EXPECT_DOUBLE_EQ(found.box->right_bottom.x, -0.8);
  EXPECT_DOUBLE_EQ(found.box->right_bottom.y, 0.6);
  EXPECT_DOUBLE_EQ(found.centre->x, -0.85);
  EXPECT_DOUBLE_EQ(found.centre->y, 0.7);
}

TEST(Scene, TakesTheMostLikelyClass)
{
  constexpr const char *older = "<tt:ClassCandidate><tt:Type>Face</tt:Type><tt:Likelihood>0.7</tt:Likelihood>"
                                "</tt:ClassCandidate>";
  constexpr const char *newer = "<tt:Type Likelihood=\"0.3\">Bicycle</tt:Type>"
                                "<tt:Type Likelihood=\"0.6\"> Human </tt:Type><tt:Type>Animal</tt:Type>";

  SceneObject found = read_object(std::string("<tt:Class>") + older + newer + "</tt:Class>");
  EXPECT_EQ(found.type, "Human");
  EXPECT_EQ(found.likelihood, 0.6);
  found = read_object(std::string("<tt:Class>") + older + "</tt:Class>");
  EXPECT_EQ(found.type, "Face");
  EXPECT_EQ(found.likelihood, 0.7);
  found = read_object("<tt:Class><tt:Type>Animal</tt:Type></tt:Class>");
  EXPECT_EQ(found.type, "Animal");
  EXPECT_FALSE(found.likelihood.has_value());
}

TEST(Scene, BoundsEverything)
{
  const std::string point = "<tt:Point x=\"1e300\" y=\"-1e300\"/>";
  const std::string object = "<tt:Object ObjectId=\"1\"/>";

  SceneObject found = read_object("<tt:Shape><tt:Polygon>" + repeated(SCENE_MAX_POINTS - 1, point) +
                                  "</tt:Polygon>" + "<tt:Polygon>" + repeated(9, point) +
                                  "</tt:Polygon><tt:Polygon>" + point + "</tt:Polygon></tt:Shape>");
  ASSERT_EQ(found.polygons.size(), 2);
  EXPECT_EQ(found.polygons.at(0).size(), SCENE_MAX_POINTS - 1);
  EXPECT_EQ(found.polygons.at(1).size(), 1);
  EXPECT_EQ(found.polygons.at(0).at(0).x, SCENE_MAX_COORDINATE);
  EXPECT_EQ(found.polygons.at(0).at(0).y, -SCENE_MAX_COORDINATE);

  Scene scene = read("<tt:Frame>" + repeated(SCENE_MAX_OBJECTS + 2, object) + "</tt:Frame>");
  EXPECT_EQ(scene.objects, SCENE_MAX_OBJECTS);
  EXPECT_EQ(scene.left_out, 2);
  EXPECT_EQ(read(repeated(SCENE_MAX_FRAMES + 1, "<tt:Frame/>")).frames.size(), SCENE_MAX_FRAMES);

  scene = read("<tt:Frame Source=\"" + repeated(SCENE_MAX_TEXT_CHARACTERS + 1, "\xc3\xa4") + "\"/>");
  EXPECT_EQ(scene.frames.at(0).source, repeated(SCENE_MAX_TEXT_CHARACTERS, "\xc3\xa4"));
}

TEST(Scene, PlacesObjectsOfARadar)
{
  constexpr const char *polar =
      "<tt:Extension><i:I xmlns:i=\"urn:i\"><i:PolarCoordinate angle=\"90\" range=\"1e9\"/>"
      "</i:I></tt:Extension>";

  SceneObject found = read_object(polar);
  ASSERT_TRUE(found.ground.has_value());
  EXPECT_EQ(found.ground->x, SCENE_MAX_METRES);
  found = read_object("<tt:SphericalCoordinate Distance=\"10\" ElevationAngle=\"60\" AzimuthAngle=\"90\"/>");
  ASSERT_TRUE(found.ground.has_value());
  EXPECT_NEAR(found.ground->x, 0, 1e-9);
  EXPECT_NEAR(found.ground->y, 5, 1e-9);
  EXPECT_FALSE(read_object("<tt:Extension>text<a/></tt:Extension>").ground.has_value());
}

TEST(Scene, RefusesWhatIsNoDocument)
{
  for (const std::string text : {"", "<", "<tt:MetadataStream/>", "<MetadataStream xmlns=\"urn:other\"/>"}) {
    g_autoptr(GError) error = nullptr;
    EXPECT_FALSE(scene_read(text, &error).has_value()) << text;
    EXPECT_TRUE(g_error_matches(error, TESSARDCTL_ERROR, EXIT_STATUS_MALFORMED));
    EXPECT_STREQ(error->message, "The document is not a well-formed tt:MetadataStream.");
  }
  g_autoptr(GError) error = nullptr;
  EXPECT_FALSE(scene_read("<!DOCTYPE a>" + document(""), &error).has_value());
}

} // namespace
