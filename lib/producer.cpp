/* SPDX-License-Identifier: MIT */
#include "tessardproducer.h"

#include "outcome.h"
#include "producercore.h"

#include <memory>
#include <utility>

namespace
{

struct ProducerState {
  std::string name;
  std::string nice_name;
  std::string bus_address;
  std::string sample_frame;
  std::vector<guint32> channels;
  std::shared_ptr<ProducerCore> core;

  /* What the application was told last. */
  gboolean told_ready = FALSE;
  gboolean told_listed = FALSE;
  EnabledChannels told_enabled;
  guint64 told_dropped = 0;
};

} // namespace

struct _TessardProducer {
  GObject parent_instance;

  ProducerState *state;
};

enum {
  PROP_NAME = 1,
  PROP_NICE_NAME,
  PROP_CHANNELS,
  PROP_SAMPLE_FRAME,
  PROP_BUS_ADDRESS,
  PROP_READY,
  PROP_LISTED,
  PROP_DROPPED,
  N_PROPERTIES,
};

enum {
  SIGNAL_ENABLED,
  SIGNAL_DISABLED,
  SIGNAL_DRAINED,
  SIGNAL_INTERRUPTED,
  SIGNAL_FAILED,
  N_SIGNALS,
};

static void tessard_producer_async_initable_iface_init(GAsyncInitableIface *iface);

G_DEFINE_TYPE_WITH_CODE(TessardProducer, tessard_producer, G_TYPE_OBJECT,
                        G_IMPLEMENT_INTERFACE(G_TYPE_ASYNC_INITABLE,
                                              tessard_producer_async_initable_iface_init))

namespace
{

GParamSpec *properties[N_PROPERTIES];
guint signals[N_SIGNALS];

constexpr auto CONSTRUCT_FLAGS =
    static_cast<GParamFlags>(G_PARAM_WRITABLE | G_PARAM_CONSTRUCT_ONLY | G_PARAM_STATIC_STRINGS);
constexpr auto READ_FLAGS = static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS);

std::string
text_of(const GValue *value)
{
  const gchar *text = g_value_get_string(value);

  return text != nullptr ? text : "";
}

std::vector<guint32>
channels_of(const GValue *value)
{
  GVariant *variant = g_value_get_variant(value);
  gsize count = 0;

  if (variant == nullptr) {
    return {};
  }
  const auto *channels =
      static_cast<const guint32 *>(g_variant_get_fixed_array(variant, &count, sizeof(guint32)));
  return {channels, channels + count};
}

GVariant *
make_channels(const guint32 *channels, gsize count)
{
  return g_variant_new_fixed_array(G_VARIANT_TYPE_UINT32, channels, count, sizeof(guint32));
}

void
emit_changes_of_enabled(TessardProducer *self, const EnabledChannels &now)
{
  const EnabledChannels before = std::exchange(self->state->told_enabled, now);

  for (const auto &[channel, configuration] : before) {
    if (now.count(channel) == 0) {
      g_signal_emit(self, signals[SIGNAL_DISABLED], 0, channel);
    }
  }
  for (const auto &[channel, configuration] : now) {
    const auto found = before.find(channel);
    if (found == before.end() || found->second != configuration) {
      g_signal_emit(self, signals[SIGNAL_ENABLED], 0, channel, configuration.c_str());
    }
  }
}

/* Called in the application's main context. A handler can release the application's last reference. */
void
on_news(GObject *object)
{
  TessardProducer *self = TESSARD_PRODUCER(object);
  ProducerState *state = self->state;
  ProducerNews news;

  state->core->take_news(&news);
  if (std::exchange(state->told_ready, news.ready) != news.ready) {
    g_object_notify_by_pspec(object, properties[PROP_READY]);
  }
  if (std::exchange(state->told_listed, news.listed) != news.listed) {
    g_object_notify_by_pspec(object, properties[PROP_LISTED]);
  }
  emit_changes_of_enabled(self, news.enabled);
  if (std::exchange(state->told_dropped, news.dropped) != news.dropped) {
    g_object_notify_by_pspec(object, properties[PROP_DROPPED]);
  }
  for (const GError *interruption : news.interruptions) {
    g_signal_emit(self, signals[SIGNAL_INTERRUPTED], 0, interruption);
  }
  if (news.failure != nullptr) {
    g_signal_emit(self, signals[SIGNAL_FAILED], 0, news.failure);
  }
  if (news.drained) {
    g_signal_emit(self, signals[SIGNAL_DRAINED], 0);
  }
}

} // namespace

static void
tessard_producer_init(TessardProducer *self)
{
  self->state = new ProducerState();
}

static void
tessard_producer_constructed(GObject *object)
{
  ProducerState *state = TESSARD_PRODUCER(object)->state;

  G_OBJECT_CLASS(tessard_producer_parent_class)->constructed(object);
  if (state->nice_name.empty()) {
    state->nice_name = state->name;
  }
  state->core = std::make_shared<ProducerCore>(
      state->bus_address, ProducerDescription{state->name, state->nice_name, state->channels},
      Notifier::create(object, on_news));
  if (!state->sample_frame.empty()) {
    state->core->set_sample_frame(state->sample_frame.c_str());
  }
  state->core->start();
}

static void
tessard_producer_finalize(GObject *object)
{
  ProducerState *state = TESSARD_PRODUCER(object)->state;

  state->core->close(nullptr);
  delete state;
  G_OBJECT_CLASS(tessard_producer_parent_class)->finalize(object);
}

static void
tessard_producer_set_property(GObject *object, guint id, const GValue *value, GParamSpec *pspec)
{
  ProducerState *state = TESSARD_PRODUCER(object)->state;

  switch (id) {
  case PROP_NAME:
    state->name = text_of(value);
    break;
  case PROP_NICE_NAME:
    state->nice_name = text_of(value);
    break;
  case PROP_CHANNELS:
    state->channels = channels_of(value);
    break;
  case PROP_SAMPLE_FRAME:
    state->sample_frame = text_of(value);
    break;
  case PROP_BUS_ADDRESS:
    state->bus_address = text_of(value);
    break;
  default:
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
  }
}

static void
tessard_producer_get_property(GObject *object, guint id, GValue *value, GParamSpec *pspec)
{
  TessardProducer *self = TESSARD_PRODUCER(object);

  switch (id) {
  case PROP_NAME:
    g_value_set_string(value, self->state->name.c_str());
    break;
  case PROP_READY:
    g_value_set_boolean(value, tessard_producer_get_ready(self));
    break;
  case PROP_LISTED:
    g_value_set_boolean(value, tessard_producer_get_listed(self));
    break;
  case PROP_DROPPED:
    g_value_set_uint64(value, tessard_producer_get_dropped(self));
    break;
  default:
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
  }
}

static void
tessard_producer_install_properties(GObjectClass *object_class)
{
  /**
   * TessardProducer:name:
   *
   * The name, unique on the bus.
   */
  properties[PROP_NAME] = g_param_spec_string(
      "name", nullptr, nullptr, nullptr,
      static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_CONSTRUCT_ONLY | G_PARAM_STATIC_STRINGS));

  /**
   * TessardProducer:nice-name:
   *
   * The name for display. The default is the name.
   */
  properties[PROP_NICE_NAME] = g_param_spec_string("nice-name", nullptr, nullptr, nullptr, CONSTRUCT_FLAGS);

  /**
   * TessardProducer:channels:
   *
   * The video channels, a variant of the type "au".
   */
  properties[PROP_CHANNELS] =
      g_param_spec_variant("channels", nullptr, nullptr, G_VARIANT_TYPE("au"), nullptr, CONSTRUCT_FLAGS);

  /**
   * TessardProducer:sample-frame:
   *
   * The JSON of an item that has every member in use. The default is the first item.
   */
  properties[PROP_SAMPLE_FRAME] =
      g_param_spec_string("sample-frame", nullptr, nullptr, nullptr, CONSTRUCT_FLAGS);

  /**
   * TessardProducer:bus-address:
   *
   * The address of the bus. The default is the system bus.
   */
  properties[PROP_BUS_ADDRESS] =
      g_param_spec_string("bus-address", nullptr, nullptr, nullptr, CONSTRUCT_FLAGS);

  /**
   * TessardProducer:ready:
   *
   * Whether the receiver takes items on all channels.
   */
  properties[PROP_READY] = g_param_spec_boolean("ready", nullptr, nullptr, FALSE, READ_FLAGS);

  /**
   * TessardProducer:listed:
   *
   * Whether the daemon lists the producer, so that it can be enabled.
   */
  properties[PROP_LISTED] = g_param_spec_boolean("listed", nullptr, nullptr, FALSE, READ_FLAGS);

  /**
   * TessardProducer:dropped:
   *
   * How many items the receiver has not taken. Its notification is emitted at most once every
   * %TESSARD_PRODUCER_DROPPED_INTERVAL_MS.
   */
  properties[PROP_DROPPED] = g_param_spec_uint64("dropped", nullptr, nullptr, 0, G_MAXUINT64, 0, READ_FLAGS);

  g_object_class_install_properties(object_class, N_PROPERTIES, properties);
}

static guint
tessard_producer_new_signal(const gchar *name, guint n_arguments, GType first, GType second)
{
  return g_signal_new(name, TESSARD_TYPE_PRODUCER, G_SIGNAL_RUN_LAST, 0, nullptr, nullptr, nullptr,
                      G_TYPE_NONE, n_arguments, first, second);
}

static void
tessard_producer_class_init(TessardProducerClass *klass)
{
  GObjectClass *object_class = G_OBJECT_CLASS(klass);

  object_class->constructed = tessard_producer_constructed;
  object_class->finalize = tessard_producer_finalize;
  object_class->set_property = tessard_producer_set_property;
  object_class->get_property = tessard_producer_get_property;
  tessard_producer_install_properties(object_class);

  /**
   * TessardProducer::enabled:
   * @self: the producer
   * @channel: a channel
   * @configuration: the name that clients read as the source of the data
   *
   * The producer is enabled on a channel, or has another configuration name there.
   */
  signals[SIGNAL_ENABLED] = tessard_producer_new_signal("enabled", 2, G_TYPE_UINT, G_TYPE_STRING);

  /**
   * TessardProducer::disabled:
   * @self: the producer
   * @channel: a channel
   *
   * The producer is not enabled on a channel any more, or not listed any more.
   */
  signals[SIGNAL_DISABLED] = tessard_producer_new_signal("disabled", 1, G_TYPE_UINT, G_TYPE_NONE);

  /**
   * TessardProducer::drained:
   * @self: the producer
   *
   * No item waits any more: each is with the receiver, or dropped.
   */
  signals[SIGNAL_DRAINED] = tessard_producer_new_signal("drained", 0, G_TYPE_NONE, G_TYPE_NONE);

  /**
   * TessardProducer::interrupted:
   * @self: the producer
   * @reason: an error of %TESSARD_ERROR
   *
   * Items are not taken for now. The library tries again; an application that does not want to wait for this
   * closes the producer. When several reasons come before the main context runs, each is told once.
   */
  signals[SIGNAL_INTERRUPTED] = tessard_producer_new_signal("interrupted", 1, G_TYPE_ERROR, G_TYPE_NONE);

  /**
   * TessardProducer::failed:
   * @self: the producer
   * @reason: an error of %TESSARD_ERROR
   *
   * The receiver has refused the producer. The library tries again with the next receiver.
   */
  signals[SIGNAL_FAILED] = tessard_producer_new_signal("failed", 1, G_TYPE_ERROR, G_TYPE_NONE);
}

static void
tessard_producer_init_async(GAsyncInitable *initable, int io_priority, GCancellable *cancellable,
                            GAsyncReadyCallback callback, gpointer user_data)
{
  GTask *task = g_task_new(initable, cancellable, callback, user_data);

  g_task_set_source_tag(task, reinterpret_cast<gpointer>(tessard_producer_init_async));
  TESSARD_PRODUCER(initable)->state->core->call_when_connected(outcome_return_to(task));
}

static gboolean
tessard_producer_init_finish(GAsyncInitable *initable, GAsyncResult *result, GError **error)
{
  return g_task_propagate_boolean(G_TASK(result), error);
}

static void
tessard_producer_async_initable_iface_init(GAsyncInitableIface *iface)
{
  iface->init_async = tessard_producer_init_async;
  iface->init_finish = tessard_producer_init_finish;
}

/**
 * TessardProducer:
 *
 * A producer of detections at the metadata receiver.
 *
 * The library registers it and opens its channels whenever the receiver is on the bus, and again when the
 * receiver has restarted. Items that the receiver does not take wait for some seconds, up to
 * %TESSARD_QUEUE_MAX_ITEMS in a channel; what does not fit, and what waits for too long, is dropped and
 * counted. No function but tessard_producer_close() ever blocks.
 */

/**
 * tessard_producer_new:
 * @name: the name, unique on the bus: 1 to 255 ASCII letters, digits and underscores
 * @nice_name: (nullable): the name for display, %NULL for @name
 * @channels: (array length=n_channels): the video channels, from 1
 * @n_channels: their number
 * @sample_frame: (nullable): the JSON of an item that has every member in use, %NULL for the first item
 *
 * Makes a producer on the system bus, which need not be there. What the receiver says of the arguments comes
 * with TessardProducer::failed.
 *
 * Returns: (transfer full): the producer
 */
TessardProducer *
tessard_producer_new(const gchar *name, const gchar *nice_name, const guint32 *channels, gsize n_channels,
                     const gchar *sample_frame)
{
  return TESSARD_PRODUCER(g_object_new(TESSARD_TYPE_PRODUCER, "name", name, "nice-name", nice_name,
                                       "channels", make_channels(channels, n_channels), "sample-frame",
                                       sample_frame, nullptr));
}

/**
 * tessard_producer_new_async:
 * @name: as for tessard_producer_new()
 * @nice_name: (nullable): as there
 * @channels: (array length=n_channels): as there
 * @n_channels: as there
 * @sample_frame: (nullable): as there
 * @cancellable: (nullable): if it is cancelled before the outcome, that is an error
 * @callback: (scope async): called when there is a connection to the bus, or none
 * @user_data: for @callback
 *
 * Makes a producer on the system bus and waits for the connection to it. The receiver need not be there.
 */
void
tessard_producer_new_async(const gchar *name, const gchar *nice_name, const guint32 *channels,
                           gsize n_channels, const gchar *sample_frame, GCancellable *cancellable,
                           GAsyncReadyCallback callback, gpointer user_data)
{
  g_async_initable_new_async(TESSARD_TYPE_PRODUCER, G_PRIORITY_DEFAULT, cancellable, callback, user_data,
                             "name", name, "nice-name", nice_name, "channels",
                             make_channels(channels, n_channels), "sample-frame", sample_frame, nullptr);
}

/**
 * tessard_producer_new_finish:
 * @result: the result
 * @error: return location for %TESSARD_ERROR_NO_BUS
 *
 * Returns: (transfer full): the producer, %NULL if there is no bus
 */
TessardProducer *
tessard_producer_new_finish(GAsyncResult *result, GError **error)
{
  g_autoptr(GObject) initable = g_async_result_get_source_object(result);
  GObject *object = g_async_initable_new_finish(G_ASYNC_INITABLE(initable), result, error);

  return object != nullptr ? TESSARD_PRODUCER(object) : nullptr;
}

/**
 * tessard_producer_send:
 * @self: a producer
 * @channel: one of its channels
 * @item: (transfer none): an item, which can be changed and sent again afterwards
 * @error: return location for an error of %TESSARD_ERROR
 *
 * Sends an item to all clients that stream the producer on @channel.
 *
 * Returns: whether the item is on its way; otherwise it is counted as dropped, if the producer has @channel
 */
gboolean
tessard_producer_send(TessardProducer *self, guint32 channel, TessardItem *item, GError **error)
{
  g_return_val_if_fail(TESSARD_IS_PRODUCER(self), FALSE);
  g_return_val_if_fail(TESSARD_IS_ITEM(item), FALSE);

  g_autofree gchar *json = tessard_item_to_json(item);
  return self->state->core->send(channel, json, error);
}

/**
 * tessard_producer_send_json:
 * @self: a producer
 * @channel: one of its channels
 * @json: the text of an item, or of several items separated by commas
 * @error: return location for an error of %TESSARD_ERROR
 *
 * Sends a text as it is. Of its content, only what would end the channel is checked.
 *
 * Returns: whether the text is on its way
 */
gboolean
tessard_producer_send_json(TessardProducer *self, guint32 channel, const gchar *json, GError **error)
{
  g_return_val_if_fail(TESSARD_IS_PRODUCER(self), FALSE);
  g_return_val_if_fail(json != NULL, FALSE);

  return self->state->core->send(channel, json, error);
}

/**
 * tessard_producer_set_sample_frame:
 * @self: a producer that was made without a sample frame
 * @json: the JSON of an item that has every member in use
 *
 * Has an effect only before the first item is sent.
 */
void
tessard_producer_set_sample_frame(TessardProducer *self, const gchar *json)
{
  g_return_if_fail(TESSARD_IS_PRODUCER(self));
  g_return_if_fail(json != NULL);

  self->state->core->set_sample_frame(json);
}

/**
 * tessard_producer_get_ready:
 * @self: a producer
 *
 * Returns: whether the receiver takes items on all channels
 */
gboolean
tessard_producer_get_ready(TessardProducer *self)
{
  g_return_val_if_fail(TESSARD_IS_PRODUCER(self), FALSE);

  return self->state->core->is_ready();
}

/**
 * tessard_producer_get_listed:
 * @self: a producer
 *
 * Returns: whether the daemon lists the producer
 */
gboolean
tessard_producer_get_listed(TessardProducer *self)
{
  g_return_val_if_fail(TESSARD_IS_PRODUCER(self), FALSE);

  return self->state->core->is_listed();
}

/**
 * tessard_producer_is_enabled:
 * @self: a producer
 * @channel: one of its channels
 *
 * Returns: whether the producer is enabled on @channel, so that clients can get its items
 */
gboolean
tessard_producer_is_enabled(TessardProducer *self, guint32 channel)
{
  g_return_val_if_fail(TESSARD_IS_PRODUCER(self), FALSE);

  return self->state->core->is_enabled(channel);
}

/**
 * tessard_producer_get_dropped:
 * @self: a producer
 *
 * Returns: how many items are dropped
 */
guint64
tessard_producer_get_dropped(TessardProducer *self)
{
  g_return_val_if_fail(TESSARD_IS_PRODUCER(self), 0);

  return self->state->core->get_dropped();
}

/**
 * tessard_producer_get_pending:
 * @self: a producer
 *
 * Returns: how many items wait for the receiver
 */
guint
tessard_producer_get_pending(TessardProducer *self)
{
  g_return_val_if_fail(TESSARD_IS_PRODUCER(self), 0);

  return self->state->core->get_pending();
}

/**
 * tessard_producer_close_async:
 * @self: a producer
 * @cancellable: (nullable): if it is cancelled before the outcome, that is an error; the work goes on
 * @callback: (scope async): called when the producer is unregistered
 * @user_data: for @callback
 *
 * Waits until the receiver has taken what was sent, but at most %TESSARD_PRODUCER_CLOSE_MS, and unregisters
 * the producer. The last reference does the same without telling its outcome, unless the process ends before.
 */
void
tessard_producer_close_async(TessardProducer *self, GCancellable *cancellable, GAsyncReadyCallback callback,
                             gpointer user_data)
{
  g_return_if_fail(TESSARD_IS_PRODUCER(self));

  GTask *task = g_task_new(self, cancellable, callback, user_data);
  g_task_set_source_tag(task, reinterpret_cast<gpointer>(tessard_producer_close_async));
  self->state->core->close(outcome_return_to(task));
}

/**
 * tessard_producer_close_finish:
 * @self: a producer
 * @result: the result
 * @error: return location for %TESSARD_ERROR_NOT_TAKEN
 *
 * Returns: whether the receiver has taken everything
 */
gboolean
tessard_producer_close_finish(TessardProducer *self, GAsyncResult *result, GError **error)
{
  g_return_val_if_fail(TESSARD_IS_PRODUCER(self), FALSE);

  return g_task_propagate_boolean(G_TASK(result), error);
}

/**
 * tessard_producer_close:
 * @self: a producer
 * @error: return location for %TESSARD_ERROR_NOT_TAKEN
 *
 * The same, for programs without a main loop. Blocks for at most %TESSARD_PRODUCER_CLOSE_MS.
 *
 * Returns: whether the receiver has taken everything
 */
gboolean
tessard_producer_close(TessardProducer *self, GError **error)
{
  g_return_val_if_fail(TESSARD_IS_PRODUCER(self), FALSE);

  return outcome_wait([self](OutcomeFunction function) { self->state->core->close(std::move(function)); },
                      error);
}
