/* SPDX-License-Identifier: MIT */
#pragma once

#include "producerwatch.h"
#include "sendqueue.h"
#include "switchrequest.h"

#include <functional>
#include <memory>

namespace view
{

/* The producers of the daemon's control service. The connection to the bus begins again whenever it ends. All
 * functions and callbacks are for the main thread. */
class ProducerService
{
public:
  /* Called when the state of the producers has changed. */
  using ChangedFunction = std::function<void()>;

  /* Gets the status of HTTP, and what is wrong if that is none of success. */
  using DoneFunction = std::function<void(guint status, const std::string &message)>;

  ProducerService(const char *bus_address, ChangedFunction on_changed);
  ~ProducerService();
  ProducerService(const ProducerService &) = delete;
  ProducerService &operator=(const ProducerService &) = delete;

  const Text &text() const;
  std::string enabled_on(guint channel) const;
  void set_enabled(const SwitchRequest &request, DoneFunction on_done);

private:
  struct Switch;

  void connect();
  void take_connection(GDBusConnection *connection);
  void disconnect();
  void fail(const char *message);
  void show(const ProducersByPath *producers);
  void remember(const ProducersByPath &producers);
  static void on_connected(GObject *source_object, GAsyncResult *result, gpointer user_data);
  static gboolean on_connect_time_out(gpointer user_data);
  static gboolean on_retry(gpointer user_data);
  static void on_bus_closed(GDBusConnection *connection, gboolean remote_peer_vanished, GError *error,
                            gpointer user_data);
  static void on_switched(GObject *source_object, GAsyncResult *result, gpointer user_data);

  std::string bus_address_; /* empty for the system bus */
  ChangedFunction on_changed_;
  GCancellable *connecting_ = nullptr;
  guint time_out_ = 0;
  guint retry_ = 0;
  GDBusConnection *connection_ = nullptr;
  std::unique_ptr<ProducerWatch> watch_;
  bool is_available_ = false;
  std::map<gint32, std::string> enabled_;    /* by the channel; the last known */
  std::map<std::string, std::string> paths_; /* by the producer's name */
  Text text_;
  std::string failure_; /* the last one that was logged */
  guint switches_ = 0;  /* those that wait for the daemon */
};

} // namespace view
