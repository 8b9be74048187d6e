/* SPDX-License-Identifier: MIT */
/* A producer of analytics data that a client can request.
 *
 * A producer knows its supported channels, and on which of them it is enabled under which configuration name.
 * It is enabled exactly where it has a name, in memory and in the file. The set of channels and the other
 * properties of a producer do not change after construction.
 *
 * Threads: only the main thread writes an entry's flag and name. Request threads read them through functions
 * that copy. Writers and these functions take the entries' lock, one for all producers. The lock is held for
 * a copy or an exchange, not while the configuration changes or a notification is sent. No other lock is
 * taken under it. The main thread reads entries without the lock, because it is the only writer; the
 * producer's own array of entries is therefore for the main thread only.
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

typedef enum {
  PROP_NAME = 1,
  PROP_NICE_NAME,
  PROP_SAMPLE_FRAME_XML,
  PROP_CHANNELS_ENABLED,
  PROP_TYPE,
  N_ANALYTICS_PRODUCER_PROPERTIES,
} AnalyticsProducerProperty;

static std::array<GParamSpec *, N_ANALYTICS_PRODUCER_PROPERTIES> analytics_producer_properties;

G_DEFINE_FINAL_TYPE(AnalyticsProducer, analytics_producer, G_TYPE_OBJECT)

namespace
{

constexpr guint32 MAX_CHANNEL = G_MAXINT32;

/* An external producer can cause this line. */
RateLimitedLog channels_log =
    RATE_LIMITED_LOG_INIT_BURST(RATE_LIMITED_LOG_INTERVAL_US, RATE_LIMITED_LOG_BURST);

/* Protects `enabled` and `name` of each entry of all producers. */
GMutex entries_lock;

void
free_channel(gpointer data)
{
  auto *entry = static_cast<AnalyticsProducerChannel *>(data);

  g_free(entry->name);
  g_free(entry);
}

/* The set of entries is constant, so no lock is needed. */
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

/* A channel is a signed number on the system bus and in the platform's elements, where one above that range
 * becomes negative. The highest index in the file yields such a channel, and an external producer can
 * announce one. Such a channel is left out. */
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

/* Returns the entry's previous name (transfer full). */
gchar *
exchange_name(AnalyticsProducerChannel *entry, gchar *name)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&entries_lock);

  entry->enabled = name != nullptr;
  return std::exchange(entry->name, name);
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
  analytics_producer_properties[PROP_NAME] = g_param_spec_string(
      "name", "Name of the analytics producer", "Name of the analytics producer", "", CONSTRUCT_FLAGS);
  /**
   * AnalyticsProducer:nice-name:
   *
   * For display.
   */
  analytics_producer_properties[PROP_NICE_NAME] =
      g_param_spec_string("nice-name", "Nice name of the analytics producer",
                          "Nice name of the analytics producer", "", CONSTRUCT_FLAGS);
  /**
   * AnalyticsProducer:sample-frame-xml:
   *
   * A tt:SampleFrame document, an example of the producer's data.
   */
  analytics_producer_properties[PROP_SAMPLE_FRAME_XML] =
      g_param_spec_string("sample-frame-xml", "Sample frame XML",
                          "Sample frame of producer in ONVIF XML format", "", CONSTRUCT_FLAGS);
  /**
   * AnalyticsProducer:channels-enabled: (type GPtrArray)
   *
   * The producer's own array of #AnalyticsProducerChannel, to read on the main thread. Notified after each
   * change of an entry.
   */
  analytics_producer_properties[PROP_CHANNELS_ENABLED] =
      g_param_spec_pointer("channels-enabled", "List of analytics channels",
                           "List of analytics channels supported by producer", READ_FLAGS);
  /**
   * AnalyticsProducer:type:
   *
   * An #AnalyticsProducerKind.
   */
  analytics_producer_properties[PROP_TYPE] = g_param_spec_int(
      "type", "Type of the analytics producer", "Type of the analytics producer", ANALYTICS_PRODUCER_BUILT_IN,
      ANALYTICS_PRODUCER_LAST_KIND, ANALYTICS_PRODUCER_BUILT_IN, CONSTRUCT_FLAGS);
  g_object_class_install_properties(object_class, analytics_producer_properties.size(),
                                    analytics_producer_properties.data());
}

/**
 * analytics_producer_new:
 * @name: (transfer none): the key in the list and in the configuration file
 * @nice_name: (transfer none): the name for display
 * @sample_frame_xml: (transfer none): a tt:SampleFrame document
 * @supported_channels: (transfer none) (element-type guint32): the video channels, from 1
 * @type: an #AnalyticsProducerKind
 *
 * Makes a producer with one entry for each channel, in the same order. It is enabled on the channels for
 * which the configuration has a name.
 *
 * Warnings: "left out %u channels above %u of producer %s" when channels are beyond the range of int32
 *
 * Returns: (transfer full): a new producer
 */
AnalyticsProducer *
analytics_producer_new(const gchar *name, const gchar *nice_name, const gchar *sample_frame_xml,
                       GArray *supported_channels, gint type)
{
  g_return_val_if_fail(name != NULL, nullptr);
  g_return_val_if_fail(nice_name != NULL, nullptr);
  g_return_val_if_fail(sample_frame_xml != NULL, nullptr);
  g_return_val_if_fail(supported_channels != NULL, nullptr);

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
 * Changes the entry and the configuration, and notifies #AnalyticsProducer:channels-enabled. Does not wait
 * for the disk.
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

  /* @name may be the old name, which therefore lives until the end. */
  g_autofree gchar *old_name = exchange_name(entry, enabled ? g_strdup(name) : nullptr);
  producer_config_set_name(self->name, channel, entry->name);
  g_object_notify_by_pspec(G_OBJECT(self), analytics_producer_properties[PROP_CHANNELS_ENABLED]);
}

/**
 * analytics_producer_get_channel_enabled:
 * @self: (transfer none): a producer
 * @channel: a video channel, from 1
 * @out_name: (out) (optional) (nullable) (transfer full): where to put a copy of the configuration name;
 *   %NULL when the producer is not enabled on the channel
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
 * The array, too, is for the main thread only.
 *
 * Returns: (transfer none) (element-type AnalyticsProducerChannel): the producer's own entries, in the order
 *   of the channels at construction; they live as long as the producer
 */
GPtrArray *
analytics_producer_get_all_channels_enabled(AnalyticsProducer *self)
{
  g_return_val_if_fail(ANALYTICS_IS_PRODUCER(self), nullptr);

  return self->channels;
}
