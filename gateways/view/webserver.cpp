/* SPDX-License-Identifier: MIT */
/* The engine reads requests and no more: each connection has one request, and replies are the connection's
 * own, which bounds what waits for a client and for how long.
 */
#include "webserver.h"

#include "httpreply.h"
#include "page.h"
#include "pictureline.h"
#include "requestcheck.h"
#include "viewlimits.h"

#include <algorithm>
#include <array>

namespace view
{

namespace
{

constexpr const char *CONNECTION_KEY = "tessard-view-connection";
constexpr const char *JSON = "application/json";

/* The engine takes any address, and hands it on with the message. */
constexpr const char *ANY_ADDRESS = "127.0.0.1";

/* Returns: (nullable): the header; of several with the name, all together */
const char *
header(const Request &request, const char *name)
{
  return soup_message_headers_get_list(soup_server_message_get_request_headers(request.message), name);
}

Connection *
connection_of(SoupServerMessage *message)
{
  GSocketAddress *address = soup_server_message_get_remote_address(message);
  return static_cast<Connection *>(g_object_get_data(G_OBJECT(address), CONNECTION_KEY));
}

/* Returns: the channels, with commas between them */
template <typename Feeds>
std::string
channels_of(const Feeds &feeds)
{
  std::string channels;
  for (const auto &[channel, feed] : feeds) {
    channels += (channels.empty() ? "" : ",") + std::to_string(channel);
  }
  return channels;
}

template <typename Feeds>
auto *
find_feed(const Feeds &feeds, const Request &request)
{
  const auto *text = request.query == nullptr
                         ? nullptr
                         : static_cast<const char *>(g_hash_table_lookup(request.query, "channel"));
  const auto found = feeds.find(parse_channel(text).value_or(0));
  return found != feeds.end() ? found->second.get() : nullptr;
}

} // namespace

struct WebServer::Route {
  const char *path;
  const char *methods; /* for the header Allow */
  Answer answer;
};

WebServer::WebServer() : server_(soup_server_new(nullptr, nullptr))
{
  g_signal_connect(server_, "request-started", G_CALLBACK(on_request_started), this);
  soup_server_add_early_handler(server_, nullptr, on_head, this, nullptr);
  soup_server_add_handler(server_, nullptr, on_body, this, nullptr);
}

WebServer::~WebServer()
{
  g_clear_handle_id(&sweep_, g_source_remove);
  g_clear_handle_id(&check_, g_source_remove);
  g_clear_handle_id(&comment_, g_source_remove);
  listener_.reset();
  soup_server_disconnect(server_);
  g_object_unref(server_);
}

/**
 * WebServer::set_up:
 * @options: the program's options; they must outlive the server
 * @error: return location for an error, whose message is for the user
 *
 * Returns: whether the options are valid
 */
bool
WebServer::set_up(const Options &options, GError **error)
{
  options_ = &options;
  request_ = {&options.request, options.socket_path};
  if (!add_videos(options, error)) {
    return false;
  }
  for (guint channel = 1; channel <= static_cast<guint>(options.channels); channel++) {
    feeds_.emplace(channel, std::make_unique<ChannelFeed>(&request_, channel));
  }
  GstElement *source = gateway::new_metadata_source(request_, 1, error);
  if (source == nullptr) {
    return false;
  }
  gst_object_unref(gst_object_ref_sink(source));
  return !options.control || make_token(error);
}

bool
WebServer::make_token(GError **error)
{
  token_ = new_token();
  if (!token_.empty()) {
    return true;
  }
  g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_FAILED, "The system has no random numbers.");
  return false;
}

bool
WebServer::add_videos(const Options &options, GError **error)
{
  for (guint channel = 1; options.videos != nullptr && options.videos[channel - 1] != nullptr; channel++) {
    const std::optional<std::string> line = complete_picture_line(options.videos[channel - 1], error);
    if (!line.has_value()) {
      return false;
    }
    videos_.emplace(channel, std::make_unique<VideoFeed>(channel, *line));
  }
  return true;
}

/**
 * WebServer::listen:
 * @error: return location for an error, whose message is for the user
 *
 * Serves from now on, when the main loop runs.
 *
 * Returns: whether the address is free
 */
bool
WebServer::listen(GError **error)
{
  listener_ = std::make_unique<Listener>([this](GSocketConnection *connection) { accept(connection); });
  const bool is_listening = options_->listen_path != nullptr
                                ? listener_->listen_at_path(options_->listen_path, error)
                                : listener_->listen_at_port(static_cast<guint>(options_->port), error);
  if (!is_listening) {
    return false;
  }
  port_ = listener_->port();
  producers_ = std::make_unique<ProducerService>(options_->bus_address, [this]() { show_producers(); });
  if (gateway::requests_analytics(options_->request)) {
    request_.producers = producers_->follower();
  }
  check_ = g_timeout_add_seconds(1, on_check, this);
  comment_ = g_timeout_add_seconds(VIEW_COMMENT_SECONDS, on_comment, this);
  return true;
}

/**
 * WebServer::address:
 *
 * Returns: the address for a browser, or the path of the UNIX socket
 */
std::string
WebServer::address() const
{
  return options_->listen_path != nullptr ? "unix:" + std::string(options_->listen_path)
                                          : "http://127.0.0.1:" + std::to_string(port_) + "/";
}

/**
 * WebServer::fragment:
 *
 * Returns: what follows the address in a browser, which keeps it to itself: the token; empty without one
 */
std::string
WebServer::fragment() const
{
  return token_.empty() ? "" : "#token=" + token_;
}

void
WebServer::accept(GSocketConnection *socket_connection)
{
  if (connections_.size() >= VIEW_CONNECTIONS_MAX && !make_room()) {
    return;
  }
  connections_.push_back(std::make_unique<Connection>(socket_connection, on_closed, this));
  Connection *connection = connections_.back().get();
  g_autoptr(GSocketAddress) local = g_inet_socket_address_new_from_string(ANY_ADDRESS, 0);
  g_autoptr(GSocketAddress) remote = g_inet_socket_address_new_from_string(ANY_ADDRESS, 0);
  g_object_set_data(G_OBJECT(remote), CONNECTION_KEY, connection);
  soup_server_accept_iostream(server_, connection->engine_stream(), local, remote, nullptr);
}

/* A connection that ends stays until the engine has seen it.
 *
 * Returns: whether there is room for another connection */
bool
WebServer::make_room()
{
  const auto is_active = [](const std::unique_ptr<Connection> &connection) {
    return connection->is_active();
  };
  const auto waits = [](const std::unique_ptr<Connection> &connection) {
    return connection->is_reading_request();
  };
  if (std::count_if(connections_.begin(), connections_.end(), is_active) < VIEW_CONNECTIONS_MAX) {
    return connections_.size() < 2 * VIEW_CONNECTIONS_MAX;
  }
  const auto oldest = std::find_if(connections_.begin(), connections_.end(), waits);
  if (oldest == connections_.end()) {
    return false;
  }
  (*oldest)->shut_down();
  return true;
}

/* Deletes connections that have closed. */
void
WebServer::sweep()
{
  for (auto position = connections_.begin(); position != connections_.end();) {
    const auto connection = position++;
    if (!(*connection)->is_closed()) {
      continue;
    }
    for (const auto &[channel, feed] : feeds_) {
      feed->remove(connection->get());
    }
    for (const auto &[channel, video] : videos_) {
      video->remove(connection->get());
    }
    connections_.erase(connection);
  }
}

void
WebServer::send_to_streams(const std::string &key, const Text &text)
{
  for (const auto &[channel, feed] : feeds_) {
    feed->send(key, text);
  }
}

void
WebServer::show_producers()
{
  send_to_streams("producers", producers_->text());
}

/* Returns: (nullable): the refusal of a request that another site can have made; %NULL if it is none */
Text
WebServer::refuse_sender(const Request &request) const
{
  if (options_->listen_path == nullptr && !is_own_host(header(request, "Host"), port_)) {
    return http_error(SOUP_STATUS_FORBIDDEN, "The request is for another host.", {});
  }
  if (request.path != "/" && !is_own_site(header(request, "Sec-Fetch-Site"))) {
    return http_error(SOUP_STATUS_FORBIDDEN, "The request comes from another site.", {});
  }
  return nullptr;
}

/* Returns: (nullable): the refusal of a switch; %NULL if its body may be read */
Text
WebServer::refuse_switch(const Request &request) const
{
  if (token_.empty()) {
    return http_error(SOUP_STATUS_FORBIDDEN, "The server runs without --control.", {});
  }
  if (!is_own_origin(header(request, "Origin"), header(request, "Host"))) {
    return http_error(SOUP_STATUS_FORBIDDEN, "The request comes from another site.", {});
  }
  if (!is_authorized(header(request, "Authorization"), token_)) {
    return http_error(SOUP_STATUS_UNAUTHORIZED, "The token is missing or wrong.", {});
  }
  SoupMessageHeaders *headers = soup_server_message_get_request_headers(request.message);
  if (g_strcmp0(soup_message_headers_get_content_type(headers, nullptr), JSON) != 0) {
    return http_error(SOUP_STATUS_UNSUPPORTED_MEDIA_TYPE, "The content type is not application/json.", {});
  }
  if (soup_message_headers_get_encoding(headers) != SOUP_ENCODING_CONTENT_LENGTH) {
    return http_error(SOUP_STATUS_LENGTH_REQUIRED, "The length of the body is not known.", {});
  }
  if (soup_message_headers_get_content_length(headers) > VIEW_BODY_BYTES_MAX) {
    return http_error(SOUP_STATUS_REQUEST_ENTITY_TOO_LARGE, "The body is too long.", {});
  }
  return nullptr;
}

void
WebServer::route(Connection *connection, const Request &request)
{
  static constexpr std::array ROUTES = {
      Route{"/info", "GET, HEAD", &WebServer::answer_info},
      Route{"/stream", "GET", &WebServer::answer_stream},
      Route{"/video", "GET", &WebServer::answer_video},
      Route{"/producers", "POST", &WebServer::answer_switch},
  };
  static constexpr Route PAGE = {"/", "GET, HEAD", &WebServer::answer_page};
  const Text refusal = refuse_sender(request);
  if (refusal != nullptr) {
    answer(connection, request, refusal);
    return;
  }
  const auto *found = std::find_if(ROUTES.begin(), ROUTES.end(),
                                   [&request](const Route &route) { return request.path == route.path; });
  const Route &route = found != ROUTES.end() ? *found : PAGE;
  g_auto(GStrv) methods = g_strsplit(route.methods, ", ", -1);
  if (!g_strv_contains(methods, request.method.c_str())) {
    answer(connection, request,
           http_error(SOUP_STATUS_METHOD_NOT_ALLOWED, "The method is not allowed here.", route.methods));
    return;
  }
  (this->*route.answer)(connection, request);
}

/* Sends a reply. The message is released. */
void
WebServer::answer(Connection *connection, const Request &request, const Text &text)
{
  const bool is_head_only = request.method == "HEAD";
  connection->take_over(soup_server_message_steal_connection(request.message));
  connection->reply(is_head_only ? http_head(text) : text);
}

void
WebServer::answer_page(Connection *connection, const Request &request)
{
  const Text file = page_file(request.path);
  answer(connection, request,
         file != nullptr ? file : http_error(SOUP_STATUS_NOT_FOUND, "There is no such page.", {}));
}

void
WebServer::answer_info(Connection *connection, const Request &request)
{
  const std::string json = "{\"version\":\"" TESSARD_VERSION "\",\"channels\":[" + channels_of(feeds_) +
                           "],\"video\":[" + channels_of(videos_) +
                           "],\"control\":" + (token_.empty() ? "false" : "true") + "}";
  answer(connection, request, http_reply(SOUP_STATUS_OK, JSON, json));
}

void
WebServer::answer_stream(Connection *connection, const Request &request)
{
  ChannelFeed *feed = find_feed(feeds_, request);
  if (feed == nullptr) {
    answer(connection, request, http_error(SOUP_STATUS_NOT_FOUND, "There is no such channel.", {}));
    return;
  }
  connection->take_over(soup_server_message_steal_connection(request.message));
  connection->begin_stream(http_stream_head("text/event-stream"));
  feed->add(connection, producers_->text());
}

void
WebServer::answer_video(Connection *connection, const Request &request)
{
  VideoFeed *video = find_feed(videos_, request);
  if (video == nullptr) {
    answer(connection, request, http_error(SOUP_STATUS_NOT_FOUND, "There is no such video.", {}));
    return;
  }
  connection->take_over(soup_server_message_steal_connection(request.message));
  connection->begin_stream(http_stream_head(VIDEO_CONTENT_TYPE));
  video->add(connection);
}

/* Lets the engine read the body. */
void
WebServer::answer_switch(Connection *connection, const Request &request)
{
  const Text refusal = refuse_switch(request);
  if (refusal != nullptr) {
    answer(connection, request, refusal);
  }
}

void
WebServer::switch_producer(Connection *connection, const Request &request)
{
  g_autoptr(GBytes) body = soup_message_body_flatten(soup_server_message_get_request_body(request.message));
  gsize size = 0;
  const auto *data = static_cast<const char *>(g_bytes_get_data(body, &size));
  g_autoptr(GError) error = nullptr;
  const std::optional<SwitchRequest> wanted =
      parse_switch_request(size > 0 ? std::string_view(data, size) : "", &error);
  connection->take_over(soup_server_message_steal_connection(request.message));
  if (!wanted.has_value()) {
    connection->reply(http_error(SOUP_STATUS_BAD_REQUEST, error->message, {}));
    return;
  }
  producers_->set_enabled(*wanted, [connection](guint status, const std::string &text) {
    connection->reply(status == SOUP_STATUS_NO_CONTENT ? http_reply(status, {}, {})
                                                       : http_error(status, text, {}));
  });
}

/* The engine itself replies to a request that it cannot read. */
void
WebServer::on_request_started(SoupServer *server, SoupServerMessage *message, gpointer user_data)
{
  SoupMessageHeaders *headers = soup_server_message_get_response_headers(message);
  for (const Header &header : COMMON_HEADERS) {
    soup_message_headers_append(headers, header.name, header.value);
  }
}

/* @handle: what to do, unless the connection ends */
void
WebServer::take(const Request &request, Answer handle)
{
  Connection *connection = connection_of(request.message);
  if (!connection->is_reading_request()) {
    soup_server_message_set_status(request.message, SOUP_STATUS_SERVICE_UNAVAILABLE, nullptr);
    return;
  }
  g_object_ref(request.message);
  (this->*handle)(connection, request);
  g_object_unref(request.message);
}

void
WebServer::on_head(SoupServer *server, SoupServerMessage *message, const char *path, GHashTable *query,
                   gpointer user_data)
{
  auto *self = static_cast<WebServer *>(user_data);
  self->take({message, path, soup_server_message_get_method(message), query}, &WebServer::route);
}

/* Only the body of a switch is read. */
void
WebServer::on_body(SoupServer *server, SoupServerMessage *message, const char *path, GHashTable *query,
                   gpointer user_data)
{
  auto *self = static_cast<WebServer *>(user_data);
  self->take({message, path, soup_server_message_get_method(message), query}, &WebServer::switch_producer);
}

void
WebServer::on_closed(gpointer user_data)
{
  auto *self = static_cast<WebServer *>(user_data);
  if (self->sweep_ == 0) {
    self->sweep_ = g_idle_add_full(G_PRIORITY_DEFAULT, on_sweep, self, nullptr);
  }
}

gboolean
WebServer::on_sweep(gpointer user_data)
{
  auto *self = static_cast<WebServer *>(user_data);
  self->sweep_ = 0;
  self->sweep();
  return G_SOURCE_REMOVE;
}

gboolean
WebServer::on_check(gpointer user_data)
{
  const gint64 now_us = g_get_monotonic_time();
  for (const std::unique_ptr<Connection> &connection : static_cast<WebServer *>(user_data)->connections_) {
    connection->check(now_us);
  }
  return G_SOURCE_CONTINUE;
}

/* A comment shows a browser that the stream lives. */
gboolean
WebServer::on_comment(gpointer user_data)
{
  static_cast<WebServer *>(user_data)->send_to_streams("comment", std::make_shared<std::string>(":\n\n"));
  return G_SOURCE_CONTINUE;
}

} // namespace view
