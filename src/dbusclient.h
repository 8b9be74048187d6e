#pragma once

#include "analyticsproducerlist.h"

#include <gio/gio.h>

G_BEGIN_DECLS

/**
 * DBUS_CLIENT_MAX_OBJECTS:
 *
 * How many of the receiver's objects are in the table at a time.
 */
#define DBUS_CLIENT_MAX_OBJECTS 1024

/**
 * DBUS_CLIENT_MAX_PRODUCERS:
 *
 * How many of these objects are producers or become producers; the others wait until one of these leaves.
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
 * @fd: (transfer full): the stream's descriptor, or -1 when the receiver's reply held none
 * @source_name: (transfer none): what dbus_client_connect_producer() was given
 * @user_data: what dbus_client_connect_producer() was given
 *
 * Called on the main thread.
 */
typedef void (*DbusClientFdFunc)(gint fd, const gchar *source_name, gpointer user_data);

void dbus_client_init(AnalyticsProducerList *list);

gboolean dbus_client_connect_producer(const gchar *producer_name, const gchar *source_name, gint channel,
                                      GCancellable *cancellable, DbusClientFdFunc on_fd, gpointer user_data,
                                      GDestroyNotify user_data_free);

void dbus_client_teardown(void);

G_END_DECLS
