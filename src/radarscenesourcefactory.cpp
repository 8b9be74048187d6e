/* SPDX-License-Identifier: MIT */
/* Makes a source of the radar motion tracker's scenes for a request for analytics, and publishes the tracker
 * as a producer. A request can get both video and radar scenes. The two parameters are checked first, also
 * for a request without analytics.
 *
 * The factory's field is written before the first request, so several requests can use it at once.
 */
#include "radarscenesourcefactory.h"

#include "captureservice.h"
#include "optionvalidation.h"
#include "scenesource.h"
#include "sourcefactory.h"

#include <syslog.h>

struct _RadarSceneSourceFactory {
  GObject parent_instance;

  AnalyticsProducerList *producers; /* borrowed */
};

static void radar_scene_source_factory_iface_init(SourceFactoryInterface *iface);

G_DEFINE_TYPE_WITH_CODE(RadarSceneSourceFactory, radar_scene_source_factory, G_TYPE_OBJECT,
                        G_IMPLEMENT_INTERFACE(SOURCE_TYPE_FACTORY, radar_scene_source_factory_iface_init))

#define RADAR_PRODUCER "RadarMotionTracker"

/* A radar's data about an object besides its shape; docs/compatibility.md, "radar sample frame". */
#define RADAR_APPEARANCE                                                                                     \
  "      <tt:Class>"                                                                                         \
  "        <tt:ClassCandidate>"                                                                              \
  "          <tt:Type>Vehical</tt:Type>"                                                                     \
  "          <tt:Likelihood>0.92</tt:Likelihood>"                                                            \
  "        </tt:ClassCandidate>"                                                                             \
  "        <tt:ClassCandidate>"                                                                              \
  "          <tt:Type>Human</tt:Type>"                                                                       \
  "          <tt:Likelihood>0.96</tt:Likelihood>"                                                            \
  "        </tt:ClassCandidate>"                                                                             \
  "        <tt:ClassCandidate>"                                                                              \
  "          <tt:Type>Other</tt:Type>"                                                                       \
  "          <tt:Likelihood>1.00</tt:Likelihood>"                                                            \
  "        </tt:ClassCandidate>"                                                                             \
  "        <tt:Extension>"                                                                                   \
  "          <tt:OtherTypes>"                                                                                \
  "            <tt:Type>SmallObject</tt:Type>"                                                               \
  "            <tt:Likelihood>0.72</tt:Likelihood>"                                                          \
  "          </tt:OtherTypes>"                                                                               \
  "        </tt:Extension>"                                                                                  \
  "        <tt:Type Likelihood=\"1.00\">Unknown</tt:Type>"                                                   \
  "        <tt:Type Likelihood=\"0.92\">Vehicle</tt:Type>"                                                   \
  "        <tt:Type Likelihood=\"0.96\">Human</tt:Type>"                                                     \
  "        <tt:Type Likelihood=\"0.72\">SmallObject</tt:Type>"                                               \
  "      </tt:Class>"                                                                                        \
  "      <tt:Extension>"                                                                                     \
  "        <qurt:RadarObjectInfo>"                                                                           \
  "          <qurt:PolarCoordinate angle=\"20.0\" range=\"50.0\"/>"                                          \
  "          <qurt:Velocity m-s=\"10.0\" angle=\"10.0\"/>"                                                   \
  "          <qurt:Size m=\"10.0\"/>"                                                                        \
  "        </qurt:RadarObjectInfo>"                                                                          \
  "      </tt:Extension>"                                                                                    \
  "      <tt:GeoLocation lon=\"0.0000000\" lat=\"0.0000000\" elevation=\"0.00\" />"

namespace
{

constexpr const char *RADAR_NICE_NAME = "Quon radar motion tracker";
constexpr const char RADAR_SAMPLE_FRAME[] = SCENE_SAMPLE_FRAME(RADAR_PRODUCER, RADAR_APPEARANCE);
static_assert(sizeof RADAR_SAMPLE_FRAME - 1 == 2007);

/* docs/compatibility.md, "blanks in texts". */
constexpr SceneSourceKind RADAR_KIND = {
    .bin_name = "radarscenesrcfactorybin",
    .source = "radarscenesrc",
    .filter_name = "radarscenefilter",
    .media_type = "application/vnd.quon.radarscene",
    .converter = "radarscene2xml",
    .no_source = "Could not construct radarscenesrc.",
    .no_filter = "Could not construct capsfilter for radar         metadata (analytics) stream.",
    .no_converter = "Could not construct radarscene2xml.",
    .converter_not_added = "Could not add radarscene2xml to radar scene source factory bin.",
    .filter_not_added = "Could not add capsfilter to radar scene source factory bin.",
    .source_not_added = "Could not add radarscenesrc to radar scene source factory bin.",
    .not_linked = "Could not link radarscenesrc, capsfilter and radarscene2xml         for radar metadata "
                  "(analytics) stream.",
    .no_ghost_pad = "Could not add ghost pad for radar metadata (analytics) stream.",
};

/* The converter's settings. */
struct RadarSettings {
  gboolean polygon;
  guint32 rotation;
  const gchar *source_name;
};

gboolean
configure_radar_converter(GstElement *converter, gpointer user_data, GError **error)
{
  auto settings = static_cast<const RadarSettings *>(user_data);

  g_object_set(converter, "polygon", settings->polygon, "velocity", TRUE, "geolocation", TRUE, "rotation",
               settings->rotation, "source-name", settings->source_name, nullptr);
  return TRUE;
}

/* FALSE with @error set when too few descriptors are free for the query, or the request is cancelled. */
gboolean
find_rotation(gint32 channel, guint32 *rotation, GError **error)
{
  g_autoptr(GError) cause = nullptr;

  if (capture_service_query_rotation(channel, rotation, g_cancellable_get_current(), &cause)) {
    return TRUE;
  }
  if (cause != nullptr) {
    g_propagate_error(error, g_steal_pointer(&cause));
    return FALSE;
  }
  /* docs/compatibility.md, "rotation failure". */
  syslog(LOG_WARNING, "could not get rotation from capt, using rotation 0");
  return TRUE;
}

GstElement *
create_radar_source(SourceFactory *factory, GHashTable *params, GError **error)
{
  RadarSceneSourceFactory *self = RADAR_SCENE_SOURCE_FACTORY(factory);
  g_autofree gchar *source_name = nullptr;
  guint32 rotation = 0;

  /* The factory's own error domain: docs/compatibility.md, "radar error domain". */
  const OptionValidationAnalytics analytics =
      option_validation_lookup_analytics(params, source_factory_error_quark(), error);
  if (analytics == OPTION_VALIDATION_ANALYTICS_INVALID) {
    return nullptr;
  }
  const gint32 channel = option_validation_lookup_channel(params, error);
  if (channel < 0) {
    return nullptr;
  }
  if (!scene_source_is_enabled(self->producers, RADAR_PRODUCER, channel, &source_name) ||
      analytics == OPTION_VALIDATION_ANALYTICS_OFF) {
    return nullptr;
  }
  if (!find_rotation(channel, &rotation, error)) {
    return nullptr;
  }

  RadarSettings settings = {analytics == OPTION_VALIDATION_ANALYTICS_POLYGONS, rotation, source_name};
  return scene_source_new(&RADAR_KIND, channel, settings.polygon, configure_radar_converter, &settings,
                          error);
}

} // namespace

static void
radar_scene_source_factory_init(RadarSceneSourceFactory *self)
{
}

static void
radar_scene_source_factory_class_init(RadarSceneSourceFactoryClass *klass)
{
}

static void
radar_scene_source_factory_iface_init(SourceFactoryInterface *iface)
{
  iface->create_source = create_radar_source;
}

/**
 * radar_scene_source_factory_new:
 * @producers: (transfer none): the list to which the radar motion tracker is added; must outlive the factory
 *
 * Must be called after producer_config_setup(). The producer stays in the list when the factory is finalised.
 * Main thread.
 *
 * Returns: (transfer full): a new factory of radar scene sources
 */
RadarSceneSourceFactory *
radar_scene_source_factory_new(AnalyticsProducerList *producers)
{
  auto *self = RADAR_SCENE_SOURCE_FACTORY(g_object_new(RADAR_SCENE_TYPE_SOURCE_FACTORY, nullptr));

  self->producers = producers;
  scene_source_publish_producer(producers, RADAR_PRODUCER, RADAR_NICE_NAME, RADAR_SAMPLE_FRAME);
  return self;
}
