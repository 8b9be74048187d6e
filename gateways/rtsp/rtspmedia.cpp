/* SPDX-License-Identifier: MIT */
#include "rtspmedia.h"

#include <cstring>

struct _TessardRtspMedia {
  GstRTSPMedia parent_instance;
};

enum {
  SIGNAL_ENDING,
  N_SIGNALS,
};

static guint signals[N_SIGNALS];

G_DEFINE_FINAL_TYPE(TessardRtspMedia, tessard_rtsp_media, GST_TYPE_RTSP_MEDIA)

namespace
{

constexpr const char *RTPMAP = "rtpmap";

/* Encoding names have no case, but some clients compare them with those of ONVIF, which are in lower case. */
void
write_encoding_in_lower_case(GstSDPMedia *media)
{
  for (guint i = 0; i < gst_sdp_media_attributes_len(media); i++) {
    const GstSDPAttribute *attribute = gst_sdp_media_get_attribute(media, i);
    if (strcmp(attribute->key, RTPMAP) == 0) {
      g_autofree char *value = g_ascii_strdown(attribute->value, -1);
      GstSDPAttribute replacement = {};
      gst_sdp_attribute_set(&replacement, RTPMAP, value);
      gst_sdp_media_replace_attribute(media, i, &replacement);
    }
  }
}

} // namespace

static gboolean
tessard_rtsp_media_setup_sdp(GstRTSPMedia *media, GstSDPMessage *sdp, GstSDPInfo *info)
{
  if (!GST_RTSP_MEDIA_CLASS(tessard_rtsp_media_parent_class)->setup_sdp(media, sdp, info)) {
    return FALSE;
  }
  for (guint i = 0; i < gst_sdp_message_medias_len(sdp); i++) {
    auto *described = const_cast<GstSDPMedia *>(gst_sdp_message_get_media(sdp, i));
    if (g_strcmp0(gst_sdp_media_get_media(described), "application") == 0) {
      write_encoding_in_lower_case(described);
    }
  }
  return TRUE;
}

static gboolean
tessard_rtsp_media_unprepare(GstRTSPMedia *media)
{
  g_signal_emit(media, signals[SIGNAL_ENDING], 0);
  return GST_RTSP_MEDIA_CLASS(tessard_rtsp_media_parent_class)->unprepare(media);
}

static void
tessard_rtsp_media_init(TessardRtspMedia *self)
{
}

static void
tessard_rtsp_media_class_init(TessardRtspMediaClass *klass)
{
  GST_RTSP_MEDIA_CLASS(klass)->unprepare = tessard_rtsp_media_unprepare;
  GST_RTSP_MEDIA_CLASS(klass)->setup_sdp = tessard_rtsp_media_setup_sdp;

  /* TessardRtspMedia::ending: the last client has left; GstRTSPMedia::unprepared follows. */
  signals[SIGNAL_ENDING] = g_signal_new("ending", TESSARD_TYPE_RTSP_MEDIA, G_SIGNAL_RUN_LAST, 0, nullptr,
                                        nullptr, nullptr, G_TYPE_NONE, 0);
}
