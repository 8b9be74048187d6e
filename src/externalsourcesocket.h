/* SPDX-License-Identifier: MIT */
#pragma once

#include "messageaccount.h"

#include <glib-object.h>

G_BEGIN_DECLS

/**
 * EXTERNAL_SOURCE_FRAME_START:
 *
 * The text before the items in a producer's JSON frame: a format for the configuration name, which is not
 * escaped (docs/compatibility.md, "unescaped names").
 */
#define EXTERNAL_SOURCE_FRAME_START "{\"Source\":\"%s\",\"Data\":{\"Item\":["

/**
 * EXTERNAL_SOURCE_FRAME_END:
 *
 * The text after the items in a producer's JSON frame.
 */
#define EXTERNAL_SOURCE_FRAME_END "]}}"

/**
 * EXTERNAL_SOURCE_MAX_PAYLOAD:
 *
 * The longest payload of a message. The format itself has no limit. Without one, a stream that has lost its
 * message boundaries could announce any length, and all further data would count as one payload.
 */
#define EXTERNAL_SOURCE_MAX_PAYLOAD (64 * 1024 * 1024)

/**
 * EXTERNAL_SOURCE_MESSAGE_TIMEOUT_MS:
 *
 * The longest time from a message's first byte to its last.
 */
#define EXTERNAL_SOURCE_MESSAGE_TIMEOUT_MS (10 * 1000)

/**
 * EXTERNAL_SOURCE_TURN_BYTES:
 *
 * The payload bytes that all sockets together read in one turn of the main loop. The limit applies separately
 * to sockets between two messages, with an equal share for each open socket, and to sockets with an
 * unfinished message, with an equal share for each of these. A share is at least
 * EXTERNAL_SOURCE_MIN_READ_BYTES.
 */
#define EXTERNAL_SOURCE_TURN_BYTES (2 * 1024 * 1024)

/**
 * EXTERNAL_SOURCE_MIN_READ_BYTES:
 *
 * The payload bytes that a socket can always read in one turn of the main loop.
 */
#define EXTERNAL_SOURCE_MIN_READ_BYTES (4 * 1024)

/**
 * EXTERNAL_SOURCE_TURN_MESSAGES:
 *
 * The messages that a socket reads in one turn of the main loop.
 */
#define EXTERNAL_SOURCE_TURN_MESSAGES 32

/**
 * EXTERNAL_SOURCE_TURN_US:
 *
 * The time for which all sockets together begin further messages in one turn of the main loop, with an equal
 * share for each open socket. A socket always can begin one message.
 */
#define EXTERNAL_SOURCE_TURN_US 2000

/**
 * ExternalSourceSocket:
 *
 * The stream of one producer for one client. Any thread can call the functions of this component.
 */
#define EXTERNAL_TYPE_SOURCE_SOCKET (external_source_socket_get_type())
G_DECLARE_FINAL_TYPE(ExternalSourceSocket, external_source_socket, EXTERNAL, SOURCE_SOCKET, GObject)

/**
 * ExternalSourceSocketDataFunc:
 * @socket: (transfer none): the socket
 * @frame: (transfer full): a JSON frame without a terminating NUL, for g_free()
 * @size: its length
 * @user_data: the data that was passed to external_source_socket_new()
 *
 * Called on the main thread for each message, with no lock of the socket held. It can close the socket, and
 * must not iterate the default main context. When another thread closes the socket, one last call can be in
 * progress. The message counts as unfinished until the function returns.
 */
typedef void (*ExternalSourceSocketDataFunc)(ExternalSourceSocket *socket, guint8 *frame, gsize size,
                                             gpointer user_data);

/**
 * ExternalSourceSocketCloseFunc:
 * @socket: (transfer none): the socket
 * @user_data: the data that was passed to external_source_socket_new()
 *
 * Called once when the producer's stream has ended or failed, with no lock of the socket held. Must not
 * iterate the default main context. Not called by a close without notification.
 */
typedef void (*ExternalSourceSocketCloseFunc)(ExternalSourceSocket *socket, gpointer user_data);

ExternalSourceSocket *external_source_socket_new(gint consumer_fd, const gchar *source_name,
                                                 MessageAccount *account,
                                                 ExternalSourceSocketDataFunc on_data,
                                                 ExternalSourceSocketCloseFunc on_close, gpointer user_data,
                                                 GDestroyNotify user_data_free);

void external_source_socket_close(ExternalSourceSocket *self, gboolean notify);

G_END_DECLS
