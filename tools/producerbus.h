/* SPDX-License-Identifier: MIT */
#pragma once

#include <gio/gio.h>

/* The functions that connect are for the main thread, the other functions for any. */

/**
 * PRODUCER_BUS_TIMEOUT_SECONDS:
 *
 * The time limit for the connection to the bus, and for the daemon's reply.
 */
#define PRODUCER_BUS_TIMEOUT_SECONDS 30

/**
 * PRODUCER_BUS_SECONDS_PER_CHANGE:
 *
 * The additional time for each channel that a call changes: the daemon writes and syncs its file for each of
 * them before it replies.
 */
#define PRODUCER_BUS_SECONDS_PER_CHANGE 1

/* The group whose members the bus policy lets change producers, beside root. */
#define PRODUCER_BUS_ADMIN_GROUP "tessard-admin"

#define PRODUCER_BUS_NAME "com.quon.MetadataServer1"
#define PRODUCER_BUS_ROOT "/com/quon/MetadataServer1/Producers"
#define PRODUCER_BUS_PRODUCER "com.quon.MetadataServer1.Producer"
#define PRODUCER_BUS_MANAGER "com.quon.MetadataServer1.ProducerManager"
#define PRODUCER_BUS_STATUS_PATH "/com/quon/MetadataServer1/Status"
#define PRODUCER_BUS_STATUS "com.quon.MetadataServer1.Status"
#define PRODUCER_BUS_OBJECT_MANAGER "org.freedesktop.DBus.ObjectManager"

/* The reply of GetManagedObjects, and the interfaces of one object in it. */
#define PRODUCER_BUS_OBJECTS_TYPE G_VARIANT_TYPE("(a{oa{sa{sv}}})")
#define PRODUCER_BUS_INTERFACES_TYPE G_VARIANT_TYPE("a{sa{sv}}")

void producer_bus_connect_async(const gchar *address, GCancellable *cancellable, GAsyncReadyCallback callback,
                                gpointer user_data);
GDBusConnection *producer_bus_connect(const gchar *address, GError **error);
GVariant *producer_bus_call(GDBusConnection *connection, const gchar *path, const gchar *interface,
                            const gchar *method, GVariant *arguments, const GVariantType *reply_type,
                            gsize change_count, GError **error);
gboolean producer_bus_check_type(GVariant *body, const gchar *what, const GVariantType *type, GError **error);
GError *producer_bus_convert_call_failure(const gchar *interface, const GError *cause, guint seconds);
gboolean producer_bus_is_refusal_of_daemon(const GError *error);
GError *producer_bus_convert_failure(const GError *cause, guint seconds);
