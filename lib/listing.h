/* SPDX-License-Identifier: MIT */
#pragma once

#include "buscall.h"

#include <functional>
#include <gio/gio.h>
#include <map>
#include <optional>
#include <string>

/* The channels on which a producer is enabled, with their configuration names. */
using EnabledChannels = std::map<guint32, std::string>;

/* Watches whether the daemon lists a producer, and where it is enabled. For the worker. */
class Listing
{
public:
  /* Called with the channels, or nothing while the producer is not listed. */
  using Function = std::function<void(const std::optional<EnabledChannels> &enabled)>;

  Listing(GDBusConnection *connection, const std::string &name, Function function);
  Listing(const Listing &) = delete;
  Listing &operator=(const Listing &) = delete;
  ~Listing();

private:
  static void on_appeared(GDBusConnection *connection, const gchar *name, const gchar *owner,
                          gpointer user_data);
  static void on_vanished(GDBusConnection *connection, const gchar *name, gpointer user_data);
  static void on_signal(GDBusConnection *connection, const gchar *sender, const gchar *path,
                        const gchar *interface, const gchar *signal, GVariant *body, gpointer user_data);

  void forget_owner();
  void ask(const gchar *owner);
  void take_added(GVariant *body);
  void take_removed(GVariant *body);
  void take_changed(const gchar *changed_path, GVariant *body);
  void take_value(GVariant *value);

  GDBusConnection *const connection;
  const std::string path;
  const Function function;
  guint watch;
  GCancellable *cancellable = nullptr; /* for the call of the owner */
  guint objects = 0;                   /* the subscriptions to signals of the owner */
  guint properties = 0;
};
