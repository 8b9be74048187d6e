/* SPDX-License-Identifier: MIT */
#pragma once

#include "metadatafeed.h"

#include <gst/rtsp-server/rtsp-server.h>

/* One mount: the tracks of a video channel, which all its clients share. */

G_BEGIN_DECLS

#define TESSARD_TYPE_MOUNT (tessard_mount_get_type())

G_DECLARE_FINAL_TYPE(TessardMount, tessard_mount, TESSARD, MOUNT, GstRTSPMediaFactory)

G_END_DECLS

namespace rtsp
{

struct MountSettings {
  const gateway::MetadataRequest *request; /* outlives the mount */
  guint channel;
  std::string video_line; /* complete; empty for no video */
  bool is_gzip;
};

TessardMount *new_mount(const MountSettings &settings);
void end_request(GstRTSPClient *client);
void play_media(GstRTSPMedia *media);

} // namespace rtsp
