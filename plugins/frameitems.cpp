/* SPDX-License-Identifier: MIT */
#include "frameitems.h"

#include <utility>

/* Every frame is followed, also one without an item: objects overlap most from one frame to the next. */

namespace plugins
{

namespace
{

void
add_object(TessardItem *item, gint64 id, const TrackedBox &box, std::optional<double> likelihood)
{
  tessard_item_add_object(item, id, box.box.left, box.box.top, box.box.right, box.box.bottom, nullptr);
  /* A type that ONVIF cannot have is left out, and its likelihood with it. */
  if (box.type != 0 && tessard_item_set_type(item, id, g_quark_to_string(box.type), nullptr) &&
      likelihood.has_value()) {
    tessard_item_set_likelihood(item, id, *likelihood, nullptr);
  }
}

} // namespace

/**
 * FrameItems:
 * @settings: how items are made
 * @left_out: counts boxes; must live longer
 */
FrameItems::FrameItems(FrameSettings settings, LeftOutBoxes *left_out)
    : settings_(std::move(settings)), left_out_(left_out), tracker_(settings_.tracking),
      rate_(settings_.max_rate)
{
}

void
FrameItems::add_box(const Detection &detection, const onvif::Box &box)
{
  if (boxes_.size() >= TESSARD_ITEM_MAX_OBJECTS) {
    left_out_->excess++;
    return;
  }
  boxes_.push_back({.box = box, .id = detection.id, .type = settings_.types.find(detection.type)});
  likelihoods_.push_back(detection.likelihood);
}

void
FrameItems::read(GstBuffer *buffer, const FrameInfo &info, double min_likelihood)
{
  boxes_.clear();
  likelihoods_.clear();
  for (const Detection &detection : detections_read(buffer)) {
    if (detection.likelihood.value_or(min_likelihood) < min_likelihood) {
      continue;
    }
    std::optional<onvif::Box> box = picture_box_to_onvif(detection.box, info.width, info.height);
    if (box.has_value()) {
      add_box(detection, *box);
    } else {
      left_out_->outside++;
    }
  }
}

TessardItem *
FrameItems::make_item(gint64 utc, const std::vector<gint64> &ids)
{
  TessardItem *item = tessard_item_new();
  tessard_item_set_utc_time(item, utc, nullptr);
  for (gsize i = 0; i < ids.size(); i++) {
    add_object(item, ids[i], boxes_[i], likelihoods_[i]);
  }
  for (gint64 id : tracker_.report(TESSARD_ITEM_MAX_DELETED)) {
    tessard_item_add_deleted(item, id, nullptr);
  }
  return item;
}

/**
 * FrameItems::make:
 * @buffer: the next frame
 * @info: its size and its times
 * @min_likelihood: detections with a smaller likelihood are ignored, but not those without one
 *
 * Returns: (transfer full) (nullable): the item of the frame; %NULL if it comes too soon after the last item
 */
TessardItem *
FrameItems::make(GstBuffer *buffer, const FrameInfo &info, double min_likelihood)
{
  read(buffer, info, min_likelihood);
  std::vector<gint64> ids = tracker_.follow(boxes_);
  if (!rate_.take(info.running)) {
    return nullptr;
  }
  last_utc_ = info.utc;
  return make_item(info.utc, ids);
}

/**
 * FrameItems::make_last:
 *
 * Called at the end of the stream: no object is in the picture any more.
 *
 * Returns: (transfer full) (nullable): an item with the time of the last one; %NULL if there was none since
 * the last end
 */
TessardItem *
FrameItems::make_last()
{
  tracker_.forget_all();
  std::optional<gint64> utc = std::exchange(last_utc_, std::nullopt);
  return utc.has_value() ? make_item(*utc, {}) : nullptr;
}

} // namespace plugins
