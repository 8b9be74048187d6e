/* The calls of the metadata receiver's objects, in one queue.
 *
 * A bus allows a connection so many open calls, and refuses more. Bursts of clients ask for far more streams
 * than that. So calls wait here in the order in which they came, and only a part of them is open.
 *
 * A call that brings descriptors reserves them before it is made, and keeps the reservation until its reply
 * has been dealt with, also when it is given up meanwhile. Where none can be reserved the queue rests: as
 * long as the clients that need the stream are there, so is the call.
 *
 * A call has four ends: its reply, its failure, its time-out, and its cancellable, whichever comes first. A
 * cancelled call's function is not called.
 *
 * For the bus a call is open until the receiver replies or leaves, also when nobody waits for the reply any
 * more. So time-outs and cancellables are kept here and not by GDBus, which would forget the call: one that
 * is given up gives its place to the next one, but still counts as unanswered. Of those there is a limit too,
 * so that a receiver which never replies does not use up what the daemon needs for its other calls.
 *
 * Main thread.
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

/* GDBus' time-out that is none. */
constexpr gint NO_TIMEOUT = G_MAXINT;

/* A shortage may begin and end all the time. */
RateLimitedLog descriptors_log = RATE_LIMITED_LOG_INIT(RATE_LIMITED_LOG_INTERVAL_US);
RateLimitedLog answers_log = RATE_LIMITED_LOG_INIT(RATE_LIMITED_LOG_INTERVAL_US);

enum class State { WAITING, UNDER_WAY, GIVEN_UP };

struct Call {
  State state = State::WAITING;
  GDBusConnection *connection = nullptr;
  gchar *path = nullptr;
  gchar *method = nullptr;
  GVariant *parameters = nullptr;
  guint descriptors = 0;
  guint timeout_ms = 0;
  GCancellable *cancellable = nullptr;
  GSource *cancel_source = nullptr; /* NULL without a cancellable, and once the call is given up */
  guint deadline_id = 0;            /* while the call is under way */
  guint tries = 0;
  DescriptorReservation *reservation = nullptr;
  ReceiverReplyFunc func = nullptr;
  gpointer user_data = nullptr;
  GDestroyNotify user_data_free = nullptr; /* NULL once the call is given up */

  Call() = default;
  ~Call();
  Call(const Call &) = delete;
  Call &operator=(const Call &) = delete;
};

using CallOwner = std::unique_ptr<Call>;

GQueue waiting = G_QUEUE_INIT; /* of Call */
guint under_way;
guint unanswered; /* those under way and those that were given up since */
guint rest_id;
gboolean short_of_descriptors;
gboolean short_of_answers;

/* What a call has only as long as somebody waits for its end. */
void
release_caller(Call *call)
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

Call::~Call()
{
  release_caller(this);
  g_clear_pointer(&reservation, descriptor_reservation_free);
  g_clear_pointer(&parameters, g_variant_unref);
  g_free(path);
  g_free(method);
  g_clear_object(&connection);
}

void make_calls();

/* The call itself goes with its reply. */
void
give_up(Call *call)
{
  call->state = State::GIVEN_UP;
  under_way--;
  release_caller(call);
  make_calls();
}

gboolean
on_cancelled(GCancellable *, gpointer user_data)
{
  auto *call = static_cast<Call *>(user_data);

  if (call->state == State::WAITING) {
    g_queue_remove(&waiting, call);
    delete call;
  } else {
    give_up(call);
  }
  return G_SOURCE_REMOVE;
}

void
watch_cancellable(Call *call)
{
  call->cancel_source = g_cancellable_source_new(call->cancellable);
  g_source_set_callback(call->cancel_source, G_SOURCE_FUNC(on_cancelled), call, nullptr);
  g_source_attach(call->cancel_source, nullptr);
}

gboolean
on_deadline(gpointer user_data)
{
  auto *call = static_cast<Call *>(user_data);

  call->deadline_id = 0;
  if (!g_cancellable_is_cancelled(call->cancellable)) {
    g_autoptr(GError) error = g_error_new_literal(G_IO_ERROR, G_IO_ERROR_TIMED_OUT, "Timeout was reached");
    call->func(nullptr, nullptr, error, call->user_data);
  }
  give_up(call);
  return G_SOURCE_REMOVE;
}

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
    rate_limited_log(&descriptors_log, LOG_WARNING,
                     "streams of external producers wait: too few free file descriptors");
  }
  short_of_descriptors = call->reservation == nullptr;
  return !short_of_descriptors;
}

/* FALSE when calls have to wait. The shortage is logged when it begins. */
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

/* The shortage ends when every call could be one that somebody waits for. */
void
note_answer()
{
  unanswered--;
  if (unanswered <= RECEIVER_CALLS_MAX_UNDER_WAY) {
    short_of_answers = FALSE;
  }
}

/* Behind the others, so that a producer that always refuses keeps nobody from his turn. */
void
put_back(CallOwner call)
{
  call->state = State::WAITING;
  g_clear_handle_id(&call->deadline_id, g_source_remove);
  g_clear_pointer(&call->reservation, descriptor_reservation_free);
  g_queue_push_tail(&waiting, call.release());
  rest();
}

gboolean
is_to_be_tried_again(const Call *call, const GError *error)
{
  return g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_LIMITS_EXCEEDED) &&
         call->tries < RECEIVER_CALLS_MAX_TRIES;
}

/* A call that somebody waits for has ended. */
void
take_reply(CallOwner call, GVariant *reply, GUnixFDList *fds, const GError *error)
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
  CallOwner call(static_cast<Call *>(user_data));
  g_autoptr(GUnixFDList) fds = nullptr;
  g_autoptr(GError) error = nullptr;
  g_autoptr(GVariant) reply =
      g_dbus_connection_call_with_unix_fd_list_finish(G_DBUS_CONNECTION(connection), &fds, result, &error);

  note_answer();
  if (call->state == State::UNDER_WAY) {
    take_reply(std::move(call), reply, fds, error);
  }
  make_calls();
}

void
make_call(Call *call)
{
  call->state = State::UNDER_WAY;
  call->tries++;
  call->deadline_id = g_timeout_add(call->timeout_ms, on_deadline, call);
  under_way++;
  unanswered++;
  g_dbus_connection_call_with_unix_fd_list(
      call->connection, RECEIVER_NAME, call->path, RECEIVER_PRODUCER_INTERFACE, call->method,
      call->parameters, nullptr, G_DBUS_CALL_FLAGS_NONE, NO_TIMEOUT, nullptr, nullptr, on_reply, call);
}

/* The next call that somebody still waits for, or NULL. */
Call *
peek_next()
{
  while (auto *call = static_cast<Call *>(g_queue_peek_head(&waiting))) {
    if (!g_cancellable_is_cancelled(call->cancellable)) {
      return call;
    }
    g_queue_pop_head(&waiting);
    delete call;
  }
  return nullptr;
}

void
make_calls()
{
  while (rest_id == 0 && under_way < RECEIVER_CALLS_MAX_UNDER_WAY) {
    Call *call = peek_next();
    if (call == nullptr || !may_be_answered()) {
      return;
    }
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
 * Warnings, each when that begins: "streams of external producers wait: too few free file descriptors" and
 * "calls of the metadata receiver wait: it leaves %u unanswered"
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

  if (copy->cancellable != nullptr) {
    watch_cancellable(copy.get());
  }
  g_queue_push_tail(&waiting, copy.release());
  make_calls();
}
