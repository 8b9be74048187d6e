/* SPDX-License-Identifier: MIT */
#pragma once

#include "metadatastream.h"

#include <gst/app/gstappsrc.h>
#include <memory>

namespace rtsp
{

GstElement *new_metadata_track();

/* The daemon's stream of one mount, which feeds the mount's track. Its failures do not end the
 * mount. It begins with the first client that plays.
 *
 * Any thread can call the public functions. Everything else is on the main thread, except for the callback
 * with a document, which uses only the track. */
class MetadataFeed : public std::enable_shared_from_this<MetadataFeed>
{
public:
  MetadataFeed(const gateway::MetadataRequest *request, guint channel, GstAppSrc *track);
  ~MetadataFeed();
  MetadataFeed(const MetadataFeed &) = delete;
  MetadataFeed &operator=(const MetadataFeed &) = delete;

  void play();
  void stop();

private:
  void request_sync_point();
  void send_sync_point();
  static gboolean on_sync_point_due(gpointer user_data);

  GstAppSrc *track_;
  gateway::MetadataStream stream_;
  bool is_stopped_ = false;
  guint sync_point_ = 0;
  gint64 last_sync_point_us_ = 0;
};

} // namespace rtsp
