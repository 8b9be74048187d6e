/* SPDX-License-Identifier: MIT */
#pragma once

#include "xml.h"

#include <gst/gst.h>

/* The caps and events of elements that produce ONVIF metadata. */

namespace onvif
{

/* Fragments: one complete child element of tt:MetadataStream per buffer. It declares all namespaces that it
 * uses and has neither an XML declaration nor line breaks. */
constexpr const char *FRAGMENT_CAPS = "application/x-onvif-metadata-fragment";

/* Complete tt:MetadataStream documents, one per buffer. */
constexpr const char *DOCUMENT_CAPS = "application/x-onvif-metadata";

GstEvent *sync_point_event_new();
bool is_sync_point_event(GstEvent *event);
GstBuffer *fragment_to_buffer(XmlWriter *writer);

} // namespace onvif
