/* SPDX-License-Identifier: MIT */
#include "ground.h"

#include <cmath>
#include <gtest/gtest.h>
#include <numbers>

using sim::GeoLocation;
using sim::Object;
using sim::Point;
using sim::Polar;
using sim::Velocity;

namespace
{

constexpr double DEGREE = std::numbers::pi / 180;

/* The length of a degree on a sphere with the radius of the earth. */
constexpr double METRES_PER_DEGREE = 6371000 * DEGREE;

Object
object_at(Point centre, Point velocity = {0, 0})
{
  return {.id = 1,
          .type = sim::ObjectType::HUMAN,
          .centre = centre,
          .width = 0.12,
          .height = 0.42,
          .velocity = velocity};
}

/* Metres to the right of the camera and away from it. */
Point
flat(const Polar &position)
{
  return {position.range * std::sin(position.angle * DEGREE),
          position.range * std::cos(position.angle * DEGREE)};
}

/* Metres to the east and to the north. */
Point
between(const GeoLocation &from, const GeoLocation &to)
{
  return {(to.longitude - from.longitude) * METRES_PER_DEGREE * std::cos(from.latitude * DEGREE),
          (to.latitude - from.latitude) * METRES_PER_DEGREE};
}

TEST(Ground, PictureMapsToAnglesAndRanges)
{
  EXPECT_EQ(sim::ground_position(object_at({0, 0})), (Polar{0, 20}));
  Polar left_below = sim::ground_position(object_at({-1, -1}));
  Polar right_above = sim::ground_position(object_at({1, 1}));
  EXPECT_NEAR(left_below.angle, -20, 1e-9);
  EXPECT_NEAR(left_below.range, 5, 1e-9);
  EXPECT_NEAR(right_above.angle, 20, 1e-9);
  EXPECT_NEAR(right_above.range, 35, 1e-9);
}

TEST(Ground, VelocityIsTheRateOfChangeOfThePosition)
{
  constexpr double MOMENT = 1e-6;
  for (Point velocity : {Point{1, 0}, Point{-1, 0}, Point{0, 1}, Point{0, -1}, Point{0.4, -0.3}}) {
    for (Point start : {Point{0, 0}, Point{-1, -0.8}, Point{0.9, 0.7}}) {
      Point end = {start.x + velocity.x * MOMENT, start.y + velocity.y * MOMENT};
      Point from = flat(sim::ground_position(object_at(start)));
      Point to = flat(sim::ground_position(object_at(end)));
      Velocity found = sim::ground_velocity(object_at(start, velocity));
      EXPECT_NEAR(found.speed * std::sin(found.angle * DEGREE), (to.x - from.x) / MOMENT, 1e-3);
      EXPECT_NEAR(found.speed * std::cos(found.angle * DEGREE), (to.y - from.y) / MOMENT, 1e-3);
      EXPECT_LE(std::abs(found.angle), 180);
      EXPECT_GT(found.speed, 0);
    }
  }
}

TEST(Ground, SizeIsProportionalToTheRange)
{
  double near = sim::ground_size(object_at({0, -1}));
  double far = sim::ground_size(object_at({0, 1}));
  EXPECT_NEAR(far / near, 7, 1e-9);
  EXPECT_NEAR(sim::ground_size(object_at({0, 0})), 0.12 * 20 * DEGREE * 20, 1e-9);
}

TEST(Ground, LocationHasTheRangeOfThePosition)
{
  GeoLocation camera = sim::ground_location({0, 0});
  for (Polar position : {Polar{0, 30}, Polar{-20, 5}, Polar{20, 35}}) {
    Point metres = between(camera, sim::ground_location(position));
    EXPECT_NEAR(std::hypot(metres.x, metres.y), position.range, 0.01);
    /* The camera is directed to the east. */
    EXPECT_NEAR(std::atan2(-metres.y, metres.x) / DEGREE, position.angle, 0.01);
  }
}

} // namespace
