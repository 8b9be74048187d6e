/* SPDX-License-Identifier: MIT */
#pragma once

#include "sourcefactory.h"

G_BEGIN_DECLS

/**
 * SERVER_MAX_WAITING_REQUESTS:
 *
 * A new connection is kept only while at most this many others wait, for the rest of their request or for a
 * pool thread. So the largest number of waiting connections is one more.
 */
#define SERVER_MAX_WAITING_REQUESTS 100

/**
 * SERVER_MAX_UNFINISHED_REQUESTS:
 *
 * The number of waiting connections of one user that have no complete request.
 */
#define SERVER_MAX_UNFINISHED_REQUESTS 64

/**
 * SERVER_MAX_REQUEST_BYTES:
 *
 * The longest request, from "OPEN" to the empty line.
 */
#define SERVER_MAX_REQUEST_BYTES (64 * 1024)

/**
 * SERVER_REQUEST_TIMEOUT_MS:
 *
 * The time for a client to send its request, from the acceptance of its connection.
 */
#define SERVER_REQUEST_TIMEOUT_MS (10 * 1000)

/**
 * SERVER_ACCEPT_BACKOFF_MS:
 *
 * The time without accepting after a connection that could be neither accepted nor refused.
 */
#define SERVER_ACCEPT_BACKOFF_MS 250

/**
 * SERVER_PIPELINE_DESCRIPTORS:
 *
 * The largest number of descriptors that a client's pipeline opens: four of its own, and two for each
 * platform element (one source of each kind, and the document element).
 */
#define SERVER_PIPELINE_DESCRIPTORS 16

/**
 * SERVER_SHORTAGE_WARNING_INTERVAL_MS:
 *
 * The shortest time between two warnings about too few descriptors, and between two about too many clients.
 */
#define SERVER_SHORTAGE_WARNING_INTERVAL_MS 1000

/**
 * Server:
 *
 * The server of the clients' socket. The functions of this component are for the main thread.
 */
#define TESSARD_TYPE_SERVER (server_get_type())
G_DECLARE_FINAL_TYPE(Server, server, TESSARD, SERVER, GObject)

void server_register_source_factory(Server *self, SourceFactory *factory);

gboolean server_start(Server *self);

void server_stop(Server *self);

G_END_DECLS
