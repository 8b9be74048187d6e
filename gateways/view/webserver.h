/* SPDX-License-Identifier: MIT */
#pragma once

#include "channelfeed.h"
#include "connection.h"
#include "listener.h"
#include "producerservice.h"
#include "videofeed.h"
#include "viewoptions.h"

#include <libsoup/soup.h>
#include <list>
#include <map>

namespace view
{

/* A request of which the engine has read the head. */
struct Request {
  SoupServerMessage *message;
  std::string path;
  std::string method;
  GHashTable *query; /* NULL without one */
};

/* The server: the page, and for each channel a stream of events and a video. All functions are for the main
 * thread. */
class WebServer
{
public:
  WebServer();
  ~WebServer();
  WebServer(const WebServer &) = delete;
  WebServer &operator=(const WebServer &) = delete;

  bool set_up(const Options &options, GError **error);
  bool listen(GError **error);
  std::string address() const;
  std::string fragment() const;

private:
  struct Route;
  using Answer = void (WebServer::*)(Connection *connection, const Request &request);

  bool add_videos(const Options &options, GError **error);
  bool make_token(GError **error);
  void accept(GSocketConnection *socket_connection);
  bool make_room();
  void sweep();
  Text refuse_sender(const Request &request) const;
  Text refuse_switch(const Request &request) const;
  void take(const Request &request, Answer handle);
  void route(Connection *connection, const Request &request);
  void answer(Connection *connection, const Request &request, const Text &text);
  void answer_page(Connection *connection, const Request &request);
  void answer_info(Connection *connection, const Request &request);
  void answer_stream(Connection *connection, const Request &request);
  void answer_video(Connection *connection, const Request &request);
  void answer_switch(Connection *connection, const Request &request);
  void switch_producer(Connection *connection, const Request &request);
  void show_producers();
  void send_to_streams(const std::string &key, const Text &text);
  static void on_request_started(SoupServer *server, SoupServerMessage *message, gpointer user_data);
  static void on_head(SoupServer *server, SoupServerMessage *message, const char *path, GHashTable *query,
                      gpointer user_data);
  static void on_body(SoupServer *server, SoupServerMessage *message, const char *path, GHashTable *query,
                      gpointer user_data);
  static void on_closed(gpointer user_data);
  static gboolean on_sweep(gpointer user_data);
  static gboolean on_check(gpointer user_data);
  static gboolean on_comment(gpointer user_data);

  const Options *options_ = nullptr;
  std::unique_ptr<ProducerService> producers_; /* once the server listens */
  gateway::MetadataRequest request_ = {};
  std::string token_;
  std::map<guint, std::unique_ptr<ChannelFeed>> feeds_;
  std::map<guint, std::unique_ptr<VideoFeed>> videos_;
  std::unique_ptr<Listener> listener_;
  std::list<std::unique_ptr<Connection>> connections_; /* the oldest first */
  SoupServer *server_;
  guint port_ = 0;
  guint sweep_ = 0;
  guint check_ = 0;
  guint comment_ = 0;
};

} // namespace view
