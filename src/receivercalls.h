/* SPDX-License-Identifier: MIT */
#pragma once

#include <gio/gio.h>
#include <gio/gunixfdlist.h>

G_BEGIN_DECLS

/**
 * RECEIVER_CALLS_MAX_UNDER_WAY:
 *
 * The number of calls that are pending at a time; the others wait in the queue.
 */
#define RECEIVER_CALLS_MAX_UNDER_WAY 32

/**
 * RECEIVER_CALLS_MAX_UNANSWERED:
 *
 * The number of calls without a reply, including abandoned ones. At this number no further call is made. The
 * bus allows a connection 128, and the daemon calls other services too.
 */
#define RECEIVER_CALLS_MAX_UNANSWERED 96

/**
 * RECEIVER_CALLS_BACKOFF_MS:
 *
 * The back-off of the queue when the bus allows no further call or no descriptor can be reserved.
 */
#define RECEIVER_CALLS_BACKOFF_MS 100

/**
 * RECEIVER_CALLS_MAX_TRIES:
 *
 * The number of tries of a call that fails with %G_DBUS_ERROR_LIMITS_EXCEEDED.
 */
#define RECEIVER_CALLS_MAX_TRIES 50

/**
 * ReceiverCall:
 * @connection: (transfer none): the system bus
 * @path: (transfer none): the object
 * @method: a method of its producer interface
 * @parameters: (transfer floating) (nullable): a tuple
 * @descriptors: the number of descriptors in the reply, which are reserved before the call is made
 * @timeout_ms: the longest wait for the reply, in milliseconds from the time when the call is made
 * @cancellable: (transfer none) (nullable): ends the call
 *
 * A call to an object of the receiver.
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
 * @user_data: the data that was passed to receiver_call()
 *
 * Called on the main thread. receiver_call() is for the main thread too.
 */
typedef void (*ReceiverReplyFunc)(GVariant *reply, GUnixFDList *fds, const GError *error, gpointer user_data);

void receiver_call(const ReceiverCall *call, ReceiverReplyFunc func, gpointer user_data,
                   GDestroyNotify user_data_free);

G_END_DECLS
