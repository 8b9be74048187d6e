/* SPDX-License-Identifier: MIT */
#pragma once

#include "clientrecord.h"

#include <gst/gst.h>

G_BEGIN_DECLS

/**
 * CONNECTION_MANAGER_MAX_PENDING_SYNC_POINTS:
 *
 * The number of a client's sync points that can wait for delivery. Further ones have no additional effect,
 * and are dropped.
 */
#define CONNECTION_MANAGER_MAX_PENDING_SYNC_POINTS 16

/**
 * CONNECTION_MANAGER_MAX_EARLY_SYNC_WARNINGS:
 *
 * The number of warnings about sync points that one client requests before its stream has started. All such
 * sync points are refused.
 */
#define CONNECTION_MANAGER_MAX_EARLY_SYNC_WARNINGS 16

/**
 * CONNECTION_MANAGER_MAX_ENDS_PER_TURN:
 *
 * The number of pipelines that are torn down in one turn of the main loop. Others wait in a queue.
 */
#define CONNECTION_MANAGER_MAX_ENDS_PER_TURN 1

/**
 * ConnectionManager:
 *
 * The pipeline of one client. Any thread can call the functions of this component, except
 * connection_manager_prepare(), which blocks and must not be called on the main thread.
 */
#define CONNECTION_TYPE_MANAGER (connection_manager_get_type())
G_DECLARE_FINAL_TYPE(ConnectionManager, connection_manager, CONNECTION, MANAGER, GObject)

ConnectionManager *connection_manager_new(GList *src_lists, int fd);

void connection_manager_set_record(ConnectionManager *conn, ClientRecord *record);

gboolean connection_manager_prepare(ConnectionManager *conn);

void connection_manager_announce_start(ConnectionManager *conn);

void connection_manager_start(ConnectionManager *conn);

G_END_DECLS
