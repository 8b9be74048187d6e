/* SPDX-License-Identifier: MIT */
#pragma once

#include <gio/gio.h>

G_BEGIN_DECLS

/**
 * ReceiverStreamRequest:
 * @connection: (transfer none): the system bus
 * @path: (transfer none): the producer's object
 * @channel: the video channel, from 1
 * @source_name: (transfer none): the name that is passed to @on_fd
 * @cancellable: (transfer none) (nullable): ends the request
 * @on_fd: takes the descriptor
 *
 * A request for a producer's stream.
 */
typedef struct ReceiverStreamRequest {
  GDBusConnection *connection;
  const gchar *path;
  gint channel;
  const gchar *source_name;
  GCancellable *cancellable;
  void (*on_fd)(gint fd, const gchar *source_name, gpointer user_data);
} ReceiverStreamRequest;

void receiver_stream_request(const ReceiverStreamRequest *request, gpointer user_data,
                             GDestroyNotify user_data_free);

G_END_DECLS
