/* SPDX-License-Identifier: MIT */
#include "rtspclient.h"

#include "mount.h"
#include "rtsplimits.h"

#include <cstring>

struct _TessardRtspClient {
  GstRTSPClient parent_instance;
};

struct _TessardRtspServer {
  GstRTSPServer parent_instance;
};

G_DEFINE_FINAL_TYPE(TessardRtspClient, tessard_rtsp_client, GST_TYPE_RTSP_CLIENT)
G_DEFINE_FINAL_TYPE(TessardRtspServer, tessard_rtsp_server, GST_TYPE_RTSP_SERVER)

namespace
{

constexpr const char *TRACK = "/stream=";

constexpr guint SESSION_METHODS = GST_RTSP_PLAY | GST_RTSP_PAUSE | GST_RTSP_TEARDOWN;

} // namespace

/* Some clients send the requests for a session to the URL of a track. They mean the whole session, as do
 * those to the URL of the mount. */
static char *
tessard_rtsp_client_make_path_from_uri(GstRTSPClient *client, const GstRTSPUrl *url)
{
  char *path = GST_RTSP_CLIENT_CLASS(tessard_rtsp_client_parent_class)->make_path_from_uri(client, url);
  const GstRTSPContext *context = gst_rtsp_context_get_current();
  char *track =
      context != nullptr && (context->method & SESSION_METHODS) != 0 ? strstr(path, TRACK) : nullptr;
  if (track != nullptr) {
    *track = '\0';
  }
  return path;
}

/* The client's tracks have started. */
static void
tessard_rtsp_client_play_request(GstRTSPClient *client, GstRTSPContext *context)
{
  rtsp::play_media(context->media);
}

static void
tessard_rtsp_client_new_session(GstRTSPClient *client, GstRTSPSession *session)
{
  gst_rtsp_session_set_timeout(session, RTSP_SESSION_SECONDS);
}

static void
tessard_rtsp_client_send_message(GstRTSPClient *client, GstRTSPContext *context, GstRTSPMessage *reply)
{
  rtsp::end_request(client);
}

static void
tessard_rtsp_client_init(TessardRtspClient *self)
{
  gst_rtsp_client_set_content_length_limit(GST_RTSP_CLIENT(self), RTSP_BODY_BYTES_MAX);
}

static void
tessard_rtsp_client_class_init(TessardRtspClientClass *klass)
{
  GstRTSPClientClass *client_class = GST_RTSP_CLIENT_CLASS(klass);
  client_class->make_path_from_uri = tessard_rtsp_client_make_path_from_uri;
  client_class->play_request = tessard_rtsp_client_play_request;
  client_class->send_message = tessard_rtsp_client_send_message;
  client_class->new_session = tessard_rtsp_client_new_session;
}

static GstRTSPClient *
tessard_rtsp_server_create_client(GstRTSPServer *server)
{
  auto *client = GST_RTSP_CLIENT(g_object_new(TESSARD_TYPE_RTSP_CLIENT, nullptr));
  g_autoptr(GstRTSPSessionPool) sessions = gst_rtsp_server_get_session_pool(server);
  g_autoptr(GstRTSPMountPoints) mounts = gst_rtsp_server_get_mount_points(server);
  g_autoptr(GstRTSPAuth) auth = gst_rtsp_server_get_auth(server);
  g_autoptr(GstRTSPThreadPool) threads = gst_rtsp_server_get_thread_pool(server);
  gst_rtsp_client_set_session_pool(client, sessions);
  gst_rtsp_client_set_mount_points(client, mounts);
  gst_rtsp_client_set_auth(client, auth);
  gst_rtsp_client_set_thread_pool(client, threads);
  return client;
}

static void
tessard_rtsp_server_init(TessardRtspServer *self)
{
}

static void
tessard_rtsp_server_class_init(TessardRtspServerClass *klass)
{
  GST_RTSP_SERVER_CLASS(klass)->create_client = tessard_rtsp_server_create_client;
}
