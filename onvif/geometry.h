/* SPDX-License-Identifier: MIT */
#pragma once

namespace onvif
{

/* A position in the picture, normalised: x from -1 (left) to 1 (right), y from -1 (bottom) to 1 (top). */
struct Point {
  double x;
  double y;

  bool operator==(const Point &) const = default;
};

/* A bounding box in the same coordinates. */
struct Box {
  double left;
  double top;
  double right;
  double bottom;

  bool operator==(const Box &) const = default;
};

} // namespace onvif
