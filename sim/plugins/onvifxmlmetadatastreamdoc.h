/* SPDX-License-Identifier: MIT */
#pragma once

#include <gst/gst.h>

G_BEGIN_DECLS

#define TESSARD_SIM_TYPE_METADATA_STREAM_DOC (tessard_sim_metadata_stream_doc_get_type())
G_DECLARE_FINAL_TYPE(TessardSimMetadataStreamDoc, tessard_sim_metadata_stream_doc, TESSARD_SIM,
                     METADATA_STREAM_DOC, GstElement)

G_END_DECLS
