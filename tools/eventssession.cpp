/* SPDX-License-Identifier: MIT */
#include "eventssession.h"
#include "command.h"
#include "libraryerror.h"

#include <memory>

/* Shared with the operation, whose reply can come after the session. */
struct EventsSession::Reply {
  explicit Reply(GMainLoop *main_loop) : loop(g_main_loop_ref(main_loop))
  {
  }
  Reply(const Reply &) = delete;
  Reply &operator=(const Reply &) = delete;
  ~Reply()
  {
    g_clear_object(&result);
    g_main_loop_unref(loop);
  }

  GMainLoop *loop;
  GAsyncResult *result = nullptr;
};

namespace
{

std::vector<const gchar *>
pointers_to(const std::vector<std::string> &texts)
{
  std::vector<const gchar *> pointers;

  pointers.reserve(texts.size() + 1);
  for (const std::string &text : texts) {
    pointers.push_back(text.c_str());
  }
  pointers.push_back(nullptr);
  return pointers;
}

} // namespace

/**
 * events_declare:
 * @events: the library's object
 * @event: an event
 * @error: return location for an error of %TESSARDCTL_ERROR
 *
 * Declares the topic of an event.
 *
 * Returns: whether the receiver can be asked
 */
gboolean
events_declare(TessardEvents *events, const EventArguments &event, GError **error)
{
  const auto source = pointers_to(event.source_names);
  const auto data = pointers_to(event.data_names);
  g_autoptr(GError) cause = nullptr;

  if (!tessard_events_declare(events, event.topic.c_str(), event.is_property, source.data(), data.data(),
                              event.namespaces, &cause)) {
    g_propagate_error(error, library_error_convert(cause));
    return FALSE;
  }
  return TRUE;
}

/**
 * events_emit_async:
 * @events: the library's object
 * @event: an event of a declared topic
 * @callback: called when the receiver has taken or refused it
 * @user_data: for @callback
 *
 * Emits an event with the time of the call.
 */
void
events_emit_async(TessardEvents *events, const EventArguments &event, GAsyncReadyCallback callback,
                  gpointer user_data)
{
  const gchar *default_operation = event.is_property ? "Changed" : "";

  tessard_events_emit_async(events, event.topic.c_str(),
                            event.operation.empty() ? default_operation : event.operation.c_str(),
                            event.source, event.data, 0, nullptr, callback, user_data);
}

/**
 * EventsSession:
 * @bus_address: (nullable): the bus, %NULL for the system bus
 */
EventsSession::EventsSession(const gchar *bus_address)
    : events(TESSARD_EVENTS(g_object_new(TESSARD_TYPE_EVENTS, "bus-address", bus_address, nullptr))),
      loop(g_main_loop_new(nullptr, FALSE))
{
  g_signal_connect(events, "interrupted", G_CALLBACK(on_interrupted), this);
}

EventsSession::~EventsSession()
{
  g_signal_handlers_disconnect_by_data(events, this);
  g_object_unref(events);
  g_main_loop_unref(loop);
  g_clear_error(&interruption);
}

/**
 * EventsSession::emit:
 * @event: an event
 * @error: return location for an error of %TESSARDCTL_ERROR
 *
 * Declares the topic and emits the event. For one call.
 *
 * Returns: whether the receiver has taken the event
 */
gboolean
EventsSession::emit(const EventArguments &event, GError **error)
{
  const auto reply = std::make_shared<Reply>(loop);
  g_autoptr(GError) cause = nullptr;

  if (!events_declare(events, event, error)) {
    return FALSE;
  }
  events_emit_async(events, event, on_reply, new std::shared_ptr<Reply>(reply));
  if (!wait_for(reply.get(), error)) {
    return FALSE;
  }
  if (!tessard_events_emit_finish(events, reply->result, &cause)) {
    g_propagate_error(error, library_error_convert(cause));
    return FALSE;
  }
  return TRUE;
}

/**
 * EventsSession::get_topics:
 * @error: return location for an error of %TESSARDCTL_ERROR
 *
 * For one call.
 *
 * Returns: (transfer full) (nullable): the topics, of the type "a(sba(ss)a(ss)a{ss})"
 */
GVariant *
EventsSession::get_topics(GError **error)
{
  const auto reply = std::make_shared<Reply>(loop);
  g_autoptr(GError) cause = nullptr;

  tessard_events_get_topics_async(events, nullptr, on_reply, new std::shared_ptr<Reply>(reply));
  if (!wait_for(reply.get(), error)) {
    return nullptr;
  }
  GVariant *topics = tessard_events_get_topics_finish(events, reply->result, &cause);
  if (topics == nullptr) {
    g_propagate_error(error, library_error_convert(cause));
  }
  return topics;
}

void
EventsSession::on_reply(GObject *object, GAsyncResult *result, gpointer user_data)
{
  const std::unique_ptr<std::shared_ptr<Reply>> reply(static_cast<std::shared_ptr<Reply> *>(user_data));

  (*reply)->result = G_ASYNC_RESULT(g_object_ref(result));
  g_main_loop_quit((*reply)->loop);
}

void
EventsSession::on_interrupted(TessardEvents *events, const GError *reason, gpointer user_data)
{
  auto *self = static_cast<EventsSession *>(user_data);

  if (g_error_matches(reason, TESSARD_ERROR, TESSARD_ERROR_BUSY)) {
    return;
  }
  g_clear_error(&self->interruption);
  self->interruption = library_error_convert(reason);
  g_main_loop_quit(self->loop);
}

gboolean
EventsSession::on_late(gpointer user_data)
{
  g_main_loop_quit(static_cast<EventsSession *>(user_data)->loop);
  return G_SOURCE_CONTINUE;
}

/* Returns: whether there is a reply */
gboolean
EventsSession::wait_for(const Reply *reply, GError **error)
{
  const guint timer = g_timeout_add(EVENTS_SESSION_WAIT_MS, on_late, this);

  g_main_loop_run(loop);
  g_source_remove(timer);
  if (reply->result != nullptr) {
    return TRUE;
  }
  g_propagate_error(error, interruption != nullptr
                               ? g_steal_pointer(&interruption)
                               : g_error_new_literal(TESSARDCTL_ERROR, EXIT_STATUS_TIMED_OUT,
                                                     "The receiver does not reply."));
  return FALSE;
}
