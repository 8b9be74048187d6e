/* SPDX-License-Identifier: MIT */
#include "tessardevents.h"

#include "eventscore.h"
#include "outcome.h"

#include <cstring>
#include <memory>
#include <utility>

namespace
{

struct EventsState {
  std::string bus_address;
  std::shared_ptr<EventsCore> core;
  guint64 told_dropped = 0;
};

} // namespace

struct _TessardEvents {
  GObject parent_instance;

  EventsState *state;
};

enum {
  PROP_BUS_ADDRESS = 1,
  PROP_DROPPED,
  N_PROPERTIES,
};

enum {
  SIGNAL_DRAINED,
  SIGNAL_INTERRUPTED,
  SIGNAL_REFUSED,
  N_SIGNALS,
};

G_DEFINE_TYPE(TessardEvents, tessard_events, G_TYPE_OBJECT)

namespace
{

GParamSpec *properties[N_PROPERTIES];
guint signals[N_SIGNALS];

constexpr gchar DEFAULT_TYPE[] = "xs:string";

/* Called in the application's main context. */
void
on_news(GObject *object)
{
  TessardEvents *self = TESSARD_EVENTS(object);
  EventsNews news;

  self->state->core->take_news(&news);
  if (std::exchange(self->state->told_dropped, news.dropped) != news.dropped) {
    g_object_notify_by_pspec(object, properties[PROP_DROPPED]);
  }
  for (const GError *interruption : news.interruptions) {
    g_signal_emit(self, signals[SIGNAL_INTERRUPTED], 0, interruption);
  }
  if (news.refusal != nullptr) {
    g_signal_emit(self, signals[SIGNAL_REFUSED], 0, news.refused_topic.c_str(), news.refusal);
  }
  if (news.drained) {
    g_signal_emit(self, signals[SIGNAL_DRAINED], 0);
  }
}

/* The bus carries no other text. */
gboolean
check_text(const gchar *text, TessardError code, const gchar *what, GError **error)
{
  if (g_utf8_validate(text, -1, nullptr)) {
    return TRUE;
  }
  g_set_error(error, TESSARD_ERROR, code, "The %s is not UTF-8.", what);
  return FALSE;
}

gboolean
take_items(const gchar *const *texts, EventTopic::Items *items, GError **error)
{
  for (const gchar *const *text = texts; text != nullptr && *text != nullptr; text++) {
    if (!check_text(*text, TESSARD_ERROR_INVALID_ITEMS, "name of an item", error)) {
      return FALSE;
    }
    const gchar *colon = strchr(*text, ':');
    if (colon != nullptr) {
      items->emplace_back(std::string(*text, colon), colon + 1);
    } else {
      items->emplace_back(*text, DEFAULT_TYPE);
    }
  }
  return TRUE;
}

gboolean
take_map(GHashTable *table, EventItems *items, GError **error)
{
  GHashTableIter iterator;
  gpointer name = nullptr;
  gpointer value = nullptr;

  if (table == nullptr) {
    return TRUE;
  }
  g_hash_table_iter_init(&iterator, table);
  while (g_hash_table_iter_next(&iterator, &name, &value)) {
    const auto *name_text = static_cast<const gchar *>(name);
    const auto *value_text = static_cast<const gchar *>(value);
    if (!check_text(name_text, TESSARD_ERROR_INVALID_ITEMS, "name of an item", error) ||
        !check_text(value_text, TESSARD_ERROR_INVALID_ITEMS, "value of an item", error)) {
      return FALSE;
    }
    (*items)[name_text] = value_text;
  }
  return TRUE;
}

gboolean
make_event(Event *event, const gchar *topic, const gchar *operation, GHashTable *source, GHashTable *data,
           gint64 utc_time, GError **error)
{
  event->operation = operation != nullptr ? operation : "";
  event->time = utc_time != 0 ? utc_time : g_get_real_time();
  if (!check_text(topic, TESSARD_ERROR_INVALID_TOPIC, "topic", error) ||
      !check_text(event->operation.c_str(), TESSARD_ERROR_INVALID_OPERATION, "operation", error)) {
    return FALSE;
  }
  event->topic = topic;
  return take_map(source, &event->source, error) && take_map(data, &event->data, error);
}

} // namespace

static void
tessard_events_init(TessardEvents *self)
{
  self->state = new EventsState();
}

static void
tessard_events_constructed(GObject *object)
{
  EventsState *state = TESSARD_EVENTS(object)->state;

  G_OBJECT_CLASS(tessard_events_parent_class)->constructed(object);
  state->core = std::make_shared<EventsCore>(state->bus_address, Notifier::create(object, on_news));
  state->core->start();
}

static void
tessard_events_finalize(GObject *object)
{
  EventsState *state = TESSARD_EVENTS(object)->state;

  state->core->close(nullptr);
  delete state;
  G_OBJECT_CLASS(tessard_events_parent_class)->finalize(object);
}

static void
tessard_events_set_property(GObject *object, guint id, const GValue *value, GParamSpec *pspec)
{
  if (id != PROP_BUS_ADDRESS) {
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
    return;
  }
  const gchar *address = g_value_get_string(value);
  TESSARD_EVENTS(object)->state->bus_address = address != nullptr ? address : "";
}

static void
tessard_events_get_property(GObject *object, guint id, GValue *value, GParamSpec *pspec)
{
  if (id != PROP_DROPPED) {
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
    return;
  }
  g_value_set_uint64(value, tessard_events_get_dropped(TESSARD_EVENTS(object)));
}

static void
tessard_events_class_init(TessardEventsClass *klass)
{
  GObjectClass *object_class = G_OBJECT_CLASS(klass);

  object_class->constructed = tessard_events_constructed;
  object_class->finalize = tessard_events_finalize;
  object_class->set_property = tessard_events_set_property;
  object_class->get_property = tessard_events_get_property;

  /**
   * TessardEvents:bus-address:
   *
   * The address of the bus. The default is the system bus.
   */
  properties[PROP_BUS_ADDRESS] = g_param_spec_string(
      "bus-address", nullptr, nullptr, nullptr,
      static_cast<GParamFlags>(G_PARAM_WRITABLE | G_PARAM_CONSTRUCT_ONLY | G_PARAM_STATIC_STRINGS));

  /**
   * TessardEvents:dropped:
   *
   * How many events the receiver has not taken.
   */
  properties[PROP_DROPPED] =
      g_param_spec_uint64("dropped", nullptr, nullptr, 0, G_MAXUINT64, 0,
                          static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS));
  g_object_class_install_properties(object_class, N_PROPERTIES, properties);

  /**
   * TessardEvents::drained:
   * @self: the object
   *
   * No event waits any more.
   */
  signals[SIGNAL_DRAINED] = g_signal_new("drained", TESSARD_TYPE_EVENTS, G_SIGNAL_RUN_LAST, 0, nullptr,
                                         nullptr, nullptr, G_TYPE_NONE, 0);

  /**
   * TessardEvents::interrupted:
   * @self: the object
   * @reason: an error of %TESSARD_ERROR
   *
   * Events are not taken for now. The library tries again. When several reasons come before the main context
   * runs, each is told once.
   */
  signals[SIGNAL_INTERRUPTED] = g_signal_new("interrupted", TESSARD_TYPE_EVENTS, G_SIGNAL_RUN_LAST, 0,
                                             nullptr, nullptr, nullptr, G_TYPE_NONE, 1, G_TYPE_ERROR);

  /**
   * TessardEvents::refused:
   * @self: the object
   * @topic: a topic
   * @reason: an error of %TESSARD_ERROR
   *
   * The receiver has refused the declaration of a topic, or an event of it.
   */
  signals[SIGNAL_REFUSED] = g_signal_new("refused", TESSARD_TYPE_EVENTS, G_SIGNAL_RUN_LAST, 0, nullptr,
                                         nullptr, nullptr, G_TYPE_NONE, 2, G_TYPE_STRING, G_TYPE_ERROR);
}

/**
 * TessardEvents:
 *
 * Events of an application.
 *
 * The library declares the topics whenever the receiver is on the bus, and again when the receiver has
 * restarted; then it also emits the present state of each property again. While the receiver is away, the
 * last state of each property waits, and the newest %TESSARD_EVENTS_MAX_QUEUED other events. No function but
 * tessard_events_close() ever blocks.
 */

/**
 * tessard_events_new:
 *
 * Returns: (transfer full): an object on the system bus, which need not be there
 */
TessardEvents *
tessard_events_new(void)
{
  return TESSARD_EVENTS(g_object_new(TESSARD_TYPE_EVENTS, nullptr));
}

/**
 * tessard_events_declare:
 * @self: an object
 * @topic: a concrete topic, for example "tns1:RuleEngine/LineDetector/Crossed"
 * @is_property: whether its events are states of properties
 * @source: (array zero-terminated=1) (nullable): the items that say where, each NAME or NAME:TYPE; the type
 * is "xs:string" by default
 * @data: (array zero-terminated=1) (nullable): the items that say what, in the same form
 * @namespaces: (element-type utf8 utf8) (nullable): the URIs of prefixes other than "tns1", "tt" and "xs"
 * @error: return location for %TESSARD_ERROR_INVALID_TOPIC or %TESSARD_ERROR_INVALID_ITEMS
 *
 * Declares a topic, so that its events can be emitted. What the receiver says of it comes with
 * TessardEvents::refused.
 *
 * Returns: whether the receiver can be asked
 */
gboolean
tessard_events_declare(TessardEvents *self, const gchar *topic, gboolean is_property,
                       const gchar *const *source, const gchar *const *data, GHashTable *namespaces,
                       GError **error)
{
  g_return_val_if_fail(TESSARD_IS_EVENTS(self), FALSE);
  g_return_val_if_fail(topic != NULL, FALSE);

  EventTopic declared;
  if (!check_text(topic, TESSARD_ERROR_INVALID_TOPIC, "topic", error) ||
      !take_items(source, &declared.source, error) || !take_items(data, &declared.data, error) ||
      !take_map(namespaces, &declared.namespaces, error)) {
    return FALSE;
  }
  declared.name = topic;
  declared.is_property = is_property;
  self->state->core->declare(std::move(declared));
  return TRUE;
}

/**
 * tessard_events_emit:
 * @self: an object
 * @topic: a declared topic
 * @operation: (nullable): "Initialized", "Changed" or "Deleted" for a property, %NULL for another topic
 * @source: (element-type utf8 utf8) (nullable): the values of all source items by their names
 * @data: (element-type utf8 utf8) (nullable): the values of all data items
 * @utc_time: the time of the event in microseconds since 1970, 0 for now
 * @error: return location for an error of %TESSARD_ERROR
 *
 * Returns: whether the event is on its way
 */
gboolean
tessard_events_emit(TessardEvents *self, const gchar *topic, const gchar *operation, GHashTable *source,
                    GHashTable *data, gint64 utc_time, GError **error)
{
  g_return_val_if_fail(TESSARD_IS_EVENTS(self), FALSE);
  g_return_val_if_fail(topic != NULL, FALSE);

  Event event;
  return make_event(&event, topic, operation, source, data, utc_time, error) &&
         self->state->core->emit(std::move(event), error);
}

/**
 * tessard_events_emit_async:
 * @self: an object
 * @topic: as for tessard_events_emit()
 * @operation: (nullable): as there
 * @source: (element-type utf8 utf8) (nullable): as there
 * @data: (element-type utf8 utf8) (nullable): as there
 * @utc_time: as there
 * @cancellable: (nullable): if it is cancelled before the outcome, that is an error; the event stays
 * @callback: (scope async): called when the receiver has taken the event, or refused it
 * @user_data: for @callback
 *
 * Emits an event and waits for the receiver.
 */
void
tessard_events_emit_async(TessardEvents *self, const gchar *topic, const gchar *operation, GHashTable *source,
                          GHashTable *data, gint64 utc_time, GCancellable *cancellable,
                          GAsyncReadyCallback callback, gpointer user_data)
{
  g_return_if_fail(TESSARD_IS_EVENTS(self));
  g_return_if_fail(topic != NULL);

  GTask *task = g_task_new(self, cancellable, callback, user_data);
  GError *error = nullptr;
  Event event;

  g_task_set_source_tag(task, reinterpret_cast<gpointer>(tessard_events_emit_async));
  const OutcomeFunction function = outcome_return_to(task);
  event.function = function;
  if (!make_event(&event, topic, operation, source, data, utc_time, &error) ||
      !self->state->core->emit(std::move(event), &error)) {
    function(error);
    g_error_free(error);
  }
}

/**
 * tessard_events_emit_finish:
 * @self: an object
 * @result: the result
 * @error: return location for an error of %TESSARD_ERROR
 *
 * Returns: whether the receiver has taken the event
 */
gboolean
tessard_events_emit_finish(TessardEvents *self, GAsyncResult *result, GError **error)
{
  g_return_val_if_fail(TESSARD_IS_EVENTS(self), FALSE);

  return g_task_propagate_boolean(G_TASK(result), error);
}

/**
 * tessard_events_get_topics_async:
 * @self: an object
 * @cancellable: (nullable): if it is cancelled before the outcome, that is an error
 * @callback: (scope async): called with the topics
 * @user_data: for @callback
 *
 * Asks the receiver for the topics of all applications.
 */
void
tessard_events_get_topics_async(TessardEvents *self, GCancellable *cancellable, GAsyncReadyCallback callback,
                                gpointer user_data)
{
  g_return_if_fail(TESSARD_IS_EVENTS(self));

  GTask *task = g_task_new(self, cancellable, callback, user_data);
  g_task_set_source_tag(task, reinterpret_cast<gpointer>(tessard_events_get_topics_async));
  self->state->core->get_topics([task](GVariant *topics, const GError *error) {
    if (error != nullptr) {
      g_task_return_error(task, g_error_copy(error));
    } else {
      g_task_return_pointer(task, g_variant_get_child_value(topics, 0),
                            reinterpret_cast<GDestroyNotify>(g_variant_unref));
    }
    g_object_unref(task);
  });
}

/**
 * tessard_events_get_topics_finish:
 * @self: an object
 * @result: the result
 * @error: return location for an error of %TESSARD_ERROR
 *
 * Returns: (transfer full): an array of the type "a(sba(ss)a(ss)a{ss})": for each topic its name, whether it
 * is a property, the names and types of its source and data items, and its namespaces
 */
GVariant *
tessard_events_get_topics_finish(TessardEvents *self, GAsyncResult *result, GError **error)
{
  g_return_val_if_fail(TESSARD_IS_EVENTS(self), NULL);

  return static_cast<GVariant *>(g_task_propagate_pointer(G_TASK(result), error));
}

/**
 * tessard_events_get_dropped:
 * @self: an object
 *
 * Returns: how many events the receiver has not taken
 */
guint64
tessard_events_get_dropped(TessardEvents *self)
{
  g_return_val_if_fail(TESSARD_IS_EVENTS(self), 0);

  return self->state->core->get_dropped();
}

/**
 * tessard_events_close_async:
 * @self: an object
 * @cancellable: (nullable): if it is cancelled before the outcome, that is an error; the work goes on
 * @callback: (scope async): called when the receiver has all events
 * @user_data: for @callback
 *
 * Waits until the receiver has taken all events, but at most %TESSARD_EVENTS_CLOSE_MS, and leaves the bus.
 * The receiver deletes the properties 30 s later.
 */
void
tessard_events_close_async(TessardEvents *self, GCancellable *cancellable, GAsyncReadyCallback callback,
                           gpointer user_data)
{
  g_return_if_fail(TESSARD_IS_EVENTS(self));

  GTask *task = g_task_new(self, cancellable, callback, user_data);
  g_task_set_source_tag(task, reinterpret_cast<gpointer>(tessard_events_close_async));
  self->state->core->close(outcome_return_to(task));
}

/**
 * tessard_events_close_finish:
 * @self: an object
 * @result: the result
 * @error: return location for %TESSARD_ERROR_NOT_TAKEN
 *
 * Returns: whether the receiver has taken all events
 */
gboolean
tessard_events_close_finish(TessardEvents *self, GAsyncResult *result, GError **error)
{
  g_return_val_if_fail(TESSARD_IS_EVENTS(self), FALSE);

  return g_task_propagate_boolean(G_TASK(result), error);
}

/**
 * tessard_events_close:
 * @self: an object
 * @error: return location for %TESSARD_ERROR_NOT_TAKEN
 *
 * The same, for programs without a main loop. Blocks for at most %TESSARD_EVENTS_CLOSE_MS.
 *
 * Returns: whether the receiver has taken all events
 */
gboolean
tessard_events_close(TessardEvents *self, GError **error)
{
  g_return_val_if_fail(TESSARD_IS_EVENTS(self), FALSE);

  return outcome_wait([self](OutcomeFunction function) { self->state->core->close(std::move(function)); },
                      error);
}
