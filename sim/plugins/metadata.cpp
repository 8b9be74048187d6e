#include "metadata.h"

namespace sim
{

namespace
{

constexpr const char *SYNC_POINT_NAME = "GstMetaDataStreamSetSyncPoint";

} /* namespace */

/**
 * sync_point_event_new:
 *
 * Returns: (transfer full): an upstream event that asks a source to show its whole present state again
 */
GstEvent *
sync_point_event_new()
{
  return gst_event_new_custom(GST_EVENT_CUSTOM_UPSTREAM, gst_structure_new_empty(SYNC_POINT_NAME));
}

/**
 * is_sync_point_event:
 * @event: any event
 *
 * Returns: whether @event, in whichever direction it travels, asks for a sync point
 */
bool
is_sync_point_event(GstEvent *event)
{
  return gst_event_has_name(event, SYNC_POINT_NAME);
}

} /* namespace sim */
