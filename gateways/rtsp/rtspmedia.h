/* SPDX-License-Identifier: MIT */
#pragma once

#include <gst/rtsp-server/rtsp-server.h>

/* The media of a mount, with a session description in the words of ONVIF. */

G_BEGIN_DECLS

#define TESSARD_TYPE_RTSP_MEDIA (tessard_rtsp_media_get_type())

G_DECLARE_FINAL_TYPE(TessardRtspMedia, tessard_rtsp_media, TESSARD, RTSP_MEDIA, GstRTSPMedia)

G_END_DECLS
