/* The producers of analytics data that a client can ask for, and the one list of them.
 *
 * A producer knows its supported channels, and on which of them it is enabled under which configuration name.
 * Being enabled and having a name are the same fact, here and in the file. The channels of a producer and its
 * other properties never change once it is made.
 *
 * What does change, an entry's flag and name, the main thread alone writes, while request threads read it
 * through the functions that copy. Both take the entries' lock, one for all producers: it is held for a copy
 * or an exchange, never while a change is handed to the file or notified. The main thread, as the only
 * writer, may read entries without it; so the array that is lent is for the main thread only.
 *
 * The list's lock is held during the callbacks and during each function called by foreach. Order of the
 * locks: the list's, then the entries' or the file's; under either of these two, no other is taken.
 */
#include "analyticsproducer.h"

#include "producerconfig.h"
#include "ratelimitedlog.h"

#include <array>
#include <syslog.h>
#include <utility>

struct _AnalyticsProducer {
  GObject parent_instance;

  gchar *name;
  gchar *nice_name;
  gchar *sample_frame_xml;
  GPtrArray *channels;
  gint32 type;
};

struct AnalyticsProducerList {
  GHashTable *table;
  GMutex lock; /* for the table and the callbacks; not recursive */
  AnalyticsProducerFunc on_added;
  AnalyticsProducerFunc on_removed;
};

typedef enum {
  PROP_NAME = 1,
  PROP_NICE_NAME,
  PROP_SAMPLE_FRAME_XML,
  PROP_CHANNELS_ENABLED,
  PROP_TYPE,
  N_PROPERTIES,
} AnalyticsProducerProperty;

static std::array<GParamSpec *, N_PROPERTIES> properties;

G_DEFINE_FINAL_TYPE(AnalyticsProducer, analytics_producer, G_TYPE_OBJECT)

namespace
{

constexpr guint32 MAX_CHANNEL = G_MAXINT32;

/* Whoever announces producers can cause this line. */
RateLimitedLog channels_log =
    RATE_LIMITED_LOG_INIT_BURST(RATE_LIMITED_LOG_INTERVAL_US, RATE_LIMITED_LOG_BURST);

/* For `enabled` and `name` of every entry of every producer. */
GMutex entries_lock;

void
free_channel(gpointer data)
{
  auto *entry = static_cast<AnalyticsProducerChannel *>(data);

  g_free(entry->name);
  g_free(entry);
}

/* The first of several entries of the same channel. Entries neither come nor go, so no lock is needed. */
AnalyticsProducerChannel *
find_channel(AnalyticsProducer *self, guint32 channel)
{
  for (guint i = 0; i < self->channels->len; i++) {
    auto *entry = static_cast<AnalyticsProducerChannel *>(g_ptr_array_index(self->channels, i));
    if (entry->channel == channel) {
      return entry;
    }
  }
  return nullptr;
}

void
append_channel(AnalyticsProducer *self, guint32 channel)
{
  auto *entry = g_new0(AnalyticsProducerChannel, 1);

  entry->channel = channel;
  entry->name = producer_config_get_name(self->name, channel);
  entry->enabled = entry->name != nullptr;
  g_ptr_array_add(self->channels, entry);
}

/* On the system bus and in the platform's elements a channel is a signed number, so that one above its range
 * would come out negative there. The file's highest index yields such a channel, and an external producer may
 * announce one: it is left out. */
void
append_channels(AnalyticsProducer *self, GArray *channels)
{
  guint left_out = 0;

  for (guint i = 0; i < channels->len; i++) {
    const guint32 channel = g_array_index(channels, guint32, i);
    if (channel > MAX_CHANNEL) {
      left_out++;
      continue;
    }
    append_channel(self, channel);
  }
  if (left_out > 0) {
    rate_limited_log(&channels_log, LOG_WARNING, "left out %u channels above %u of producer %s", left_out,
                     MAX_CHANNEL, self->name);
  }
}

/* Returns the name that the entry had, for the caller to free. */
gchar *
exchange_name(AnalyticsProducerChannel *entry, gchar *name)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&entries_lock);

  entry->enabled = name != nullptr;
  return std::exchange(entry->name, name);
}

AnalyticsProducer *
lookup(AnalyticsProducerList *list, const gchar *name)
{
  return static_cast<AnalyticsProducer *>(g_hash_table_lookup(list->table, name));
}

} // namespace

static void
analytics_producer_init(AnalyticsProducer *self)
{
  self->channels = g_ptr_array_new_full(1, free_channel);
}

static void
analytics_producer_finalize(GObject *object)
{
  AnalyticsProducer *self = ANALYTICS_PRODUCER(object);

  g_free(self->name);
  g_free(self->nice_name);
  g_free(self->sample_frame_xml);
  g_ptr_array_unref(self->channels);

  G_OBJECT_CLASS(analytics_producer_parent_class)->finalize(object);
}

static void
analytics_producer_get_property(GObject *object, guint id, GValue *value, GParamSpec *pspec)
{
  AnalyticsProducer *self = ANALYTICS_PRODUCER(object);

  switch (id) {
  case PROP_NAME:
    g_value_set_string(value, self->name);
    break;
  case PROP_NICE_NAME:
    g_value_set_string(value, self->nice_name);
    break;
  case PROP_SAMPLE_FRAME_XML:
    g_value_set_string(value, self->sample_frame_xml);
    break;
  case PROP_CHANNELS_ENABLED:
    g_value_set_pointer(value, self->channels);
    break;
  case PROP_TYPE:
    g_value_set_int(value, self->type);
    break;
  default:
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
  }
}

static void
analytics_producer_set_property(GObject *object, guint id, const GValue *value, GParamSpec *pspec)
{
  AnalyticsProducer *self = ANALYTICS_PRODUCER(object);

  switch (id) {
  case PROP_NAME:
    g_free(std::exchange(self->name, g_value_dup_string(value)));
    break;
  case PROP_NICE_NAME:
    g_free(std::exchange(self->nice_name, g_value_dup_string(value)));
    break;
  case PROP_SAMPLE_FRAME_XML:
    g_free(std::exchange(self->sample_frame_xml, g_value_dup_string(value)));
    break;
  case PROP_TYPE:
    self->type = g_value_get_int(value);
    break;
  default:
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
  }
}

static void
analytics_producer_class_init(AnalyticsProducerClass *klass)
{
  constexpr auto CONSTRUCT_FLAGS =
      static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_CONSTRUCT_ONLY | G_PARAM_STATIC_STRINGS);
  constexpr auto READ_FLAGS = static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS);
  GObjectClass *object_class = G_OBJECT_CLASS(klass);

  object_class->finalize = analytics_producer_finalize;
  object_class->get_property = analytics_producer_get_property;
  object_class->set_property = analytics_producer_set_property;

  /**
   * AnalyticsProducer:name:
   *
   * The key in the list and in the configuration file.
   */
  properties[PROP_NAME] = g_param_spec_string("name", "Name of the analytics producer",
                                              "Name of the analytics producer", "", CONSTRUCT_FLAGS);
  /**
   * AnalyticsProducer:nice-name:
   *
   * For display.
   */
  properties[PROP_NICE_NAME] =
      g_param_spec_string("nice-name", "Nice name of the analytics producer",
                          "Nice name of the analytics producer", "", CONSTRUCT_FLAGS);
  /**
   * AnalyticsProducer:sample-frame-xml:
   *
   * One tt:SampleFrame document that shows what the producer's data looks like.
   */
  properties[PROP_SAMPLE_FRAME_XML] =
      g_param_spec_string("sample-frame-xml", "Sample frame XML",
                          "Sample frame of producer in ONVIF XML format", "", CONSTRUCT_FLAGS);
  /**
   * AnalyticsProducer:channels-enabled: (type GPtrArray)
   *
   * The producer's own array of #AnalyticsProducerChannel, lent, for the main thread. Notified after each
   * change of an entry.
   */
  properties[PROP_CHANNELS_ENABLED] =
      g_param_spec_pointer("channels-enabled", "List of analytics channels",
                           "List of analytics channels supported by producer", READ_FLAGS);
  /**
   * AnalyticsProducer:type:
   *
   * An #AnalyticsProducerKind.
   */
  properties[PROP_TYPE] = g_param_spec_int(
      "type", "Type of the analytics producer", "Type of the analytics producer", ANALYTICS_PRODUCER_BUILT_IN,
      ANALYTICS_PRODUCER_LAST_KIND, ANALYTICS_PRODUCER_BUILT_IN, CONSTRUCT_FLAGS);
  g_object_class_install_properties(object_class, properties.size(), properties.data());
}

/**
 * analytics_producer_new:
 * @name: (transfer none): the key in the list and in the configuration file
 * @nice_name: (transfer none): the name for display
 * @sample_frame_xml: (transfer none): one tt:SampleFrame document
 * @supported_channels: (transfer none) (element-type guint32): the video channels, from 1
 * @type: an #AnalyticsProducerKind
 *
 * Makes a producer with one entry for each channel, in the same order. It starts enabled on the channels for
 * which the configuration holds a name. Main thread.
 *
 * Warnings: "left out %u channels above %u of producer %s" when channels are beyond the range of int32
 *
 * Returns: (transfer full): a new producer
 */
AnalyticsProducer *
analytics_producer_new(const gchar *name, const gchar *nice_name, const gchar *sample_frame_xml,
                       GArray *supported_channels, gint type)
{
  g_return_val_if_fail(name != NULL, NULL);
  g_return_val_if_fail(nice_name != NULL, NULL);
  g_return_val_if_fail(sample_frame_xml != NULL, NULL);
  g_return_val_if_fail(supported_channels != NULL, NULL);

  AnalyticsProducer *self =
      ANALYTICS_PRODUCER(g_object_new(ANALYTICS_TYPE_PRODUCER, "name", name, "nice-name", nice_name,
                                      "sample-frame-xml", sample_frame_xml, "type", type, nullptr));

  append_channels(self, supported_channels);
  return self;
}

/**
 * analytics_producer_set_channel_enabled:
 * @self: (transfer none): a producer
 * @channel: a video channel, from 1
 * @enabled: whether to enable the producer on it
 * @name: (transfer none) (nullable): the configuration name; ignored when disabling
 *
 * Changes the entry, hands the change to producer_config_set_name(), which does not wait for the disk, and
 * notifies #AnalyticsProducer:channels-enabled. Main thread.
 *
 * Warnings: "Tried to enable/disable producer on non-supported channel %d on %s"; nothing is changed
 */
void
analytics_producer_set_channel_enabled(AnalyticsProducer *self, guint32 channel, gboolean enabled,
                                       const gchar *name)
{
  g_return_if_fail(ANALYTICS_IS_PRODUCER(self));
  g_return_if_fail(!enabled || name != NULL);

  AnalyticsProducerChannel *entry = find_channel(self, channel);
  if (entry == nullptr) {
    syslog(LOG_WARNING, "Tried to enable/disable producer on non-supported channel %d on %s",
           static_cast<gint32>(channel), self->name);
    return;
  }

  /* The old name goes last: it may be the very one that was given. */
  g_autofree gchar *old_name = exchange_name(entry, enabled ? g_strdup(name) : nullptr);
  producer_config_set_name(self->name, channel, entry->name);
  g_object_notify_by_pspec(G_OBJECT(self), properties[PROP_CHANNELS_ENABLED]);
}

/**
 * analytics_producer_get_channel_enabled:
 * @self: (transfer none): a producer
 * @channel: a video channel, from 1
 * @out_name: (out) (optional) (nullable) (transfer full): where to put a copy of the configuration name;
 *   %NULL when the producer is not enabled on the channel
 *
 * Any thread.
 *
 * Returns: whether the producer is enabled on the channel; %FALSE when it does not support it
 */
gboolean
analytics_producer_get_channel_enabled(AnalyticsProducer *self, guint32 channel, gchar **out_name)
{
  if (out_name != nullptr) {
    *out_name = nullptr;
  }
  g_return_val_if_fail(ANALYTICS_IS_PRODUCER(self), FALSE);

  const AnalyticsProducerChannel *entry = find_channel(self, channel);
  if (entry == nullptr) {
    return FALSE;
  }
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&entries_lock);
  if (out_name != nullptr) {
    *out_name = g_strdup(entry->name);
  }
  return entry->enabled;
}

/**
 * analytics_producer_is_channel_supported:
 * @self: (transfer none): a producer
 * @channel: a video channel, from 1
 *
 * Any thread.
 *
 * Returns: whether the producer has an entry for the channel
 */
gboolean
analytics_producer_is_channel_supported(AnalyticsProducer *self, guint32 channel)
{
  g_return_val_if_fail(ANALYTICS_IS_PRODUCER(self), FALSE);

  return find_channel(self, channel) != nullptr;
}

/**
 * analytics_producer_get_all_channels_enabled:
 * @self: (transfer none): a producer
 *
 * Main thread, also for every look at the array.
 *
 * Returns: (transfer none) (element-type AnalyticsProducerChannel): the producer's own entries, in the order
 *   in which the channels were given; they live as long as the producer
 */
GPtrArray *
analytics_producer_get_all_channels_enabled(AnalyticsProducer *self)
{
  g_return_val_if_fail(ANALYTICS_IS_PRODUCER(self), NULL);

  return self->channels;
}

/**
 * analytics_producer_list_new:
 *
 * Returns: (transfer full): an empty list without callbacks
 */
AnalyticsProducerList *
analytics_producer_list_new(void)
{
  auto *list = g_new0(AnalyticsProducerList, 1);

  list->table = g_hash_table_new_full(g_str_hash, g_str_equal, g_free, g_object_unref);
  g_mutex_init(&list->lock);
  return list;
}

/**
 * analytics_producer_list_free:
 * @list: (transfer full): a list that nobody uses any more
 *
 * Drops the list's references to its producers. No callback is called.
 */
void
analytics_producer_list_free(AnalyticsProducerList *list)
{
  g_return_if_fail(list != NULL);

  g_hash_table_unref(list->table);
  g_mutex_clear(&list->lock);
  g_free(list);
}

/**
 * analytics_producer_list_set_callbacks:
 * @list: (transfer none): a list
 * @on_added: (nullable): called for each producer that is added from now on
 * @on_removed: (nullable): called for each producer that is removed from now on, while it is still listed
 *
 * Replaces both callbacks. They run in the thread that changes the list. Any thread.
 */
void
analytics_producer_list_set_callbacks(AnalyticsProducerList *list, AnalyticsProducerFunc on_added,
                                      AnalyticsProducerFunc on_removed)
{
  g_return_if_fail(list != NULL);

  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&list->lock);
  list->on_added = on_added;
  list->on_removed = on_removed;
}

/**
 * analytics_producer_list_add:
 * @list: (transfer none): a list
 * @producer: (transfer none): a producer, of which the list takes a reference of its own
 *
 * Any thread; in the daemon it is the main thread.
 *
 * Warnings: "tried to add a producer that already exists: %s"; the existing producer stays. "list != NULL"
 * and "producer != NULL" are preconditions.
 *
 * Returns: whether the producer was added
 */
gboolean
analytics_producer_list_add(AnalyticsProducerList *list, AnalyticsProducer *producer)
{
  g_return_val_if_fail(list != NULL, FALSE);
  g_return_val_if_fail(producer != NULL, FALSE);

  g_autofree gchar *name = nullptr;
  g_object_get(producer, "name", &name, nullptr);
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&list->lock);

  if (g_hash_table_contains(list->table, name)) {
    syslog(LOG_WARNING, "tried to add a producer that already exists: %s", name);
    return FALSE;
  }
  g_hash_table_insert(list->table, g_strdup(name), g_object_ref(producer));
  if (list->on_added != nullptr) {
    list->on_added(producer);
  }
  return TRUE;
}

/**
 * analytics_producer_list_remove:
 * @list: (transfer none): a list
 * @name: (transfer none): a producer's name
 *
 * Drops the list's reference to the producer. Any thread; in the daemon it is the main thread.
 *
 * Warnings: "tried to remove non-existing producer: %s"
 */
void
analytics_producer_list_remove(AnalyticsProducerList *list, const gchar *name)
{
  g_return_if_fail(list != NULL);
  g_return_if_fail(name != NULL);

  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&list->lock);
  AnalyticsProducer *producer = lookup(list, name);

  if (producer == nullptr) {
    syslog(LOG_WARNING, "tried to remove non-existing producer: %s", name);
    return;
  }
  if (list->on_removed != nullptr) {
    list->on_removed(producer);
  }
  g_hash_table_remove(list->table, name);
}

/**
 * analytics_producer_list_foreach:
 * @list: (transfer none): a list
 * @function: called for each producer, in any order
 * @user_data: for @function
 *
 * Any thread.
 */
void
analytics_producer_list_foreach(AnalyticsProducerList *list, AnalyticsProducerForeachFunc function,
                                gpointer user_data)
{
  g_return_if_fail(list != NULL);
  g_return_if_fail(function != NULL);

  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&list->lock);
  GHashTableIter iter;
  gpointer producer = nullptr;

  g_hash_table_iter_init(&iter, list->table);
  while (g_hash_table_iter_next(&iter, nullptr, &producer)) {
    function(ANALYTICS_PRODUCER(producer), user_data);
  }
}

/**
 * analytics_producer_list_contains:
 * @list: (transfer none): a list
 * @name: (transfer none): a producer's name
 *
 * Any thread.
 *
 * Returns: whether the list has a producer of that name
 */
gboolean
analytics_producer_list_contains(AnalyticsProducerList *list, const gchar *name)
{
  g_return_val_if_fail(list != NULL, FALSE);
  g_return_val_if_fail(name != NULL, FALSE);

  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&list->lock);
  return g_hash_table_contains(list->table, name);
}

/**
 * analytics_producer_list_get_producer:
 * @list: (transfer none): a list
 * @name: (transfer none): a producer's name
 *
 * Any thread.
 *
 * Returns: (transfer full) (nullable): the producer of that name
 */
AnalyticsProducer *
analytics_producer_list_get_producer(AnalyticsProducerList *list, const gchar *name)
{
  g_return_val_if_fail(list != NULL, NULL);
  g_return_val_if_fail(name != NULL, NULL);

  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&list->lock);
  AnalyticsProducer *producer = lookup(list, name);

  return producer != nullptr ? ANALYTICS_PRODUCER(g_object_ref(producer)) : nullptr;
}
