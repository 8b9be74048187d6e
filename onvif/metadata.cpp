/* SPDX-License-Identifier: MIT */
#include "metadata.h"

namespace onvif
{

namespace
{

constexpr const char *SYNC_POINT_NAME = "GstMetaDataStreamSetSyncPoint";

} // namespace

/**
 * sync_point_event_new:
 *
 * Returns: (transfer full): an upstream event that makes a source send its complete current state
 */
GstEvent *
sync_point_event_new()
{
  return gst_event_new_custom(GST_EVENT_CUSTOM_UPSTREAM, gst_structure_new_empty(SYNC_POINT_NAME));
}

/**
 * is_sync_point_event:
 * @event: an event of any direction
 *
 * Returns: whether @event is a sync point
 */
bool
is_sync_point_event(GstEvent *event)
{
  return gst_event_has_name(event, SYNC_POINT_NAME);
}

/**
 * fragment_to_buffer:
 * @writer: a fragment, written; must not be used any more
 *
 * Returns: (transfer full): a buffer that owns the text, which is not copied
 */
GstBuffer *
fragment_to_buffer(XmlWriter *writer)
{
  gsize size = 0;
  char *text = writer->take(&size);
  return gst_buffer_new_wrapped(text, size);
}

} // namespace onvif
