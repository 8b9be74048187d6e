/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>
#include <sys/types.h>

G_BEGIN_DECLS

/**
 * CLIENT_PLACES:
 *
 * The number of clients that can stream at the same time.
 */
#define CLIENT_PLACES 256

/**
 * CLIENT_PLACES_KEPT:
 *
 * The number of places that are kept for users without one.
 */
#define CLIENT_PLACES_KEPT 32

/**
 * ClientPlace:
 *
 * One user's right to one streaming client. Any thread can call the functions of this component.
 */
typedef struct ClientPlace ClientPlace;

ClientPlace *client_place_new(uid_t user);

void client_place_free(ClientPlace *self);

G_DEFINE_AUTOPTR_CLEANUP_FUNC(ClientPlace, client_place_free)

G_END_DECLS
