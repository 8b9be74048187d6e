/* SPDX-License-Identifier: MIT */
#include "ptzstatus.h"

#include <array>
#include <cmath>

namespace sim
{

namespace
{

struct Range {
  double low;
  double high;
};

struct PanTiltSpace {
  const char *uri;
  Range pan;
  Range tilt;
};

struct ZoomSpace {
  const char *uri;
  Range zoom;
};

constexpr std::array<PanTiltSpace, PTZ_LAST_SPACE + 1> PAN_TILT_SPACES = {{
    {"http://www.onvif.org/ver10/tptz/PanTiltSpaces/PositionGenericSpace", {-1, 1}, {-1, 1}},
    {"urn:tessard:simulated-camera:ptz-spaces:pan-tilt-degrees", {-180, 180}, {-90, 90}},
    {"urn:tessard:simulated-camera:ptz-spaces:pan-tilt-radians", {-G_PI, G_PI}, {-G_PI_2, G_PI_2}},
}};

constexpr std::array<ZoomSpace, PTZ_LAST_SPACE + 1> ZOOM_SPACES = {{
    {"http://www.onvif.org/ver10/tptz/ZoomSpaces/PositionGenericSpace", {0, 1}},
    {"urn:tessard:simulated-camera:ptz-spaces:zoom-millimetres", {4.3, 129}},
    {"urn:tessard:simulated-camera:ptz-spaces:zoom-factor", {1, 30}},
}};

constexpr int COORDINATE_DIGITS = 4;

constexpr Range GENERIC_PAN_TILT = PAN_TILT_SPACES[0].pan;
constexpr Range GENERIC_ZOOM = ZOOM_SPACES[0].zoom;

/* The default space and unknown numbers select the generic space. */
template <typename Space>
const Space &
space_of(const std::array<Space, PTZ_LAST_SPACE + 1> &spaces, int number)
{
  return spaces[number > 0 && number <= PTZ_LAST_SPACE ? static_cast<gsize>(number) : 0];
}

bool
can_move(const PtzView &view, int axes)
{
  int known = view.move_capabilities & (PTZ_MOVES_PAN | PTZ_MOVES_TILT | PTZ_MOVES_ZOOM);
  return known == 0 || (known & axes) != 0;
}

void
write_coordinate(onvif::XmlWriter *writer, const char *name, double value, Range from, Range to)
{
  double mapped = std::lerp(to.low, to.high, (value - from.low) / (from.high - from.low));
  writer->attribute_number(name, mapped, COORDINATE_DIGITS);
}

void
write_pan_tilt(onvif::XmlWriter *writer, const Ptz &ptz, const PtzView &view)
{
  const PanTiltSpace &space = space_of(PAN_TILT_SPACES, view.pan_tilt_space);
  double pan = can_move(view, PTZ_MOVES_PAN) ? ptz.pan : 0;
  double tilt = can_move(view, PTZ_MOVES_TILT) ? ptz.tilt : 0;
  writer->start(onvif::TT, "PanTilt");
  write_coordinate(writer, "x", pan, GENERIC_PAN_TILT, space.pan);
  write_coordinate(writer, "y", tilt, GENERIC_PAN_TILT, space.tilt);
  writer->attribute("space", space.uri);
  writer->end();
}

void
write_zoom(onvif::XmlWriter *writer, const Ptz &ptz, const PtzView &view)
{
  const ZoomSpace &space = space_of(ZOOM_SPACES, view.zoom_space);
  writer->start(onvif::TT, "Zoom");
  write_coordinate(writer, "x", ptz.zoom, GENERIC_ZOOM, space.zoom);
  writer->attribute("space", space.uri);
  writer->end();
}

void
write_move_status(onvif::XmlWriter *writer, const char *name, bool moving)
{
  writer->start(onvif::TT, name);
  writer->text(moving ? "MOVING" : "IDLE");
  writer->end();
}

} // namespace

/**
 * ptz_status_write:
 * @writer: the writer, with the namespace %TT declared
 * @ptz: the state of the head
 * @view: the parts to show; unknown coordinate spaces select the default one
 * @utc: the time of @ptz in microseconds since 1970
 *
 * Writes one tt:PTZStatus. ONVIF has pan and tilt as a pair only: if one of them cannot move, its value is
 * the middle of the range.
 */
void
ptz_status_write(onvif::XmlWriter *writer, const Ptz &ptz, const PtzView &view, gint64 utc)
{
  bool pan_tilt = can_move(view, PTZ_MOVES_PAN | PTZ_MOVES_TILT);
  bool zoom = can_move(view, PTZ_MOVES_ZOOM);

  writer->start(onvif::TT, "PTZStatus");
  if (view.with_position) {
    writer->start(onvif::TT, "Position");
    if (pan_tilt) {
      write_pan_tilt(writer, ptz, view);
    }
    if (zoom) {
      write_zoom(writer, ptz, view);
    }
    writer->end();
  }
  if (view.with_status) {
    writer->start(onvif::TT, "MoveStatus");
    if (pan_tilt) {
      write_move_status(writer, "PanTilt", ptz.pan_tilt_moving);
    }
    if (zoom) {
      write_move_status(writer, "Zoom", ptz.zoom_moving);
    }
    writer->end();
  }
  writer->start(onvif::TT, "UtcTime");
  writer->text(onvif::xml_date_time(utc));
  writer->end();
  writer->end();
}

} // namespace sim
