/* The clients' socket. The main thread accepts and reads requests, two pool threads ask the factories and
 * prepare the clients' pipelines; a connection whose request succeeded is handed to a ConnectionManager and
 * forgotten.
 *
 * A connection waits twice: on the main loop until its request has arrived, then for a pool thread. No pool
 * thread ever waits for a client to send, so a client that is slow or silent keeps nobody from being served.
 * SERVER_MAX_WAITING_REQUESTS bounds both waits together, SERVER_MAX_UNFINISHED_REQUESTS one user's
 * connections in the first.
 *
 * The factories are registered before the start and stay until finalisation, so the pool threads read the
 * list without a lock. Everything else of the instance belongs to the main thread. A Connection belongs to
 * the main thread until it is queued, and to one pool thread from then on.
 *
 * Clients decide how many descriptors are open, and DESCRIPTOR_RESERVE_SIZE of them have to stay free for
 * others. A pool thread reserves what a pipeline opens before anything of it is made, and takes the client's
 * place among those that may stream. A connection that touches the reserve as soon as it is accepted is
 * refused at once, on the main thread: left in the backlog, it would wake the accept watch for ever.
 */
#include "server.h"

#include "clientplaces.h"
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
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>
#include <utility>

namespace
{

struct ServerPrivate {
  GThreadPool *pool = nullptr;
  GIOChannel *channel = nullptr;
  guint watch_id = 0; /* the accept watch, or the time-out that puts it back */
  gchar *socket_path = nullptr;
  GSList *factories = nullptr;
  GQueue reading = G_QUEUE_INIT; /* the Connections whose requests have not arrived */
  gboolean running = FALSE;
  gchar *run_dir = g_strdup(".");
  int spare_fd = -1;
};

} // namespace

struct _Server {
  GObject parent_instance;

  ServerPrivate *priv;
};

typedef enum {
  PROP_RUN_DIR = 1,
  N_PROPERTIES,
} ServerProperty;

static std::array<GParamSpec *, N_PROPERTIES> properties;

G_DEFINE_FINAL_TYPE(Server, server, G_TYPE_OBJECT)

namespace
{

constexpr int POOL_THREADS = 2;

constexpr const char *NOT_CREATED = "FAIL\nCould not create metadata, Internal server error.";

constexpr const char *PLACE_KEY = "tessard-client-place";

/* Every client can cause these lines. */
RateLimitedLog shortage_log =
    RATE_LIMITED_LOG_INIT(SERVER_SHORTAGE_WARNING_INTERVAL_MS * G_TIME_SPAN_MILLISECOND);
RateLimitedLog places_log =
    RATE_LIMITED_LOG_INIT(SERVER_SHORTAGE_WARNING_INTERVAL_MS * G_TIME_SPAN_MILLISECOND);

/* One accepted connection, with all that is held for it, until its request is answered. */
struct Connection {
  Server *server; /* borrowed */
  int fd;         /* -1 once it is a manager's */
  uid_t user;
  RequestReader *reader;
  ClientPlace *place;                 /* while the request is handled */
  DescriptorReservation *reservation; /* likewise */
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
  g_clear_pointer(&connection->place, client_place_free);
  if (connection->fd >= 0) {
    close_accepted(connection->fd);
  }
  g_free(connection);
}

G_DEFINE_AUTOPTR_CLEANUP_FUNC(Connection, connection_free)

/* A client that is gone already cannot be told, and that is all that can go wrong here. */
void
reply(GIOChannel *channel, const gchar *text)
{
  g_io_channel_write_chars(channel, text, static_cast<gssize>(strlen(text) + 1), nullptr, nullptr);
  g_io_channel_flush(channel, nullptr);
}

void
log_shortage()
{
  rate_limited_log(&shortage_log, LOG_WARNING, "Too few free file descriptors, refused a metadata request.");
}

/* The whole reply to a request that no pipeline can be made for. */
gchar *
make_failure(const GError *error)
{
  if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TOO_MANY_OPEN_FILES)) {
    log_shortage();
    return g_strdup(NOT_CREATED);
  }
  return g_strdup_printf("FAIL\nUnable to create source: %s.", error->message);
}

/* Takes what the request of one more streaming client needs, before the first source is made. */
gboolean
take_resources(Connection *connection, gchar **failure)
{
  connection->place = client_place_new(connection->user);
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

/* Asks every factory in the order of registration. NULL with @failure set when the request fails, or the
 * client has hung up, which @cancellable tells. */
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

/* The hang-up watch ends before the reply is written and before a manager takes the descriptor. */
GList *
read_request_and_create_sources(Connection *connection, GIOChannel *channel, gchar **failure)
{
  g_autoptr(GHashTable) params = request_read(channel, failure);
  if (params == nullptr || !take_resources(connection, failure)) {
    return nullptr;
  }

  g_autoptr(HangUpWatch) watch = hang_up_watch_new(connection->fd);
  return create_sources(connection->server, params, g_cancellable_get_current(), failure);
}

/* Streams the sources to the client. Descriptor and place are the manager's from here on, the channel only
 * replies. The reservation is given back once the pipeline has everything open.
 */
void
serve(Connection *connection, GIOChannel *channel, GList *sources)
{
  g_autoptr(ConnectionManager) manager = connection_manager_new(sources, connection->fd);
  if (manager == nullptr) {
    g_list_free_full(sources, gst_object_unref);
    reply(channel, NOT_CREATED);
    return;
  }

  const int fd = std::exchange(connection->fd, -1);
  g_object_set_data_full(G_OBJECT(manager), PLACE_KEY, std::exchange(connection->place, nullptr),
                         [](gpointer place) { client_place_free(static_cast<ClientPlace *>(place)); });
  if (!connection_manager_prepare(manager)) {
    reply(channel, "FAIL\nCould not produce metadata, Internal server error.");
    request_channel_discard_input(fd);
    return;
  }
  g_clear_pointer(&connection->reservation, descriptor_reservation_free);
  connection_manager_announce_start(manager);
  reply(channel, "OK");
  connection_manager_start(manager);
}

/* One connection, from its request to its reply. */
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
    reply(channel, failure);
    return;
  }
  serve(connection, channel, sources);
}

/* On a pool thread, which may have nothing to do for long afterwards. */
void
handle_request(gpointer item, gpointer)
{
  handle_connection(static_cast<Connection *>(item));
  memory_free_kept_blocks();
}

/* What has not been handled when the server stops. */
void
discard_request(gpointer item)
{
  connection_free(static_cast<Connection *>(item));
}

/* No more of the request will arrive. When the client has hung up, its connection is closed and takes no
 * place in the queue. */
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
    return;
  }
  g_steal_pointer(&connection);
}

/* Who has connected. */
uid_t
get_user(int fd)
{
  ucred credentials = {};
  socklen_t size = sizeof credentials;

  getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size);
  return credentials.uid;
}

gboolean
may_wait(Server *self, uid_t user)
{
  const GQueue *reading = &self->priv->reading;
  guint unfinished = 0;

  for (const GList *item = reading->head; item != nullptr; item = item->next) {
    unfinished += static_cast<Connection *>(item->data)->user == user ? 1 : 0;
  }
  return g_thread_pool_unprocessed(self->priv->pool) + reading->length <= SERVER_MAX_WAITING_REQUESTS &&
         unfinished < SERVER_MAX_UNFINISHED_REQUESTS;
}

void
read_request(Server *self, int fd)
{
  const uid_t user = get_user(fd);
  if (!may_wait(self, user)) {
    syslog(LOG_WARNING, "Too many unprocessed metadata requests, dropping one.");
    close_accepted(fd);
    return;
  }

  auto *connection = g_new0(Connection, 1);
  connection->server = self;
  connection->fd = fd;
  connection->user = user;
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

/* The reply fits into a new connection's buffer, so this waits for nobody. */
void
refuse_for_shortage(int fd)
{
  log_shortage();
  send(fd, NOT_CREATED, strlen(NOT_CREATED) + 1, MSG_DONTWAIT | MSG_NOSIGNAL);
  close_accepted(fd);
}

/* There may be none, even right after one was given up: another thread can be faster. So this is tried again
 * after every connection that is accepted. */
void
keep_spare_descriptor(Server *self)
{
  if (self->priv->spare_fd < 0) {
    self->priv->spare_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
  }
}

void
give_up_spare_descriptor(Server *self)
{
  if (self->priv->spare_fd >= 0) {
    close(std::exchange(self->priv->spare_fd, -1));
  }
}

/* Elements of the platform open descriptors that nobody reserved, so there may be none at all. Then the spare
 * one makes room to accept a waiting connection and to refuse it. FALSE when the connection still waits. */
gboolean
refuse_waiting_connection(Server *self, int listening_fd)
{
  if (self->priv->spare_fd < 0) {
    return FALSE;
  }

  give_up_spare_descriptor(self);
  const int fd = accept4(listening_fd, nullptr, nullptr, SOCK_CLOEXEC);
  if (fd >= 0) {
    refuse_for_shortage(fd);
  }
  keep_spare_descriptor(self);
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

/* The descriptor is closed by hand-over to the channel's shutdown, and only there. */
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
   * The folder of the clients' socket. A set has no effect while the server runs, nor has %NULL.
   */
  properties[PROP_RUN_DIR] =
      g_param_spec_string("run-dir", "Run directory", "Run directory", ".",
                          static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS));
  g_object_class_install_properties(object_class, properties.size(), properties.data());
}

namespace
{

void watch_for_connections(Server *self);

gboolean
on_rested(gpointer user_data)
{
  watch_for_connections(static_cast<Server *>(user_data));
  return G_SOURCE_REMOVE;
}

/* What the accept watch could not deal with would wake it again at once, and the main loop would do nothing
 * else. So the watch goes for a while. The answer is the watch's. */
gboolean
rest(Server *self)
{
  self->priv->watch_id = g_timeout_add(SERVER_ACCEPT_REST_MS, on_rested, self);
  return G_SOURCE_REMOVE;
}

/* With @error_number of the failed attempt to accept. */
gboolean
continue_without_connection(Server *self, int listening_fd, int error_number)
{
  const gboolean out_of_descriptors = error_number == EMFILE || error_number == ENFILE;

  syslog(LOG_ERR, "Could not accept new request on metadata server socket: %s", g_strerror(error_number));
  return out_of_descriptors && refuse_waiting_connection(self, listening_fd) ? G_SOURCE_CONTINUE : rest(self);
}

gboolean
on_accept(GIOChannel *channel, GIOCondition condition, gpointer user_data)
{
  auto *self = static_cast<Server *>(user_data);
  const int listening_fd = g_io_channel_unix_get_fd(channel);

  if (condition != G_IO_IN) {
    syslog(LOG_ERR, "Error on metadata socket, not able to process metadata client requests.");
    return rest(self);
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
  keep_spare_descriptor(self);
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
 * @factory: (transfer none): a factory, to be asked for every request after those registered before it
 *
 * The server takes a reference of its own. Main thread.
 *
 * Warnings: "priv->running == FALSE" and "factory != NULL" are preconditions; when one fails, nothing is
 * done.
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
 * Listens at "metadata" in the run directory, or on the socket that was passed on for that path, and begins
 * to accept. What goes wrong is logged at error priority. The server holds a reference to itself until
 * server_stop(). Main thread.
 *
 * Returns: %FALSE when the server was running already or cannot listen
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
  keep_spare_descriptor(self);
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
 * Undoes server_start(): drops the requests that have not arrived or wait, waits for those that are being
 * handled, and removes the socket, also one that was passed on. Clients that are streaming go on. Does
 * nothing when the server is not running. The caller needs a reference of its own. Main thread.
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
  give_up_spare_descriptor(self);
  priv->running = FALSE;
}
