/* SPDX-License-Identifier: MIT */
#include "ptzstatus.h"

#include "metadatareader.h"
#include "schema.h"

#include <gtest/gtest.h>

using sim::Ptz;
using sim::PtzView;

namespace
{

constexpr const char *GENERIC_PAN_TILT = "http://www.onvif.org/ver10/tptz/PanTiltSpaces/PositionGenericSpace";
constexpr const char *GENERIC_ZOOM = "http://www.onvif.org/ver10/tptz/ZoomSpaces/PositionGenericSpace";

constexpr gint64 UTC = G_GINT64_CONSTANT(1704067200250000);
constexpr Ptz TURNING = {
    .pan = -0.5, .tilt = 0.25, .zoom = 0.5, .pan_tilt_moving = true, .zoom_moving = false};
constexpr Ptz ZOOMING = {
    .pan = -0.5, .tilt = 0.25, .zoom = 0.5, .pan_tilt_moving = false, .zoom_moving = true};

/* Wraps the status as a converter does, so that the result is a complete child of tt:MetadataStream. */
std::string
status_text(const Ptz &ptz, const PtzView &view)
{
  onvif::XmlWriter writer;
  writer.start(onvif::TT, "PTZ");
  writer.declare(onvif::TT);
  sim::ptz_status_write(&writer, ptz, view, UTC);
  writer.end();
  return std::string(writer.written());
}

ReadPtzStatus
read_status(const Ptz &ptz, const PtzView &view)
{
  std::vector<ReadPtzStatus> statuses = read_ptz_statuses(status_text(ptz, view));
  EXPECT_EQ(statuses.size(), 1u);
  return statuses.size() == 1 ? statuses.front() : ReadPtzStatus();
}

TEST(PtzStatus, WritesEverythingInTheOrderOfTheSchema)
{
  EXPECT_EQ(
      status_text(TURNING, {}),
      "<tt:PTZ xmlns:tt=\"http://www.onvif.org/ver10/schema\"><tt:PTZStatus><tt:Position>"
      "<tt:PanTilt x=\"-0.5000\" y=\"0.2500\" space=\"" +
          std::string(GENERIC_PAN_TILT) + "\"/><tt:Zoom x=\"0.5000\" space=\"" + GENERIC_ZOOM +
          "\"/></tt:Position><tt:MoveStatus><tt:PanTilt>MOVING</tt:PanTilt><tt:Zoom>IDLE</tt:Zoom>"
          "</tt:MoveStatus><tt:UtcTime>2024-01-01T00:00:00.250000Z</tt:UtcTime></tt:PTZStatus></tt:PTZ>");
}

TEST(PtzStatus, EachDriveHasItsOwnStatus)
{
  ReadPtzStatus turning = read_status(TURNING, {});
  EXPECT_EQ(turning.pan_tilt_status, "MOVING");
  EXPECT_EQ(turning.zoom_status, "IDLE");
  ReadPtzStatus zooming = read_status(ZOOMING, {});
  EXPECT_EQ(zooming.pan_tilt_status, "IDLE");
  EXPECT_EQ(zooming.zoom_status, "MOVING");
}

struct Space {
  int number;
  const char *uri;
  const char *first;
  const char *second;
};

void
PrintTo(const Space &space, std::ostream *stream)
{
  *stream << space.number;
}

class PanTiltSpace : public testing::TestWithParam<Space>
{
};

TEST_P(PanTiltSpace, HasItsUnitsAndDoesNotChangeTheZoom)
{
  ReadPtzStatus status = read_status(TURNING, {.pan_tilt_space = GetParam().number});
  EXPECT_EQ(status.pan_tilt_space, GetParam().uri);
  EXPECT_EQ(status.pan, GetParam().first);
  EXPECT_EQ(status.tilt, GetParam().second);
  EXPECT_EQ(status.zoom_space, GENERIC_ZOOM);
  EXPECT_EQ(status.zoom, "0.5000");
}

INSTANTIATE_TEST_SUITE_P(
    All, PanTiltSpace,
    testing::Values(Space{sim::PTZ_DEFAULT_SPACE, GENERIC_PAN_TILT, "-0.5000", "0.2500"},
                    Space{0, GENERIC_PAN_TILT, "-0.5000", "0.2500"},
                    Space{1, "urn:tessard:simulated-camera:ptz-spaces:pan-tilt-degrees", "-90.0000",
                          "22.5000"},
                    Space{2, "urn:tessard:simulated-camera:ptz-spaces:pan-tilt-radians", "-1.5708", "0.3927"},
                    Space{sim::PTZ_LAST_SPACE + 1, GENERIC_PAN_TILT, "-0.5000", "0.2500"},
                    Space{G_MININT, GENERIC_PAN_TILT, "-0.5000", "0.2500"}));

class ZoomSpace : public testing::TestWithParam<Space>
{
};

TEST_P(ZoomSpace, HasItsUnitsAndDoesNotChangePanAndTilt)
{
  ReadPtzStatus status = read_status(TURNING, {.zoom_space = GetParam().number});
  EXPECT_EQ(status.zoom_space, GetParam().uri);
  EXPECT_EQ(status.zoom, GetParam().first);
  EXPECT_EQ(status.pan_tilt_space, GENERIC_PAN_TILT);
  EXPECT_EQ(status.pan, "-0.5000");
  EXPECT_EQ(status.tilt, "0.2500");
}

INSTANTIATE_TEST_SUITE_P(
    All, ZoomSpace,
    testing::Values(Space{sim::PTZ_DEFAULT_SPACE, GENERIC_ZOOM, "0.5000", nullptr},
                    Space{0, GENERIC_ZOOM, "0.5000", nullptr},
                    Space{1, "urn:tessard:simulated-camera:ptz-spaces:zoom-millimetres", "66.6500", nullptr},
                    Space{2, "urn:tessard:simulated-camera:ptz-spaces:zoom-factor", "15.5000", nullptr},
                    Space{sim::PTZ_LAST_SPACE + 1, GENERIC_ZOOM, "0.5000", nullptr},
                    Space{G_MAXINT, GENERIC_ZOOM, "0.5000", nullptr}));

TEST(PtzStatus, EndsOfTheRangesAreReached)
{
  Ptz least = {.pan = -1, .tilt = -1, .zoom = 0, .pan_tilt_moving = false, .zoom_moving = false};
  Ptz most = {.pan = 1, .tilt = 1, .zoom = 1, .pan_tilt_moving = false, .zoom_moving = false};
  PtzView view = {.pan_tilt_space = 1, .zoom_space = 1};
  EXPECT_EQ(read_status(least, view).pan, "-180.0000");
  EXPECT_EQ(read_status(least, view).tilt, "-90.0000");
  EXPECT_EQ(read_status(least, view).zoom, "4.3000");
  EXPECT_EQ(read_status(most, view).pan, "180.0000");
  EXPECT_EQ(read_status(most, view).tilt, "90.0000");
  EXPECT_EQ(read_status(most, view).zoom, "129.0000");
}

TEST(PtzStatus, PositionCanBeOmitted)
{
  std::string text = status_text(TURNING, {.with_position = false});
  EXPECT_EQ(text.find("Position"), text.npos) << text;
  EXPECT_EQ(read_ptz_statuses(text).at(0).pan_tilt_status, "MOVING");
  EXPECT_FALSE(read_ptz_statuses(text).at(0).utc.empty());
}

TEST(PtzStatus, StatusCanBeOmitted)
{
  std::string text = status_text(TURNING, {.with_status = false});
  EXPECT_EQ(text.find("MoveStatus"), text.npos) << text;
  EXPECT_EQ(read_ptz_statuses(text).at(0).pan, "-0.5000");
  EXPECT_FALSE(read_ptz_statuses(text).at(0).utc.empty());
}

struct Capabilities {
  int bits;
  const char *pan;
  const char *tilt;
  const char *zoom;
  const char *pan_tilt_status;
  const char *zoom_status;
};

void
PrintTo(const Capabilities &capabilities, std::ostream *stream)
{
  *stream << capabilities.bits;
}

class MoveCapabilities : public testing::TestWithParam<Capabilities>
{
};

TEST_P(MoveCapabilities, OnlyMovableAxesAreShown)
{
  ReadPtzStatus status = read_status(TURNING, {.move_capabilities = GetParam().bits});
  EXPECT_EQ(status.pan, GetParam().pan);
  EXPECT_EQ(status.tilt, GetParam().tilt);
  EXPECT_EQ(status.zoom, GetParam().zoom);
  EXPECT_EQ(status.pan_tilt_status, GetParam().pan_tilt_status);
  EXPECT_EQ(status.zoom_status, GetParam().zoom_status);
}

constexpr int UNKNOWN_BIT = 1 << 10;

INSTANTIATE_TEST_SUITE_P(
    All, MoveCapabilities,
    testing::Values(Capabilities{0, "-0.5000", "0.2500", "0.5000", "MOVING", "IDLE"},
                    Capabilities{UNKNOWN_BIT, "-0.5000", "0.2500", "0.5000", "MOVING", "IDLE"},
                    Capabilities{-1, "-0.5000", "0.2500", "0.5000", "MOVING", "IDLE"},
                    Capabilities{sim::PTZ_MOVES_PAN | sim::PTZ_MOVES_TILT, "-0.5000", "0.2500", "", "MOVING",
                                 ""},
                    Capabilities{sim::PTZ_MOVES_PAN, "-0.5000", "0.0000", "", "MOVING", ""},
                    Capabilities{sim::PTZ_MOVES_TILT, "0.0000", "0.2500", "", "MOVING", ""},
                    Capabilities{sim::PTZ_MOVES_ZOOM, "", "", "0.5000", "", "IDLE"},
                    Capabilities{sim::PTZ_MOVES_ZOOM | UNKNOWN_BIT, "", "", "0.5000", "", "IDLE"}));

TEST(PtzStatus, EveryViewIsValid)
{
  if (!have_onvif_schemas()) {
    GTEST_SKIP() << "ONVIF_SCHEMA_DIR does not name the official schemas";
  }
  std::string statuses;
  for (int space = sim::PTZ_DEFAULT_SPACE; space <= sim::PTZ_LAST_SPACE; space++) {
    for (int capabilities = 0; capabilities < 8; capabilities++) {
      for (int parts = 0; parts < 4; parts++) {
        statuses += status_text(ZOOMING, {.pan_tilt_space = space,
                                          .zoom_space = space,
                                          .move_capabilities = capabilities,
                                          .with_position = (parts & 1) != 0,
                                          .with_status = (parts & 2) != 0});
      }
    }
  }
  EXPECT_TRUE(is_valid_fragment(statuses));
  EXPECT_FALSE(is_valid_fragment("<tt:PTZ><tt:PTZStatus/></tt:PTZ>")) << "a status without its time";
}

} // namespace
