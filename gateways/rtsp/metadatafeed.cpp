/* SPDX-License-Identifier: MIT */
#include "metadatafeed.h"

#include "rtsplimits.h"

#include <functional>
#include <syslog.h>

namespace rtsp
{

namespace
{

constexpr const char *METADATA_CAPS = "application/x-onvif-metadata";

/* A track begins with it, so that a mount is prepared, and a client's track begins, also without the daemon.
 */
constexpr char EMPTY_DOCUMENT[] = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
                                  "<tt:MetadataStream xmlns:tt=\"http://www.onvif.org/ver10/schema\"/>";

void
push_document(GstAppSrc *track, GstBuffer *document)
{
  if (gst_buffer_get_size(document) > RTSP_DOCUMENT_BYTES_MAX) {
    syslog(LOG_WARNING, "A document of %" G_GSIZE_FORMAT " bytes is not sent.",
           gst_buffer_get_size(document));
    return;
  }
  /* The track has a clock of its own. */
  gst_app_src_push_buffer(track, gst_buffer_copy_region(document, GST_BUFFER_COPY_MEMORY, 0, G_MAXSIZE));
}

/* Calls a function on the main thread, later. */
void
call_on_main_thread(std::function<void()> function)
{
  g_idle_add_full(
      G_PRIORITY_DEFAULT,
      [](gpointer user_data) -> gboolean {
        (*static_cast<std::function<void()> *>(user_data))();
        return G_SOURCE_REMOVE;
      },
      new std::function<void()>(std::move(function)),
      [](gpointer user_data) { delete static_cast<std::function<void()> *>(user_data); });
}

} // namespace

/**
 * new_metadata_track:
 *
 * Returns: (transfer floating): a live source of documents with one in its queue, which is an empty
 *   tt:MetadataStream
 */
GstElement *
new_metadata_track()
{
  GstElement *track = gst_element_factory_make("appsrc", nullptr);
  g_autoptr(GstCaps) caps = gst_caps_new_empty_simple(METADATA_CAPS);
  constexpr guint64 BYTES_MAX = RTSP_QUEUED_BYTES_MAX;
  g_object_set(track, "caps", caps, "is-live", TRUE, "do-timestamp", TRUE, "format", GST_FORMAT_TIME,
               "max-bytes", BYTES_MAX, "leaky-type", GST_APP_LEAKY_TYPE_DOWNSTREAM, nullptr);
  gst_app_src_push_buffer(GST_APP_SRC(track), gst_buffer_new_memdup(EMPTY_DOCUMENT, strlen(EMPTY_DOCUMENT)));
  return track;
}

/**
 * MetadataFeed:
 * @request: what to ask for; it must outlive the feed
 * @channel: the video channel
 * @track: the source of the mount's pipeline
 */
MetadataFeed::MetadataFeed(const gateway::MetadataRequest *request, guint channel, GstAppSrc *track)
    : track_(GST_APP_SRC(gst_object_ref(track))),
      stream_(request, channel, [track](GstBuffer *document) { push_document(track, document); })
{
}

MetadataFeed::~MetadataFeed()
{
  gst_object_unref(track_);
}

/**
 * MetadataFeed::play:
 *
 * A client plays: the stream starts, or sends the complete state again.
 */
void
MetadataFeed::play()
{
  call_on_main_thread([self = shared_from_this()] {
    if (self->is_stopped_) {
      return;
    }
    if (self->stream_.is_started()) {
      self->request_sync_point();
    } else {
      self->stream_.start();
    }
  });
}

/**
 * MetadataFeed::stop:
 *
 * Ends the stream for good. Must be called before the last reference is dropped.
 */
void
MetadataFeed::stop()
{
  call_on_main_thread([self = shared_from_this()] {
    self->is_stopped_ = true;
    g_clear_handle_id(&self->sync_point_, g_source_remove);
    self->stream_.stop();
  });
}

void
MetadataFeed::request_sync_point()
{
  const gint64 since_us = g_get_monotonic_time() - last_sync_point_us_;
  const gint64 interval_us = RTSP_SYNC_POINT_MS * G_TIME_SPAN_MILLISECOND;
  if (since_us >= interval_us) {
    send_sync_point();
  } else if (sync_point_ == 0) {
    sync_point_ = g_timeout_add(static_cast<guint>((interval_us - since_us) / G_TIME_SPAN_MILLISECOND + 1),
                                on_sync_point_due, this);
  }
}

void
MetadataFeed::send_sync_point()
{
  last_sync_point_us_ = g_get_monotonic_time();
  stream_.send_sync_point();
}

gboolean
MetadataFeed::on_sync_point_due(gpointer user_data)
{
  auto *self = static_cast<MetadataFeed *>(user_data);
  self->sync_point_ = 0;
  self->send_sync_point();
  return G_SOURCE_REMOVE;
}

} // namespace rtsp
