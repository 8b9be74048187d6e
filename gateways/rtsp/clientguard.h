/* SPDX-License-Identifier: MIT */
#pragma once

#include <gst/rtsp-server/rtsp-server.h>
#include <set>
#include <unordered_map>

namespace rtsp
{

/* Closes connections that are too many, idle, or send what is no request. The engine reads all that a client
 * sends, without a bound for the headers of a request.
 *
 * Threads: clients are handled on several threads, whose signals take the lock; the checks are on the main
 * thread. A connection is shut down, and closed by its own thread. */
class ClientGuard
{
public:
  explicit ClientGuard(GstRTSPServer *server);
  ~ClientGuard();
  ClientGuard(const ClientGuard &) = delete;
  ClientGuard &operator=(const ClientGuard &) = delete;

private:
  struct Connection {
    GSocket *socket;
    guint64 received = 0;                /* up to the last complete request */
    std::set<GstRTSPSession *> sessions; /* that began on it; those in the pool, which has a reference */
    gint64 idle_since_us = 0;            /* when it was seen with a session last */
    bool carries_media = false;
  };

  void add(GstRTSPClient *client);
  void remove(GstRTSPClient *client);
  void check();
  static bool must_close(Connection *connection);
  static void on_connected(GstRTSPServer *server, GstRTSPClient *client, gpointer user_data);
  static void on_closed(GstRTSPClient *client, gpointer user_data);
  static void on_new_session(GstRTSPClient *client, GstRTSPSession *session, gpointer user_data);
  static void on_session_removed(GstRTSPSessionPool *pool, GstRTSPSession *session, gpointer user_data);
  static void on_setup(GstRTSPClient *client, GstRTSPContext *context, gpointer user_data);
  static void on_reply(GstRTSPClient *client, GstRTSPContext *context, GstRTSPMessage *reply,
                       gpointer user_data);
  static gboolean on_check(gpointer user_data);

  GstRTSPServer *server_;
  GstRTSPSessionPool *sessions_;
  gulong connected_;
  gulong removed_;
  guint check_;
  GMutex lock_; /* protects the table */
  std::unordered_map<GstRTSPClient *, Connection> connections_;
};

} // namespace rtsp
