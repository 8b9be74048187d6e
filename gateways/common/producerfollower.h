/* SPDX-License-Identifier: MIT */
#pragma once

#include "producerwatch.h"

#include <memory>
#include <string>

namespace gateway
{

/**
 * GATEWAY_BUS_RETRY_SECONDS:
 *
 * The time before the bus is tried again after a failure, in seconds.
 */
#define GATEWAY_BUS_RETRY_SECONDS 5

/* Follows the producers of the daemon's control service. The connection to the bus begins again whenever it
 * ends. All functions and callbacks are for the main thread. */
class ProducerFollower
{
public:
  /* Gets all producers when they have changed; %NULL when they are not known. */
  using ProducersFunction = std::function<void(const ProducersByPath *producers)>;

  /* Gets a text that is another one when other producers are enabled on a channel. */
  using EnabledFunction = std::function<void(const std::string &enabled)>;

  explicit ProducerFollower(const char *bus_address, ProducersFunction on_producers = {});
  ~ProducerFollower();
  ProducerFollower(const ProducerFollower &) = delete;
  ProducerFollower &operator=(const ProducerFollower &) = delete;

  GDBusConnection *connection() const;
  std::string enabled_on(guint channel) const;
  void watch_channel(const void *watcher, guint channel, EnabledFunction on_enabled);
  void unwatch_channel(const void *watcher);
  void begin_again(const char *message);

private:
  struct Watcher {
    guint channel;
    EnabledFunction on_enabled;
  };
  struct Attempt;

  void connect();
  void take_connection(GDBusConnection *connection);
  void disconnect();
  void take_producers(const ProducersByPath *producers);
  void remember(const ProducersByPath &producers);
  static void on_connected(GObject *source_object, GAsyncResult *result, gpointer user_data);
  static gboolean on_connect_time_out(gpointer user_data);
  static gboolean on_retry(gpointer user_data);
  static void on_bus_closed(GDBusConnection *connection, gboolean remote_peer_vanished, GError *error,
                            gpointer user_data);

  std::string bus_address_; /* empty for the system bus */
  ProducersFunction on_producers_;
  Attempt *attempt_ = nullptr; /* the one under way */
  guint time_out_ = 0;
  guint retry_ = 0;
  GDBusConnection *connection_ = nullptr;
  std::unique_ptr<ProducerWatch> watch_;
  std::map<const void *, Watcher> watchers_;
  bool is_known_ = false;
  guint64 daemons_ = 0;                   /* how often a daemon's producers became known */
  std::map<gint32, std::string> enabled_; /* by the channel; the last known */
  std::string failure_;                   /* the last one that was logged */
};

} // namespace gateway
