#pragma once

#include "sourcefactory.h"

G_BEGIN_DECLS

/**
 * SERVER_MAX_WAITING_REQUESTS:
 *
 * A new connection is kept only while at most so many others wait, for their request to arrive or for a pool
 * thread, so at most one more ever wait.
 */
#define SERVER_MAX_WAITING_REQUESTS 100

/**
 * SERVER_MAX_UNFINISHED_REQUESTS:
 *
 * How many of those who wait may be clients of one user that have not sent all of their request.
 */
#define SERVER_MAX_UNFINISHED_REQUESTS 64

/**
 * SERVER_MAX_REQUEST_BYTES:
 *
 * The length of the longest request that is read, from "OPEN" to the empty line.
 */
#define SERVER_MAX_REQUEST_BYTES (64 * 1024)

/**
 * SERVER_REQUEST_TIMEOUT_MS:
 *
 * How long a client may take to send its request, from the moment that its connection is accepted.
 */
#define SERVER_REQUEST_TIMEOUT_MS (10 * 1000)

/**
 * SERVER_ACCEPT_REST_MS:
 *
 * How long no connection is accepted after one that could be neither accepted nor refused.
 */
#define SERVER_ACCEPT_REST_MS 250

/**
 * SERVER_PIPELINE_DESCRIPTORS:
 *
 * How many descriptors a client's pipeline opens at most: four of its own, and two for each platform element,
 * which are the sources of every kind and the document element.
 */
#define SERVER_PIPELINE_DESCRIPTORS 16

/**
 * SERVER_SHORTAGE_WARNING_INTERVAL_MS:
 *
 * The interval of two warnings, the one about too few descriptors and the one about too many clients: each is
 * written once in it.
 */
#define SERVER_SHORTAGE_WARNING_INTERVAL_MS 1000

#define SERVER_TYPE (server_get_type())
G_DECLARE_FINAL_TYPE(Server, server, TESSARD, SERVER, GObject)

void server_register_source_factory(Server *self, SourceFactory *factory);

gboolean server_start(Server *self);

void server_stop(Server *self);

G_END_DECLS
