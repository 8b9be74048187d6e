/* SPDX-License-Identifier: MIT */
/* Calls a method on the bus and waits for the reply or a cancellation.
 *
 * The synchronous call of GDBus leaks: if the call is cancelled while its reply arrives, it returns before
 * GDBus' source for the cancellation is dispatched. The source then keeps the call, and the call keeps its
 * main context and one descriptor, forever.
 *
 * This function therefore makes an asynchronous call and iterates its own main context until no source is
 * ready. GDBus gets a separate cancellable, which is cancelled together with the caller's. After the two are
 * disconnected, no further source is added.
 */
#include "buscall.h"

namespace
{

/* A new main context, which is the calling thread's default one while the object exists. */
class OwnContext
{
public:
  OwnContext() : context_(g_main_context_new())
  {
    g_main_context_push_thread_default(context_);
  }
  ~OwnContext()
  {
    g_main_context_pop_thread_default(context_);
    g_main_context_unref(context_);
  }
  OwnContext(const OwnContext &) = delete;
  OwnContext &operator=(const OwnContext &) = delete;

  /* FALSE when no source was dispatched. */
  gboolean dispatch(gboolean may_wait)
  {
    return g_main_context_iteration(context_, may_wait);
  }

private:
  GMainContext *context_;
};

void
on_caller_cancelled(GCancellable *cancellable, gpointer user_data)
{
  g_cancellable_cancel(G_CANCELLABLE(user_data));
}

void
on_result(GObject *source, GAsyncResult *result, gpointer user_data)
{
  *static_cast<GAsyncResult **>(user_data) = G_ASYNC_RESULT(g_object_ref(result));
}

} // namespace

/**
 * bus_call_sync:
 * @call: (transfer none): the call
 * @cancellable: (transfer none) (nullable): ends the wait for the reply
 * @error: (out) (optional): where to put the failure
 *
 * Calls a method and waits for the reply. Opens one descriptor during the wait. Any thread.
 *
 * Returns: (transfer full) (nullable): the reply, of any type; %NULL with @error set (%G_DBUS_ERROR,
 *   %G_IO_ERROR), %G_IO_ERROR_CANCELLED among others
 */
GVariant *
bus_call_sync(const BusCall *call, GCancellable *cancellable, GError **error)
{
  g_autoptr(GCancellable) own = g_cancellable_new();
  g_autoptr(GAsyncResult) result = nullptr;
  OwnContext context;

  const gulong handler_id =
      cancellable != nullptr
          ? g_cancellable_connect(cancellable, G_CALLBACK(on_caller_cancelled), own, nullptr)
          : 0;
  g_dbus_connection_call(call->connection, call->name, call->path, call->interface, call->method,
                         call->parameters, nullptr, G_DBUS_CALL_FLAGS_NONE, call->timeout_ms, own, on_result,
                         &result);
  while (result == nullptr) {
    context.dispatch(TRUE);
  }
  /* Waits for a cancellation that is in progress. */
  g_cancellable_disconnect(cancellable, handler_id);
  while (context.dispatch(FALSE)) {
  }
  return g_dbus_connection_call_finish(call->connection, result, error);
}
