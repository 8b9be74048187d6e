/* SPDX-License-Identifier: MIT */
#pragma once

#include <gst/gst.h>

G_BEGIN_DECLS

#define TESSARD_TYPE_JSON_TO_XML (tessard_json_to_xml_get_type())
G_DECLARE_FINAL_TYPE(TessardJsonToXml, tessard_json_to_xml, TESSARD, JSON_TO_XML, GstElement)

G_END_DECLS
