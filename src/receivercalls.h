#pragma once

#include <gio/gio.h>
#include <gio/gunixfdlist.h>

G_BEGIN_DECLS

/**
 * RECEIVER_CALLS_MAX_UNDER_WAY:
 *
 * How many calls wait for the receiver's reply at a time; the others wait for their turn.
 */
#define RECEIVER_CALLS_MAX_UNDER_WAY 32

/**
 * RECEIVER_CALLS_MAX_UNANSWERED:
 *
 * How many calls the receiver may leave without a reply, with those that nobody waits for any more; as long
 * as there are so many, no further one is made. The bus allows a connection 128, and the daemon has others to
 * call.
 */
#define RECEIVER_CALLS_MAX_UNANSWERED 96

/**
 * RECEIVER_CALLS_REST_MS:
 *
 * How long calls rest when the bus allows no more, or no descriptor can be reserved.
 */
#define RECEIVER_CALLS_REST_MS 100

/**
 * RECEIVER_CALLS_MAX_TRIES:
 *
 * How often a call is made, when the bus or the receiver refuses it as beyond its limits.
 */
#define RECEIVER_CALLS_MAX_TRIES 50

/**
 * ReceiverCall:
 * @connection: (transfer none): the system bus
 * @path: (transfer none): the object
 * @method: a method of its producer interface
 * @parameters: (transfer floating) (nullable): a tuple
 * @descriptors: how many descriptors the reply is to bring; they are reserved before the call is made
 * @timeout_ms: how long to wait for the reply once the call is made
 * @cancellable: (transfer none) (nullable): ends the call
 *
 * A call of one of the receiver's objects.
 */
typedef struct ReceiverCall {
  GDBusConnection *connection;
  const gchar *path;
  const gchar *method;
  GVariant *parameters;
  guint descriptors;
  guint timeout_ms;
  GCancellable *cancellable;
} ReceiverCall;

/**
 * ReceiverReplyFunc:
 * @reply: (transfer none) (nullable): the reply, of any type; %NULL when the call failed
 * @fds: (transfer none) (nullable): its descriptors
 * @error: (transfer none) (nullable): why the call failed
 * @user_data: what receiver_call() was given
 *
 * Called in the main thread.
 */
typedef void (*ReceiverReplyFunc)(GVariant *reply, GUnixFDList *fds, const GError *error, gpointer user_data);

void receiver_call(const ReceiverCall *call, ReceiverReplyFunc func, gpointer user_data,
                   GDestroyNotify user_data_free);

G_END_DECLS
