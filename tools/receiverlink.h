/* SPDX-License-Identifier: MIT */
#pragma once

#include "metadatareceiver1.h"

#include <gio/gio.h>
#include <string>
#include <vector>

/**
 * RECEIVER_LINK_FIRST_RETRY_MS:
 *
 * The time after which a call is repeated that the receiver has refused for now, in milliseconds. It doubles
 * with each failure.
 */
#define RECEIVER_LINK_FIRST_RETRY_MS 250

/**
 * RECEIVER_LINK_LAST_RETRY_MS:
 *
 * The longest of these times, in milliseconds.
 */
#define RECEIVER_LINK_LAST_RETRY_MS 10000

/* The group whose members the bus policy lets register producers, beside root. */
#define RECEIVER_LINK_GROUP "tessard-producer"

#define RECEIVER_LINK_BUS_NAME "com.quon.MetadataReceiver1"
#define RECEIVER_LINK_PATH "/com/quon/MetadataReceiver1"

/* What is registered. The receiver checks it. */
struct ProducerDescription {
  std::string name;
  std::string nice_name;
  std::vector<guint32> channels;
  std::string sample_frame;
};

/* Called from the main loop, never from within a function of the link. */
struct ReceiverLinkEvents {
  /* A channel is open. Takes the descriptor. */
  void (*on_channel_open)(guint32 channel, int fd, gpointer user_data);
  /* The receiver is not on the bus. All its channels are closed. */
  void (*on_absent)(gpointer user_data);
  /* The receiver has refused a call for now, with this text. It is repeated. */
  void (*on_delay)(const gchar *reason, gpointer user_data);
  /* The link has failed for good. Takes the error of TESSARDCTL_ERROR. */
  void (*on_failure)(GError *error, gpointer user_data);
  /* The producer is unregistered, or could not be. */
  void (*on_unregistered)(gpointer user_data);
};

/* Registers a producer at the receiver and opens its channels, whenever the receiver is on the bus. For the
 * main thread. */
class ReceiverLink
{
public:
  ReceiverLink(GDBusConnection *connection, ProducerDescription description, const ReceiverLinkEvents *events,
               gpointer user_data);
  ReceiverLink(const ReceiverLink &) = delete;
  ReceiverLink &operator=(const ReceiverLink &) = delete;
  ~ReceiverLink();

  void reopen(guint32 channel);
  gboolean unregister();

private:
  static void on_appeared(GDBusConnection *connection, const gchar *name, const gchar *owner,
                          gpointer user_data);
  static void on_vanished(GDBusConnection *connection, const gchar *name, gpointer user_data);
  static void on_registered(GObject *proxy, GAsyncResult *result, gpointer user_data);
  static void on_opened(GObject *proxy, GAsyncResult *result, gpointer user_data);
  static void on_unregistered(GObject *proxy, GAsyncResult *result, gpointer user_data);
  static gboolean on_retry(gpointer user_data);

  void forget_owner();
  void proceed();
  void call_register();
  void call_open(guint32 channel);
  void call_unregister();
  gboolean take_reply(const GError *cause);
  void handle_failure(const GError *cause);
  void retry_later();

  GDBusConnection *connection;
  const ProducerDescription description;
  const ReceiverLinkEvents *events;
  gpointer user_data;
  guint watch;

  MetadataReceiver1Registry *registry = nullptr; /* of the name's owner; NULL while there is none */
  GCancellable *cancellable = nullptr;           /* for the calls of this owner */
  gboolean calling = FALSE;                      /* whether a call of this owner is pending */
  gboolean registered = FALSE;
  gboolean ending = FALSE;
  std::vector<guint32> closed; /* the channels to open */
  guint pending_replies = 0;   /* includes those of cancelled calls */
  guint retry_source = 0;
  guint retry_ms = RECEIVER_LINK_FIRST_RETRY_MS;
  gint64 opened_at = 0; /* when the last channel was opened, in monotonic time */
};
