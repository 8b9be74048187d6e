/* SPDX-License-Identifier: MIT */
#pragma once

#include "geometry.h"

#include <glib.h>
#include <optional>

/* Rectangles of pixels as ONVIF's coordinates. */

namespace plugins
{

/* x and y are those of the corner at the top left, from the top left of the picture. All of it may be
 * outside. */
struct PixelBox {
  gint64 x;
  gint64 y;
  gint64 width;
  gint64 height;

  bool operator==(const PixelBox &) const = default;
};

std::optional<onvif::Box> picture_box_to_onvif(const PixelBox &box, guint width, guint height);

} // namespace plugins
