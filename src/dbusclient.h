#pragma once

#include "analyticsproducer.h"

G_BEGIN_DECLS

/**
 * DBUS_CLIENT_MAX_PRODUCERS:
 *
 * How many of the receiver's objects are taken up at a time. Each is a reply to wait for, of which the bus
 * allows a connection 128: this leaves some for the streams.
 */
#define DBUS_CLIENT_MAX_PRODUCERS 96

/**
 * DBUS_CLIENT_MAX_NAME_BYTES:
 *
 * The length of a producer's name.
 */
#define DBUS_CLIENT_MAX_NAME_BYTES 255

/**
 * DBUS_CLIENT_MAX_NICE_NAME_BYTES:
 *
 * The length of a producer's name for display.
 */
#define DBUS_CLIENT_MAX_NICE_NAME_BYTES 1024

/**
 * DBUS_CLIENT_MAX_CHANNELS:
 *
 * How many video channels a producer may support.
 */
#define DBUS_CLIENT_MAX_CHANNELS 256

/**
 * DBUS_CLIENT_MAX_SAMPLE_FRAME_BYTES:
 *
 * The length of a sample frame, in JSON.
 */
#define DBUS_CLIENT_MAX_SAMPLE_FRAME_BYTES 1048576

/**
 * DBUS_CLIENT_MAX_CONVERSIONS:
 *
 * How many sample frames are converted at a time; the others wait.
 */
#define DBUS_CLIENT_MAX_CONVERSIONS 2

/**
 * DBUS_CLIENT_MAX_LOGGED_BYTES:
 *
 * How much of a text that comes from the bus goes into a line of the log.
 */
#define DBUS_CLIENT_MAX_LOGGED_BYTES 512

/**
 * DbusClientFdFunc:
 * @fd: (transfer full): the stream's descriptor, or -1 when the receiver's reply held none
 * @source_name: (transfer none): what dbus_client_connect_producer() was given
 * @user_data: what dbus_client_connect_producer() was given
 *
 * Called in the main thread.
 */
typedef void (*DbusClientFdFunc)(gint fd, const gchar *source_name, gpointer user_data);

gboolean dbus_client_init(AnalyticsProducerList *list);

gboolean dbus_client_connect_producer(const gchar *producer_name, const gchar *source_name, gint channel,
                                      DbusClientFdFunc on_fd, gpointer user_data,
                                      GDestroyNotify user_data_free);

G_END_DECLS
