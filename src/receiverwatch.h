/* SPDX-License-Identifier: MIT */
#pragma once

#include <gio/gio.h>

G_BEGIN_DECLS

/**
 * RECEIVER_NAME:
 *
 * The bus name of the platform's metadata receiver.
 */
#define RECEIVER_NAME "com.quon.MetadataReceiver1"

/**
 * RECEIVER_PRODUCERS_PATH:
 *
 * The path of the receiver's object manager. The producers' objects are below it.
 */
#define RECEIVER_PRODUCERS_PATH "/com/quon/MetadataReceiver1/Producers"

/**
 * RECEIVER_PRODUCER_INTERFACE:
 *
 * The interface of a producer.
 */
#define RECEIVER_PRODUCER_INTERFACE "com.quon.MetadataReceiver1.Producer"

/**
 * RECEIVER_WATCH_FIRST_RETRY_S:
 *
 * The time before the first retry after a failure. Each further failure doubles it.
 */
#define RECEIVER_WATCH_FIRST_RETRY_S 1

/**
 * RECEIVER_WATCH_LAST_RETRY_S:
 *
 * The longest time between a failure and the retry.
 */
#define RECEIVER_WATCH_LAST_RETRY_S 60

/**
 * RECEIVER_WATCH_MAX_OBJECTS:
 *
 * The number of objects of the receiver's reply that are read, in its order.
 */
#define RECEIVER_WATCH_MAX_OBJECTS 1024

/**
 * ReceiverWatchFuncs:
 * @on_interfaces_added: an object has these interfaces, an a{sa{sv}}; also called for known objects
 * @on_interfaces_removed: an object has lost these interfaces
 * @on_objects_cut: the receiver has more than %RECEIVER_WATCH_MAX_OBJECTS objects, and this is the first one
 * that is not read
 * @on_properties_changed: properties of an object's producer interface have changed: an a{sv} of the new
 * values, and the names of those that became invalid
 * @on_vanished: the receiver has left the bus, and its objects with it
 *
 * The receiver's reports. Called on the main thread; the arguments are borrowed.
 *
 * All functions of this component are for the main thread, except receiver_watch_log_failure().
 */
typedef struct ReceiverWatchFuncs {
  void (*on_interfaces_added)(const gchar *path, GVariant *interfaces);
  void (*on_interfaces_removed)(const gchar *path, const gchar *const *interfaces);
  void (*on_objects_cut)(const gchar *path);
  void (*on_properties_changed)(const gchar *path, GVariant *changed, const gchar *const *invalidated);
  void (*on_vanished)(void);
} ReceiverWatchFuncs;

void receiver_watch_start(GDBusConnection *connection, const ReceiverWatchFuncs *funcs);

void receiver_watch_ask_again(void);

void receiver_watch_stop(void);

void receiver_watch_log_failure(const GError *error);

G_END_DECLS
