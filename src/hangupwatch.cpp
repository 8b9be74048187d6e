/* Tells a thread that waits on behalf of a client when that client has hung up.
 *
 * The thread has a cancellable as its current one while it works for the client. The functions that it calls
 * can check that cancellable: a source factory knows no clients. The main loop watches the descriptor and
 * cancels. A client that ends its writing half only is still there and is waiting for its reply.
 *
 * The main loop's callback holds a reference to the cancellable and touches nothing else. So a watch may go
 * at any time, on the thread that it is for, while the callback runs; the descriptor may be closed right
 * afterwards, and its number be another client's.
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
 * @fd: a client's connected stream socket, which has to stay open as long as the watch is there
 *
 * Makes a new cancellable the calling thread's current one, and has the main loop cancel it when the client
 * hangs up. Any thread.
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
 * Ends the watch and makes the thread's former cancellable its current one again. The thread that made
 * @self.
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
 * Looks once, without waiting. Any thread.
 *
 * Returns: %TRUE when the client has hung up; %FALSE also when it has ended its writing half alone
 */
gboolean
hang_up_watch_is_gone(int fd)
{
  pollfd descriptor = {fd, 0, 0};

  return poll(&descriptor, 1, 0) > 0;
}
