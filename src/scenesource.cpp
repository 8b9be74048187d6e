/* SPDX-License-Identifier: MIT */
/* The common code of the factories of scenes. It publishes a built-in producer, checks whether the producer
 * is enabled on a channel, and builds the bin for one channel:
 *
 *   source -> capsfilter -> converter -> "src"
 *
 * The functions keep no state. Differences between the kinds of scenes, including the order of the steps, are
 * in the factories.
 */
#include "scenesource.h"

#include "producerconfig.h"
#include "sourcefactory.h"

#include <array>

namespace
{

gboolean
fail(GError **error, const gchar *text)
{
  source_factory_fail(error, source_factory_error_quark(), "%s", text);
  return FALSE;
}

/* Returns a full reference, not a floating one. */
GstElement *
make_element(const gchar *factory, const gchar *name, const gchar *failure, GError **error)
{
  GstElement *element = gst_element_factory_make(factory, name);

  if (element == nullptr) {
    fail(error, failure);
    return nullptr;
  }
  return GST_ELEMENT(gst_object_ref_sink(element));
}

GstElement *
make_source(const SceneSourceKind *kind, gint32 channel, GError **error)
{
  GstElement *source = make_element(kind->source, kind->source, kind->no_source, error);

  if (source != nullptr) {
    g_object_set(source, "video-channel", channel, nullptr);
  }
  return source;
}

GstElement *
make_filter(const SceneSourceKind *kind, gint32 channel, gboolean polygon, GError **error)
{
  GstElement *filter = make_element("capsfilter", kind->filter_name, kind->no_filter, error);
  if (filter == nullptr) {
    return nullptr;
  }

  /* Every request for analytics gets bounding boxes. */
  g_autoptr(GstCaps) caps =
      gst_caps_new_simple(kind->media_type, "bounding-box", G_TYPE_BOOLEAN, TRUE, "polygon", G_TYPE_BOOLEAN,
                          polygon, "velocity", G_TYPE_BOOLEAN, TRUE, "channel", G_TYPE_INT, channel, nullptr);
  g_object_set(filter, "caps", caps, nullptr);
  return filter;
}

struct Addition {
  GstElement *element; /* borrowed */
  const gchar *failure;
};

gboolean
add_all(GstElement *bin, const std::array<Addition, 3> &additions, GError **error)
{
  for (const Addition &addition : additions) {
    if (!gst_bin_add(GST_BIN(bin), addition.element)) {
      return fail(error, addition.failure);
    }
  }
  return TRUE;
}

} // namespace

/**
 * scene_source_publish_producer:
 * @producers: (transfer none): the list of producers
 * @name: the producer's name
 * @nice_name: its name for display
 * @sample_frame_xml: an example of its data
 *
 * Makes a built-in producer with the channels in the producer configuration, and adds it to the list. Must be
 * called before the first request.
 */
void
scene_source_publish_producer(AnalyticsProducerList *producers, const gchar *name, const gchar *nice_name,
                              const gchar *sample_frame_xml)
{
  g_autoptr(GArray) channels = producer_config_get_supported_channels(name);
  g_autoptr(AnalyticsProducer) producer =
      analytics_producer_new(name, nice_name, sample_frame_xml, channels, ANALYTICS_PRODUCER_BUILT_IN);

  analytics_producer_list_add(producers, producer);
}

/**
 * scene_source_is_enabled:
 * @producers: (transfer none): the list of producers
 * @name: the producer's name
 * @channel: a channel, also one that the producer does not support
 * @source_name: (out) (transfer full) (nullable): the configuration name on @channel
 *
 * Returns: whether the producer is listed and enabled on @channel
 */
gboolean
scene_source_is_enabled(AnalyticsProducerList *producers, const gchar *name, gint32 channel,
                        gchar **source_name)
{
  g_autoptr(AnalyticsProducer) producer = analytics_producer_list_get_producer(producers, name);

  *source_name = nullptr;
  return producer != nullptr && analytics_producer_get_channel_enabled(producer, channel, source_name);
}

/**
 * scene_source_new:
 * @kind: the kind of scenes
 * @channel: the channel of the scenes
 * @polygon: whether objects have polygons
 * @configure: called once, with the new converter
 * @user_data: for @configure
 * @error: (out) (optional): where to put the failure
 *
 * Builds the bin. A failure, except one of @configure, has the domain source_factory_error_quark() and the
 * text of @kind, and is logged at warning priority.
 *
 * Returns: (transfer floating) (nullable): a bin with one pad, "src"; %NULL with @error set
 */
GstElement *
scene_source_new(const SceneSourceKind *kind, gint32 channel, gboolean polygon,
                 SceneSourceConfigureFunc configure, gpointer user_data, GError **error)
{
  g_autoptr(GstElement) bin = gst_bin_new(kind->bin_name);
  g_autoptr(GstElement) source = make_source(kind, channel, error);
  if (source == nullptr) {
    return nullptr;
  }
  g_autoptr(GstElement) filter = make_filter(kind, channel, polygon, error);
  if (filter == nullptr) {
    return nullptr;
  }
  g_autoptr(GstElement) converter = make_element(kind->converter, kind->converter, kind->no_converter, error);
  if (converter == nullptr || !configure(converter, user_data, error)) {
    return nullptr;
  }
  const std::array<Addition, 3> additions = {{{converter, kind->converter_not_added},
                                              {filter, kind->filter_not_added},
                                              {source, kind->source_not_added}}};

  if (!add_all(bin, additions, error)) {
    return nullptr;
  }
  if (!gst_element_link_many(source, filter, converter, nullptr)) {
    fail(error, kind->not_linked);
    return nullptr;
  }
  if (!source_factory_add_ghost_pad(bin, converter)) {
    fail(error, kind->no_ghost_pad);
    return nullptr;
  }
  return g_steal_pointer(&bin);
}
