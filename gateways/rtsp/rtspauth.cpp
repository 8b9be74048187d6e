/* SPDX-License-Identifier: MIT */
#include "rtspauth.h"

#include <cstring>

struct _TessardRtspAuth {
  GstRTSPAuth parent_instance;
};

G_DEFINE_FINAL_TYPE(TessardRtspAuth, tessard_rtsp_auth, GST_TYPE_RTSP_AUTH)

namespace
{

/* A client asks what there is before it sends a password. */
bool
is_open(const GstRTSPContext *context)
{
  return context->method == GST_RTSP_OPTIONS;
}

void
refuse(GstRTSPAuth *auth, GstRTSPContext *context)
{
  gst_rtsp_message_init_response(context->response, GST_RTSP_STS_UNAUTHORIZED,
                                 gst_rtsp_status_as_text(GST_RTSP_STS_UNAUTHORIZED), context->request);
  GST_RTSP_AUTH_GET_CLASS(auth)->generate_authenticate_header(auth, context);
  gst_rtsp_client_send_message(context->client, context->session, context->response);
}

} // namespace

/* The engine asks for a password only where a session begins. The id of a session alone is not enough here.
 */
static gboolean
tessard_rtsp_auth_check(GstRTSPAuth *auth, GstRTSPContext *context, const gchar *check)
{
  if (strcmp(check, GST_RTSP_AUTH_CHECK_URL) == 0 && !is_open(context)) {
    g_autoptr(GstRTSPToken) anyone = gst_rtsp_auth_get_default_token(auth);
    if (anyone == nullptr && context->token == nullptr) {
      GST_RTSP_AUTH_GET_CLASS(auth)->authenticate(auth, context);
    }
    if (anyone == nullptr && context->token == nullptr) {
      refuse(auth, context);
      return FALSE;
    }
  }
  return GST_RTSP_AUTH_CLASS(tessard_rtsp_auth_parent_class)->check(auth, context, check);
}

static void
tessard_rtsp_auth_init(TessardRtspAuth *self)
{
}

static void
tessard_rtsp_auth_class_init(TessardRtspAuthClass *klass)
{
  GST_RTSP_AUTH_CLASS(klass)->check = tessard_rtsp_auth_check;
}
