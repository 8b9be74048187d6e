/* SPDX-License-Identifier: MIT */
#include "rtspserver.h"

#include "mount.h"
#include "rtspauth.h"
#include "rtspclient.h"
#include "rtsplimits.h"
#include "usersfile.h"
#include "videoline.h"

namespace rtsp
{

namespace
{

constexpr const char *ROLE = "client";
constexpr const char *LOOPBACK_INTERFACE = "lo";

constexpr guint CLEAN_UP_SECONDS = 2;

bool
is_loopback(const char *text)
{
  g_autoptr(GInetAddress) address = g_inet_address_new_from_string(text);
  return g_inet_address_get_is_loopback(address) != FALSE;
}

bool
is_any(const char *text)
{
  g_autoptr(GInetAddress) address = g_inet_address_new_from_string(text);
  return g_inet_address_get_is_any(address) != FALSE;
}

bool G_GNUC_PRINTF(2, 3) fail(GError **error, const char *format, ...)
{
  va_list values;
  va_start(values, format);
  g_propagate_error(error, g_error_new_valist(G_OPTION_ERROR, G_OPTION_ERROR_FAILED, format, values));
  va_end(values);
  return false;
}

GstRTSPToken *
new_token()
{
  return gst_rtsp_token_new(GST_RTSP_TOKEN_MEDIA_FACTORY_ROLE, G_TYPE_STRING, ROLE, nullptr);
}

/* Users of the file, or the same rights for clients without a password. */
bool
set_up_users(GstRTSPAuth *auth, const char *users, GError **error)
{
  g_autoptr(GstRTSPToken) token = new_token();
  if (users == nullptr) {
    gst_rtsp_auth_set_default_token(auth, token);
    return true;
  }
  return add_users(auth, users, token, error);
}

bool
set_up_certificate(GstRTSPAuth *auth, const Options &options, GError **error)
{
  if (options.certificate == nullptr) {
    return true;
  }
  g_autoptr(GTlsCertificate) certificate =
      g_tls_certificate_new_from_files(options.certificate, options.key, error);
  if (certificate == nullptr) {
    return false;
  }
  gst_rtsp_auth_set_tls_certificate(auth, certificate);
  return true;
}

/* The video line of a channel, complete; empty for no video. */
std::optional<std::string>
video_of(const Options &options, guint channel, GError **error)
{
  if (options.no_video) {
    return "";
  }
  const guint count = options.videos != nullptr ? g_strv_length(options.videos) : 0;
  const std::string line =
      count > 0 ? std::string(options.videos[MIN(channel, count) - 1]) : default_video_line();
  return complete_video_line(line, error);
}

gboolean
on_clean_up(gpointer user_data)
{
  g_autoptr(GstRTSPSessionPool) sessions =
      gst_rtsp_server_get_session_pool(static_cast<GstRTSPServer *>(user_data));
  gst_rtsp_session_pool_cleanup(sessions);
  return G_SOURCE_CONTINUE;
}

} // namespace

Server::Server()
    : server_(GST_RTSP_SERVER(g_object_new(TESSARD_TYPE_RTSP_SERVER, nullptr))),
      ports_(gst_rtsp_address_pool_new())
{
  g_autoptr(GstRTSPSessionPool) sessions = gst_rtsp_server_get_session_pool(server_);
  g_autoptr(GstRTSPThreadPool) threads = gst_rtsp_server_get_thread_pool(server_);
  gst_rtsp_server_set_backlog(server_, RTSP_CONNECTIONS_MAX);
  gst_rtsp_session_pool_set_max_sessions(sessions, RTSP_SESSIONS_MAX);
  gst_rtsp_thread_pool_set_max_threads(threads, RTSP_THREADS);
  guard_ = std::make_unique<ClientGuard>(server_);
}

/**
 * Server::~Server:
 *
 * The server must not have had clients: the engine's threads can block each other when another thread closes
 * them.
 */
Server::~Server()
{
  g_clear_handle_id(&listener_, g_source_remove);
  g_clear_handle_id(&clean_up_, g_source_remove);
  guard_.reset();
  g_object_unref(server_);
  g_object_unref(ports_);
}

/**
 * Server::set_up:
 * @options: the program's options; they must outlive the server
 * @error: return location for an error, whose message is for the user
 *
 * Returns: %FALSE if an option does not fit this machine
 */
bool
Server::set_up(const Options &options, GError **error)
{
  g_autofree char *port = g_strdup_printf("%d", options.port);
  gst_rtsp_server_set_address(server_, options.address);
  gst_rtsp_server_set_service(server_, port);
  if (gateway::requests_analytics(options.request)) {
    producers_ = std::make_unique<gateway::ProducerFollower>(nullptr);
  }
  request_ = {&options.request, options.socket_path, producers_.get()};
  return set_up_access(options, error) && set_up_ports(options, error) && add_mounts(options, error);
}

/**
 * Server::listen:
 * @error: return location for an error, whose message is for the user
 *
 * Accepts clients from the default main context.
 *
 * Returns: %FALSE if the port is not free
 */
bool
Server::listen(GError **error)
{
  g_autoptr(GSource) source = gst_rtsp_server_create_source(server_, nullptr, error);
  if (source == nullptr) {
    return false;
  }
  listener_ = g_source_attach(source, nullptr);
  clean_up_ = g_timeout_add_seconds(CLEAN_UP_SECONDS, on_clean_up, server_);
  return true;
}

/**
 * Server::address:
 *
 * Returns: the URL of the mounts, with a slash at its end; called after listen()
 */
std::string
Server::address() const
{
  g_autofree char *host = gst_rtsp_server_get_address(server_);
  const std::string shown = strchr(host, ':') != nullptr ? std::string("[") + host + "]" : host;
  return std::string(scheme_) + "://" + shown + ":" +
         std::to_string(gst_rtsp_server_get_bound_port(server_)) + "/";
}

bool
Server::set_up_access(const Options &options, GError **error)
{
  g_autoptr(GstRTSPAuth) auth = GST_RTSP_AUTH(g_object_new(TESSARD_TYPE_RTSP_AUTH, nullptr));
  if (!set_up_users(auth, options.users, error) || !set_up_certificate(auth, options, error)) {
    return false;
  }
  scheme_ = options.certificate != nullptr ? "rtsps" : "rtsp";
  gst_rtsp_server_set_auth(server_, auth);
  return true;
}

/* The ports of media over UDP are at the server's address, too, unless that is all addresses of the machine.
 */
bool
Server::set_up_ports(const Options &options, GError **error)
{
  if (!is_any(options.address) &&
      !gst_rtsp_address_pool_add_range(ports_, options.address, options.address, RTSP_FIRST_MEDIA_PORT,
                                       RTSP_LAST_MEDIA_PORT, 0)) {
    return fail(error, "The address '%s' cannot be used.", options.address);
  }
  if (options.multicast == nullptr) {
    return true;
  }
  g_auto(GStrv) range = g_strsplit(options.multicast, "-", 2);
  const char *first = range[0] != nullptr ? range[0] : "";
  const char *last = range[0] != nullptr && range[1] != nullptr ? range[1] : first;
  return gst_rtsp_address_pool_add_range(ports_, first, last, RTSP_FIRST_MEDIA_PORT, RTSP_LAST_MEDIA_PORT,
                                         static_cast<guint8>(options.ttl)) ||
         fail(error, "The value of --multicast is '%s', not a group or a range of groups.",
              options.multicast);
}

bool
Server::add_mounts(const Options &options, GError **error)
{
  for (guint channel = 1; channel <= static_cast<guint>(options.channels); channel++) {
    if (!add_mount(options, channel, error)) {
      return false;
    }
  }
  return true;
}

bool
Server::add_mount(const Options &options, guint channel, GError **error)
{
  const std::optional<std::string> video = video_of(options, channel, error);
  GstElement *source = video.has_value() ? gateway::new_metadata_source(request_, channel, error) : nullptr;
  if (source == nullptr) {
    return false;
  }
  gst_object_unref(gst_object_ref_sink(source));
  auto *mount = GST_RTSP_MEDIA_FACTORY(new_mount({&request_, channel, *video, options.gzip != FALSE}));
  configure_mount(mount, options);
  g_autoptr(GstRTSPMountPoints) points = gst_rtsp_server_get_mount_points(server_);
  gst_rtsp_mount_points_add_factory(points, ("/" + std::to_string(channel)).c_str(), mount);
  return true;
}

void
Server::configure_mount(GstRTSPMediaFactory *mount, const Options &options)
{
  gst_rtsp_media_factory_set_address_pool(mount, ports_);
  gst_rtsp_media_factory_add_role(mount, ROLE, GST_RTSP_PERM_MEDIA_FACTORY_ACCESS, G_TYPE_BOOLEAN, TRUE,
                                  GST_RTSP_PERM_MEDIA_FACTORY_CONSTRUCT, G_TYPE_BOOLEAN, TRUE, nullptr);
  auto protocols = GST_RTSP_LOWER_TRANS_UDP | GST_RTSP_LOWER_TRANS_TCP;
  if (options.multicast != nullptr) {
    protocols = protocols | GST_RTSP_LOWER_TRANS_UDP_MCAST;
    gst_rtsp_media_factory_set_bind_mcast_address(mount, TRUE);
    gst_rtsp_media_factory_set_max_mcast_ttl(mount, static_cast<guint>(MAX(options.ttl, 1)));
  }
  gst_rtsp_media_factory_set_protocols(mount, static_cast<GstRTSPLowerTrans>(protocols));
  if (is_loopback(options.address)) {
    gst_rtsp_media_factory_set_multicast_iface(mount, LOOPBACK_INTERFACE);
  }
}

} // namespace rtsp
