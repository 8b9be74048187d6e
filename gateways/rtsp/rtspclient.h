/* SPDX-License-Identifier: MIT */
#pragma once

#include <gst/rtsp-server/rtsp-server.h>

/* The server's side of a connection. */

G_BEGIN_DECLS

#define TESSARD_TYPE_RTSP_CLIENT (tessard_rtsp_client_get_type())

G_DECLARE_FINAL_TYPE(TessardRtspClient, tessard_rtsp_client, TESSARD, RTSP_CLIENT, GstRTSPClient)

#define TESSARD_TYPE_RTSP_SERVER (tessard_rtsp_server_get_type())

G_DECLARE_FINAL_TYPE(TessardRtspServer, tessard_rtsp_server, TESSARD, RTSP_SERVER, GstRTSPServer)

G_END_DECLS
