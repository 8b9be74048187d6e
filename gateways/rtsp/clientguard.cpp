/* SPDX-License-Identifier: MIT */
#include "clientguard.h"

#include "rtsplimits.h"

#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace rtsp
{

namespace
{

/* All bytes that have arrived, also those that were not read yet. */
guint64
count_received(GSocket *socket)
{
  struct tcp_info info = {};
  socklen_t size = sizeof info;
  if (getsockopt(g_socket_get_fd(socket), IPPROTO_TCP, TCP_INFO, &info, &size) != 0) {
    return 0;
  }
  return info.tcpi_bytes_received;
}

} // namespace

/**
 * ClientGuard:
 * @server: the server, whose clients are guarded; it must outlive the guard
 */
ClientGuard::ClientGuard(GstRTSPServer *server)
    : server_(server), sessions_(gst_rtsp_server_get_session_pool(server)),
      connected_(g_signal_connect(server, "client-connected", G_CALLBACK(on_connected), this)),
      removed_(g_signal_connect(sessions_, "session-removed", G_CALLBACK(on_session_removed), this)),
      check_(g_timeout_add(RTSP_CHECK_MS, on_check, this))
{
  g_mutex_init(&lock_);
}

ClientGuard::~ClientGuard()
{
  g_source_remove(check_);
  g_signal_handler_disconnect(server_, connected_);
  g_signal_handler_disconnect(sessions_, removed_);
  g_object_unref(sessions_);
  for (auto &[client, connection] : connections_) {
    g_signal_handlers_disconnect_by_data(client, this);
    g_object_unref(connection.socket);
  }
  g_mutex_clear(&lock_);
}

void
ClientGuard::add(GstRTSPClient *client)
{
  GSocket *socket = gst_rtsp_connection_get_read_socket(gst_rtsp_client_get_connection(client));
  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock_);
    if (connections_.size() >= RTSP_CONNECTIONS_MAX) {
      g_socket_shutdown(socket, TRUE, TRUE, nullptr);
      return;
    }
    Connection &connection = connections_[client];
    connection.socket = G_SOCKET(g_object_ref(socket));
    connection.idle_since_us = g_get_monotonic_time();
  }
  g_signal_connect(client, "new-session", G_CALLBACK(on_new_session), this);
  g_signal_connect(client, "setup-request", G_CALLBACK(on_setup), this);
  g_signal_connect(client, "send-message", G_CALLBACK(on_reply), this);
  g_signal_connect(client, "closed", G_CALLBACK(on_closed), this);
}

/* The engine keeps the sessions of a connection that has closed until they time out. */
void
ClientGuard::remove(GstRTSPClient *client)
{
  std::set<GstRTSPSession *> sessions;
  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock_);
    const auto found = connections_.find(client);
    if (found == connections_.end()) {
      return;
    }
    sessions = found->second.sessions;
    g_object_unref(found->second.socket);
    connections_.erase(found);
  }
  for (GstRTSPSession *session : sessions) {
    gst_rtsp_session_pool_remove(sessions_, session);
  }
}

/* Called with the lock held. */
bool
ClientGuard::must_close(Connection *connection)
{
  const gint64 now_us = g_get_monotonic_time();
  const guint64 received = count_received(connection->socket);
  const bool sends_too_much = received - connection->received > RTSP_UNFINISHED_BYTES_MAX;
  if (connection->carries_media) {
    connection->received = received;
  }
  if (!connection->sessions.empty()) {
    connection->idle_since_us = now_us;
  }
  return sends_too_much || now_us - connection->idle_since_us > RTSP_IDLE_SECONDS * G_TIME_SPAN_SECOND;
}

void
ClientGuard::check()
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock_);
  for (auto &[client, connection] : connections_) {
    if (must_close(&connection)) {
      g_socket_shutdown(connection.socket, TRUE, TRUE, nullptr);
    }
  }
}

void
ClientGuard::on_connected(GstRTSPServer *server, GstRTSPClient *client, gpointer user_data)
{
  static_cast<ClientGuard *>(user_data)->add(client);
}

void
ClientGuard::on_closed(GstRTSPClient *client, gpointer user_data)
{
  static_cast<ClientGuard *>(user_data)->remove(client);
}

void
ClientGuard::on_new_session(GstRTSPClient *client, GstRTSPSession *session, gpointer user_data)
{
  auto *self = static_cast<ClientGuard *>(user_data);
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&self->lock_);
  const auto found = self->connections_.find(client);
  if (found != self->connections_.end()) {
    found->second.sessions.insert(session);
  }
}

void
ClientGuard::on_session_removed(GstRTSPSessionPool *pool, GstRTSPSession *session, gpointer user_data)
{
  auto *self = static_cast<ClientGuard *>(user_data);
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&self->lock_);
  for (auto &[client, connection] : self->connections_) {
    connection.sessions.erase(session);
  }
}

void
ClientGuard::on_setup(GstRTSPClient *client, GstRTSPContext *context, gpointer user_data)
{
  auto *self = static_cast<ClientGuard *>(user_data);
  const GstRTSPTransport *transport = gst_rtsp_stream_transport_get_transport(context->trans);
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&self->lock_);
  const auto found = self->connections_.find(client);
  if (found != self->connections_.end() && transport->lower_transport == GST_RTSP_LOWER_TRANS_TCP) {
    found->second.carries_media = true;
  }
}

void
ClientGuard::on_reply(GstRTSPClient *client, GstRTSPContext *context, GstRTSPMessage *reply,
                      gpointer user_data)
{
  auto *self = static_cast<ClientGuard *>(user_data);
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&self->lock_);
  const auto found = self->connections_.find(client);
  if (found != self->connections_.end()) {
    found->second.received = count_received(found->second.socket);
  }
}

gboolean
ClientGuard::on_check(gpointer user_data)
{
  static_cast<ClientGuard *>(user_data)->check();
  return G_SOURCE_CONTINUE;
}

} // namespace rtsp
