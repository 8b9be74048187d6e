#pragma once

#include "sourcefactory.h"

G_BEGIN_DECLS

/**
 * SERVER_MAX_WAITING_REQUESTS:
 *
 * A new connection is queued only while at most so many others wait for a pool thread, so at most one more
 * ever wait.
 */
#define SERVER_MAX_WAITING_REQUESTS 100

/**
 * SERVER_MAX_REQUEST_BYTES:
 *
 * The length of the longest request that is read, from "OPEN" to the empty line.
 */
#define SERVER_MAX_REQUEST_BYTES (64 * 1024)

/**
 * SERVER_REQUEST_TIMEOUT_MS:
 *
 * How long a client may take to send its request, from the moment that a pool thread turns to it.
 */
#define SERVER_REQUEST_TIMEOUT_MS (10 * 1000)

/**
 * SERVER_ACCEPT_REST_MS:
 *
 * How long no connection is accepted after one that could be neither accepted nor dropped.
 */
#define SERVER_ACCEPT_REST_MS 250

#define SERVER_TYPE (server_get_type())
G_DECLARE_FINAL_TYPE(Server, server, TESSARD, SERVER, GObject)

void server_register_source_factory(Server *self, SourceFactory *factory);

gboolean server_start(Server *self);

void server_stop(Server *self);

G_END_DECLS
