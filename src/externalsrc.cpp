/* The head of a client's branch of external producers: gathers their streams and pushes each frame as one
 * buffer, without a time stamp.
 *
 * Who keeps whom. The element has one reference on each socket of its list. Each open socket has one on the
 * element, so that an element goes only after its sockets have been closed, by their producers or by its
 * stop.
 *
 * Which threads. The main thread adds sockets and runs their callbacks. Whoever changes the pipeline's state
 * stops the element. A streaming thread takes the buffers.
 *
 * What the lock guards. The list, whether the element is closing, and the order in which the length of the
 * queue is told to the account. Under it the locks of the application source, of the sockets and of the
 * account may be taken, none of which is ever held when this one is taken: a socket calls back without its
 * own, and so does the application source. The element closes its sockets without notification, so the close
 * callback never meets the lock in its own thread.
 *
 * A client that does not read. The application source takes whatever is pushed. So the account of the client
 * (messageaccount.h) is told how much waits in it, after each push and after each buffer that a streaming
 * thread has taken. When that is too much the sockets are paused, for this client alone, and its producers
 * see a stream that takes no more. Of two threads that tell at once, the one that has looked at the queue
 * last tells last, because both look and tell under the lock.
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
  guint num_sockets; /* the length of the list, atomic: for those who read it without the lock */
  gint32 video_channel;
  GCancellable *cancellable; /* never changes */
  MessageAccount *account;   /* likewise */
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

/* These four with the lock held. */

ExternalSourceSocket *
get_socket(ExternalSrc *src, guint index)
{
  return TESSARD_EXTERNAL_SOURCE_SOCKET(g_ptr_array_index(src->sockets, index));
}

void
count_sockets(ExternalSrc *src)
{
  g_atomic_int_set(&src->num_sockets, src->sockets->len);
}

void
count_queue(ExternalSrc *src)
{
  auto *app_src = GST_APP_SRC(src);
  const guint64 overhead = gst_app_src_get_current_level_buffers(app_src) * MESSAGE_ACCOUNT_MESSAGE_OVERHEAD;

  message_account_set_queued(src->account, gst_app_src_get_current_level_bytes(app_src) + overhead);
}

/* For good: an element is not used again. Streams that are still asked for are not wanted any more, and
 * descriptors that still arrive are closed at once. */
void
close_all(ExternalSrc *src)
{
  src->closing = TRUE;
  g_cancellable_cancel(src->cancellable);
  for (guint i = 0; i < src->sockets->len; i++) {
    external_source_socket_close(get_socket(src, i), FALSE);
  }
  g_ptr_array_set_size(src->sockets, 0);
  count_sockets(src);
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
  ExternalSrc *src = TESSARD_EXTERNAL_SRC(object);

  g_ptr_array_unref(src->sockets);
  g_object_unref(src->cancellable);
  /* What still waits goes with the parent class. */
  message_account_set_queued(src->account, 0);
  message_account_unref(src->account);
  g_mutex_clear(&src->lock);

  G_OBJECT_CLASS(external_src_parent_class)->finalize(object);
}

static void
external_src_get_property(GObject *object, guint id, GValue *value, GParamSpec *pspec)
{
  ExternalSrc *src = TESSARD_EXTERNAL_SRC(object);

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

/* There is no other writable property, so the id is not looked at. */
static void
external_src_set_property(GObject *object, guint id, const GValue *value, GParamSpec *pspec)
{
  TESSARD_EXTERNAL_SRC(object)->video_channel = g_value_get_int(value);
}

/* Does not chain up: no parent class implements this. */
static void
external_src_state_changed(GstElement *element, GstState old_state, GstState new_state, GstState pending)
{
  ExternalSrc *src = TESSARD_EXTERNAL_SRC(element);

  if (old_state == GST_STATE_PAUSED && new_state == GST_STATE_READY) {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&src->lock);
    close_all(src);
    count_queue(src);
  }
}

/* An element without a bus has been taken out of its bin. When its pipeline has failed early it was never
 * PAUSED; its sockets would then keep it, unseen by anybody, for as long as their producers live. */
static void
external_src_set_bus(GstElement *element, GstBus *bus)
{
  ExternalSrc *src = TESSARD_EXTERNAL_SRC(element);

  GST_ELEMENT_CLASS(external_src_parent_class)->set_bus(element, bus);
  if (bus == nullptr) {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&src->lock);
    close_all(src);
  }
}

/* On a streaming thread, which waits here for the next buffer. */
static GstFlowReturn
external_src_create(GstBaseSrc *base_src, guint64 offset, guint size, GstBuffer **buffer)
{
  ExternalSrc *src = TESSARD_EXTERNAL_SRC(base_src);
  const GstFlowReturn result =
      GST_BASE_SRC_CLASS(external_src_parent_class)->create(base_src, offset, size, buffer);
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&src->lock);

  count_queue(src);
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

/* What comes of a push is nobody's concern: an element that has stopped drops the buffer. */
void
on_data(ExternalSourceSocket *socket, guint8 *frame, gsize size, gpointer user_data)
{
  auto *src = static_cast<ExternalSrc *>(user_data);

  gst_app_src_push_buffer(GST_APP_SRC(src), gst_buffer_new_wrapped(frame, size));

  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&src->lock);
  count_queue(src);
}

/* A producer that goes does not end the stream, not even the last one. */
void
on_close(ExternalSourceSocket *socket, gpointer user_data)
{
  auto *src = static_cast<ExternalSrc *>(user_data);

  if (socket == nullptr || src == nullptr) {
    return;
  }
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&src->lock);
  g_ptr_array_remove(src->sockets, socket);
  count_sockets(src);
}

} // namespace

/**
 * external_src_new:
 *
 * Makes an element without producers. There is no element factory for it. Any thread.
 *
 * Returns: (transfer floating): a new element
 */
ExternalSrc *
external_src_new(void)
{
  return TESSARD_EXTERNAL_SRC(g_object_new(EXTERNAL_TYPE_SRC, nullptr));
}

/**
 * external_src_add_socket:
 * @src: (transfer none): the element
 * @fd: (transfer full): the descriptor of a producer's stream, or -1 from a reply without one
 * @source_name: the name that stands in every frame of this producer
 *
 * Reads one more producer, until its stream ends, the element goes from PAUSED to READY or it is taken out of
 * its bin. After either of the last two the descriptor is closed at once. A descriptor that
 * external_source_socket_new() refuses is closed and the element goes on without it; the line at warning
 * priority names @source_name. Any thread.
 *
 * Warnings: "src != NULL" and "source_name != NULL" are preconditions; when one fails, the descriptor is not
 * taken over. "consumer_fd > -1" when @fd is negative and the element still takes streams.
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
  count_sockets(src);
}

/**
 * external_src_get_cancellable:
 * @src: (transfer none): the element
 *
 * Whoever asks for a stream on behalf of the element ends the question when this is cancelled. Any thread.
 *
 * Returns: (transfer none): what is cancelled when the element wants no more streams: when it goes from
 *   PAUSED to READY or is taken out of its bin
 */
GCancellable *
external_src_get_cancellable(ExternalSrc *src)
{
  return src->cancellable;
}
