/* SPDX-License-Identifier: MIT */
#include "videofeed.h"

#include "connection.h"
#include "pictureline.h"
#include "viewlimits.h"

#include <gst/app/gstappsink.h>
#include <syslog.h>

namespace view
{

struct PicturePlace {
  PicturePlace()
  {
    g_mutex_init(&lock);
  }

  ~PicturePlace()
  {
    g_mutex_clear(&lock);
  }

  PicturePlace(const PicturePlace &) = delete;
  PicturePlace &operator=(const PicturePlace &) = delete;

  VideoFeed *feed = nullptr; /* on the main thread; NULL when the video has ended */
  GMutex lock;               /* protects all below */
  Text newest;
  bool is_shown = true; /* whether the main loop has taken it, or will */
};

namespace
{

using SharedPlace = std::shared_ptr<PicturePlace>;

void
free_place(gpointer place)
{
  delete static_cast<SharedPlace *>(place);
}

/* A browser shows a picture when it gets the boundary that follows. */
Text
part_of(const guint8 *data, gsize size)
{
  auto part = std::make_shared<std::string>(
      "Content-Type: image/jpeg\r\nContent-Length: " + std::to_string(size) + "\r\n\r\n");
  part->append(reinterpret_cast<const char *>(data), size).append("\r\n--picture\r\n");
  return part;
}

gboolean
on_idle(gpointer user_data)
{
  const SharedPlace &place = *static_cast<SharedPlace *>(user_data);
  Text picture;
  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&place->lock);
    picture = std::move(place->newest);
    place->is_shown = true;
  }
  if (place->feed != nullptr) {
    place->feed->show(picture);
  }
  return G_SOURCE_REMOVE;
}

void
leave_picture(const SharedPlace &place, GstBuffer *picture)
{
  GstMapInfo map;
  if (gst_buffer_get_size(picture) > VIEW_PICTURE_BYTES_MAX || !gst_buffer_map(picture, &map, GST_MAP_READ)) {
    return;
  }
  Text part = part_of(map.data, map.size);
  gst_buffer_unmap(picture, &map);
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&place->lock);
  place->newest = std::move(part);
  if (place->is_shown) {
    place->is_shown = false;
    g_idle_add_full(G_PRIORITY_DEFAULT, on_idle, new SharedPlace(place), free_place);
  }
}

GstFlowReturn
on_sample(GstAppSink *sink, gpointer user_data)
{
  g_autoptr(GstSample) sample = gst_app_sink_pull_sample(sink);
  GstBuffer *picture = sample != nullptr ? gst_sample_get_buffer(sample) : nullptr;
  if (picture != nullptr) {
    leave_picture(*static_cast<SharedPlace *>(user_data), picture);
  }
  return GST_FLOW_OK;
}

void
connect_sink(GstElement *pipeline, const SharedPlace &place)
{
  g_autoptr(GstElement) sink = gst_bin_get_by_name(GST_BIN(pipeline), VIDEO_END);
  GstAppSinkCallbacks callbacks = {};
  callbacks.new_sample = on_sample;
  gst_app_sink_set_callbacks(GST_APP_SINK(sink), &callbacks, new SharedPlace(place), free_place);
}

void
stop(GstElement *pipeline, gpointer user_data)
{
  gst_element_set_state(pipeline, GST_STATE_NULL);
}

} // namespace

/**
 * VideoFeed:
 * @channel: the channel
 * @line: a description by complete_picture_line()
 */
VideoFeed::VideoFeed(guint channel, std::string line) : channel_(channel), line_(std::move(line))
{
}

VideoFeed::~VideoFeed()
{
  end();
}

/**
 * VideoFeed::add:
 * @client: gets the pictures
 */
void
VideoFeed::add(Connection *client)
{
  client->send({}, std::make_shared<std::string>("--picture\r\n"));
  clients_.insert(client);
  if (pipeline_ == nullptr && restart_ == 0) {
    begin();
  }
}

/**
 * VideoFeed::remove:
 * @client: the client
 *
 * Does nothing for a client that is not one of the channel.
 */
void
VideoFeed::remove(Connection *client)
{
  if (clients_.erase(client) > 0 && clients_.empty()) {
    end();
  }
}

/**
 * VideoFeed::show:
 * @picture: a part of the stream
 *
 * Sends a picture to all clients.
 */
void
VideoFeed::show(const Text &picture)
{
  for (Connection *client : clients_) {
    client->send("picture", picture);
  }
}

void
VideoFeed::begin()
{
  g_autoptr(GError) error = nullptr;
  pipeline_ = gst_parse_launch(line_.c_str(), &error);
  if (pipeline_ == nullptr) {
    handle_failure(error->message);
    return;
  }
  place_ = std::make_shared<PicturePlace>();
  place_->feed = this;
  connect_sink(pipeline_, place_);
  g_autoptr(GstBus) bus = gst_element_get_bus(pipeline_);
  watch_ = gst_bus_add_watch(bus, on_message, this);
  gst_element_set_state(pipeline_, GST_STATE_PLAYING);
}

/* The elements of a video can take their time to stop, which the main loop does not wait for. */
void
VideoFeed::end()
{
  g_clear_handle_id(&restart_, g_source_remove);
  g_clear_handle_id(&watch_, g_source_remove);
  if (place_ != nullptr) {
    place_->feed = nullptr;
    place_ = nullptr;
  }
  if (pipeline_ != nullptr) {
    gst_element_call_async(pipeline_, stop, nullptr, nullptr);
    g_clear_pointer(&pipeline_, gst_object_unref);
  }
}

/* Begins again later. */
void
VideoFeed::handle_failure(const std::string &failure)
{
  if (failure != failure_) {
    failure_ = failure;
    syslog(LOG_WARNING, "The video of channel %u: %s", channel_, failure.c_str());
  }
  end();
  restart_ = g_timeout_add_seconds(VIEW_RETRY_SECONDS, on_restart, this);
}

gboolean
VideoFeed::on_message(GstBus *bus, GstMessage *message, gpointer user_data)
{
  auto *self = static_cast<VideoFeed *>(user_data);
  g_autoptr(GError) error = nullptr;
  if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
    gst_message_parse_error(message, &error, nullptr);
    self->handle_failure(error->message);
  } else if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS) {
    self->handle_failure("It has ended.");
  }
  return G_SOURCE_CONTINUE;
}

gboolean
VideoFeed::on_restart(gpointer user_data)
{
  auto *self = static_cast<VideoFeed *>(user_data);
  self->restart_ = 0;
  self->begin();
  return G_SOURCE_REMOVE;
}

} // namespace view
