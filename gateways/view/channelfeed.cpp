/* SPDX-License-Identifier: MIT */
#include "channelfeed.h"

#include "connection.h"
#include "viewlimits.h"

#include <syslog.h>

namespace view
{

namespace
{

/* The interval at which refused documents are logged. */
constexpr gint64 REFUSED_LOG_US = 60 * G_TIME_SPAN_SECOND;

} // namespace

/**
 * ChannelFeed:
 * @request: what to ask the daemon for; it must outlive the feed
 * @channel: the video channel
 */
ChannelFeed::ChannelFeed(const gateway::MetadataRequest *request, guint channel)
    : channel_(channel), inbox_([this](const std::vector<StreamItem> &items) { take_items(items); }),
      stream_(request, channel, [this](GstBuffer *document) { take_document(document); })
{
  stream_.set_failure_function([this]() { take_failure(); });
}

ChannelFeed::~ChannelFeed()
{
  end();
}

/**
 * ChannelFeed::add:
 * @client: gets the present state, and all that comes
 * @producers: the state of the producers
 */
void
ChannelFeed::add(Connection *client, const Text &producers)
{
  const std::vector<StreamItem> items = store_.items();
  send_item(client, items.front());
  client->send("producers", producers);
  for (gsize index = 1; index < items.size(); index++) {
    send_item(client, items[index]);
  }
  clients_.insert(client);
  if (!stream_.is_started()) {
    inbox_.open();
    stream_.start();
  }
}

/**
 * ChannelFeed::remove:
 * @client: the client
 *
 * Does nothing for a client that is not one of the channel.
 */
void
ChannelFeed::remove(Connection *client)
{
  if (clients_.erase(client) > 0 && clients_.empty()) {
    end();
  }
}

/**
 * ChannelFeed::send:
 * @key: what the text replaces
 * @text: a text
 *
 * Sends it to all clients.
 */
void
ChannelFeed::send(const std::string &key, const Text &text)
{
  for (Connection *client : clients_) {
    client->send(key, text);
  }
}

void
ChannelFeed::end()
{
  inbox_.close();
  stream_.stop();
  is_connected_ = false;
  store_.clear();
}

void
ChannelFeed::log_refused(const char *reason)
{
  const gint64 now_us = g_get_monotonic_time();
  if (refused_logged_us_ == 0 || now_us - refused_logged_us_ >= REFUSED_LOG_US) {
    refused_logged_us_ = now_us;
    syslog(LOG_WARNING, "Channel %u: a document is left out: %s", channel_, reason);
  }
}

void
ChannelFeed::take_document(GstBuffer *document)
{
  std::vector<StreamItem> items;
  GstMapInfo map;
  if (!gst_buffer_map(document, &map, GST_MAP_READ)) {
    return;
  }
  g_autoptr(GError) error = nullptr;
  const std::optional<onvif::MetadataTexts> texts =
      onvif::metadata_to_json({reinterpret_cast<const char *>(map.data), map.size}, &error);
  gst_buffer_unmap(document, &map);
  if (texts.has_value()) {
    items = items_of(*texts);
  } else {
    log_refused(error->message);
  }
  if (!is_connected_) {
    is_connected_ = true;
    items.insert(items.begin(), connection_item(true));
  }
  inbox_.push(std::move(items));
}

void
ChannelFeed::take_failure()
{
  if (is_connected_) {
    is_connected_ = false;
    inbox_.push({connection_item(false)});
  }
}

void
ChannelFeed::send_item(Connection *client, const StreamItem &item)
{
  if (item.kind == ItemKind::CONNECTED || item.kind == ItemKind::DISCONNECTED) {
    client->send_behind_barrier(item.text);
    return;
  }
  const bool is_replaceable = item.kind == ItemKind::FRAME || item.kind == ItemKind::PTZ;
  client->send(is_replaceable ? item.key : std::string(), item.text);
}

void
ChannelFeed::take_items(const std::vector<StreamItem> &items)
{
  for (const StreamItem &item : items) {
    store_.apply(item);
    for (Connection *client : clients_) {
      send_item(client, item);
    }
  }
}

} // namespace view
