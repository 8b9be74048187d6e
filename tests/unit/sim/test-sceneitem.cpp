/* SPDX-License-Identifier: MIT */
#include "sceneitem.h"

#include <gtest/gtest.h>

using sim::Scene;
using sim::SceneObject;

namespace
{

SceneObject
person()
{
  return {.id = 12,
          .type = sim::ObjectType::HUMAN,
          .likelihood = 0.5,
          .centre = {0, 0},
          .box = {{.left = -0.5, .top = 0.5, .right = 0.25, .bottom = -0.25}},
          .polygon = {{-0.5, 0.5}, {0.25, 0.5}, {0.25, -0.25}}};
}

TEST(SceneItem, WritesAllPartsOfAnObject)
{
  EXPECT_EQ(
      sim::scene_to_item({.utc = 1500000, .objects = {person()}, .deleted = {11, 10}}),
      R"({"UtcTime":"1970-01-01T00:00:01.500000Z","Objects":[{"Id":12,"BoundingBox":{"Left":-0.5,"Top":0.5,)"
      R"("Right":0.25,"Bottom":-0.25},"Polygon":[[-0.5,0.5],[0.25,0.5],[0.25,-0.25]],"Type":"Human",)"
      R"("Likelihood":0.5}],"Deleted":[11,10]})");
}

TEST(SceneItem, OmitsMissingParts)
{
  SceneObject vehicle = person();
  vehicle.type = sim::ObjectType::VEHICLE;
  vehicle.box.reset();
  vehicle.polygon.clear();
  EXPECT_EQ(
      sim::scene_to_item({.utc = 0, .objects = {vehicle}, .deleted = {}}),
      R"({"UtcTime":"1970-01-01T00:00:00.000000Z","Objects":[{"Id":12,"Type":"Vehicle","Likelihood":0.5}],)"
      R"("Deleted":[]})");
}

TEST(SceneItem, LargestIdIsKept)
{
  SceneObject object = person();
  object.id = G_MAXINT64;
  std::string item = sim::scene_to_item({.utc = 0, .objects = {object}, .deleted = {G_MININT64}});
  EXPECT_NE(item.find("\"Id\":9223372036854775807,"), std::string::npos);
  EXPECT_NE(item.find("\"Deleted\":[-9223372036854775808]"), std::string::npos);
}

TEST(SceneItem, NumbersAreRoundedToFourDecimals)
{
  SceneObject object = person();
  object.likelihood = 0.96;
  object.box = {{.left = -0.00004, .top = 0.12345678, .right = 0.99996, .bottom = -0.0001}};
  object.polygon.clear();
  std::string item = sim::scene_to_item({.utc = 0, .objects = {object}, .deleted = {}});
  EXPECT_NE(item.find(R"("BoundingBox":{"Left":0,"Top":0.1235,"Right":1,"Bottom":-0.0001},)"),
            std::string::npos)
      << item;
  EXPECT_NE(item.find(R"("Likelihood":0.96})"), std::string::npos) << item;
}

TEST(SceneItem, ExampleHasTheSelectedObjects)
{
  std::string all = sim::scene_example_item(std::nullopt, true);
  EXPECT_NE(all.find("\"Human\""), std::string::npos);
  EXPECT_NE(all.find("\"Vehicle\""), std::string::npos);
  EXPECT_NE(all.find("\"Polygon\""), std::string::npos);

  std::string persons = sim::scene_example_item(sim::ObjectType::HUMAN, false);
  EXPECT_NE(persons.find("\"Human\""), std::string::npos);
  EXPECT_EQ(persons.find("\"Vehicle\""), std::string::npos);
  EXPECT_EQ(persons.find("\"Polygon\""), std::string::npos);
}

} // namespace
