/* SPDX-License-Identifier: MIT */
#pragma once

#include <gst/rtsp-server/rtsp-server.h>

/* The access of clients. */

G_BEGIN_DECLS

#define TESSARD_TYPE_RTSP_AUTH (tessard_rtsp_auth_get_type())

G_DECLARE_FINAL_TYPE(TessardRtspAuth, tessard_rtsp_auth, TESSARD, RTSP_AUTH, GstRTSPAuth)

G_END_DECLS
