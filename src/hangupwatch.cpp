/* SPDX-License-Identifier: MIT */
/* Cancels a thread's work for a client when the client hangs up.
 *
 * The watch makes a cancellable the thread's current one, so that source factories can use it without knowing
 * the client. The main loop watches the descriptor and cancels. A client that ends only its writing half has
 * not hung up: it waits for its reply.
 *
 * The main loop's callback holds a reference to the cancellable and uses nothing else. The watch can
 * therefore be freed on its thread while the callback runs, and the descriptor can be closed immediately.
 */
#include "hangupwatch.h"

#include <glib-unix.h>
#include <poll.h>

struct HangUpWatch {
  GCancellable *cancellable;
  GSource *source;
};

namespace
{

gboolean
on_hang_up(gint fd, GIOCondition condition, gpointer user_data)
{
  g_cancellable_cancel(G_CANCELLABLE(user_data));
  return G_SOURCE_REMOVE;
}

} // namespace

/**
 * hang_up_watch_new:
 * @fd: a client's connected stream socket; must stay open while the watch exists
 *
 * Makes a new cancellable the calling thread's current one. The main loop cancels it when the client hangs
 * up.
 *
 * Returns: (transfer full): the watch, to be freed by the calling thread
 */
HangUpWatch *
hang_up_watch_new(int fd)
{
  auto *self = g_new0(HangUpWatch, 1);

  self->cancellable = g_cancellable_new();
  self->source = g_unix_fd_source_new(fd, static_cast<GIOCondition>(G_IO_ERR | G_IO_HUP));
  g_source_set_callback(self->source, G_SOURCE_FUNC(on_hang_up), g_object_ref(self->cancellable),
                        g_object_unref);
  g_source_attach(self->source, nullptr);
  g_cancellable_push_current(self->cancellable);
  return self;
}

/**
 * hang_up_watch_free:
 * @self: (transfer full): the watch that the calling thread made last
 *
 * Ends the watch and makes the thread's previous cancellable its current one again.
 *
 * Warnings: "self != NULL" is a precondition.
 */
void
hang_up_watch_free(HangUpWatch *self)
{
  g_return_if_fail(self != NULL);

  g_cancellable_pop_current(self->cancellable);
  g_source_destroy(self->source);
  g_source_unref(self->source);
  g_object_unref(self->cancellable);
  g_free(self);
}

/**
 * hang_up_watch_is_gone:
 * @fd: a client's connected stream socket
 *
 * Does not block.
 *
 * Returns: whether the client has hung up; a client that has ended only its writing half has not
 */
gboolean
hang_up_watch_is_gone(int fd)
{
  pollfd descriptor = {fd, 0, 0};

  return poll(&descriptor, 1, 0) > 0;
}
