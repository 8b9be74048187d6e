/* SPDX-License-Identifier: MIT */
/* The source element of a client's external producers. It reads their streams and pushes each frame as one
 * buffer without a time stamp.
 *
 * Lifetime: the element has a reference to each socket in its list. Each open socket has one to the element,
 * so the element is finalised after its last socket is closed, when the producer hangs up or the element
 * stops.
 *
 * Threads: the main thread adds sockets and runs their callbacks. The thread that changes the pipeline's
 * state stops the element. A streaming thread takes the buffers.
 *
 * Lock: protects the list, the closing flag, and the order in which lengths of the queue are reported to the
 * account. The locks of the application source, the sockets and the account are taken under it. None of them
 * is held when it is taken, because the application source and the sockets release theirs before a callback.
 * The element closes its sockets without notification, so on_close() never runs under the lock.
 *
 * Flow control: the application source accepts every buffer. The element reports the length of its queue to
 * the client's account (messageaccount.h) after each push and after each buffer that a streaming thread
 * takes. While the account is beyond its limit, the sockets of this client are paused, and the writes of its
 * producers block. The lock makes reading and reporting the length one step, so the last report is the
 * newest.
 */
#include "externalsrc.h"

#include "externalsourcesocket.h"
#include "messageaccount.h"

#include <array>
#include <unistd.h>

struct _ExternalSrc {
  GstAppSrc parent_instance;

  gboolean closing;
  GPtrArray *sockets;
  guint num_sockets; /* the length of the list; atomic, so that the property is read without the lock */
  gint32 video_channel;
  GCancellable *cancellable; /* constant */
  MessageAccount *account;   /* constant */
  GMutex lock;
};

typedef enum {
  PROP_NUM_SOCKETS = 1,
  PROP_VIDEO_CHANNEL,
  N_EXTERNAL_SRC_PROPERTIES,
} ExternalSrcProperty;

static std::array<GParamSpec *, N_EXTERNAL_SRC_PROPERTIES> external_src_properties;

G_DEFINE_FINAL_TYPE(ExternalSrc, external_src, GST_TYPE_APP_SRC)

namespace
{

/* The next four functions are called with the lock held. */

ExternalSourceSocket *
get_socket(ExternalSrc *src, guint index)
{
  return EXTERNAL_SOURCE_SOCKET(g_ptr_array_index(src->sockets, index));
}

void
update_num_sockets(ExternalSrc *src)
{
  g_atomic_int_set(&src->num_sockets, src->sockets->len);
}

void
report_queue(ExternalSrc *src)
{
  auto *app_src = GST_APP_SRC(src);
  const guint64 overhead = gst_app_src_get_current_level_buffers(app_src) * MESSAGE_ACCOUNT_MESSAGE_OVERHEAD;

  message_account_set_queued(src->account, gst_app_src_get_current_level_bytes(app_src) + overhead);
}

/* Final: the element cannot be used again. Cancels pending requests for streams; descriptors that arrive
 * later are closed immediately. */
void
close_all(ExternalSrc *src)
{
  src->closing = TRUE;
  g_cancellable_cancel(src->cancellable);
  for (guint i = 0; i < src->sockets->len; i++) {
    external_source_socket_close(get_socket(src, i), FALSE);
  }
  g_ptr_array_set_size(src->sockets, 0);
  update_num_sockets(src);
}

} // namespace

static void
external_src_init(ExternalSrc *src)
{
  g_mutex_init(&src->lock);
  src->sockets = g_ptr_array_new_with_free_func(g_object_unref);
  src->video_channel = 1;
  src->cancellable = g_cancellable_new();
  src->account = message_account_new();
}

static void
external_src_finalize(GObject *object)
{
  ExternalSrc *src = EXTERNAL_SRC(object);

  g_ptr_array_unref(src->sockets);
  g_object_unref(src->cancellable);
  /* The parent class frees the queue. */
  message_account_set_queued(src->account, 0);
  message_account_unref(src->account);
  g_mutex_clear(&src->lock);

  G_OBJECT_CLASS(external_src_parent_class)->finalize(object);
}

static void
external_src_get_property(GObject *object, guint id, GValue *value, GParamSpec *pspec)
{
  ExternalSrc *src = EXTERNAL_SRC(object);

  switch (id) {
  case PROP_NUM_SOCKETS:
    g_value_set_uint(value, g_atomic_int_get(&src->num_sockets));
    break;
  case PROP_VIDEO_CHANNEL:
    g_value_set_int(value, src->video_channel);
    break;
  default:
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
  }
}

/* The only writable property is the channel. */
static void
external_src_set_property(GObject *object, guint id, const GValue *value, GParamSpec *pspec)
{
  EXTERNAL_SRC(object)->video_channel = g_value_get_int(value);
}

/* No parent class implements this function, so there is nothing to chain up to. */
static void
external_src_state_changed(GstElement *element, GstState old_state, GstState new_state, GstState pending)
{
  ExternalSrc *src = EXTERNAL_SRC(element);

  if (old_state == GST_STATE_PAUSED && new_state == GST_STATE_READY) {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&src->lock);
    close_all(src);
    report_queue(src);
  }
}

/* The bus becomes NULL when the element is removed from its bin. If the pipeline failed before PAUSED, this
 * is the only notice: open sockets would otherwise keep the element until their producers hang up. */
static void
external_src_set_bus(GstElement *element, GstBus *bus)
{
  ExternalSrc *src = EXTERNAL_SRC(element);

  GST_ELEMENT_CLASS(external_src_parent_class)->set_bus(element, bus);
  if (bus == nullptr) {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&src->lock);
    close_all(src);
  }
}

/* Called on a streaming thread, which waits here for the next buffer. */
static GstFlowReturn
external_src_create(GstBaseSrc *base_src, guint64 offset, guint size, GstBuffer **buffer)
{
  ExternalSrc *src = EXTERNAL_SRC(base_src);
  const GstFlowReturn result =
      GST_BASE_SRC_CLASS(external_src_parent_class)->create(base_src, offset, size, buffer);
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&src->lock);

  report_queue(src);
  return result;
}

static void
external_src_class_init(ExternalSrcClass *klass)
{
  GObjectClass *object_class = G_OBJECT_CLASS(klass);

  object_class->finalize = external_src_finalize;
  object_class->get_property = external_src_get_property;
  object_class->set_property = external_src_set_property;
  GST_ELEMENT_CLASS(klass)->set_bus = external_src_set_bus;
  GST_ELEMENT_CLASS(klass)->state_changed = external_src_state_changed;
  GST_BASE_SRC_CLASS(klass)->create = external_src_create;

  external_src_properties[PROP_NUM_SOCKETS] =
      g_param_spec_uint("num-sockets", "Number of sockets", "Number of sockets to connected producers", 0,
                        G_MAXUINT, 0, static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS));
  external_src_properties[PROP_VIDEO_CHANNEL] =
      g_param_spec_int("video-channel", "Videochannel", "Videochannel to get metadata for", 1, G_MAXINT, 1,
                       static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS));
  g_object_class_install_properties(object_class, external_src_properties.size(),
                                    external_src_properties.data());
}

namespace
{

/* The result of the push is not needed: a stopped element drops the buffer. */
void
on_data(ExternalSourceSocket *socket, guint8 *frame, gsize size, gpointer user_data)
{
  auto *src = static_cast<ExternalSrc *>(user_data);

  gst_app_src_push_buffer(GST_APP_SRC(src), gst_buffer_new_wrapped(frame, size));

  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&src->lock);
  report_queue(src);
}

/* The client's stream continues after the last producer has hung up. */
void
on_close(ExternalSourceSocket *socket, gpointer user_data)
{
  auto *src = static_cast<ExternalSrc *>(user_data);

  if (socket == nullptr || src == nullptr) {
    return;
  }
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&src->lock);
  g_ptr_array_remove(src->sockets, socket);
  update_num_sockets(src);
}

} // namespace

/**
 * external_src_new:
 *
 * Makes an element without producers. The element has no factory.
 *
 * Returns: (transfer floating): a new element
 */
ExternalSrc *
external_src_new(void)
{
  return EXTERNAL_SRC(g_object_new(EXTERNAL_TYPE_SRC, nullptr));
}

/**
 * external_src_add_socket:
 * @src: (transfer none): the element
 * @fd: (transfer full): the descriptor of a producer's stream, or -1 from a reply without one
 * @source_name: the configuration name in every frame of this producer
 *
 * Adds a producer and reads its stream until the stream ends, the element changes from PAUSED to READY, or
 * the element is removed from its bin. After one of the last two events, @fd is closed immediately. If
 * external_source_socket_new() refuses @fd, it is closed with a warning that names @source_name.
 *
 * Warnings: "src != NULL" and "source_name != NULL" are preconditions; if one fails, the caller keeps @fd.
 * "consumer_fd > -1" when @fd is negative and the element still accepts streams.
 */
void
external_src_add_socket(ExternalSrc *src, gint fd, const gchar *source_name)
{
  g_return_if_fail(src != NULL);
  g_return_if_fail(source_name != NULL);

  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&src->lock);
  if (src->closing) {
    close(fd);
    return;
  }
  ExternalSourceSocket *socket = external_source_socket_new(fd, source_name, src->account, on_data, on_close,
                                                            gst_object_ref(src), gst_object_unref);
  if (socket == nullptr) {
    return;
  }
  g_ptr_array_add(src->sockets, socket);
  update_num_sockets(src);
}

/**
 * external_src_get_cancellable:
 * @src: (transfer none): the element
 *
 * Ends the requests for streams that are made for the element.
 *
 * Returns: (transfer none): a cancellable, which is cancelled when the element changes from PAUSED to READY
 *   or is removed from its bin
 */
GCancellable *
external_src_get_cancellable(ExternalSrc *src)
{
  return src->cancellable;
}
