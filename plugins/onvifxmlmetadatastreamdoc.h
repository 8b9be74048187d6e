/* SPDX-License-Identifier: MIT */
#pragma once

#include <gst/gst.h>

G_BEGIN_DECLS

#define TESSARD_TYPE_METADATA_STREAM_DOC (tessard_metadata_stream_doc_get_type())
G_DECLARE_FINAL_TYPE(TessardMetadataStreamDoc, tessard_metadata_stream_doc, TESSARD, METADATA_STREAM_DOC,
                     GstElement)

G_END_DECLS
