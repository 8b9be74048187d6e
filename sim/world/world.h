/* SPDX-License-Identifier: MIT */
#pragma once

#include "geometry.h"

#include <glib.h>
#include <optional>
#include <vector>

/* The simulation behind the simulated camera: people and vehicles pass through the picture and cross a line,
 * digital inputs toggle, the PTZ head moves. A seed and a time determine everything, so all elements and
 * processes show the same world without communicating. */

namespace sim
{

/* Microseconds of the world's own time; negative before its epoch. */
using WorldTime = gint64;

using onvif::Box;
using onvif::Point;

struct Line {
  Point top;
  Point bottom;
};

enum class ObjectType {
  HUMAN,
  VEHICLE,
};

constexpr guint8 OBJECT_TYPE_COUNT = 2;

enum class Direction {
  LEFT_TO_RIGHT,
  RIGHT_TO_LEFT,
};

struct Object {
  gint64 id;
  ObjectType type;
  Point centre;
  double width;
  double height;
  Point velocity; /* per second */
};

/* The position of the PTZ head, in ONVIF's generic spaces, and which of its drives run. */
struct Ptz {
  double pan;  /* from -1 (left) to 1 (right) */
  double tilt; /* from -1 (down) to 1 (up) */
  double zoom; /* from 0 (wide) to 1 (tele) */
  bool pan_tilt_moving;
  bool zoom_moving;
};

enum class ChangeType {
  INPUT,
  MOTION,
  CROSSING,
  PAN_TILT,
  ZOOM,
};

struct Change {
  WorldTime time;
  ChangeType type;
  unsigned input;      /* INPUT: its number */
  bool state;          /* all but CROSSING: the new state; of a drive: whether it runs */
  gint64 object_id;    /* CROSSING: the object that crosses */
  Direction direction; /* CROSSING: its direction */

  bool operator==(const Change &) const = default;
};

class World
{
public:
  static constexpr unsigned INPUT_COUNT = 2;

  /* The maximum speed of each axis of the head, in units of its generic space per second. */
  static constexpr double PAN_TILT_SPEED = 0.4;
  static constexpr double ZOOM_SPEED = 0.25;

  explicit World(guint64 seed);

  Line line() const;
  std::vector<Object> objects_at(WorldTime time) const;
  bool motion_at(WorldTime time) const;
  bool input_at(unsigned input, WorldTime time) const;
  Ptz ptz_at(WorldTime time) const;

  std::vector<Change> changes_between(WorldTime after, WorldTime until) const;
  WorldTime next_change_after(WorldTime time) const;
  std::optional<WorldTime> first_arrival_between(WorldTime after, WorldTime until,
                                                 std::optional<ObjectType> only) const;

private:
  guint64 seed_;
};

} // namespace sim
