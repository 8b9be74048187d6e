/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

G_BEGIN_DECLS

/**
 * GDP_READER_MAX_DOCUMENT_BYTES:
 *
 * The number of bytes that the daemon can send without completing a document. A longer document is malformed.
 */
#define GDP_READER_MAX_DOCUMENT_BYTES (64 * 1024 * 1024)

/**
 * GDP_READER_MAX_CAPS_BYTES:
 *
 * The maximum length of the stream's caps.
 */
#define GDP_READER_MAX_CAPS_BYTES 4096

/**
 * GDP_READER_MEDIA_TYPE:
 *
 * The media type of the stream's caps.
 */
#define GDP_READER_MEDIA_TYPE "application/x-onvif-metadata"

/**
 * GdpReader:
 *
 * The position in a stream of the GStreamer data protocol. Any thread can call the functions of this
 * component, one at a time for one reader.
 */
typedef struct GdpReader GdpReader;

GdpReader *gdp_reader_new(void);
void gdp_reader_free(GdpReader *self);
gboolean gdp_reader_take(GdpReader *self, const guint8 *data, gsize size, gsize *taken, GBytes **document,
                         GError **error);
const gchar *gdp_reader_get_caps(const GdpReader *self);

G_DEFINE_AUTOPTR_CLEANUP_FUNC(GdpReader, gdp_reader_free)

G_END_DECLS
