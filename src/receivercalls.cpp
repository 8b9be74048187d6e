/* SPDX-License-Identifier: MIT */
/* The calls to the metadata receiver's objects, in one queue.
 *
 * The bus limits the pending calls of a connection and refuses more, and bursts of clients request far more
 * streams than that. Calls therefore wait here in order, and only some of them are pending.
 *
 * Descriptors: they are reserved before a call whose reply has some, until the reply is handled, also after
 * the call is abandoned. If they cannot be reserved, the queue backs off, and the call waits as long as its
 * client.
 *
 * End: a call ends with a reply, a failure, a time-out or a cancellation. The function of a cancelled call is
 * not called.
 *
 * Limit: on the bus a call is pending until the receiver replies or leaves, even when the caller has
 * abandoned it. Time-outs and cancellations are therefore handled here, because GDBus would not count the
 * call. An abandoned call makes room for the next one, but still counts as unanswered. Unanswered calls have
 * their own limit, so that a receiver that never replies leaves room for the daemon's other calls.
 */
#include "receivercalls.h"

#include "descriptorreserve.h"
#include "ratelimitedlog.h"
#include "receiverwatch.h"

#include <memory>
#include <syslog.h>
#include <utility>

namespace
{

/* The value that GDBus treats as no time-out. */
constexpr gint NO_TIMEOUT = G_MAXINT;

/* Shortages can begin and end often. */
RateLimitedLog descriptors_log = RATE_LIMITED_LOG_INIT(RATE_LIMITED_LOG_INTERVAL_US);
RateLimitedLog replies_log = RATE_LIMITED_LOG_INIT(RATE_LIMITED_LOG_INTERVAL_US);

enum class CallState { WAITING, PENDING, ABANDONED };

struct QueuedCall {
  CallState state = CallState::WAITING;
  GDBusConnection *connection = nullptr;
  gchar *path = nullptr;
  gchar *method = nullptr;
  GVariant *parameters = nullptr;
  guint descriptors = 0;
  guint timeout_ms = 0;
  GCancellable *cancellable = nullptr;
  GSource *cancel_source = nullptr; /* NULL without a cancellable and in ABANDONED */
  guint deadline_id = 0;            /* in PENDING */
  guint tries = 0;
  DescriptorReservation *reservation = nullptr;
  ReceiverReplyFunc func = nullptr;
  gpointer user_data = nullptr;
  GDestroyNotify user_data_free = nullptr; /* NULL in ABANDONED */

  QueuedCall() = default;
  ~QueuedCall();
  QueuedCall(const QueuedCall &) = delete;
  QueuedCall &operator=(const QueuedCall &) = delete;
};

using CallOwner = std::unique_ptr<QueuedCall>;

GQueue waiting_calls = G_QUEUE_INIT; /* of QueuedCall */
guint pending_calls;
guint unanswered; /* pending and abandoned calls */
guint back_off_id;
gboolean short_of_descriptors;
gboolean short_of_replies;

/* Releases the resources that a call holds for its caller. */
void
release_caller(QueuedCall *call)
{
  const GDestroyNotify user_data_free = std::exchange(call->user_data_free, nullptr);

  if (user_data_free != nullptr) {
    user_data_free(call->user_data);
  }
  if (call->cancel_source != nullptr) {
    g_source_destroy(call->cancel_source);
    g_clear_pointer(&call->cancel_source, g_source_unref);
  }
  g_clear_object(&call->cancellable);
  g_clear_handle_id(&call->deadline_id, g_source_remove);
}

QueuedCall::~QueuedCall()
{
  release_caller(this);
  g_clear_pointer(&reservation, descriptor_reservation_free);
  g_clear_pointer(&parameters, g_variant_unref);
  g_free(path);
  g_free(method);
  g_clear_object(&connection);
}

void make_calls();

/* The call itself is freed when its reply arrives. */
void
abandon_call(QueuedCall *call)
{
  call->state = CallState::ABANDONED;
  pending_calls--;
  release_caller(call);
  make_calls();
}

gboolean
on_cancelled(GCancellable *, gpointer user_data)
{
  auto *call = static_cast<QueuedCall *>(user_data);

  if (call->state == CallState::WAITING) {
    g_queue_remove(&waiting_calls, call);
    delete call;
  } else {
    abandon_call(call);
  }
  return G_SOURCE_REMOVE;
}

void
watch_cancellable(QueuedCall *call)
{
  call->cancel_source = g_cancellable_source_new(call->cancellable);
  g_source_set_callback(call->cancel_source, G_SOURCE_FUNC(on_cancelled), call, nullptr);
  g_source_attach(call->cancel_source, nullptr);
}

gboolean
on_call_deadline(gpointer user_data)
{
  auto *call = static_cast<QueuedCall *>(user_data);

  call->deadline_id = 0;
  if (!g_cancellable_is_cancelled(call->cancellable)) {
    g_autoptr(GError) error = g_error_new_literal(G_IO_ERROR, G_IO_ERROR_TIMED_OUT, "Timeout was reached");
    call->func(nullptr, nullptr, error, call->user_data);
  }
  abandon_call(call);
  return G_SOURCE_REMOVE;
}

gboolean
on_calls_backed_off(gpointer)
{
  back_off_id = 0;
  make_calls();
  return G_SOURCE_REMOVE;
}

void
back_off_calls()
{
  if (back_off_id == 0) {
    back_off_id = g_timeout_add(RECEIVER_CALLS_BACKOFF_MS, on_calls_backed_off, nullptr);
  }
}

/* FALSE when the call must wait. Logs the shortage when it begins. */
gboolean
reserve_descriptors(QueuedCall *call)
{
  if (call->descriptors == 0) {
    return TRUE;
  }
  call->reservation = descriptor_reservation_new(call->descriptors, nullptr);
  if (call->reservation == nullptr && !short_of_descriptors) {
    rate_limited_log(&descriptors_log, LOG_WARNING,
                     "streams of external producers wait: too few free file descriptors");
  }
  short_of_descriptors = call->reservation == nullptr;
  return !short_of_descriptors;
}

/* FALSE when calls must wait. Logs the shortage when it begins. */
gboolean
has_room_for_call()
{
  if (unanswered < RECEIVER_CALLS_MAX_UNANSWERED) {
    return TRUE;
  }
  if (!short_of_replies) {
    rate_limited_log(&replies_log, LOG_WARNING,
                     "calls of the metadata receiver wait: it leaves %u unanswered", unanswered);
  }
  short_of_replies = TRUE;
  return FALSE;
}

/* The shortage ends when all unanswered calls fit into RECEIVER_CALLS_MAX_UNDER_WAY. */
void
note_reply()
{
  unanswered--;
  if (unanswered <= RECEIVER_CALLS_MAX_UNDER_WAY) {
    short_of_replies = FALSE;
  }
}

/* The call goes to the end of the queue, so that a producer that always refuses does not block the others. */
void
put_back(CallOwner call)
{
  call->state = CallState::WAITING;
  g_clear_handle_id(&call->deadline_id, g_source_remove);
  g_clear_pointer(&call->reservation, descriptor_reservation_free);
  g_queue_push_tail(&waiting_calls, call.release());
  back_off_calls();
}

gboolean
must_be_repeated(const QueuedCall *call, const GError *error)
{
  return g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_LIMITS_EXCEEDED) &&
         call->tries < RECEIVER_CALLS_MAX_TRIES;
}

/* Handles the end of a pending call. */
void
take_call_reply(CallOwner call, GVariant *reply, GUnixFDList *fds, const GError *error)
{
  pending_calls--;
  if (g_cancellable_is_cancelled(call->cancellable)) {
    return;
  }
  if (must_be_repeated(call.get(), error)) {
    put_back(std::move(call));
    return;
  }
  call->func(reply, fds, error, call->user_data);
}

void
on_reply(GObject *connection, GAsyncResult *result, gpointer user_data)
{
  CallOwner call(static_cast<QueuedCall *>(user_data));
  g_autoptr(GUnixFDList) fds = nullptr;
  g_autoptr(GError) error = nullptr;
  g_autoptr(GVariant) reply =
      g_dbus_connection_call_with_unix_fd_list_finish(G_DBUS_CONNECTION(connection), &fds, result, &error);

  note_reply();
  if (call->state == CallState::PENDING) {
    take_call_reply(std::move(call), reply, fds, error);
  }
  make_calls();
}

void
make_call(QueuedCall *call)
{
  call->state = CallState::PENDING;
  call->tries++;
  call->deadline_id = g_timeout_add(call->timeout_ms, on_call_deadline, call);
  pending_calls++;
  unanswered++;
  g_dbus_connection_call_with_unix_fd_list(
      call->connection, RECEIVER_NAME, call->path, RECEIVER_PRODUCER_INTERFACE, call->method,
      call->parameters, nullptr, G_DBUS_CALL_FLAGS_NONE, NO_TIMEOUT, nullptr, nullptr, on_reply, call);
}

/* Returns the next call that is not cancelled, or NULL. Frees the cancelled ones before it. */
QueuedCall *
peek_next()
{
  while (auto *call = static_cast<QueuedCall *>(g_queue_peek_head(&waiting_calls))) {
    if (!g_cancellable_is_cancelled(call->cancellable)) {
      return call;
    }
    g_queue_pop_head(&waiting_calls);
    delete call;
  }
  return nullptr;
}

void
make_calls()
{
  while (back_off_id == 0 && pending_calls < RECEIVER_CALLS_MAX_UNDER_WAY) {
    QueuedCall *call = peek_next();
    if (call == nullptr || !has_room_for_call()) {
      return;
    }
    if (!reserve_descriptors(call)) {
      back_off_calls();
      return;
    }
    g_queue_pop_head(&waiting_calls);
    make_call(call);
  }
}

} // namespace

/**
 * receiver_call:
 * @call: (transfer none): the call; copied
 * @func: called with the reply or the failure, unless the call is cancelled
 * @user_data: for @func
 * @user_data_free: (nullable): releases @user_data, after @func or instead of it
 *
 * Queues a call. A call that fails with %G_DBUS_ERROR_LIMITS_EXCEEDED is repeated, up to
 * %RECEIVER_CALLS_MAX_TRIES tries in all.
 *
 * Warnings, each when a shortage begins: "streams of external producers wait: too few free file descriptors"
 * and "calls of the metadata receiver wait: it leaves %u unanswered"
 */
void
receiver_call(const ReceiverCall *call, ReceiverReplyFunc func, gpointer user_data,
              GDestroyNotify user_data_free)
{
  auto copy = std::make_unique<QueuedCall>();

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

  if (copy->cancellable != nullptr) {
    watch_cancellable(copy.get());
  }
  g_queue_push_tail(&waiting_calls, copy.release());
  make_calls();
}
