/* SPDX-License-Identifier: MIT */
#pragma once

#include "world.h"

/* Converts positions in the picture to positions on the ground and on the earth. */

namespace sim
{

/* Relative to the camera. All angles are in degrees, clockwise seen from above, from the direction in which
 * the camera looks. */
struct Polar {
  double angle;
  double range; /* metres */

  bool operator==(const Polar &) const = default;
};

struct Velocity {
  double speed; /* metres per second */
  double angle; /* its direction */

  bool operator==(const Velocity &) const = default;
};

struct GeoLocation {
  double latitude;
  double longitude;
  double elevation; /* metres */
};

Polar ground_position(const Object &object);
Velocity ground_velocity(const Object &object);
double ground_size(const Object &object);
GeoLocation ground_location(const Polar &position);

} // namespace sim
