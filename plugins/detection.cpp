/* SPDX-License-Identifier: MIT */
#include "detection.h"

#include <gst/video/gstvideometa.h>

#ifdef HAVE_ANALYTICS
#include <gst/analytics/analytics.h>
#endif

namespace plugins
{

namespace
{

constexpr const char *DETECTION = "detection";
constexpr const char *CONFIDENCE = "confidence";

std::optional<double>
valid_likelihood(double value)
{
  return value >= 0 && value <= 1 ? std::optional(value) : std::nullopt;
}

/* A detector may store a number of any type. */
std::optional<double>
read_confidence(const GstStructure *detection)
{
  const GValue *value = gst_structure_get_value(detection, CONFIDENCE);
  GValue number = G_VALUE_INIT;
  g_value_init(&number, G_TYPE_DOUBLE);
  return value != nullptr && g_value_transform(value, &number) ? valid_likelihood(g_value_get_double(&number))
                                                               : std::nullopt;
}

std::optional<double>
read_likelihood(GstVideoRegionOfInterestMeta *region)
{
  GstStructure *detection = gst_video_region_of_interest_meta_get_param(region, DETECTION);
  return detection != nullptr ? read_confidence(detection) : std::nullopt;
}

/* Trackers count from 1. Detectors without one leave 0, or write a negative number. */
std::optional<guint64>
read_id(const GstVideoRegionOfInterestMeta *region)
{
  return region->id > 0 ? std::optional<guint64>(region->id) : std::nullopt;
}

void
read_regions(GstBuffer *buffer, std::vector<Detection> *found)
{
  gpointer state = nullptr;
  GstMeta *meta = nullptr;
  while ((meta = gst_buffer_iterate_meta_filtered(buffer, &state,
                                                  GST_VIDEO_REGION_OF_INTEREST_META_API_TYPE)) != nullptr) {
    auto *region = reinterpret_cast<GstVideoRegionOfInterestMeta *>(meta);
    found->push_back({
        .box = {.x = region->x, .y = region->y, .width = region->w, .height = region->h},
        .id = read_id(region),
        .type = region->roi_type,
        .likelihood = read_likelihood(region),
    });
  }
}

#ifdef HAVE_ANALYTICS

std::optional<guint64>
read_tracking(GstAnalyticsODMtd *object)
{
  gpointer state = nullptr;
  GstAnalyticsTrackingMtd tracking;
  guint64 id = 0;
  GstClockTime first_seen = 0;
  GstClockTime last_seen = 0;
  gboolean is_lost = FALSE;
  return gst_analytics_relation_meta_get_direct_related(object->meta, object->id, GST_ANALYTICS_REL_TYPE_ANY,
                                                        gst_analytics_tracking_mtd_get_mtd_type(), &state,
                                                        &tracking) &&
                 gst_analytics_tracking_mtd_get_info(&tracking, &id, &first_seen, &last_seen, &is_lost)
             ? std::optional(id)
             : std::nullopt;
}

void
read_objects(GstBuffer *buffer, std::vector<Detection> *found)
{
  GstAnalyticsRelationMeta *meta = gst_buffer_get_analytics_relation_meta(buffer);
  gpointer state = nullptr;
  GstAnalyticsODMtd object;
  while (meta != nullptr &&
         gst_analytics_relation_meta_iterate(meta, &state, gst_analytics_od_mtd_get_mtd_type(), &object)) {
    gint x = 0;
    gint y = 0;
    gint width = 0;
    gint height = 0;
    gfloat likelihood = 0;
    if (gst_analytics_od_mtd_get_location(&object, &x, &y, &width, &height, &likelihood)) {
      found->push_back({
          .box = {.x = x, .y = y, .width = width, .height = height},
          .id = read_tracking(&object),
          .type = gst_analytics_od_mtd_get_obj_type(&object),
          .likelihood = valid_likelihood(likelihood),
      });
    }
  }
}

#endif

} // namespace

/**
 * detections_read:
 * @buffer: a buffer; its content is not read
 *
 * A likelihood that is not from 0 to 1 is left out.
 *
 * Returns: the detections on @buffer in the order in which they were attached, regions of interest first
 */
std::vector<Detection>
detections_read(GstBuffer *buffer)
{
  std::vector<Detection> found;
  read_regions(buffer, &found);
#ifdef HAVE_ANALYTICS
  read_objects(buffer, &found);
#endif
  return found;
}

} // namespace plugins
