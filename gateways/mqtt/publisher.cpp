/* SPDX-License-Identifier: MIT */
#include "publisher.h"

#include "mqttlimits.h"
#include "mqtttopic.h"

namespace mqtt
{

namespace
{

/* Returns: the time between two frames of a topic, in microseconds */
gint64
frame_interval_us(double rate)
{
  return rate > 0 ? static_cast<gint64>(G_USEC_PER_SEC / rate) : 0;
}

/* Returns: whether the daemon's stream can be requested */
bool
check_request(const gateway::MetadataRequest &request, guint channel, GError **error)
{
  GstElement *source = gateway::new_metadata_source(request, channel, error);
  if (source == nullptr) {
    return false;
  }
  gst_object_unref(gst_object_ref_sink(source));
  return true;
}

} // namespace

/**
 * Publisher:
 * @config: what to publish; it must outlive the publisher
 * @socket_path: the daemon's socket
 */
Publisher::Publisher(const Config *config, const std::string &socket_path)
    : config_(config), events_request_{&config->events, socket_path}, metadata_request_{&config->metadata,
                                                                                        socket_path},
      outbox_(frame_interval_us(config->max_frame_rate)),
      link_(&config->broker, status_topic(config->prefix), &outbox_)
{
  if (config->publishes_events) {
    add_stream(&events_request_, config->channels.front(),
               [this](GstBuffer *document) { on_events(document); });
  }
  for (const Channel &channel : config->channels) {
    if (config->publishes_metadata) {
      add_stream(&metadata_request_, channel,
                 [this, &channel](GstBuffer *document) { on_metadata(channel, document); });
    }
  }
}

void
Publisher::add_stream(const gateway::MetadataRequest *request, const Channel &channel,
                      gateway::MetadataStream::DocumentFunction on_document)
{
  streams_.push_back(
      std::make_unique<gateway::MetadataStream>(request, channel.number, std::move(on_document)));
}

/**
 * Publisher::check_broker:
 * @error: return location for an error, whose message is for the user
 *
 * Returns: false if what the key file says of the broker cannot be used
 */
bool
Publisher::check_broker(GError **error) const
{
  return link_.check(error);
}

/**
 * Publisher::check_streams:
 * @error: return location for an error, whose message is for the user
 *
 * Returns: false if the daemon's streams cannot be requested
 */
bool
Publisher::check_streams(GError **error) const
{
  const guint channel = config_->channels.front().number;
  return check_request(events_request_, channel, error) && check_request(metadata_request_, channel, error);
}

/**
 * Publisher::start:
 *
 * Begins to publish.
 */
void
Publisher::start()
{
  link_.start();
  if (config_->publishes_metadata && gateway::requests_analytics(config_->metadata)) {
    producers_ = std::make_unique<gateway::ProducerFollower>(nullptr);
    metadata_request_.producers = producers_.get();
  }
  for (auto &stream : streams_) {
    stream->start();
  }
}

/**
 * Publisher::stop:
 *
 * Ends the streams, and publishes what waits if the broker takes it in time.
 *
 * Returns: false if the network still blocks a thread; then the publisher must not be deleted
 */
bool
Publisher::stop()
{
  for (auto &stream : streams_) {
    stream->stop();
  }
  return link_.stop();
}

/* The functions below run on the streams' threads. */

void
Publisher::on_events(GstBuffer *document)
{
  if (GST_BUFFER_FLAG_IS_SET(document, GST_BUFFER_FLAG_DISCONT)) {
    outbox_.begin_stream(g_get_monotonic_time());
  }
  const std::optional<onvif::MetadataTexts> texts = convert(document);
  if (!texts.has_value()) {
    return;
  }
  for (const onvif::MetadataText &text : texts->texts) {
    if (text.kind == onvif::MetadataKind::EVENT) {
      publish_event(text);
    }
  }
  link_.wake();
}

void
Publisher::on_metadata(const Channel &channel, GstBuffer *document)
{
  const std::optional<onvif::MetadataTexts> texts = convert(document);
  if (!texts.has_value()) {
    return;
  }
  for (const onvif::MetadataText &text : texts->texts) {
    if (text.kind != onvif::MetadataKind::EVENT) {
      publish_metadata(channel, text);
    }
  }
  link_.wake();
}

std::optional<onvif::MetadataTexts>
Publisher::convert(GstBuffer *document)
{
  GstMapInfo map;
  if (!gst_buffer_map(document, &map, GST_MAP_READ)) {
    return {};
  }
  g_autoptr(GError) error = nullptr;
  std::optional<onvif::MetadataTexts> texts =
      onvif::metadata_to_json({reinterpret_cast<const char *>(map.data), map.size}, &error);
  gst_buffer_unmap(document, &map);
  if (!texts.has_value()) {
    malformed_.warn(error->message);
  }
  return texts;
}

/* Returns: whether the limits allow it */
bool
Publisher::is_published(MessageKind kind, const std::string &topic, const std::string &payload)
{
  if (!topic.empty() && payload.size() <= MQTT_PAYLOAD_BYTES_MAX) {
    return true;
  }
  outbox_.count_dropped(kind);
  too_long_.warn("A topic or a payload is too long");
  return false;
}

void
Publisher::publish_event(const onvif::MetadataText &event)
{
  using onvif::PropertyOperation;
  const bool is_state = event.operation != PropertyOperation::NONE;
  const bool is_deleted = event.operation == PropertyOperation::DELETED;
  const std::string payload = is_deleted ? std::string() : event.json;
  std::string topic = event_topic(config_->prefix, event.topic, event.source_values);
  if (!is_published(is_state ? MessageKind::STATE : MessageKind::EVENT, topic, payload)) {
    return;
  }
  if (is_state) {
    outbox_.set_state(topic, payload, event.operation == PropertyOperation::INITIALIZED);
  } else {
    outbox_.add_event(std::move(topic), payload);
  }
}

void
Publisher::publish_metadata(const Channel &channel, const onvif::MetadataText &text)
{
  const bool is_frame = text.kind == onvif::MetadataKind::FRAME;
  const std::string path = is_frame ? metadata_path("VideoAnalytics", channel.profile, text.source)
                                    : metadata_path("PTZ", channel.profile, channel.ptz_configuration);
  if (path.empty() || !config_->filter.selects(path)) {
    return;
  }
  std::string topic = metadata_topic(config_->prefix, path);
  if (is_published(MessageKind::FRAME, topic, text.json)) {
    outbox_.add_frame(std::move(topic), text.json);
  }
}

} // namespace mqtt
