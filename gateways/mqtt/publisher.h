/* SPDX-License-Identifier: MIT */
#pragma once

#include "brokerlink.h"
#include "metadatajson.h"
#include "metadatastream.h"
#include "quietlog.h"

#include <memory>

namespace mqtt
{

/* Publishes the daemon's streams: one with events, and one with the metadata of each channel.
 *
 * The functions are for the main thread; documents come on the streams' threads. */
class Publisher
{
public:
  Publisher(const Config *config, const std::string &socket_path);
  Publisher(const Publisher &) = delete;
  Publisher &operator=(const Publisher &) = delete;

  bool check_broker(GError **error) const;
  bool check_streams(GError **error) const;
  void start();
  bool stop();

private:
  void add_stream(const gateway::MetadataRequest *request, const Channel &channel,
                  gateway::MetadataStream::DocumentFunction on_document);
  void on_events(GstBuffer *document);
  void on_metadata(const Channel &channel, GstBuffer *document);
  std::optional<onvif::MetadataTexts> convert(GstBuffer *document);
  void publish_event(const onvif::MetadataText &event);
  void publish_metadata(const Channel &channel, const onvif::MetadataText &text);
  bool is_published(MessageKind kind, const std::string &topic, const std::string &payload);

  const Config *config_;
  gateway::MetadataRequest events_request_;
  gateway::MetadataRequest metadata_request_;
  std::unique_ptr<gateway::ProducerFollower> producers_; /* once analytics are published */
  Outbox outbox_;
  BrokerLink link_;
  QuietLog malformed_;
  QuietLog too_long_;
  std::vector<std::unique_ptr<gateway::MetadataStream>> streams_;
};

} // namespace mqtt
