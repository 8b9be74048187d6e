/* SPDX-License-Identifier: MIT */
#include "producerservice.h"

#include "command.h"
#include "jsonscalar.h"
#include "producerbus.h"
#include "streamtext.h"
#include "viewlimits.h"

#include <algorithm>
#include <array>
#include <libsoup/soup.h>
#include <syslog.h>

namespace view
{

namespace
{

/* The daemon syncs its file for the change before it replies. */
constexpr guint SWITCH_SECONDS = PRODUCER_BUS_TIMEOUT_SECONDS + PRODUCER_BUS_SECONDS_PER_CHANGE;

struct HttpStatus {
  ExitStatus code; /* of an error of TESSARDCTL_ERROR */
  guint status;
};

constexpr std::array HTTP_STATUSES = {
    HttpStatus{EXIT_STATUS_REFUSED, SOUP_STATUS_CONFLICT},
    HttpStatus{EXIT_STATUS_NO_CONNECTION, SOUP_STATUS_SERVICE_UNAVAILABLE},
    HttpStatus{EXIT_STATUS_TIMED_OUT, SOUP_STATUS_GATEWAY_TIMEOUT},
};

guint
http_status_of(const GError *error)
{
  for (const HttpStatus &status : HTTP_STATUSES) {
    if (error->code == status.code) {
      return status.status;
    }
  }
  return SOUP_STATUS_BAD_GATEWAY;
}

void
append_channels(std::string *json, const Producer &producer)
{
  for (const ProducerChannel &channel : producer.channels) {
    if (json->back() != '[') {
      *json += ',';
    }
    *json += "{\"channel\":" + std::to_string(channel.channel);
    *json += channel.enabled ? ",\"enabled\":true" : ",\"enabled\":false";
    *json += ",\"configuration\":";
    onvif::json_append_string(json, channel.configuration);
    *json += '}';
  }
}

void
append_producer(std::string *json, const Producer &producer)
{
  *json += "{\"name\":";
  onvif::json_append_string(json, producer.name);
  *json += ",\"nice_name\":";
  onvif::json_append_string(json, producer.nice_name);
  *json += ",\"channels\":[";
  append_channels(json, producer);
  *json += "]}";
}

std::vector<const Producer *>
sorted_by_name(const ProducersByPath &producers)
{
  std::vector<const Producer *> sorted;
  for (const auto &[path, producer] : producers) {
    sorted.push_back(&producer);
  }
  std::stable_sort(sorted.begin(), sorted.end(),
                   [](const Producer *one, const Producer *other) { return one->name < other->name; });
  return sorted;
}

/* Stops at %VIEW_EVENT_BYTES_MAX.
 *
 * @producers: NULL while the daemon is absent */
std::string
json_of(const ProducersByPath *producers)
{
  std::string json = "{\"available\":";
  json += producers != nullptr ? "true" : "false";
  json += ",\"producers\":[";
  if (producers == nullptr) {
    return json + "]}";
  }
  for (const Producer *producer : sorted_by_name(*producers)) {
    if (json.back() != '[') {
      json += ',';
    }
    append_producer(&json, *producer);
    if (json.size() > VIEW_EVENT_BYTES_MAX) {
      break;
    }
  }
  return json + "]}";
}

} // namespace

struct ProducerService::Switch {
  ProducerService *service;
  DoneFunction on_done;
};

/**
 * ProducerService:
 * @bus_address: (nullable): the bus; %NULL for the system bus
 * @on_changed: see %ChangedFunction
 */
ProducerService::ProducerService(const char *bus_address, ChangedFunction on_changed)
    : bus_address_(bus_address != nullptr ? bus_address : ""), on_changed_(std::move(on_changed)),
      text_(event_text("producers", json_of(nullptr)))
{
  connect();
}

/* The main loop runs no more: calls that wait have no reply. */
ProducerService::~ProducerService()
{
  if (connecting_ != nullptr) {
    g_cancellable_cancel(connecting_);
    g_clear_object(&connecting_);
  }
  g_clear_handle_id(&time_out_, g_source_remove);
  g_clear_handle_id(&retry_, g_source_remove);
  disconnect();
}

/**
 * ProducerService::text:
 *
 * Returns: the state of the producers, as an event of a stream
 */
const Text &
ProducerService::text() const
{
  return text_;
}

/**
 * ProducerService::enabled_on:
 * @channel: a channel
 *
 * Returns: a text that is another one when other producers are enabled on the channel; while the daemon is
 * not there, the last one
 */
std::string
ProducerService::enabled_on(guint channel) const
{
  const auto found = enabled_.find(static_cast<gint32>(channel));
  return found != enabled_.end() ? found->second : "";
}

/**
 * ProducerService::set_enabled:
 * @request: what to switch
 * @on_done: called once, also before the function returns
 *
 * Enables or disables a producer on a channel.
 */
void
ProducerService::set_enabled(const SwitchRequest &request, DoneFunction on_done)
{
  const auto path = paths_.find(request.producer);
  if (switches_ >= VIEW_SWITCHES_MAX) {
    on_done(SOUP_STATUS_SERVICE_UNAVAILABLE, "Too many switches wait for the daemon.");
    return;
  }
  if (!is_available_) {
    on_done(SOUP_STATUS_SERVICE_UNAVAILABLE, "The daemon is not on the bus.");
    return;
  }
  if (path == paths_.end()) {
    on_done(SOUP_STATUS_NOT_FOUND, "There is no producer '" + request.producer + "'.");
    return;
  }
  const std::string &configuration = request.configuration.empty() ? request.producer : request.configuration;
  GVariant *tuple =
      g_variant_new("(ibs)", request.channel, request.enabled, request.enabled ? configuration.c_str() : "");
  GVariant *channels = g_variant_new_array(G_VARIANT_TYPE("(ibs)"), &tuple, 1);
  switches_++;
  g_dbus_connection_call(connection_, PRODUCER_BUS_NAME, path->second.c_str(), PRODUCER_BUS_PRODUCER,
                         "SetChannelsEnabled", g_variant_new_tuple(&channels, 1), G_VARIANT_TYPE_UNIT,
                         G_DBUS_CALL_FLAGS_NO_AUTO_START, SWITCH_SECONDS * 1000, nullptr, on_switched,
                         new Switch{this, std::move(on_done)});
}

void
ProducerService::on_switched(GObject *source_object, GAsyncResult *result, gpointer user_data)
{
  const std::unique_ptr<Switch> done(static_cast<Switch *>(user_data));
  g_autoptr(GError) cause = nullptr;
  g_autoptr(GVariant) reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(source_object), result, &cause);
  done->service->switches_--;
  if (reply != nullptr) {
    done->on_done(SOUP_STATUS_NO_CONTENT, {});
    return;
  }
  g_autoptr(GError) error = producer_bus_convert_call_failure(PRODUCER_BUS_PRODUCER, cause, SWITCH_SECONDS);
  done->on_done(http_status_of(error), error->message);
}

void
ProducerService::connect()
{
  g_autoptr(GError) error = nullptr;
  g_autofree gchar *address = bus_address_.empty()
                                  ? g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, &error)
                                  : g_strdup(bus_address_.c_str());
  if (address == nullptr) {
    fail(error->message);
    return;
  }
  connecting_ = g_cancellable_new();
  time_out_ = g_timeout_add_seconds(PRODUCER_BUS_TIMEOUT_SECONDS, on_connect_time_out, this);
  producer_bus_connect_async(address, connecting_, on_connected, this);
}

gboolean
ProducerService::on_connect_time_out(gpointer user_data)
{
  auto *self = static_cast<ProducerService *>(user_data);
  self->time_out_ = 0;
  g_cancellable_cancel(self->connecting_);
  return G_SOURCE_REMOVE;
}

void
ProducerService::on_connected(GObject *source_object, GAsyncResult *result, gpointer user_data)
{
  auto *self = static_cast<ProducerService *>(user_data);
  g_autoptr(GError) error = nullptr;
  GDBusConnection *connection = g_dbus_connection_new_for_address_finish(result, &error);
  g_clear_handle_id(&self->time_out_, g_source_remove);
  g_clear_object(&self->connecting_);
  if (connection == nullptr) {
    self->fail(error->message);
    return;
  }
  self->take_connection(connection);
}

/* @connection: (transfer full) */
void
ProducerService::take_connection(GDBusConnection *connection)
{
  connection_ = connection;
  g_signal_connect(connection_, "closed", G_CALLBACK(on_bus_closed), this);
  watch_ = std::make_unique<ProducerWatch>(
      connection_, ProducerWatch::Callbacks{
                       .on_present = [this](const ProducersByPath &producers) { show(&producers); },
                       .on_changed = [this](const ProducersByPath &producers) { show(&producers); },
                       .on_absent = [this]() { show(nullptr); },
                       .on_failed =
                           [this](GError *error) {
                             fail(error->message);
                             g_error_free(error);
                           },
                   });
}

void
ProducerService::on_bus_closed(GDBusConnection *connection, gboolean remote_peer_vanished, GError *error,
                               gpointer user_data)
{
  static_cast<ProducerService *>(user_data)->fail("The bus closed the connection.");
}

void
ProducerService::disconnect()
{
  watch_.reset();
  if (connection_ != nullptr) {
    g_signal_handlers_disconnect_by_data(connection_, this);
    g_dbus_connection_close(connection_, nullptr, nullptr, nullptr);
    g_clear_object(&connection_);
  }
}

/* Begins again later. */
void
ProducerService::fail(const char *message)
{
  show(nullptr);
  if (message != failure_) {
    failure_ = message;
    syslog(LOG_WARNING, "The producers are not known: %s", message);
  }
  if (retry_ == 0) {
    retry_ = g_timeout_add_seconds(VIEW_RETRY_SECONDS, on_retry, this);
  }
}

gboolean
ProducerService::on_retry(gpointer user_data)
{
  auto *self = static_cast<ProducerService *>(user_data);
  self->retry_ = 0;
  self->disconnect();
  self->connect();
  return G_SOURCE_REMOVE;
}

void
ProducerService::remember(const ProducersByPath &producers)
{
  failure_.clear();
  enabled_.clear();
  for (const auto &[path, producer] : producers) {
    paths_.emplace(producer.name, path);
    for (const ProducerChannel &channel : producer.channels) {
      if (channel.enabled) {
        enabled_[channel.channel] += producer.name + "\n" + channel.configuration + "\n";
      }
    }
  }
}

/* @producers: (nullable): %NULL while they are not known */
void
ProducerService::show(const ProducersByPath *producers)
{
  std::string json = json_of(producers);
  is_available_ = producers != nullptr;
  paths_.clear();
  if (json.size() > VIEW_EVENT_BYTES_MAX) {
    fail("There are too many.");
    return;
  }
  if (producers != nullptr) {
    remember(*producers);
  }
  Text text = event_text("producers", json);
  if (*text != *text_) {
    text_ = std::move(text);
    on_changed_();
  }
}

} // namespace view
