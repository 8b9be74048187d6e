/* SPDX-License-Identifier: MIT */
#pragma once

#include "worker.h"

#include <gio/gio.h>
#include <string>

/**
 * TESSARD_FIRST_RETRY_MS:
 *
 * The time after which the library tries again what has failed for now, in milliseconds. It doubles with each
 * failure.
 */
#define TESSARD_FIRST_RETRY_MS 250

/**
 * TESSARD_LAST_RETRY_MS:
 *
 * The longest of these times, in milliseconds.
 */
#define TESSARD_LAST_RETRY_MS 10000

/**
 * TESSARD_CONNECT_MS:
 *
 * The time limit for a connection to the bus, in milliseconds.
 */
#define TESSARD_CONNECT_MS 30000

#define TESSARD_RECEIVER_BUS_NAME "com.quon.MetadataReceiver1"
#define TESSARD_RECEIVER_PATH "/com/quon/MetadataReceiver1"

/* The times between attempts. */
class RetryDelay
{
public:
  guint next();
  void reset();

private:
  guint milliseconds = TESSARD_FIRST_RETRY_MS;
};

GError *bus_closed_error(void);

/* A connection to the bus of its own, made again whenever it ends, and the presence of the receiver on it.
 * For the worker. */
class BusLink
{
public:
  /* Not called from within functions of the link, except for its constructor. */
  class Client
  {
  public:
    /* There is a new connection. */
    virtual void bus_connected(GDBusConnection *connection);
    /* The receiver is there, or another one. */
    virtual void receiver_appeared(GDBusConnection *connection, const gchar *owner) = 0;
    /* The receiver is not there, for this reason. Calls of it are over. */
    virtual void receiver_vanished(const GError *reason) = 0;

  protected:
    ~Client() = default;
  };

  BusLink(std::string address, Client *client);
  BusLink(const BusLink &) = delete;
  BusLink &operator=(const BusLink &) = delete;
  ~BusLink();

private:
  static void on_connected(GObject *source_object, GAsyncResult *result, gpointer user_data);
  static void on_closed(GDBusConnection *connection, gboolean remote_peer_vanished, GError *error,
                        gpointer user_data);
  static void on_appeared(GDBusConnection *connection, const gchar *name, const gchar *owner,
                          gpointer user_data);
  static void on_vanished(GDBusConnection *connection, const gchar *name, gpointer user_data);

  void connect();
  void fail(const gchar *cause);
  void take(GDBusConnection *new_connection);
  void disconnect();

  const std::string address; /* empty for the system bus */
  Client *const client;
  GCancellable *cancellable = nullptr; /* while a connection is made */
  GDBusConnection *connection = nullptr;
  gulong closed = 0;
  guint watch = 0;
  WorkerSource timer;
  RetryDelay delay;
};
