/* SPDX-License-Identifier: MIT */
#pragma once

#include "picturebox.h"

#include <gst/gst.h>
#include <vector>

/* The detections that other elements attach to a buffer as GstVideoRegionOfInterestMeta, and as object
 * detections of GstAnalyticsRelationMeta where GStreamer has it. */

namespace plugins
{

struct Detection {
  PixelBox box;
  std::optional<guint64> id; /* of a tracker */
  GQuark type;               /* in the words of the detector; 0 for none */
  std::optional<double> likelihood;

  bool operator==(const Detection &) const = default;
};

std::vector<Detection> detections_read(GstBuffer *buffer);

} // namespace plugins
