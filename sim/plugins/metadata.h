#pragma once

#include <gst/gst.h>

/* What the simulated camera's elements agree on among themselves and with those who use them. */

namespace sim
{

/* What every source of metadata produces: one complete child element of tt:MetadataStream per buffer. It
 * declares all namespaces that it uses and has neither an XML declaration nor line breaks. */
constexpr const char *FRAGMENT_CAPS = "application/x-onvif-metadata-fragment";

/* Complete tt:MetadataStream documents, one per buffer. */
constexpr const char *DOCUMENT_CAPS = "application/x-onvif-metadata";

/* No element tells of times before 1970 or, in microseconds since then, after the end of 2099. With the
 * fastest speed, the world's time then stays within 64 bits. */
constexpr gint64 LATEST_UTC = G_GINT64_CONSTANT(4102444799) * G_USEC_PER_SEC;

/* Characters of a source's name that are used. */
constexpr glong SOURCE_NAME_MAX = 1024;

GstEvent *sync_point_event_new();
bool is_sync_point_event(GstEvent *event);

} /* namespace sim */
