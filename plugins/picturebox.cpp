/* SPDX-License-Identifier: MIT */
#include "picturebox.h"

#include <algorithm>

namespace plugins
{

namespace
{

/* The part of a range that is within 0 and @size. */
struct Range {
  gint64 begin;
  gint64 end;
};

Range
clip(gint64 begin, gint64 length, gint64 size)
{
  return {.begin = std::clamp<gint64>(begin, 0, size), .end = std::clamp<gint64>(begin + length, 0, size)};
}

double
normalise(gint64 position, guint size)
{
  return 2.0 * static_cast<double>(position) / size - 1;
}

} // namespace

/**
 * picture_box_to_onvif:
 * @box: a rectangle, each value less than 2^62
 * @width: the width of the picture in pixels
 * @height: its height
 *
 * Returns: the part of @box that is in the picture, in ONVIF's coordinates; unset if nothing of it is
 */
std::optional<onvif::Box>
picture_box_to_onvif(const PixelBox &box, guint width, guint height)
{
  Range columns = clip(box.x, box.width, width);
  Range rows = clip(box.y, box.height, height);
  if (columns.begin >= columns.end || rows.begin >= rows.end) {
    return std::nullopt;
  }
  return onvif::Box{
      .left = normalise(columns.begin, width),
      .top = -normalise(rows.begin, height),
      .right = normalise(columns.end, width),
      .bottom = -normalise(rows.end, height),
  };
}

} // namespace plugins
