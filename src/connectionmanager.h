#pragma once

#include <gst/gst.h>

G_BEGIN_DECLS

/**
 * CONNECTION_MANAGER_MAX_PENDING_SYNC_POINTS:
 *
 * How many sync points of one client may wait for delivery. One more adds nothing that the waiting ones do
 * not bring, and is dropped.
 */
#define CONNECTION_MANAGER_MAX_PENDING_SYNC_POINTS 16

/**
 * CONNECTION_MANAGER_MAX_EARLY_SYNC_WARNINGS:
 *
 * How many sync points that one client asks for before its stream has started are warned of. All of them are
 * refused.
 */
#define CONNECTION_MANAGER_MAX_EARLY_SYNC_WARNINGS 16

/**
 * CONNECTION_MANAGER_MAX_ENDS_PER_TURN:
 *
 * How many pipelines are taken down in one turn of the main loop. The others that have ended wait in line.
 */
#define CONNECTION_MANAGER_MAX_ENDS_PER_TURN 1

#define CONNECTION_TYPE_MANAGER (connection_manager_get_type())
G_DECLARE_FINAL_TYPE(ConnectionManager, connection_manager, CONNECTION, MANAGER, GObject)

ConnectionManager *connection_manager_new(GList *src_lists, int fd);

gboolean connection_manager_prepare(ConnectionManager *conn);

void connection_manager_announce_start(ConnectionManager *conn);

void connection_manager_start(ConnectionManager *conn);

G_END_DECLS
