#pragma once

#include <array>
#include <glib.h>
#include <optional>

namespace sim
{

/* What the services tell about the camera. A channel that goes keeps its rotation for when it comes back. */
struct Camera {
  static constexpr guint MAX_CHANNELS = 16;

  Camera()
  {
    rotations.fill(0);
  }

  gint32 move_capabilities = 7; /* pan, tilt and zoom, in this camera's own bit set */
  guint channels = 2;
  std::array<std::optional<guint32>, MAX_CHANNELS>
      rotations; /* by number less one; unset: not in the settings */
};

} /* namespace sim */
