/* The calls to the metadata receiver's objects, in one queue.
 *
 * The bus limits the pending calls of a connection and refuses more, and bursts of clients request far more
 * streams than that. Calls therefore wait here in order, and only some of them are pending.
 *
 * A call that brings descriptors reserves them before it is made. It keeps the reservation until its reply
 * has been handled, also after the call is given up. Without a reservation the queue backs off; the call
 * stays as long as its client.
 *
 * A call ends in one of four ways: reply, failure, time-out, cancellation. The function of a cancelled call
 * is not called.
 *
 * On the bus a call is pending until the receiver replies or leaves, even when the caller has given it up.
 * Time-outs and cancellables are therefore handled here: GDBus would forget the call. A call that is given up
 * makes room for the next one, but still counts as unanswered. The count of unanswered calls has a limit of
 * its own, so that a receiver that never replies leaves room for the daemon's other calls.
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

/* GDBus' value for no time-out. */
constexpr gint NO_TIMEOUT = G_MAXINT;

/* Shortages can begin and end often. */
RateLimitedLog descriptors_log = RATE_LIMITED_LOG_INIT(RATE_LIMITED_LOG_INTERVAL_US);
RateLimitedLog answers_log = RATE_LIMITED_LOG_INIT(RATE_LIMITED_LOG_INTERVAL_US);

enum class CallState { WAITING, UNDER_WAY, GIVEN_UP };

struct QueuedCall {
  CallState state = CallState::WAITING;
  GDBusConnection *connection = nullptr;
  gchar *path = nullptr;
  gchar *method = nullptr;
  GVariant *parameters = nullptr;
  guint descriptors = 0;
  guint timeout_ms = 0;
  GCancellable *cancellable = nullptr;
  GSource *cancel_source = nullptr; /* NULL without a cancellable and after the call is given up */
  guint deadline_id = 0;            /* while the call is in UNDER_WAY */
  guint tries = 0;
  DescriptorReservation *reservation = nullptr;
  ReceiverReplyFunc func = nullptr;
  gpointer user_data = nullptr;
  GDestroyNotify user_data_free = nullptr; /* NULL after the call is given up */

  QueuedCall() = default;
  ~QueuedCall();
  QueuedCall(const QueuedCall &) = delete;
  QueuedCall &operator=(const QueuedCall &) = delete;
};

using CallOwner = std::unique_ptr<QueuedCall>;

GQueue waiting_calls = G_QUEUE_INIT; /* of QueuedCall */
guint under_way;
guint unanswered; /* pending calls, including those that were given up */
guint back_off_id;
gboolean short_of_descriptors;
gboolean short_of_answers;

/* Releases what a call holds for its caller. */
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
give_up(QueuedCall *call)
{
  call->state = CallState::GIVEN_UP;
  under_way--;
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
    give_up(call);
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
  give_up(call);
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
may_be_answered()
{
  if (unanswered < RECEIVER_CALLS_MAX_UNANSWERED) {
    return TRUE;
  }
  if (!short_of_answers) {
    rate_limited_log(&answers_log, LOG_WARNING,
                     "calls of the metadata receiver wait: it leaves %u unanswered", unanswered);
  }
  short_of_answers = TRUE;
  return FALSE;
}

/* The shortage ends when all unanswered calls fit into RECEIVER_CALLS_MAX_UNDER_WAY. */
void
note_answer()
{
  unanswered--;
  if (unanswered <= RECEIVER_CALLS_MAX_UNDER_WAY) {
    short_of_answers = FALSE;
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
is_to_be_tried_again(const QueuedCall *call, const GError *error)
{
  return g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_LIMITS_EXCEEDED) &&
         call->tries < RECEIVER_CALLS_MAX_TRIES;
}

/* Handles the end of a call that was not given up. */
void
take_call_reply(CallOwner call, GVariant *reply, GUnixFDList *fds, const GError *error)
{
  under_way--;
  if (g_cancellable_is_cancelled(call->cancellable)) {
    return;
  }
  if (is_to_be_tried_again(call.get(), error)) {
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

  note_answer();
  if (call->state == CallState::UNDER_WAY) {
    take_call_reply(std::move(call), reply, fds, error);
  }
  make_calls();
}

void
make_call(QueuedCall *call)
{
  call->state = CallState::UNDER_WAY;
  call->tries++;
  call->deadline_id = g_timeout_add(call->timeout_ms, on_call_deadline, call);
  under_way++;
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
  while (back_off_id == 0 && under_way < RECEIVER_CALLS_MAX_UNDER_WAY) {
    QueuedCall *call = peek_next();
    if (call == nullptr || !may_be_answered()) {
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
 * @func: gets the reply or the failure, unless the call is cancelled
 * @user_data: for @func
 * @user_data_free: (nullable): releases @user_data, after @func or instead of it
 *
 * Queues a call. A call that fails with %G_DBUS_ERROR_LIMITS_EXCEEDED is repeated, up to
 * %RECEIVER_CALLS_MAX_TRIES tries in all. Main thread.
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
