/* SPDX-License-Identifier: MIT */
#include "ground.h"

#include <cmath>
#include <numbers>

/* The picture is interpreted as a map: x is proportional to the angle and y to the range. An object's
 * position is its centre. */

namespace sim
{

namespace
{

constexpr double DEGREE = std::numbers::pi / 180;

constexpr double HALF_VIEW = 20 * DEGREE; /* from the middle of the picture to its sides */
constexpr double MIDDLE_RANGE = 20;       /* metres, like HALF_DEPTH */
constexpr double HALF_DEPTH = 15;         /* from the middle of the picture to its upper and lower edge */

/* The camera's location, and its direction, clockwise from north. */
constexpr GeoLocation SITE = {.latitude = 51.4779, .longitude = -0.0015, .elevation = 46};
constexpr double HEADING = 90 * DEGREE;

/* The mean length of a degree on the earth. */
constexpr double METRES_PER_DEGREE = 111195;

double
angle_of(const Object &object)
{
  return object.centre.x * HALF_VIEW;
}

double
range_of(const Object &object)
{
  return MIDDLE_RANGE + object.centre.y * HALF_DEPTH;
}

} // namespace

/**
 * ground_position:
 * @object: an object of the world
 *
 * Returns: its position on the ground
 */
Polar
ground_position(const Object &object)
{
  return {.angle = angle_of(object) / DEGREE, .range = range_of(object)};
}

/**
 * ground_velocity:
 * @object: an object of the world
 *
 * Returns: its velocity over the ground
 */
Velocity
ground_velocity(const Object &object)
{
  double away = object.velocity.y * HALF_DEPTH;
  double around = object.velocity.x * HALF_VIEW * range_of(object);
  double direction = angle_of(object) + std::atan2(around, away);
  return {.speed = std::hypot(away, around), .angle = std::remainder(direction / DEGREE, 360)};
}

/**
 * ground_size:
 * @object: an object of the world
 *
 * Returns: its apparent width in metres
 */
double
ground_size(const Object &object)
{
  return object.width * HALF_VIEW * range_of(object);
}

/**
 * ground_location:
 * @position: a position relative to the camera
 *
 * Returns: the same position on the earth
 */
GeoLocation
ground_location(const Polar &position)
{
  double bearing = HEADING + position.angle * DEGREE;
  double north = position.range * std::cos(bearing);
  double east = position.range * std::sin(bearing);
  return {
      .latitude = SITE.latitude + north / METRES_PER_DEGREE,
      .longitude = SITE.longitude + east / (METRES_PER_DEGREE * std::cos(SITE.latitude * DEGREE)),
      .elevation = SITE.elevation,
  };
}

} // namespace sim
