/* SPDX-License-Identifier: MIT */
/* For a request for analytics, makes one source of all external producers that are enabled on its channel: an
 * ExternalSrc merges their streams, and "json2xml" converts them to ONVIF. Other factories make the sources
 * of the built-in producers.
 *
 * The factory only requests the streams. The descriptors arrive later, on the main thread. Each pending
 * stream request holds a reference to its ExternalSrc, which closes the descriptors that arrive after it has
 * stopped or left its bin. One frame of the daemon lets the client's pipeline pre-roll before the producers
 * send data.
 *
 * The factory's field is written before the first request, so several requests can use it at once.
 */
#include "externalsourcefactory.h"

#include "dbusclient.h"
#include "externalsrc.h"
#include "optionvalidation.h"
#include "sourcefactory.h"

#include <cstring>

struct _ExternalSourceFactory {
  GObject parent_instance;

  AnalyticsProducerList *producers; /* borrowed */
};

static void external_source_factory_iface_init(SourceFactoryInterface *iface);

G_DEFINE_TYPE_WITH_CODE(ExternalSourceFactory, external_source_factory, G_TYPE_OBJECT,
                        G_IMPLEMENT_INTERFACE(SOURCE_TYPE_FACTORY, external_source_factory_iface_init))

/* docs/compatibility.md, "stream start frame". */
#define STREAM_START_FRAME                                                                                   \
  "{     \"Source\": \"StreamStart\",     \"Data\": {         \"Item\": [             {"                     \
  "                 \"TimestampMono\": \"%lli\",                 \"UtcTime\": \"%s\""                        \
  "             }         ]     } }"

namespace
{

/* The stream requests of one client's request. */
struct StreamRequests {
  ExternalSrc *source; /* borrowed */
  gint32 channel;
  guint count;
};

/* Sets the error and returns no element. */
GstElement *
fail_request(GError **error, const gchar *text)
{
  source_factory_fail(error, source_factory_error_quark(), "%s", text);
  return nullptr;
}

/* Returns a full reference, like all functions here that make elements, except make_bin(). */
ExternalSrc *
make_external_source(gint32 channel, GError **error)
{
  ExternalSrc *source = external_src_new();

  if (source == nullptr) {
    fail_request(error, "Could not construct externalsrc.");
    return nullptr;
  }
  /* A request can name channel 0, which has no producers; the property does not accept it. */
  if (channel > 0) {
    g_object_set(source, "video-channel", channel, nullptr);
  }
  return EXTERNAL_SRC(gst_object_ref_sink(source));
}

GstElement *
make_converter(gboolean exclude_polygon, GError **error)
{
  GstElement *converter = gst_element_factory_make("json2xml", "json2xml");

  if (converter == nullptr) {
    return fail_request(error, "Could not construct json2xml.");
  }
  g_object_set(converter, "exclude-polygon", exclude_polygon, nullptr);
  return GST_ELEMENT(gst_object_ref_sink(converter));
}

/* Returns a floating reference. */
GstElement *
make_bin(ExternalSrc *source, gboolean exclude_polygon, GError **error)
{
  g_autoptr(GstElement) bin = gst_bin_new("externalsrcfactorybin");
  g_autoptr(GstElement) converter = make_converter(exclude_polygon, error);
  if (converter == nullptr) {
    return nullptr;
  }

  if (!gst_bin_add(GST_BIN(bin), GST_ELEMENT(source)) || !gst_bin_add(GST_BIN(bin), converter) ||
      !gst_element_link(GST_ELEMENT(source), converter)) {
    return fail_request(error, "Could not link externalsrc and json2xml.");
  }
  if (!source_factory_add_ghost_pad(bin, converter)) {
    return fail_request(error, "Could not add ghost pad for external metadata stream.");
  }
  return g_steal_pointer(&bin);
}

/* Called on the main thread. */
void
on_fd(gint fd, const gchar *source_name, gpointer user_data)
{
  external_src_add_socket(EXTERNAL_SRC(user_data), fd, source_name);
}

/* A producer whose stream cannot be requested counts too, so that the client's stream stays open. */
void
connect_producer(AnalyticsProducer *producer, gpointer user_data)
{
  auto *requests = static_cast<StreamRequests *>(user_data);
  g_autofree gchar *source_name = nullptr;
  g_autofree gchar *name = nullptr;
  gint type = ANALYTICS_PRODUCER_BUILT_IN;

  if (!analytics_producer_get_channel_enabled(producer, static_cast<guint32>(requests->channel),
                                              &source_name)) {
    return;
  }
  g_object_get(producer, "name", &name, "type", &type, nullptr);
  if (type != ANALYTICS_PRODUCER_EXTERNAL) {
    return;
  }

  requests->count++;
  g_object_ref(requests->source);
  if (!dbus_client_connect_producer(name, source_name, requests->channel,
                                    external_src_get_cancellable(requests->source), on_fd, requests->source,
                                    g_object_unref)) {
    g_object_unref(requests->source);
  }
}

guint
connect_producers(AnalyticsProducerList *producers, ExternalSrc *source, gint32 channel)
{
  StreamRequests requests = {source, channel, 0};

  analytics_producer_list_foreach(producers, connect_producer, &requests);
  return requests.count;
}

void
push_stream_start(ExternalSrc *source)
{
  g_autoptr(GDateTime) now = g_date_time_new_now_utc();
  g_autofree gchar *utc_time = g_date_time_format_iso8601(now);
  gchar *frame =
      g_strdup_printf(STREAM_START_FRAME, static_cast<long long>(g_get_monotonic_time()), utc_time);

  gst_app_src_push_buffer(GST_APP_SRC(source), gst_buffer_new_wrapped(frame, strlen(frame)));
}

GstElement *
create_external_source(SourceFactory *factory, GHashTable *params, GError **error)
{
  ExternalSourceFactory *self = EXTERNAL_SOURCE_FACTORY(factory);
  const OptionValidationAnalytics analytics =
      option_validation_lookup_analytics(params, option_validation_error_quark(), error);
  if (analytics == OPTION_VALIDATION_ANALYTICS_OFF || analytics == OPTION_VALIDATION_ANALYTICS_INVALID) {
    return nullptr;
  }
  const gint32 channel = option_validation_lookup_channel(params, error);
  if (channel < 0) {
    return nullptr;
  }

  g_autoptr(ExternalSrc) source = make_external_source(channel, error);
  if (source == nullptr) {
    return nullptr;
  }
  g_autoptr(GstElement) bin = make_bin(source, analytics != OPTION_VALIDATION_ANALYTICS_POLYGONS, error);
  if (bin == nullptr) {
    return nullptr;
  }
  /* This frame must be the first, so it is pushed before the streams are requested. */
  push_stream_start(source);
  if (connect_producers(self->producers, source, channel) == 0) {
    return nullptr;
  }
  return g_steal_pointer(&bin);
}

} // namespace

static void
external_source_factory_init(ExternalSourceFactory *self)
{
}

static void
external_source_factory_class_init(ExternalSourceFactoryClass *klass)
{
}

static void
external_source_factory_iface_init(SourceFactoryInterface *iface)
{
  iface->create_source = create_external_source;
}

/**
 * external_source_factory_new:
 * @producers: (transfer none): the list of all producers; must outlive the factory
 *
 * Any thread.
 *
 * Returns: (transfer full): a new factory of external sources
 */
ExternalSourceFactory *
external_source_factory_new(AnalyticsProducerList *producers)
{
  auto *self = EXTERNAL_SOURCE_FACTORY(g_object_new(EXTERNAL_TYPE_SOURCE_FACTORY, nullptr));

  self->producers = producers;
  return self;
}
