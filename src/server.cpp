/* SPDX-License-Identifier: MIT */
/* Accepts clients, reads their requests and starts their streams. The main thread accepts connections and
 * reads requests. Two pool threads request sources from the factories and prepare the pipelines. A
 * ConnectionManager takes over a connection whose request succeeds.
 *
 * A connection waits twice: on the main loop until its request is complete, then in the queue of the pool.
 * Pool threads never wait for a client to send, so a slow or silent client delays no other. Limits:
 * SERVER_MAX_WAITING_REQUESTS for both waits together, SERVER_MAX_UNFINISHED_REQUESTS for the connections of
 * one user in the first.
 *
 * Threads: factories are registered before the start and stay until finalisation, so pool threads read the
 * list without a lock. The main thread owns everything else of the instance. It also owns each Connection
 * until the Connection is queued; after that one pool thread owns it.
 *
 * Descriptors: clients decide how many are open, and DESCRIPTOR_RESERVE_SIZE of them must stay free. A pool
 * thread reserves the descriptors of a pipeline, and takes the client's place among the streaming clients,
 * before it makes any part of the pipeline. The main thread accepts a connection that touches the reserve and
 * refuses it immediately: in the backlog the connection would wake the accept watch forever.
 */
#include "server.h"

#include "clientcredentials.h"
#include "clientplaces.h"
#include "clientrecord.h"
#include "connectionmanager.h"
#include "descriptorreserve.h"
#include "hangupwatch.h"
#include "listeningsocket.h"
#include "memory.h"
#include "ratelimitedlog.h"
#include "request.h"
#include "requestchannel.h"
#include "requestreader.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <glib/gstdio.h>
#include <string_view>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>
#include <utility>

struct ServerPrivate {
  GThreadPool *pool = nullptr;
  GIOChannel *channel = nullptr;
  guint watch_id = 0; /* the accept watch, or the time-out that installs it again */
  gchar *socket_path = nullptr;
  GSList *factories = nullptr;
  GQueue reading = G_QUEUE_INIT; /* the Connections whose requests are incomplete */
  gboolean running = FALSE;
  gchar *run_dir = g_strdup(".");
  int spare_fd = -1;
};

struct _Server {
  GObject parent_instance;

  ServerPrivate *priv;
};

typedef enum {
  PROP_RUN_DIR = 1,
  N_SERVER_PROPERTIES,
} ServerProperty;

static std::array<GParamSpec *, N_SERVER_PROPERTIES> server_properties;

G_DEFINE_FINAL_TYPE(Server, server, G_TYPE_OBJECT)

namespace
{

constexpr int POOL_THREADS = 2;

constexpr const char *NOT_CREATED = "FAIL\nCould not create metadata, Internal server error.";
constexpr const char *NOT_PRODUCED = "FAIL\nCould not produce metadata, Internal server error.";

/* Every refusal is this and a reason. */
constexpr std::string_view FAILURE_START = "FAIL\n";

constexpr const char *PLACE_KEY = "tessard-client-place";

/* Any client can cause these lines. */
RateLimitedLog shortage_log =
    RATE_LIMITED_LOG_INIT(SERVER_SHORTAGE_WARNING_INTERVAL_MS * G_TIME_SPAN_MILLISECOND);
RateLimitedLog places_log =
    RATE_LIMITED_LOG_INIT(SERVER_SHORTAGE_WARNING_INTERVAL_MS * G_TIME_SPAN_MILLISECOND);

/* One accepted connection and its resources, until the reply to its request. */
struct Connection {
  Server *server;                /* borrowed */
  int fd;                        /* -1 once a manager owns it */
  ClientCredentials credentials; /* of the client's process */
  RequestReader *reader;
  ClientPlace *place;                 /* while a pool thread handles the request */
  ClientRecord *record;               /* while a pool thread handles the request */
  DescriptorReservation *reservation; /* while a pool thread handles the request */
};

void
close_accepted(int fd)
{
  request_channel_discard_input(fd);
  if (close(fd) < 0) {
    syslog(LOG_ERR, "Could not close accepted metadata server socket: %s", g_strerror(errno));
  }
}

void
connection_free(Connection *connection)
{
  g_clear_pointer(&connection->reader, request_reader_free);
  g_clear_pointer(&connection->reservation, descriptor_reservation_free);
  g_clear_pointer(&connection->record, client_record_close);
  g_clear_pointer(&connection->place, client_place_free);
  if (connection->fd >= 0) {
    close_accepted(connection->fd);
  }
  g_free(connection);
}

G_DEFINE_AUTOPTR_CLEANUP_FUNC(Connection, connection_free)

/* A write that fails because the client has hung up needs no handling. */
void
reply(GIOChannel *channel, const gchar *text)
{
  g_io_channel_write_chars(channel, text, static_cast<gssize>(strlen(text) + 1), nullptr, nullptr);
  g_io_channel_flush(channel, nullptr);
}

/* Sends the whole reply to a request that fails. */
void
refuse(int fd, GIOChannel *channel, const gchar *failure)
{
  client_credentials_log(fd, "request refused: %s", failure + FAILURE_START.size());
  reply(channel, failure);
}

void
log_shortage()
{
  rate_limited_log(&shortage_log, LOG_WARNING, "Too few free file descriptors, refused a metadata request.");
}

/* Returns the reply to a request for which a factory or the reservation failed. */
gchar *
make_failure(const GError *error)
{
  if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TOO_MANY_OPEN_FILES)) {
    log_shortage();
    return g_strdup(NOT_CREATED);
  }
  return g_strdup_printf("FAIL\nUnable to create source: %s.", error->message);
}

/* Takes the place and the descriptors of one more streaming client. */
gboolean
take_resources(Connection *connection, gchar **failure)
{
  connection->place = client_place_new(connection->credentials.uid);
  if (connection->place == nullptr) {
    rate_limited_log(&places_log, LOG_WARNING, "Too many metadata clients, refused a metadata request.");
    *failure = g_strdup(NOT_CREATED);
    return FALSE;
  }

  g_autoptr(GError) shortage = nullptr;
  connection->reservation = descriptor_reservation_new(SERVER_PIPELINE_DESCRIPTORS, &shortage);
  if (connection->reservation == nullptr) {
    *failure = make_failure(shortage);
    return FALSE;
  }
  return TRUE;
}

/* Calls all factories in the order of registration. Returns NULL and sets @failure when the request fails or
 * the client has hung up, which cancels @cancellable. */
GList *
create_sources(Server *self, GHashTable *params, GCancellable *cancellable, gchar **failure)
{
  g_autolist(GstElement) sources = nullptr;

  for (GSList *item = self->priv->factories; item != nullptr; item = item->next) {
    g_autoptr(GError) error = nullptr;
    GstElement *source = source_factory_create_source(SOURCE_FACTORY(item->data), params, &error);

    if (source != nullptr) {
      sources = g_list_append(sources, source);
    }
    if (error != nullptr || g_cancellable_set_error_if_cancelled(cancellable, &error)) {
      *failure = make_failure(error);
      return nullptr;
    }
  }
  if (sources == nullptr) {
    *failure = g_strdup("FAIL\nBad request, no metadata can be produced.");
  }
  return g_steal_pointer(&sources);
}

/* The hang-up watch must end before the reply is written and before a manager takes the descriptor. */
GList *
read_request_and_create_sources(Connection *connection, GIOChannel *channel, gchar **failure)
{
  g_autoptr(GHashTable) params = request_read(channel, failure);
  if (params == nullptr || !take_resources(connection, failure)) {
    return nullptr;
  }
  connection->record = client_record_new(connection->credentials.pid, connection->credentials.uid, params);

  g_autoptr(HangUpWatch) hang_up_watch = hang_up_watch_new(connection->fd);
  return create_sources(connection->server, params, g_cancellable_get_current(), failure);
}

/* Streams the sources to the client. The manager takes over descriptor, place and record; the channel only
 * writes the reply. The reservation ends when the pipeline has opened all of its descriptors. */
void
serve(Connection *connection, GIOChannel *channel, GList *sources)
{
  g_autoptr(ConnectionManager) manager = connection_manager_new(sources, connection->fd);
  if (manager == nullptr) {
    g_list_free_full(sources, gst_object_unref);
    refuse(connection->fd, channel, NOT_CREATED);
    return;
  }

  const int fd = std::exchange(connection->fd, -1);
  g_object_set_data_full(G_OBJECT(manager), PLACE_KEY, std::exchange(connection->place, nullptr),
                         [](gpointer place) { client_place_free(static_cast<ClientPlace *>(place)); });
  connection_manager_set_record(manager, std::exchange(connection->record, nullptr));
  if (!connection_manager_prepare(manager)) {
    refuse(fd, channel, NOT_PRODUCED);
    request_channel_discard_input(fd);
    return;
  }
  g_clear_pointer(&connection->reservation, descriptor_reservation_free);
  connection_manager_announce_start(manager);
  reply(channel, "OK");
  connection_manager_start(manager);
}

/* Handles one connection, from its request to its reply. */
void
handle_connection(Connection *item)
{
  g_autoptr(Connection) connection = item;
  if (hang_up_watch_is_gone(connection->fd)) {
    return;
  }

  gsize length = 0;
  const gchar *text = request_reader_get_text(connection->reader, &length);
  const gchar *end = request_reader_get_failure(connection->reader);
  g_autoptr(GIOChannel) channel = request_channel_new(connection->fd, text, length, end);
  g_autofree gchar *failure = nullptr;
  GList *sources = read_request_and_create_sources(connection, channel, &failure);
  if (sources == nullptr) {
    refuse(connection->fd, channel, failure);
    return;
  }
  serve(connection, channel, sources);
}

/* Called on a pool thread, which can be idle for long afterwards. */
void
handle_request(gpointer item, gpointer user_data)
{
  handle_connection(static_cast<Connection *>(item));
  memory_free_kept_blocks();
}

/* Drops a request that is not handled yet when the server stops. */
void
discard_request(gpointer item)
{
  connection_free(static_cast<Connection *>(item));
}

/* Queues a connection when its request is complete or has failed, or closes it when the client has hung up.
 */
void
on_request_read(RequestReader *reader, gpointer user_data)
{
  g_autoptr(Connection) connection = static_cast<Connection *>(user_data);
  ServerPrivate *priv = connection->server->priv;

  g_queue_remove(&priv->reading, connection);
  if (hang_up_watch_is_gone(connection->fd)) {
    return;
  }
  g_autoptr(GError) error = nullptr;
  if (!g_thread_pool_push(priv->pool, connection, &error)) {
    syslog(LOG_WARNING, "Could not push metadata client request: %s.", error->message);
    client_credentials_log(connection->fd, "connection closed: %s", error->message);
    return;
  }
  g_steal_pointer(&connection);
}

gboolean
may_wait(Server *self, uid_t user)
{
  const GQueue *reading = &self->priv->reading;
  guint unfinished = 0;

  for (const GList *item = reading->head; item != nullptr; item = item->next) {
    unfinished += static_cast<Connection *>(item->data)->credentials.uid == user ? 1 : 0;
  }
  return g_thread_pool_unprocessed(self->priv->pool) + reading->length <= SERVER_MAX_WAITING_REQUESTS &&
         unfinished < SERVER_MAX_UNFINISHED_REQUESTS;
}

void
read_request(Server *self, int fd)
{
  const ClientCredentials credentials = client_credentials_get(fd);
  if (!may_wait(self, credentials.uid)) {
    syslog(LOG_WARNING, "Too many unprocessed metadata requests, dropping one.");
    client_credentials_log(fd, "connection closed: too many requests wait");
    close_accepted(fd);
    return;
  }

  auto *connection = g_new0(Connection, 1);
  connection->server = self;
  connection->fd = fd;
  connection->credentials = credentials;
  connection->reader = request_reader_new(fd, SERVER_MAX_REQUEST_BYTES, SERVER_REQUEST_TIMEOUT_MS,
                                          on_request_read, connection);
  g_queue_push_tail(&self->priv->reading, connection);
}

gboolean
is_reserve_untouched()
{
  g_autoptr(DescriptorReservation) nothing = descriptor_reservation_new(0, nullptr);

  return nothing != nullptr;
}

/* The reply fits into the send buffer of a new connection, so send() does not wait. */
void
refuse_for_shortage(int fd)
{
  log_shortage();
  client_credentials_log(fd, "request refused: too few free file descriptors");
  send(fd, NOT_CREATED, strlen(NOT_CREATED) + 1, MSG_DONTWAIT | MSG_NOSIGNAL);
  close_accepted(fd);
}

/* Can fail even after close_spare_descriptor(), when another thread uses the free number first. It is
 * therefore called again after each accepted connection. */
void
open_spare_descriptor(Server *self)
{
  if (self->priv->spare_fd < 0) {
    self->priv->spare_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
  }
}

void
close_spare_descriptor(Server *self)
{
  if (self->priv->spare_fd >= 0) {
    close(std::exchange(self->priv->spare_fd, -1));
  }
}

/* Platform elements open descriptors without a reservation and can use up all of them. The spare one is then
 * closed to make room for a waiting connection, which is accepted and refused. FALSE when the connection
 * still waits. */
gboolean
refuse_waiting_connection(Server *self, int listening_fd)
{
  if (self->priv->spare_fd < 0) {
    return FALSE;
  }

  close_spare_descriptor(self);
  const int fd = accept4(listening_fd, nullptr, nullptr, SOCK_CLOEXEC);
  if (fd >= 0) {
    refuse_for_shortage(fd);
  }
  open_spare_descriptor(self);
  return fd >= 0;
}

gboolean
create_pool(Server *self)
{
  g_autoptr(GError) error = nullptr;

  self->priv->pool =
      g_thread_pool_new_full(handle_request, self, discard_request, POOL_THREADS, TRUE, &error);
  if (error != nullptr) {
    syslog(LOG_ERR, "Could not create thread pool for metadata server: '%s'.", error->message);
    g_clear_pointer(&self->priv->pool, [](GThreadPool *pool) { g_thread_pool_free(pool, TRUE, TRUE); });
    return FALSE;
  }
  return TRUE;
}

/* The channel's shutdown closes the listening socket. */
void
close_channel(Server *self)
{
  g_autoptr(GError) error = nullptr;

  if (g_io_channel_shutdown(self->priv->channel, FALSE, &error) != G_IO_STATUS_NORMAL) {
    syslog(LOG_WARNING, "Could not shut down metadata server's io channel: %s", error->message);
  }
  g_clear_pointer(&self->priv->channel, g_io_channel_unref);
}

} // namespace

static void
server_init(Server *self)
{
  self->priv = new ServerPrivate;
}

static void
server_finalize(GObject *object)
{
  Server *self = TESSARD_SERVER(object);

  g_free(self->priv->run_dir);
  g_slist_free_full(self->priv->factories, g_object_unref);
  delete self->priv;

  G_OBJECT_CLASS(server_parent_class)->finalize(object);
}

static void
server_get_property(GObject *object, guint id, GValue *value, GParamSpec *pspec)
{
  switch (id) {
  case PROP_RUN_DIR:
    g_value_set_string(value, TESSARD_SERVER(object)->priv->run_dir);
    break;
  default:
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
  }
}

static void
server_set_property(GObject *object, guint id, const GValue *value, GParamSpec *pspec)
{
  Server *self = TESSARD_SERVER(object);

  switch (id) {
  case PROP_RUN_DIR:
    if (!self->priv->running && g_value_get_string(value) != nullptr) {
      g_free(self->priv->run_dir);
      self->priv->run_dir = g_value_dup_string(value);
    }
    break;
  default:
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
  }
}

static void
server_class_init(ServerClass *klass)
{
  GObjectClass *object_class = G_OBJECT_CLASS(klass);

  object_class->finalize = server_finalize;
  object_class->get_property = server_get_property;
  object_class->set_property = server_set_property;

  /**
   * Server:run-dir:
   *
   * The folder of the listening socket. Changes while the server runs, and %NULL, are ignored.
   */
  server_properties[PROP_RUN_DIR] =
      g_param_spec_string("run-dir", "Run directory", "Run directory", ".",
                          static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS));
  g_object_class_install_properties(object_class, server_properties.size(), server_properties.data());
}

namespace
{

void watch_for_connections(Server *self);

gboolean
on_backed_off(gpointer user_data)
{
  watch_for_connections(static_cast<Server *>(user_data));
  return G_SOURCE_REMOVE;
}

/* Removes the accept watch for SERVER_ACCEPT_BACKOFF_MS: a connection or an error that it cannot handle would
 * wake it again immediately and keep the main loop busy. Returns the result for the watch's callback. */
gboolean
back_off(Server *self)
{
  self->priv->watch_id = g_timeout_add(SERVER_ACCEPT_BACKOFF_MS, on_backed_off, self);
  return G_SOURCE_REMOVE;
}

/* Handles a failed accept4() with its @error_number. */
gboolean
continue_without_connection(Server *self, int listening_fd, int error_number)
{
  const gboolean out_of_descriptors = error_number == EMFILE || error_number == ENFILE;

  syslog(LOG_ERR, "Could not accept new request on metadata server socket: %s", g_strerror(error_number));
  return out_of_descriptors && refuse_waiting_connection(self, listening_fd) ? G_SOURCE_CONTINUE
                                                                             : back_off(self);
}

gboolean
on_accept(GIOChannel *channel, GIOCondition condition, gpointer user_data)
{
  auto *self = static_cast<Server *>(user_data);
  const int listening_fd = g_io_channel_unix_get_fd(channel);

  if (condition != G_IO_IN) {
    syslog(LOG_ERR, "Error on metadata socket, not able to process metadata client requests.");
    return back_off(self);
  }

  const int fd = accept4(listening_fd, nullptr, nullptr, SOCK_CLOEXEC);
  if (fd < 0) {
    return continue_without_connection(self, listening_fd, errno);
  }
  if (is_reserve_untouched()) {
    read_request(self, fd);
  } else {
    refuse_for_shortage(fd);
  }
  open_spare_descriptor(self);
  return G_SOURCE_CONTINUE;
}

void
watch_for_connections(Server *self)
{
  constexpr auto CONDITION = static_cast<GIOCondition>(G_IO_IN | G_IO_ERR | G_IO_HUP);

  self->priv->watch_id = g_io_add_watch(self->priv->channel, CONDITION, on_accept, self);
}

} // namespace

/**
 * server_register_source_factory:
 * @self: (transfer none): a stopped server
 * @factory: (transfer none): a factory; each request calls the factories in the order of registration
 *
 * Adds a factory, to which the server takes a reference.
 *
 * Warnings: "priv->running == FALSE" and "factory != NULL" are preconditions; nothing changes when one of
 * them fails.
 */
void
server_register_source_factory(Server *self, SourceFactory *factory)
{
  ServerPrivate *priv = self->priv;

  g_return_if_fail(priv->running == FALSE);
  g_return_if_fail(factory != NULL);

  priv->factories = g_slist_append(priv->factories, g_object_ref(factory));
}

/**
 * server_start:
 * @self: (transfer none): a server
 *
 * Opens the listening socket at "metadata" in the run directory and begins to accept connections. The server
 * holds a reference to itself until server_stop().
 *
 * Errors in the log: those of listening_socket_open(); "Could not create thread pool for metadata server:
 * '%s'."
 *
 * Returns: %FALSE when the server already runs or cannot start
 */
gboolean
server_start(Server *self)
{
  ServerPrivate *priv = self->priv;

  if (priv->running) {
    return FALSE;
  }

  g_autofree gchar *socket_path = g_strconcat(priv->run_dir, "/metadata", nullptr);
  const int fd = listening_socket_open(socket_path);
  if (fd < 0) {
    return FALSE;
  }
  if (!create_pool(self)) {
    listening_socket_close(fd);
    return FALSE;
  }

  g_object_ref(self);
  open_spare_descriptor(self);
  priv->channel = g_io_channel_unix_new(fd);
  watch_for_connections(self);
  priv->socket_path = g_steal_pointer(&socket_path);
  priv->running = TRUE;
  return TRUE;
}

/**
 * server_stop:
 * @self: (transfer none): a server
 *
 * Undoes server_start(): drops the requests that are incomplete or queued, waits for those that pool threads
 * handle, closes the listening socket and removes its file, also of a socket that systemd passed. Streaming
 * clients continue. Has no effect when the server does not run. The caller must hold a reference.
 *
 * Warnings: "Could not remove metadata server's I/O watch."; "Could not shut down metadata server's io
 * channel: %s"; "Could not remove metadata server socket file."
 */
void
server_stop(Server *self)
{
  ServerPrivate *priv = self->priv;

  if (!priv->running) {
    return;
  }

  g_thread_pool_free(std::exchange(priv->pool, nullptr), TRUE, TRUE);
  g_queue_clear_full(&priv->reading, discard_request);
  g_object_unref(self);
  if (!g_source_remove(std::exchange(priv->watch_id, 0))) {
    syslog(LOG_WARNING, "Could not remove metadata server's I/O watch.");
  }
  close_channel(self);
  if (g_unlink(priv->socket_path) < 0 && errno != ENOENT) {
    syslog(LOG_WARNING, "Could not remove metadata server socket file.");
  }
  g_clear_pointer(&priv->socket_path, g_free);
  close_spare_descriptor(self);
  priv->running = FALSE;
}
