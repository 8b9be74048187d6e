/* SPDX-License-Identifier: MIT */
#pragma once

#include "analyticsproducerlist.h"

#include <gio/gio.h>

G_BEGIN_DECLS

/**
 * DBUS_CLIENT_MAX_OBJECTS:
 *
 * The number of the receiver's objects that are in the table at a time.
 */
#define DBUS_CLIENT_MAX_OBJECTS 1024

/**
 * DBUS_CLIENT_MAX_PRODUCERS:
 *
 * The number of these objects that are producers or become producers at a time. The others wait until one of
 * these is removed.
 */
#define DBUS_CLIENT_MAX_PRODUCERS 96

/**
 * DBUS_CLIENT_MAX_SAMPLE_FRAME_BYTES:
 *
 * The longest length of a sample frame in JSON.
 */
#define DBUS_CLIENT_MAX_SAMPLE_FRAME_BYTES 1048576

/**
 * DBUS_CLIENT_MAX_XML_BYTES:
 *
 * The longest length of a sample frame in XML.
 */
#define DBUS_CLIENT_MAX_XML_BYTES 262144

/**
 * DBUS_CLIENT_MAX_XML_BYTES_IN_ALL:
 *
 * The longest length of all listed producers' sample frames in XML together. One message of the control
 * service has all of them, and the bus disconnects the sender of a message of more than 32 MiB.
 */
#define DBUS_CLIENT_MAX_XML_BYTES_IN_ALL 8388608

/**
 * DbusClientFdFunc:
 * @fd: (transfer full): the stream's descriptor, or -1 when the receiver's reply has none
 * @source_name: (transfer none): the name that was passed to dbus_client_connect_producer()
 * @user_data: the data that was passed to dbus_client_connect_producer()
 *
 * Called on the main thread.
 *
 * The functions of this component are for the main thread, except dbus_client_connect_producer(), which any
 * thread can call.
 */
typedef void (*DbusClientFdFunc)(gint fd, const gchar *source_name, gpointer user_data);

void dbus_client_init(AnalyticsProducerList *list);

gboolean dbus_client_connect_producer(const gchar *producer_name, const gchar *source_name, gint channel,
                                      GCancellable *cancellable, DbusClientFdFunc on_fd, gpointer user_data,
                                      GDestroyNotify user_data_free);

void dbus_client_teardown(void);

G_END_DECLS
