/* SPDX-License-Identifier: MIT */
#pragma once

#include "producerfollower.h"
#include "requestoptions.h"

#include <functional>
#include <gst/gst.h>
#include <string>

namespace gateway
{

/**
 * GATEWAY_RESTART_SECONDS:
 *
 * The time before a stream of metadata that failed is requested again, in seconds.
 */
#define GATEWAY_RESTART_SECONDS 5

/**
 * GATEWAY_RENEW_MS:
 *
 * How long a stream waits for further changes of its producers before it is requested again, in milliseconds.
 */
#define GATEWAY_RENEW_MS 200

/* What a gateway asks the daemon for. */
struct MetadataRequest {
  const RequestOptions *options;
  std::string socket_path;
  ProducerFollower *producers = nullptr; /* whose changes begin the streams again; outlives them */
};

bool requests_analytics(const RequestOptions &options);
GstElement *new_metadata_source(const MetadataRequest &request, guint channel, GError **error);

/* The daemon's stream of one request and channel, in a pipeline of its own. It begins again whenever it ends,
 * and when other producers are enabled on the channel.
 *
 * All functions are for the main thread. The callbacks are called on the pipeline's thread, or on the main
 * thread while the pipeline has none; never two at once. */
class MetadataStream
{
public:
  using DocumentFunction = std::function<void(GstBuffer *document)>;
  using FailureFunction = std::function<void()>;

  MetadataStream(const MetadataRequest *request, guint channel, DocumentFunction on_document);
  ~MetadataStream();
  MetadataStream(const MetadataStream &) = delete;
  MetadataStream &operator=(const MetadataStream &) = delete;

  void set_failure_function(FailureFunction on_failure);
  void start();
  void stop();
  bool is_started() const;
  void send_sync_point();

private:
  void begin();
  void end();
  void follow(const std::string &enabled_producers);
  void log_failure(const char *text);
  void handle_message(GstMessage *message);
  static GstBusSyncReply on_posted(GstBus *bus, GstMessage *message, gpointer user_data);
  static gboolean on_message(GstBus *bus, GstMessage *message, gpointer user_data);
  static gboolean on_restart(gpointer user_data);
  static gboolean on_renew(gpointer user_data);

  const MetadataRequest *request_;
  guint channel_;
  DocumentFunction on_document_;
  FailureFunction on_failure_;
  GstElement *pipeline_ = nullptr;
  GstElement *source_ = nullptr; /* borrowed from the pipeline */
  guint watch_ = 0;
  guint restart_ = 0;
  guint renew_ = 0;
  bool is_watching_ = false;
  std::string enabled_producers_; /* those of the present stream */
  std::string failure_;           /* the last one that was logged */
  gint64 failure_us_ = 0;
};

} // namespace gateway
