/* SPDX-License-Identifier: MIT */
#include "scenemodel.h"

#include <gtest/gtest.h>

using sim::Box;
using sim::Object;
using sim::Point;
using sim::SceneDetails;
using sim::SceneObject;

namespace
{

Object
object_at(Point centre)
{
  return {.id = 7,
          .type = sim::ObjectType::VEHICLE,
          .centre = centre,
          .width = 0.44,
          .height = 0.28,
          .velocity = {1, 0.1}};
}

TEST(SceneModel, ObjectHasOnlyTheSelectedDetails)
{
  Object object = object_at({0, 0});
  for (unsigned wanted = 0; wanted < 16; wanted++) {
    SceneDetails details = {.boxes = (wanted & 1) != 0,
                            .polygons = (wanted & 2) != 0,
                            .velocities = (wanted & 4) != 0,
                            .radar = (wanted & 8) != 0};
    std::vector<SceneObject> seen = sim::scene_objects({object}, details);
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].box.has_value(), details.boxes);
    EXPECT_EQ(!seen[0].polygon.empty(), details.polygons);
    EXPECT_EQ(seen[0].velocity.has_value(), details.velocities);
    EXPECT_EQ(seen[0].radar.has_value(), details.radar);
  }
}

TEST(SceneModel, ObjectHasThePositionOfTheWorld)
{
  Object object = object_at({0.3, -0.2});
  SceneObject seen = sim::scene_objects({object}, {.radar = true}).front();
  EXPECT_EQ(seen.id, object.id);
  EXPECT_EQ(seen.type, object.type);
  EXPECT_EQ(seen.centre, object.centre);
  EXPECT_EQ(seen.box, (Box{0.3 - 0.22, -0.2 + 0.14, 0.3 + 0.22, -0.2 - 0.14}));
  EXPECT_EQ(seen.velocity, sim::ground_velocity(object));
  EXPECT_EQ(seen.radar->position, sim::ground_position(object));
  EXPECT_EQ(seen.radar->size, sim::ground_size(object));
  for (const Point &point : seen.polygon) {
    EXPECT_TRUE(point.x >= seen.box->left && point.x <= seen.box->right);
    EXPECT_TRUE(point.y >= seen.box->bottom && point.y <= seen.box->top);
  }
}

TEST(SceneModel, ObjectAtTheEdgeIsClipped)
{
  for (double x : {-1.2, -1.0, 1.0, 1.2}) {
    SceneObject seen = sim::scene_objects({object_at({x, 0.8})}, {.radar = true}).front();
    EXPECT_EQ(seen.centre.x, x < 0 ? -1 : 1);
    EXPECT_EQ(x < 0 ? seen.box->left : seen.box->right, x < 0 ? -1 : 1);
    EXPECT_NEAR(seen.radar->position.angle, x * 20, 1e-9);
  }
}

} // namespace
