/* SPDX-License-Identifier: MIT */
#pragma once

#include "world.h"

#include <vector>

namespace sim
{

/* The settings of the simulated camera. The environment variable names a key file:
 *
 *   [World]
 *   seed=1
 *   epoch=2024-01-01T00:00:00Z
 *   speed=1
 *
 *   [PTZ]
 *   channels=1 */
constexpr const char *SETTINGS_VARIABLE = "TESSARD_SIM_CONFIG";
constexpr gint64 FASTEST_SPEED = 100;

struct Settings {
  guint64 seed = 1;
  gint64 epoch = G_GINT64_CONSTANT(1704067200); /* seconds since 1970: the start of 2024 */
  gint64 speed = 1;                             /* world seconds per second */
  std::vector<int> ptz_channels = {1};          /* video channels with the PTZ head */
};

Settings settings_load();
bool settings_has_ptz(const Settings &settings, int channel);
WorldTime settings_world_time(const Settings &settings, gint64 utc);
gint64 settings_utc(const Settings &settings, WorldTime time);

} // namespace sim
