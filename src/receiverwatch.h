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
 * The path of the receiver's object manager, below which its producers are.
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
 * How long the watch waits before it asks again after a failure. Each further failure doubles the time.
 */
#define RECEIVER_WATCH_FIRST_RETRY_S 1

/**
 * RECEIVER_WATCH_LAST_RETRY_S:
 *
 * The longest time between a failure and the next question.
 */
#define RECEIVER_WATCH_LAST_RETRY_S 60

/**
 * RECEIVER_WATCH_MAX_OBJECTS:
 *
 * How many objects of the receiver's answer are looked at, in its order.
 */
#define RECEIVER_WATCH_MAX_OBJECTS 1024

/**
 * ReceiverWatchFuncs:
 * @on_interfaces_added: an object has these interfaces, an a{sa{sv}}; called again for one that is known
 * @on_interfaces_removed: an object has these interfaces no more
 * @on_objects_cut: the receiver has more objects than %RECEIVER_WATCH_MAX_OBJECTS, of which this is the first
 *   one that is not looked at
 * @on_properties_changed: properties of an object's producer interface changed: an a{sv} of the new ones, and
 *   the names of those that are not known any more
 * @on_vanished: the receiver left the bus, and its objects with it
 *
 * What the receiver says. All are called in the main thread, and borrow their arguments.
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
