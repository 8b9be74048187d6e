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
    : on_changed_(std::move(on_changed)), text_(event_text("producers", json_of(nullptr))),
      follower_(bus_address, [this](const ProducersByPath *producers) { show(producers); })
{
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
 * ProducerService::follower:
 *
 * Returns: (transfer none): what follows the producers, for streams of their metadata
 */
gateway::ProducerFollower *
ProducerService::follower()
{
  return &follower_;
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
  g_dbus_connection_call(follower_.connection(), PRODUCER_BUS_NAME, path->second.c_str(),
                         PRODUCER_BUS_PRODUCER, "SetChannelsEnabled", g_variant_new_tuple(&channels, 1),
                         G_VARIANT_TYPE_UNIT, G_DBUS_CALL_FLAGS_NO_AUTO_START, SWITCH_SECONDS * 1000, nullptr,
                         on_switched, new Switch{this, std::move(on_done)});
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

/* @producers: (nullable): %NULL while they are not known */
void
ProducerService::show(const ProducersByPath *producers)
{
  std::string json = json_of(producers);
  is_available_ = producers != nullptr;
  paths_.clear();
  if (json.size() > VIEW_EVENT_BYTES_MAX) {
    follower_.begin_again("There are too many.");
    return;
  }
  if (producers != nullptr) {
    for (const auto &[path, producer] : *producers) {
      paths_.emplace(producer.name, path);
    }
  }
  Text text = event_text("producers", json);
  if (*text != *text_) {
    text_ = std::move(text);
    on_changed_();
  }
}

} // namespace view
