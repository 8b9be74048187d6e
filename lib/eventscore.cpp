/* SPDX-License-Identifier: MIT */
/* The calls of an application with events at the metadata receiver.
 *
 * Calls go to the unique name of the receiver, one at a time: the declarations that it does not have, then
 * the events in their order. When the receiver comes back, everything is declared again, and the present
 * state of each property is emitted again, before the events that have waited.
 *
 * The lock is held only to read or change the members below it, never during a call of another component.
 */
#include "eventscore.h"
#include "tessardevents.h"

#include <algorithm>
#include <array>
#include <utility>

namespace
{

#define EVENTS TESSARD_RECEIVER_BUS_NAME ".Events"
#define RECEIVER_ERROR(name) TESSARD_RECEIVER_BUS_NAME ".Error." name

constexpr BusMethod DECLARE = {TESSARD_RECEIVER_PATH, EVENTS, "DeclareTopic", "()"};
constexpr BusMethod EMIT = {TESSARD_RECEIVER_PATH, EVENTS, "Emit", "()"};
constexpr BusMethod GET_TOPICS = {TESSARD_RECEIVER_PATH, EVENTS, "GetTopics", "(a(sba(ss)a(ss)a{ss}))"};

constexpr gchar NOT_ALLOWED[] = "The bus policy refused the call: only root and members of the "
                                "group 'tessard-producer' can emit events.";

struct KnownError {
  const gchar *name;
  TessardError code;
};

constexpr std::array KNOWN_ERRORS = {
    KnownError{RECEIVER_ERROR("InvalidTopic"), TESSARD_ERROR_INVALID_TOPIC},
    KnownError{RECEIVER_ERROR("InvalidItems"), TESSARD_ERROR_INVALID_ITEMS},
    KnownError{RECEIVER_ERROR("InvalidOperation"), TESSARD_ERROR_INVALID_OPERATION},
    KnownError{RECEIVER_ERROR("InvalidTime"), TESSARD_ERROR_INVALID_TIME},
    KnownError{RECEIVER_ERROR("UnknownTopic"), TESSARD_ERROR_UNKNOWN_TOPIC},
    KnownError{RECEIVER_ERROR("UnknownProperty"), TESSARD_ERROR_UNKNOWN_PROPERTY},
    KnownError{RECEIVER_ERROR("TopicConflict"), TESSARD_ERROR_TOPIC_CONFLICT},
    KnownError{RECEIVER_ERROR("NotOwner"), TESSARD_ERROR_NOT_OWNER},
    KnownError{RECEIVER_ERROR("TooManyTopics"), TESSARD_ERROR_TOO_MANY_TOPICS},
    KnownError{RECEIVER_ERROR("TooManyProperties"), TESSARD_ERROR_TOO_MANY_PROPERTIES},
    KnownError{RECEIVER_ERROR("EventTooLarge"), TESSARD_ERROR_EVENT_TOO_LARGE},
    KnownError{RECEIVER_ERROR("RateExceeded"), TESSARD_ERROR_BUSY},
    KnownError{RECEIVER_ERROR("LimitExceeded"), TESSARD_ERROR_BUSY},
    KnownError{"org.freedesktop.DBus.Error.ServiceUnknown", TESSARD_ERROR_BUSY},
    KnownError{"org.freedesktop.DBus.Error.NameHasNoOwner", TESSARD_ERROR_BUSY},
    KnownError{"org.freedesktop.DBus.Error.NoReply", TESSARD_ERROR_BUSY},
    KnownError{"org.freedesktop.DBus.Error.AccessDenied", TESSARD_ERROR_NOT_ALLOWED},
};

TessardError
code_of(const gchar *name)
{
  const auto found = std::find_if(KNOWN_ERRORS.begin(), KNOWN_ERRORS.end(), [name](const KnownError &known) {
    return g_strcmp0(known.name, name) == 0;
  });

  return found != KNOWN_ERRORS.end() ? found->code : TESSARD_ERROR_REFUSED;
}

/* Returns: (nullable): the error of %TESSARD_ERROR for one of GDBus */
GError *
convert_error(const GError *cause)
{
  if (cause == nullptr) {
    return nullptr;
  }
  if (g_error_matches(cause, G_IO_ERROR, G_IO_ERROR_CLOSED)) {
    return bus_closed_error();
  }
  g_autofree gchar *name = g_dbus_error_get_remote_error(cause);
  g_autoptr(GError) stripped = g_error_copy(cause);
  if (name == nullptr) {
    return g_error_new(TESSARD_ERROR, TESSARD_ERROR_MALFORMED_REPLY,
                       "The receiver sent a malformed reply: %s.", cause->message);
  }
  const TessardError code = code_of(name);
  if (code == TESSARD_ERROR_NOT_ALLOWED) {
    return g_error_new_literal(TESSARD_ERROR, code, NOT_ALLOWED);
  }
  g_dbus_error_strip_remote_error(stripped);
  return g_error_new_literal(TESSARD_ERROR, code, *stripped->message != '\0' ? stripped->message : name);
}

GVariant *
make_items(const EventTopic::Items &items)
{
  GVariantBuilder builder;

  g_variant_builder_init(&builder, G_VARIANT_TYPE("a(ss)"));
  for (const auto &[name, type] : items) {
    g_variant_builder_add(&builder, "(ss)", name.c_str(), type.c_str());
  }
  return g_variant_builder_end(&builder);
}

GVariant *
make_map(const EventItems &items)
{
  GVariantBuilder builder;

  g_variant_builder_init(&builder, G_VARIANT_TYPE("a{ss}"));
  for (const auto &[name, value] : items) {
    g_variant_builder_add(&builder, "{ss}", name.c_str(), value.c_str());
  }
  return g_variant_builder_end(&builder);
}

} // namespace

EventsNews::~EventsNews()
{
  g_clear_error(&refusal);
}

/**
 * EventsCore::EventsCore:
 * @bus_address: the bus, empty for the system bus
 * @news_notifier: called when there are news
 *
 * Does nothing before start().
 */
EventsCore::EventsCore(std::string bus_address, std::shared_ptr<Notifier> news_notifier)
    : address(std::move(bus_address)), notifier(std::move(news_notifier))
{
}

EventsCore::~EventsCore()
{
  for (auto &[name, declared] : topics) {
    g_clear_error(&declared.refusal);
  }
  g_clear_error(&absence);
  g_clear_error(&refusal);
  g_mutex_clear(&lock);
}

/**
 * EventsCore::start:
 *
 * Starts the work. close() must follow, which ends it.
 */
void
EventsCore::start()
{
  worker_invoke(
      [self = shared_from_this()] { self->link = std::make_unique<BusLink>(self->address, self.get()); });
}

/**
 * EventsCore::declare:
 * @topic: a topic; another declaration of it is replaced, and the same one changes nothing
 */
void
EventsCore::declare(EventTopic topic)
{
  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);
    const auto known = topics.find(topic.name);
    if (known != topics.end() && known->second.declaration == Declaration::MADE &&
        known->second.topic == topic) {
      return;
    }
    DeclaredTopic &declared = topics[topic.name];
    g_clear_error(&declared.refusal);
    declared.declaration = Declaration::NEEDED;
    declared.topic = std::move(topic);
  }
  wake();
}

/**
 * EventsCore::emit:
 * @event: an event of a declared topic; its function is called in every case but that of an error here
 * @error: return location for an error of %TESSARD_ERROR
 *
 * Returns: whether the event is queued
 */
gboolean
EventsCore::emit(Event event, GError **error)
{
  std::vector<Event> lost;
  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);
    const auto found = topics.find(event.topic);
    if (closed) {
      g_set_error_literal(error, TESSARD_ERROR, TESSARD_ERROR_CLOSED, "The events are closed.");
      return FALSE;
    }
    if (found == topics.end()) {
      g_set_error(error, TESSARD_ERROR, TESSARD_ERROR_UNKNOWN_TOPIC, "The topic %s is not declared.",
                  event.topic.c_str());
      return FALSE;
    }
    event.is_property = found->second.topic.is_property;
    event.serial = ++serial;
    if (event.is_property) {
      const std::string key = event_key(event);
      if (event.operation == EVENT_DELETED) {
        states.erase(key);
      } else if (states.count(key) == 0 && states.size() == TESSARD_EVENTS_MAX_PROPERTIES) {
        g_set_error(error, TESSARD_ERROR, TESSARD_ERROR_TOO_MANY_PROPERTIES,
                    "There are %d properties already.", TESSARD_EVENTS_MAX_PROPERTIES);
        return FALSE;
      } else {
        states[key] = event;
        states[key].function = nullptr;
      }
    }
    lost = queue.push(std::move(event), is_away);
  }
  g_autoptr(GError) full = g_error_new_literal(TESSARD_ERROR, TESSARD_ERROR_QUEUE_FULL,
                                               "The event was dropped while the receiver was away.");
  drop(lost, full);
  wake();
  return TRUE;
}

/**
 * EventsCore::get_topics:
 * @function: called with the topics of all applications
 */
void
EventsCore::get_topics(TopicsFunction function)
{
  worker_invoke([self = shared_from_this(), function = std::move(function)] {
    self->topics_functions.push_back(function);
    self->call_topics();
  });
}

/**
 * EventsCore::close:
 * @function: (nullable): called at the end
 *
 * Ends the work when everything is sent, but at the latest after %TESSARD_EVENTS_CLOSE_MS.
 */
void
EventsCore::close(Event::Function function)
{
  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);
    closed = TRUE;
  }
  worker_invoke([self = shared_from_this(), function = std::move(function)] { self->begin_close(function); });
}

/**
 * EventsCore::take_news:
 * @news: (out): what has happened since the last call
 */
void
EventsCore::take_news(EventsNews *news)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);

  news->dropped = dropped;
  news->drained = std::exchange(drained, FALSE);
  news->interruptions = std::exchange(interruptions, {});
  news->refused_topic = std::exchange(refused_topic, {});
  news->refusal = g_steal_pointer(&refusal);
}

guint64
EventsCore::get_dropped()
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);

  return dropped;
}

/* On the worker, except drop() and wake() */

void
EventsCore::wake()
{
  if (g_atomic_int_compare_and_exchange(&waking, FALSE, TRUE)) {
    worker_invoke([self = shared_from_this()] {
      g_atomic_int_set(&self->waking, FALSE);
      self->proceed();
    });
  }
}

void
EventsCore::receiver_appeared(GDBusConnection *bus, const gchar *new_owner)
{
  forget_owner();
  g_clear_error(&absence);
  calls.begin(bus, new_owner);
  delay.reset();
  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);
    is_away = FALSE;
    for (auto &[name, declared] : topics) {
      declared.declaration = Declaration::NEEDED;
      g_clear_error(&declared.refusal);
    }
    for (const auto &[key, state] : states) {
      if (!queue.has_property(key)) {
        Event again = state;
        again.operation = "Initialized";
        queue.put_back(std::move(again));
      }
    }
  }
  proceed();
  call_topics();
}

void
EventsCore::receiver_vanished(const GError *reason)
{
  forget_owner();
  g_clear_error(&absence);
  absence = g_error_copy(reason);
  interrupt(reason);
  call_topics();
  close_when_sent();
}

/* The event of a call without a reply is sent again. */
void
EventsCore::forget_owner()
{
  retry.clear();
  calls.end();
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);
  is_away = TRUE;
  if (current.has_value()) {
    queue.put_back(*std::exchange(current, std::nullopt));
  }
}

/* Makes the next call, if there is one to make. */
void
EventsCore::proceed()
{
  if (calls.has_owner() && !calls.is_calling() && !retry.is_set() && !finished && !call_declare()) {
    while (!calls.is_calling() && call_emit()) {
    }
  }
  close_when_sent();
}

void
EventsCore::call(const BusMethod *method, GVariant *arguments, BusReplyFunction function)
{
  calls.call(
      method, arguments,
      [this, reply_function = std::move(function)](GVariant *reply, GUnixFDList *fds, const GError *error) {
        reply_function(reply, fds, error);
        proceed();
      });
}

/* Returns: whether a declaration is under way */
gboolean
EventsCore::call_declare()
{
  EventTopic topic;
  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);
    const auto found = std::find_if(topics.begin(), topics.end(), [](const auto &entry) {
      return entry.second.declaration == Declaration::NEEDED;
    });
    if (found == topics.end()) {
      return FALSE;
    }
    /* A new declaration during the call makes it needed again. */
    found->second.declaration = Declaration::MADE;
    topic = found->second.topic;
  }
  call(&DECLARE,
       g_variant_new("(sb@a(ss)@a(ss)@a{ss})", topic.name.c_str(), topic.is_property,
                     make_items(topic.source), make_items(topic.data), make_map(topic.namespaces)),
       [this, name = topic.name](GVariant *reply, GUnixFDList *fds, const GError *error) {
         take_declared(name, error);
       });
  return TRUE;
}

/* Returns: whether there was an event; that of a refused topic is dropped */
gboolean
EventsCore::call_emit()
{
  g_autoptr(GError) topic_refusal = nullptr;
  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);
    if (queue.is_empty()) {
      return FALSE;
    }
    current = queue.pop();
    const DeclaredTopic &declared = topics.at(current->topic);
    if (declared.declaration == Declaration::REFUSED) {
      topic_refusal = g_error_copy(declared.refusal);
    }
  }
  if (topic_refusal != nullptr) {
    finish_current(topic_refusal);
    return TRUE;
  }
  call(&EMIT,
       g_variant_new("(ss@a{ss}@a{ss}x)", current->topic.c_str(), current->operation.c_str(),
                     make_map(current->source), make_map(current->data), current->time),
       [this](GVariant *reply, GUnixFDList *fds, const GError *error) { take_emitted(error); });
  return TRUE;
}

void
EventsCore::take_declared(const std::string &name, const GError *cause)
{
  g_autoptr(GError) error = convert_error(cause);

  if (error == nullptr) {
    return;
  }
  const gboolean passes = error->code == TESSARD_ERROR_BUSY;
  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);
    DeclaredTopic &declared = topics.at(name);
    if (declared.declaration == Declaration::MADE) {
      declared.declaration = passes ? Declaration::NEEDED : Declaration::REFUSED;
      declared.refusal = passes ? nullptr : g_error_copy(error);
    }
  }
  if (passes) {
    retry_later();
    interrupt(error);
  } else {
    refuse(name, error);
  }
}

void
EventsCore::take_emitted(const GError *cause)
{
  g_autoptr(GError) error = convert_error(cause);

  if (error == nullptr || (error->code != TESSARD_ERROR_BUSY && error->code != TESSARD_ERROR_UNKNOWN_TOPIC)) {
    delay.reset();
    finish_current(error);
    return;
  }
  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);
    if (error->code == TESSARD_ERROR_UNKNOWN_TOPIC) {
      topics.at(current->topic).declaration = Declaration::NEEDED;
    }
    queue.put_back(*std::exchange(current, std::nullopt));
  }
  retry_later();
  interrupt(error);
}

/* @error: (nullable): why the event is not taken */
void
EventsCore::finish_current(const GError *error)
{
  const Event event = *std::exchange(current, std::nullopt);
  gboolean is_last = FALSE;
  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);
    const auto state = states.find(event_key(event));
    if (error != nullptr && state != states.end() && state->second.serial == event.serial) {
      states.erase(state);
    }
    is_last = queue.is_empty();
    drained = drained || is_last;
  }
  if (error != nullptr) {
    drop({event}, error);
    refuse(event.topic, error);
  } else if (event.function) {
    event.function(nullptr);
  }
  if (is_last) {
    notifier->schedule();
  }
}

/* Counts events and tells their callers. Any thread. */
void
EventsCore::drop(const std::vector<Event> &events, const GError *error)
{
  if (events.empty()) {
    return;
  }
  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);
    dropped += events.size();
  }
  for (const Event &event : events) {
    if (event.function) {
      event.function(error);
    }
  }
  notifier->schedule();
}

void
EventsCore::refuse(const std::string &topic, const GError *error)
{
  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);
    if (refusal == nullptr) {
      refused_topic = topic;
      refusal = g_error_copy(error);
    }
  }
  notifier->schedule();
}

void
EventsCore::interrupt(const GError *reason)
{
  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);
    interruptions.add(reason);
  }
  notifier->schedule();
}

void
EventsCore::retry_later()
{
  retry.start_timer(delay.next(), [this] { proceed(); });
}

/* The list is asked for beside other calls, once it is known whether the receiver is there. */
void
EventsCore::call_topics()
{
  if (!calls.has_owner() && absence == nullptr) {
    return;
  }
  for (const TopicsFunction &function : std::exchange(topics_functions, {})) {
    if (!calls.has_owner()) {
      function(nullptr, absence);
      continue;
    }
    calls.call_beside(&GET_TOPICS, g_variant_new("()"),
                      [function](GVariant *reply, GUnixFDList *fds, const GError *cause) {
                        g_autoptr(GError) error = convert_error(cause);
                        function(reply, error);
                      });
  }
}

void
EventsCore::begin_close(Event::Function function)
{
  if (finished) {
    if (function) {
      g_autoptr(GError) outcome = make_outcome();
      function(outcome);
    }
    return;
  }
  if (function) {
    close_functions.push_back(std::move(function));
  }
  if (!closing) {
    closing = TRUE;
    kept = shared_from_this();
    close_timer.start_timer(TESSARD_EVENTS_CLOSE_MS, [this] { finish_close(); });
  }
  close_when_sent();
}

void
EventsCore::close_when_sent()
{
  gboolean is_sent = FALSE;
  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);
    is_sent = queue.is_empty() && !current.has_value();
  }
  if (closing && (is_sent || absence != nullptr) && !calls.is_calling()) {
    finish_close();
  }
}

/* Returns: (nullable): that events are lost */
GError *
EventsCore::make_outcome() const
{
  return not_taken == 0 ? nullptr
                        : g_error_new(TESSARD_ERROR, TESSARD_ERROR_NOT_TAKEN,
                                      "The receiver has not taken %" G_GSIZE_FORMAT " events.", not_taken);
}

/* What calls this can be a part of what is released. */
void
EventsCore::finish_close()
{
  std::vector<Event> lost;

  if (finished) {
    return;
  }
  finished = TRUE;
  forget_owner();
  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);
    lost = queue.clear();
  }
  not_taken = lost.size();
  g_autoptr(GError) outcome = make_outcome();
  drop(lost, absence != nullptr ? absence : outcome);
  for (const Event::Function &function : std::exchange(close_functions, {})) {
    function(outcome);
  }
  absence = absence != nullptr
                ? absence
                : g_error_new_literal(TESSARD_ERROR, TESSARD_ERROR_CLOSED, "The events are closed.");
  call_topics();
  worker_invoke([self = shared_from_this()] {
    self->close_timer.clear();
    self->link.reset();
    self->forget_owner(); /* the link can have brought another one meanwhile */
    self->kept.reset();
  });
}
