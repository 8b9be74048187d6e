/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

G_BEGIN_DECLS

#define METADATA_CLIENT_ERROR (metadata_client_error_quark())

/**
 * MetadataClientError:
 * @METADATA_CLIENT_ERROR_NO_CONNECTION: connecting to the socket failed
 * @METADATA_CLIENT_ERROR_TIMED_OUT: the reply did not arrive in time
 * @METADATA_CLIENT_ERROR_REFUSED: the reply is "FAIL"; the message is the daemon's reason, in any bytes
 * @METADATA_CLIENT_ERROR_ENDED: the daemon ended the connection, before or after its reply
 * @METADATA_CLIENT_ERROR_MALFORMED: the reply or the stream violates the protocol
 *
 * Why a connection failed or ended.
 */
typedef enum {
  METADATA_CLIENT_ERROR_NO_CONNECTION,
  METADATA_CLIENT_ERROR_TIMED_OUT,
  METADATA_CLIENT_ERROR_REFUSED,
  METADATA_CLIENT_ERROR_ENDED,
  METADATA_CLIENT_ERROR_MALFORMED,
} MetadataClientError;

GQuark metadata_client_error_quark(void);

G_END_DECLS
