/* SPDX-License-Identifier: MIT */
#include "metadatastream.h"

#include <cstring>
#include <gst/app/gstappsink.h>
#include <syslog.h>

namespace gateway
{

namespace
{

/* The length of a text of the daemon in a line of the log. */
constexpr int LOGGED_BYTES = 1024;

/* How long a failure is not logged again. */
constexpr gint64 REPEATED_FAILURE_US = 60 * G_TIME_SPAN_SECOND;

struct Setting {
  GstElement *source;
  std::string refused; /* the first key and value that the source does not know */
};

/* GObject reads the key's underscores as dashes. */
void
set_property(const gchar *key, const gchar *value, gboolean is_text, gpointer user_data)
{
  auto *setting = static_cast<Setting *>(user_data);
  if (is_text) {
    g_object_set(setting->source, key, value, nullptr);
    return;
  }
  GParamSpec *pspec = g_object_class_find_property(G_OBJECT_GET_CLASS(setting->source), key);
  GValue parsed = G_VALUE_INIT;
  g_value_init(&parsed, pspec->value_type);
  if (gst_value_deserialize(&parsed, value)) {
    g_object_set_property(G_OBJECT(setting->source), key, &parsed);
  } else if (setting->refused.empty()) {
    setting->refused = std::string(key) + "=" + value;
  }
  g_value_unset(&parsed);
}

GstFlowReturn
on_sample(GstAppSink *sink, gpointer user_data)
{
  g_autoptr(GstSample) sample = gst_app_sink_pull_sample(sink);
  GstBuffer *document = sample != nullptr ? gst_sample_get_buffer(sample) : nullptr;
  if (document != nullptr) {
    (*static_cast<MetadataStream::DocumentFunction *>(user_data))(document);
  }
  return GST_FLOW_OK;
}

/* The sink's callback does not outlive the function, which belongs to the stream: a stream that ends waits
 * for the pipeline's thread. */
GstElement *
new_sink(MetadataStream::DocumentFunction *on_document)
{
  GstAppSinkCallbacks callbacks = {};
  callbacks.new_sample = on_sample;
  GstElement *sink = gst_element_factory_make("appsink", nullptr);
  g_object_set(sink, "sync", FALSE, nullptr);
  gst_app_sink_set_callbacks(GST_APP_SINK(sink), &callbacks, on_document, nullptr);
  return sink;
}

} // namespace

/**
 * requests_analytics:
 * @options: what is asked for
 *
 * Returns: whether the metadata depends on the producers that are enabled
 */
bool
requests_analytics(const RequestOptions &options)
{
  return options.analytics != nullptr && strcmp(options.analytics, "0") != 0;
}

/**
 * new_metadata_source:
 * @request: what to ask for
 * @channel: the video channel
 * @error: return location for an error of %GST_RESOURCE_ERROR or %GST_CORE_ERROR
 *
 * Returns: (transfer floating) (nullable): the source of the daemon's documents; %NULL if it is not
 * installed, or does not know a value
 */
GstElement *
new_metadata_source(const MetadataRequest &request, guint channel, GError **error)
{
  GstElement *source = gst_element_factory_make("tessardsrc", nullptr);
  if (source == nullptr) {
    g_set_error_literal(error, GST_CORE_ERROR, GST_CORE_ERROR_MISSING_PLUGIN,
                        "GStreamer does not find the element tessardsrc.");
    return nullptr;
  }
  Setting setting = {source, ""};
  g_object_set(source, "socket-path", request.socket_path.c_str(), "video-channel",
               static_cast<gint>(channel), "reconnect", TRUE, nullptr);
  request_options_foreach(request.options, set_property, &setting);
  if (setting.refused.empty()) {
    return source;
  }
  g_set_error(error, GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_SETTINGS, "There is no value %s.",
              setting.refused.c_str());
  gst_object_unref(gst_object_ref_sink(source));
  return nullptr;
}

/**
 * MetadataStream:
 * @request: what to ask for; it must outlive the stream
 * @channel: the video channel
 * @on_document: gets each document, on the pipeline's thread. The first one of a new connection has the flag
 *   DISCONT. The daemon waits for a callback that does not return, and ends the stream after its time limit.
 */
MetadataStream::MetadataStream(const MetadataRequest *request, guint channel, DocumentFunction on_document)
    : request_(request), channel_(channel), on_document_(std::move(on_document))
{
}

MetadataStream::~MetadataStream()
{
  stop();
}

/**
 * MetadataStream::set_failure_function:
 * @on_failure: called when a connection of the daemon ends, or there is none; between the last document of a
 *   connection and the first one of the next
 *
 * To be called before start().
 */
void
MetadataStream::set_failure_function(FailureFunction on_failure)
{
  on_failure_ = std::move(on_failure);
}

/**
 * MetadataStream::start:
 *
 * Requests the stream, unless that has been done.
 */
void
MetadataStream::start()
{
  if (is_started()) {
    return;
  }
  if (request_->producers != nullptr) {
    is_watching_ = true;
    enabled_producers_ = request_->producers->enabled_on(channel_);
    request_->producers->watch_channel(this, channel_,
                                       [this](const std::string &enabled) { follow(enabled); });
  }
  begin();
}

/**
 * MetadataStream::stop:
 *
 * Ends the stream. Waits for the callback, which is not called afterwards. A stopped stream can be deleted on
 * any thread.
 */
void
MetadataStream::stop()
{
  if (is_watching_) {
    request_->producers->unwatch_channel(this);
    is_watching_ = false;
  }
  end();
}

/**
 * MetadataStream::is_started:
 *
 * Returns: whether the stream is requested, or will be after a failure
 */
bool
MetadataStream::is_started() const
{
  return pipeline_ != nullptr || restart_ != 0;
}

/**
 * MetadataStream::send_sync_point:
 *
 * Asks the daemon for the complete state. Before it has accepted the request this has no effect, and the
 * stream begins with the state.
 */
void
MetadataStream::send_sync_point()
{
  if (source_ != nullptr) {
    gst_element_send_event(source_,
                           gst_event_new_custom(GST_EVENT_CUSTOM_UPSTREAM,
                                                gst_structure_new_empty("GstMetaDataStreamSetSyncPoint")));
  }
}

void
MetadataStream::begin()
{
  g_autoptr(GError) error = nullptr;
  source_ = new_metadata_source(*request_, channel_, &error);
  if (source_ == nullptr) {
    log_failure(error->message);
    return;
  }
  GstElement *sink = new_sink(&on_document_);
  pipeline_ = gst_pipeline_new(nullptr);
  gst_bin_add_many(GST_BIN(pipeline_), source_, sink, nullptr);
  gst_element_link(source_, sink);
  g_autoptr(GstBus) bus = gst_element_get_bus(pipeline_);
  gst_bus_set_sync_handler(bus, on_posted, this, nullptr);
  watch_ = gst_bus_add_watch(bus, on_message, this);
  gst_element_set_state(pipeline_, GST_STATE_PLAYING);
}

void
MetadataStream::end()
{
  g_clear_handle_id(&restart_, g_source_remove);
  g_clear_handle_id(&renew_, g_source_remove);
  g_clear_handle_id(&watch_, g_source_remove);
  if (pipeline_ != nullptr) {
    gst_element_set_state(pipeline_, GST_STATE_NULL);
    g_clear_pointer(&pipeline_, gst_object_unref);
    source_ = nullptr;
  }
}

/* @enabled_producers: a text that is another one when other producers are enabled on the channel. The
 *   daemon's stream has those that were enabled when it was requested. */
void
MetadataStream::follow(const std::string &enabled_producers)
{
  if (enabled_producers == enabled_producers_) {
    return;
  }
  enabled_producers_ = enabled_producers;
  if (renew_ == 0) {
    renew_ = g_timeout_add(GATEWAY_RENEW_MS, on_renew, this);
  }
}

gboolean
MetadataStream::on_renew(gpointer user_data)
{
  auto *self = static_cast<MetadataStream *>(user_data);
  self->renew_ = 0;
  self->end();
  if (self->on_failure_) {
    self->on_failure_();
  }
  self->begin();
  return G_SOURCE_REMOVE;
}

void
MetadataStream::log_failure(const char *text)
{
  const gint64 now_us = g_get_monotonic_time();
  if (text != failure_ || now_us - failure_us_ >= REPEATED_FAILURE_US) {
    failure_ = text;
    failure_us_ = now_us;
    syslog(LOG_WARNING, "Channel %u: %.*s", channel_, LOGGED_BYTES, text);
  }
}

gboolean
MetadataStream::on_restart(gpointer user_data)
{
  auto *self = static_cast<MetadataStream *>(user_data);
  self->restart_ = 0;
  self->begin();
  return G_SOURCE_REMOVE;
}

/* The source connects again itself, with a warning, unless the daemon refuses the request or violates the
 * protocol. */
void
MetadataStream::handle_message(GstMessage *message)
{
  g_autoptr(GError) error = nullptr;
  switch (GST_MESSAGE_TYPE(message)) {
  case GST_MESSAGE_WARNING:
    gst_message_parse_warning(message, &error, nullptr);
    log_failure(error->message);
    break;
  case GST_MESSAGE_ERROR:
    gst_message_parse_error(message, &error, nullptr);
    log_failure(error->message);
    end();
    restart_ = g_timeout_add_seconds(GATEWAY_RESTART_SECONDS, on_restart, this);
    break;
  default:
    break;
  }
}

/* Only the source posts such messages, on its thread. */
GstBusSyncReply
MetadataStream::on_posted(GstBus *bus, GstMessage *message, gpointer user_data)
{
  auto *self = static_cast<MetadataStream *>(user_data);
  const bool is_failure = (GST_MESSAGE_TYPE(message) & (GST_MESSAGE_WARNING | GST_MESSAGE_ERROR)) != 0;
  if (is_failure && self->on_failure_) {
    self->on_failure_();
  }
  return GST_BUS_PASS;
}

gboolean
MetadataStream::on_message(GstBus *bus, GstMessage *message, gpointer user_data)
{
  static_cast<MetadataStream *>(user_data)->handle_message(message);
  return G_SOURCE_CONTINUE;
}

} // namespace gateway
