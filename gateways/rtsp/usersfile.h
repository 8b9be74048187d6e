/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>
#include <gst/rtsp-server/rtsp-server.h>

/* The users who may connect, and digests of their passwords. */

namespace rtsp
{

bool add_users(GstRTSPAuth *auth, const char *path, GstRTSPToken *token, GError **error);

} // namespace rtsp
