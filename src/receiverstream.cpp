/* SPDX-License-Identifier: MIT */
/* Requests streams of external producers from the metadata receiver.
 *
 * Any thread can make a request. The main loop queues the call among the receiver's other calls. The reply
 * must have the stream's descriptor. A request owns its user data until the call has ended.
 */
#include "receiverstream.h"

#include "logtext.h"
#include "receivercalls.h"

#include <syslog.h>

namespace
{

constexpr guint STREAM_CALL_TIMEOUT_MS = 25000; /* GDBus' default */

/* A request that owns its values. */
struct StreamRequest {
  GDBusConnection *connection = nullptr;
  gchar *path = nullptr;
  gint channel = 0;
  gchar *source_name = nullptr;
  GCancellable *cancellable = nullptr;
  void (*on_fd)(gint fd, const gchar *source_name, gpointer user_data) = nullptr;
  gpointer user_data = nullptr;
  GDestroyNotify user_data_free = nullptr;

  StreamRequest() = default;
  ~StreamRequest();
  StreamRequest(const StreamRequest &) = delete;
  StreamRequest &operator=(const StreamRequest &) = delete;
};

StreamRequest::~StreamRequest()
{
  if (user_data_free != nullptr) {
    user_data_free(user_data);
  }
  g_clear_object(&cancellable);
  g_free(source_name);
  g_free(path);
  g_clear_object(&connection);
}

void
free_stream_request(gpointer request)
{
  delete static_cast<StreamRequest *>(request);
}

/* Returns the reply's descriptor (transfer full), or -1. GLib does not set an error in all cases. */
gint
take_stream_fd(GVariant *reply, GUnixFDList *fds)
{
  g_autoptr(GError) error = nullptr;
  gint32 index = -1;
  gint fd = -1;

  if (g_variant_is_of_type(reply, G_VARIANT_TYPE("(h)"))) {
    g_variant_get(reply, "(h)", &index);
  }
  if (fds != nullptr && index >= 0 && index < g_unix_fd_list_get_length(fds)) {
    fd = g_unix_fd_list_get(fds, index, &error);
  }
  if (fd < 0) {
    /* docs/compatibility.md, "line feed in a line". */
    syslog(LOG_WARNING, "Failed to parse fd from variant: %s\n",
           error != nullptr ? error->message : "the reply holds no such descriptor");
  }
  return fd;
}

void
on_stream_reply(GVariant *reply, GUnixFDList *fds, const GError *error, gpointer user_data)
{
  auto *request = static_cast<StreamRequest *>(user_data);

  if (reply == nullptr) {
    g_autofree gchar *message = log_text_clip(error->message);
    syslog(LOG_INFO, "handle_get_stream_fd failed: %s", message);
    return;
  }
  request->on_fd(take_stream_fd(reply, fds), request->source_name, request->user_data);
}

gboolean
on_stream_request(gpointer user_data)
{
  auto *request = static_cast<StreamRequest *>(user_data);
  const ReceiverCall call = {
      .connection = request->connection,
      .path = request->path,
      .method = "GetStreamFd",
      .parameters = g_variant_new("(i)", request->channel),
      .descriptors = 1,
      .timeout_ms = STREAM_CALL_TIMEOUT_MS,
      .cancellable = request->cancellable,
  };

  receiver_call(&call, on_stream_reply, request, free_stream_request);
  return G_SOURCE_REMOVE;
}

} // namespace

/**
 * receiver_stream_request:
 * @request: (transfer none): the request
 * @user_data: for @request's on_fd
 * @user_data_free: (nullable): releases @user_data
 *
 * Queues a request for a stream. The reply is handled on the main thread: on_fd is called with the descriptor
 * (transfer full) unless the call fails or is cancelled. @user_data_free is called at the end in all cases.
 * Any thread.
 *
 * Warnings: "Failed to parse fd from variant: %s\n", whereupon on_fd gets -1. Infos: "handle_get_stream_fd
 * failed: %s"
 */
void
receiver_stream_request(const ReceiverStreamRequest *request, gpointer user_data,
                        GDestroyNotify user_data_free)
{
  auto *own = new StreamRequest;

  own->connection = G_DBUS_CONNECTION(g_object_ref(request->connection));
  own->path = g_strdup(request->path);
  own->channel = request->channel;
  own->source_name = g_strdup(request->source_name);
  if (request->cancellable != nullptr) {
    own->cancellable = G_CANCELLABLE(g_object_ref(request->cancellable));
  }
  own->on_fd = request->on_fd;
  own->user_data = user_data;
  own->user_data_free = user_data_free;
  g_idle_add_full(G_PRIORITY_DEFAULT, on_stream_request, own, nullptr);
}
