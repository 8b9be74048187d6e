/* SPDX-License-Identifier: MIT */
#pragma once

#include "sendqueue.h"

#include <gst/gst.h>
#include <memory>
#include <set>

namespace view
{

class Connection;

/* The content type of the stream. */
constexpr const char *VIDEO_CONTENT_TYPE = "multipart/x-mixed-replace; boundary=picture";

/* Where a video leaves its newest picture for the main loop. */
struct PicturePlace;

/* The pictures of a channel, for all clients. The video runs while there is a client. All functions are for
 * the main thread. */
class VideoFeed
{
public:
  VideoFeed(guint channel, std::string line);
  ~VideoFeed();
  VideoFeed(const VideoFeed &) = delete;
  VideoFeed &operator=(const VideoFeed &) = delete;

  void add(Connection *client);
  void remove(Connection *client);
  void show(const Text &picture);

private:
  void begin();
  void end();
  void handle_failure(const std::string &failure);
  static gboolean on_message(GstBus *bus, GstMessage *message, gpointer user_data);
  static gboolean on_restart(gpointer user_data);

  guint channel_;
  std::string line_;
  std::set<Connection *> clients_;
  std::shared_ptr<PicturePlace> place_; /* of the pipeline */
  GstElement *pipeline_ = nullptr;
  guint watch_ = 0;
  guint restart_ = 0;
  std::string failure_; /* the last one that was logged */
};

} // namespace view
