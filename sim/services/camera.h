/* SPDX-License-Identifier: MIT */
#pragma once

#include <array>
#include <glib.h>
#include <optional>

namespace sim
{

/* The properties of the camera that the services report. A channel keeps its rotation while it is removed. */
struct Camera {
  static constexpr guint MAX_CHANNELS = 16;

  Camera()
  {
    rotations.fill(0);
  }

  gint32 move_capabilities = 7; /* pan, tilt and zoom, in the camera's own bit mask */
  guint channels = 2;
  std::array<std::optional<guint32>, MAX_CHANNELS>
      rotations; /* index: channel - 1; unset: not in the settings */
};

} // namespace sim
