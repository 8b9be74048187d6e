/* SPDX-License-Identifier: MIT */
#pragma once

#include "producers.h"

#include <functional>
#include <map>

using ProducersByPath = std::map<std::string, Producer>;

/* Follows the daemon's producers. All functions and callbacks are for the main thread. */
class ProducerWatch
{
public:
  /* A callback must not delete the watch. */
  struct Callbacks {
    std::function<void(const ProducersByPath &producers)> on_present; /* the daemon, with all its producers */
    std::function<void(const ProducersByPath &producers)> on_changed; /* by one signal of the daemon */
    std::function<void()> on_absent;
    std::function<void(GError *error)> on_failed; /* takes the error, and is the last one that is called */
  };

  ProducerWatch(GDBusConnection *connection, Callbacks callbacks);
  ~ProducerWatch();
  ProducerWatch(const ProducerWatch &) = delete;
  ProducerWatch &operator=(const ProducerWatch &) = delete;

private:
  struct SignalHandler;
  struct Load;

  void fail(GError *error);
  void forget_owner();
  void take_objects(GVariant *objects);
  void handle_load_failure(const GError *cause);
  void handle_interfaces_added(const gchar *object_path, GVariant *body);
  void handle_interfaces_removed(const gchar *object_path, GVariant *body);
  void handle_properties_changed(const gchar *object_path, GVariant *body);
  static void on_objects_loaded(GObject *source_object, GAsyncResult *result, gpointer user_data);
  static void on_daemon_signal(GDBusConnection *connection, const gchar *sender_name,
                               const gchar *object_path, const gchar *interface_name,
                               const gchar *signal_name, GVariant *body, gpointer user_data);
  static void on_daemon_appeared(GDBusConnection *connection, const gchar *name, const gchar *owner,
                                 gpointer user_data);
  static void on_daemon_vanished(GDBusConnection *connection, const gchar *name, gpointer user_data);

  GDBusConnection *connection_;
  Callbacks callbacks_;
  guint watch_ = 0;
  guint subscription_ = 0;          /* to the owner's signals; 0 while the daemon is absent */
  GCancellable *loading_ = nullptr; /* while the call for all producers is pending */
  ProducersByPath producers_;
  gboolean failed_ = FALSE;
};
