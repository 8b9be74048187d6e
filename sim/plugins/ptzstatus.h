/* SPDX-License-Identifier: MIT */
#pragma once

#include "world.h"
#include "xml.h"

/* The state of the world's PTZ head as ONVIF metadata. */

namespace sim
{

/* Coordinate spaces are numbered: 0 is ONVIF's generic one, the others are this camera's own. */
constexpr int PTZ_DEFAULT_SPACE = -1;
constexpr int PTZ_LAST_SPACE = 2;

/* The axes that the driver of the head can move, in the camera's own bit mask. */
enum : int {
  PTZ_MOVES_PAN = 1 << 0,
  PTZ_MOVES_TILT = 1 << 1,
  PTZ_MOVES_ZOOM = 1 << 2,
};

/* The parts of the state to show. */
struct PtzView {
  int pan_tilt_space = PTZ_DEFAULT_SPACE;
  int zoom_space = PTZ_DEFAULT_SPACE;
  int move_capabilities = 0; /* mask of PTZ_MOVES_...; all axes if no bit is set */
  bool with_position = true;
  bool with_status = true;
};

void ptz_status_write(onvif::XmlWriter *writer, const Ptz &ptz, const PtzView &view, gint64 utc);

} // namespace sim
