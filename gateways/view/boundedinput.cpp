/* SPDX-License-Identifier: MIT */
#include "boundedinput.h"

#include "requesthead.h"

#include <algorithm>

struct _BoundedInput {
  GFilterInputStream parent_instance;

  gsize left;
  view::RequestHead *head;
  gboolean has_refused;
  BoundedInputFunc on_closed; /* NULL after its call, and when it is forgotten */
  gpointer user_data;
};

static void bounded_input_pollable_init(GPollableInputStreamInterface *iface);

G_DEFINE_TYPE_WITH_CODE(BoundedInput, bounded_input, G_TYPE_FILTER_INPUT_STREAM,
                        G_IMPLEMENT_INTERFACE(G_TYPE_POLLABLE_INPUT_STREAM, bounded_input_pollable_init))

namespace
{

GPollableInputStream *
base_of(gpointer self)
{
  return G_POLLABLE_INPUT_STREAM(g_filter_input_stream_get_base_stream(G_FILTER_INPUT_STREAM(self)));
}

} // namespace

static void
bounded_input_init(BoundedInput *self)
{
  self->head = new view::RequestHead;
}

static void
bounded_input_finalize(GObject *object)
{
  delete BOUNDED_INPUT(object)->head;
  G_OBJECT_CLASS(bounded_input_parent_class)->finalize(object);
}

/* The engine closes its side also by dropping it. */
static void
bounded_input_dispose(GObject *object)
{
  BoundedInput *self = BOUNDED_INPUT(object);
  if (self->on_closed != nullptr) {
    g_steal_pointer (&self->on_closed)(self->user_data);
  }
  G_OBJECT_CLASS(bounded_input_parent_class)->dispose(object);
}

static gssize
bounded_input_read(GInputStream *stream, void *buffer, gsize count, GCancellable *cancellable, GError **error)
{
  BoundedInput *self = BOUNDED_INPUT(stream);
  if (self->left == 0) {
    g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_MESSAGE_TOO_LARGE, "The request is too long.");
    return -1;
  }
  const gssize size = g_pollable_stream_read(G_INPUT_STREAM(base_of(self)), buffer,
                                             std::min(count, self->left), FALSE, cancellable, error);
  if (size < 0) {
    return size;
  }
  self->left -= static_cast<gsize>(size);
  if (size > 0 ? self->head->append({static_cast<char *>(buffer), static_cast<gsize>(size)})
               : self->head->end()) {
    return size;
  }
  self->has_refused = TRUE;
  g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_INVALID_DATA, "The head of the request is withheld.");
  return -1;
}

static gboolean
bounded_input_close(GInputStream *stream, GCancellable *cancellable, GError **error)
{
  BoundedInput *self = BOUNDED_INPUT(stream);
  if (self->on_closed != nullptr) {
    g_steal_pointer (&self->on_closed)(self->user_data);
  }
  return G_INPUT_STREAM_CLASS(bounded_input_parent_class)->close_fn(stream, cancellable, error);
}

static void
bounded_input_class_init(BoundedInputClass *klass)
{
  G_OBJECT_CLASS(klass)->dispose = bounded_input_dispose;
  G_OBJECT_CLASS(klass)->finalize = bounded_input_finalize;
  G_INPUT_STREAM_CLASS(klass)->read_fn = bounded_input_read;
  G_INPUT_STREAM_CLASS(klass)->close_fn = bounded_input_close;
}

static gboolean
bounded_input_is_readable(GPollableInputStream *stream)
{
  return g_pollable_input_stream_is_readable(base_of(stream));
}

static GSource *
bounded_input_create_source(GPollableInputStream *stream, GCancellable *cancellable)
{
  g_autoptr(GSource) base = g_pollable_input_stream_create_source(base_of(stream), cancellable);
  return g_pollable_source_new_full(stream, base, cancellable);
}

static void
bounded_input_pollable_init(GPollableInputStreamInterface *iface)
{
  iface->is_readable = bounded_input_is_readable;
  iface->create_source = bounded_input_create_source;
}

/**
 * bounded_input_new:
 * @base: (transfer none): the stream to read; it must be pollable
 * @bytes_max: how much can be read before reading fails
 * @on_closed: called when the stream is closed or released
 * @user_data: for @on_closed
 *
 * Returns: (transfer full): the bounded stream
 */
BoundedInput *
bounded_input_new(GInputStream *base, gsize bytes_max, BoundedInputFunc on_closed, gpointer user_data)
{
  auto *self = static_cast<BoundedInput *>(g_object_new(BOUNDED_TYPE_INPUT, "base-stream", base, nullptr));
  self->left = bytes_max;
  self->on_closed = on_closed;
  self->user_data = user_data;
  return self;
}

/**
 * bounded_input_has_refused:
 * @self: the stream
 *
 * Returns: whether the head of the request was withheld; reading has failed then
 */
gboolean
bounded_input_has_refused(BoundedInput *self)
{
  return self->has_refused;
}

/**
 * bounded_input_forget:
 * @self: the stream
 *
 * Keeps the callback from being called.
 */
void
bounded_input_forget(BoundedInput *self)
{
  self->on_closed = nullptr;
}
