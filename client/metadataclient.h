/* SPDX-License-Identifier: MIT */
#pragma once

#include <gio/gio.h>

G_BEGIN_DECLS

/**
 * METADATA_CLIENT_MAX_REPLY_BYTES:
 *
 * The maximum length of the daemon's reply. A refusal can quote a whole line of the request.
 */
#define METADATA_CLIENT_MAX_REPLY_BYTES (64 * 1024 + 512)

/**
 * METADATA_CLIENT_CONNECT_RETRY_MS:
 *
 * The interval at which a client connects again while the daemon's queue of connections is full.
 */
#define METADATA_CLIENT_CONNECT_RETRY_MS 20

/**
 * METADATA_CLIENT_DEFAULT_SOCKET:
 *
 * The daemon's socket, unless it was started with another folder.
 */
#define METADATA_CLIENT_DEFAULT_SOCKET "/run/tessard/metadata"

/**
 * METADATA_CLIENT_SOCKET_VARIABLE:
 *
 * The environment variable that replaces %METADATA_CLIENT_DEFAULT_SOCKET.
 */
#define METADATA_CLIENT_SOCKET_VARIABLE "TESSARD_SOCKET"

/**
 * MetadataClient:
 *
 * A connection whose request the daemon has accepted. One thread at a time can call
 * metadata_client_read() and metadata_client_get_caps(), and any thread metadata_client_request_sync_point()
 * beside it.
 */
typedef struct MetadataClient MetadataClient;

const gchar *metadata_client_get_default_socket(void);
MetadataClient *metadata_client_open(const gchar *socket_path, const gchar *request, gint64 timeout_us,
                                     GCancellable *cancellable, GError **error);
void metadata_client_free(MetadataClient *self);
GBytes *metadata_client_read(MetadataClient *self, GCancellable *cancellable, GError **error);
const gchar *metadata_client_get_caps(const MetadataClient *self);
gboolean metadata_client_request_sync_point(MetadataClient *self);

G_DEFINE_AUTOPTR_CLEANUP_FUNC(MetadataClient, metadata_client_free)

G_END_DECLS
