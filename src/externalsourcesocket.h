#pragma once

#include "messageaccount.h"

#include <glib-object.h>

G_BEGIN_DECLS

/**
 * EXTERNAL_SOURCE_FRAME_START:
 *
 * The text before the items in a producer's JSON frame: a format that takes the name of the source, which is
 * not escaped.
 */
#define EXTERNAL_SOURCE_FRAME_START "{\"Source\":\"%s\",\"Data\":{\"Item\":["

/**
 * EXTERNAL_SOURCE_FRAME_END:
 *
 * The text behind the items in a producer's JSON frame.
 */
#define EXTERNAL_SOURCE_FRAME_END "]}}"

/**
 * EXTERNAL_SOURCE_MAX_PAYLOAD:
 *
 * The length of the longest payload that is read from a producer. The format of the stream has no limit. The
 * daemon has one because a stream that is out of step can announce any length, and all that follows would
 * count as one payload.
 */
#define EXTERNAL_SOURCE_MAX_PAYLOAD (64 * 1024 * 1024)

/**
 * EXTERNAL_SOURCE_MESSAGE_TIMEOUT_MS:
 *
 * How long a message may take from its first byte to its last.
 */
#define EXTERNAL_SOURCE_MESSAGE_TIMEOUT_MS (10 * 1000)

/**
 * EXTERNAL_SOURCE_TURN_BYTES:
 *
 * How many bytes all sockets together read in one turn of the main loop of payloads that begin, and how many
 * of payloads that an earlier turn has left unfinished. All open sockets have an equal share of the first,
 * the sockets with an unfinished message of the second. A share is at least EXTERNAL_SOURCE_MIN_READ_BYTES.
 */
#define EXTERNAL_SOURCE_TURN_BYTES (2 * 1024 * 1024)

/**
 * EXTERNAL_SOURCE_MIN_READ_BYTES:
 *
 * How many bytes of a payload a socket may read in one turn of the main loop, however many sockets there are.
 */
#define EXTERNAL_SOURCE_MIN_READ_BYTES (4 * 1024)

#define EXTERNAL_TYPE_SOURCE_SOCKET (external_source_socket_get_type())
G_DECLARE_FINAL_TYPE(ExternalSourceSocket, external_source_socket, TESSARD, EXTERNAL_SOURCE_SOCKET, GObject)

/**
 * ExternalSourceSocketDataFunc:
 * @socket: (transfer none): the socket
 * @frame: (transfer full): a JSON frame without a terminator, for g_free()
 * @size: its length
 * @user_data: what external_source_socket_new() was given
 *
 * Called on the main thread for each message, with no lock of the socket held. It may close the socket. When
 * another thread closes the socket, one last call may be under way. The message counts as one that is being
 * read until the function returns.
 */
typedef void (*ExternalSourceSocketDataFunc)(ExternalSourceSocket *socket, guint8 *frame, gsize size,
                                             gpointer user_data);

/**
 * ExternalSourceSocketCloseFunc:
 * @socket: (transfer none): the socket
 * @user_data: what external_source_socket_new() was given
 *
 * Called once, when the producer's stream has ended or failed, with no lock of the socket held. Never called
 * by a close without notification.
 */
typedef void (*ExternalSourceSocketCloseFunc)(ExternalSourceSocket *socket, gpointer user_data);

ExternalSourceSocket *external_source_socket_new(gint consumer_fd, const gchar *source_name,
                                                 MessageAccount *account,
                                                 ExternalSourceSocketDataFunc on_data,
                                                 ExternalSourceSocketCloseFunc on_close, gpointer user_data,
                                                 GDestroyNotify user_data_free);

void external_source_socket_close(ExternalSourceSocket *self, gboolean notify);

G_END_DECLS
