/* The calls of the metadata receiver's objects, in one queue.
 *
 * A bus allows a connection so many open calls, and refuses more. Bursts of clients ask for far more streams
 * than that. So calls wait here in the order in which they came, and only a part of them is open.
 *
 * A call that brings descriptors reserves them before it is made, and keeps the reservation until its reply
 * has been dealt with. Where none can be reserved the queue rests: as long as the clients that need the
 * stream are there, so is the call.
 *
 * A call has three ends: its reply, its failure, and its cancellable, whichever comes first. A cancelled call
 * leaves the queue at once, and its function is not called.
 *
 * Main thread.
 */
#include "receivercalls.h"

#include "descriptorreserve.h"
#include "receiverwatch.h"

#include <memory>
#include <syslog.h>

namespace
{

struct Call {
  GDBusConnection *connection = nullptr;
  gchar *path = nullptr;
  gchar *method = nullptr;
  GVariant *parameters = nullptr;
  guint descriptors = 0;
  gint timeout_ms = 0;
  GCancellable *cancellable = nullptr;
  GSource *cancel_source = nullptr; /* while the call waits */
  guint tries = 0;
  DescriptorReservation *reservation = nullptr;
  ReceiverReplyFunc func = nullptr;
  gpointer user_data = nullptr;
  GDestroyNotify user_data_free = nullptr;

  Call() = default;
  ~Call();
  Call(const Call &) = delete;
  Call &operator=(const Call &) = delete;
};

using CallOwner = std::unique_ptr<Call>;

GQueue waiting = G_QUEUE_INIT; /* of Call */
guint under_way;
guint rest_id;
gboolean short_of_descriptors;

Call::~Call()
{
  if (user_data_free != nullptr) {
    user_data_free(user_data);
  }
  g_clear_pointer(&reservation, descriptor_reservation_free);
  g_clear_object(&cancellable);
  g_clear_pointer(&parameters, g_variant_unref);
  g_free(path);
  g_free(method);
  g_clear_object(&connection);
}

void
stop_waiting_for_cancel(Call *call)
{
  if (call->cancel_source != nullptr) {
    g_source_destroy(call->cancel_source);
    g_clear_pointer(&call->cancel_source, g_source_unref);
  }
}

gboolean
on_cancelled(GCancellable *, gpointer user_data)
{
  const CallOwner call(static_cast<Call *>(user_data));

  stop_waiting_for_cancel(call.get());
  g_queue_remove(&waiting, call.get());
  return G_SOURCE_REMOVE;
}

void
wait_for_cancel(Call *call)
{
  if (call->cancellable == nullptr) {
    return;
  }
  call->cancel_source = g_cancellable_source_new(call->cancellable);
  g_source_set_callback(call->cancel_source, G_SOURCE_FUNC(on_cancelled), call, nullptr);
  g_source_attach(call->cancel_source, nullptr);
}

void make_calls();

gboolean
on_rested(gpointer)
{
  rest_id = 0;
  make_calls();
  return G_SOURCE_REMOVE;
}

void
rest()
{
  if (rest_id == 0) {
    rest_id = g_timeout_add(RECEIVER_CALLS_REST_MS, on_rested, nullptr);
  }
}

/* FALSE when the call has to wait. The shortage is logged when it begins. */
gboolean
reserve_descriptors(Call *call)
{
  if (call->descriptors == 0) {
    return TRUE;
  }
  call->reservation = descriptor_reservation_new(call->descriptors, nullptr);
  if (call->reservation == nullptr && !short_of_descriptors) {
    syslog(LOG_WARNING, "streams of external producers wait: too few free file descriptors");
  }
  short_of_descriptors = call->reservation == nullptr;
  return !short_of_descriptors;
}

void
put_back(CallOwner call)
{
  g_clear_pointer(&call->reservation, descriptor_reservation_free);
  wait_for_cancel(call.get());
  g_queue_push_head(&waiting, call.release());
  rest();
}

gboolean
is_to_be_tried_again(const Call *call, const GError *error)
{
  return g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_LIMITS_EXCEEDED) &&
         call->tries < RECEIVER_CALLS_MAX_TRIES;
}

void
on_reply(GObject *connection, GAsyncResult *result, gpointer user_data)
{
  CallOwner call(static_cast<Call *>(user_data));
  g_autoptr(GUnixFDList) fds = nullptr;
  g_autoptr(GError) error = nullptr;
  g_autoptr(GVariant) reply =
      g_dbus_connection_call_with_unix_fd_list_finish(G_DBUS_CONNECTION(connection), &fds, result, &error);

  under_way--;
  if (g_cancellable_is_cancelled(call->cancellable)) {
    call.reset();
  } else if (is_to_be_tried_again(call.get(), error)) {
    put_back(std::move(call));
  } else {
    call->func(reply, fds, error, call->user_data);
  }
  make_calls();
}

void
make_call(Call *call)
{
  stop_waiting_for_cancel(call);
  call->tries++;
  under_way++;
  g_dbus_connection_call_with_unix_fd_list(call->connection, RECEIVER_NAME, call->path,
                                           RECEIVER_PRODUCER_INTERFACE, call->method, call->parameters,
                                           nullptr, G_DBUS_CALL_FLAGS_NONE, call->timeout_ms, nullptr,
                                           call->cancellable, on_reply, call);
}

void
make_calls()
{
  while (rest_id == 0 && under_way < RECEIVER_CALLS_MAX_UNDER_WAY && !g_queue_is_empty(&waiting)) {
    auto *call = static_cast<Call *>(g_queue_peek_head(&waiting));
    if (!reserve_descriptors(call)) {
      rest();
      return;
    }
    g_queue_pop_head(&waiting);
    make_call(call);
  }
}

} // namespace

/**
 * receiver_call:
 * @call: (transfer none): what to call; copied
 * @func: called with the reply or the failure, unless the call is cancelled
 * @user_data: for @func
 * @user_data_free: (nullable): releases @user_data, after @func or instead of it
 *
 * Makes a call when its turn comes. One that the bus or the receiver refuses with
 * %G_DBUS_ERROR_LIMITS_EXCEEDED is made again, %RECEIVER_CALLS_MAX_TRIES times in all. Main thread.
 *
 * Warnings: "streams of external producers wait: too few free file descriptors", when that begins
 */
void
receiver_call(const ReceiverCall *call, ReceiverReplyFunc func, gpointer user_data,
              GDestroyNotify user_data_free)
{
  auto copy = std::make_unique<Call>();

  copy->connection = G_DBUS_CONNECTION(g_object_ref(call->connection));
  copy->path = g_strdup(call->path);
  copy->method = g_strdup(call->method);
  copy->parameters = call->parameters != nullptr ? g_variant_ref_sink(call->parameters) : nullptr;
  copy->descriptors = call->descriptors;
  copy->timeout_ms = call->timeout_ms;
  copy->cancellable = call->cancellable != nullptr ? G_CANCELLABLE(g_object_ref(call->cancellable)) : nullptr;
  copy->func = func;
  copy->user_data = user_data;
  copy->user_data_free = user_data_free;

  wait_for_cancel(copy.get());
  g_queue_push_tail(&waiting, copy.release());
  make_calls();
}
