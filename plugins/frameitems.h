/* SPDX-License-Identifier: MIT */
#pragma once

#include "detection.h"
#include "objecttracker.h"
#include "ratelimit.h"
#include "tessarditem.h"
#include "typemap.h"

#include <atomic>

/* The items of a producer, made of the detections on the frames of a video. */

namespace plugins
{

struct FrameSettings {
  Tracking tracking = Tracking::MISSING;
  double max_rate = 0; /* items a second; 0 for one of each frame */
  TypeMap types;
};

struct FrameInfo {
  guint width; /* of the picture, in pixels */
  guint height;
  GstClockTime running; /* running time, for the rate */
  gint64 utc;           /* microseconds since 1970 */
};

/* Boxes that are in no item. */
struct LeftOutBoxes {
  std::atomic<guint64> outside; /* of the picture */
  std::atomic<guint64> excess;  /* more than an item can have */
};

/* One thread at a time. */
class FrameItems
{
public:
  FrameItems(FrameSettings settings, LeftOutBoxes *left_out);

  TessardItem *make(GstBuffer *buffer, const FrameInfo &info, double min_likelihood);
  TessardItem *make_last();

private:
  void read(GstBuffer *buffer, const FrameInfo &info, double min_likelihood);
  void add_box(const Detection &detection, const onvif::Box &box);
  TessardItem *make_item(gint64 utc, const std::vector<gint64> &ids);

  FrameSettings settings_;
  LeftOutBoxes *left_out_;
  ObjectTracker tracker_;
  RateLimit rate_;
  std::optional<gint64> last_utc_;

  /* Of the current frame, with the same length. */
  std::vector<TrackedBox> boxes_;
  std::vector<std::optional<double>> likelihoods_;
};

} // namespace plugins
