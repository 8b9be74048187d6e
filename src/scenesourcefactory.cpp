/* SPDX-License-Identifier: MIT */
/* Makes a source of the video motion tracker's scenes for a request for analytics, and publishes the tracker
 * as a producer.
 *
 * Order: first the parameters are checked in a fixed order, then whether the tracker is enabled on the
 * channel. Then the request waits for a scene provider, and finally queries the capture service. The
 * factory's fields are written before the first request, so several requests can use it at once.
 *
 * Wait: it ends with a provider, at the deadline, with a shortage of descriptors, or when the calling
 * thread's current GCancellable is cancelled. Between two probes it uses no descriptor: the cancellation
 * signals a condition.
 */
#include "scenesourcefactory.h"

#include "captureservice.h"
#include "optionvalidation.h"
#include "ptzvalidation.h"
#include "scenesource.h"
#include "sourcefactory.h"

#include <syslog.h>

struct _SceneSourceFactory {
  GObject parent_instance;

  GMutex lock;
  AnalyticsProducerList *producers; /* borrowed */
  gint32 ptz_move_capabilities;
  SceneRunningFunc scene_running_func;
};

static void scene_source_factory_iface_init(SourceFactoryInterface *iface);

G_DEFINE_TYPE_WITH_CODE(SceneSourceFactory, scene_source_factory, G_TYPE_OBJECT,
                        G_IMPLEMENT_INTERFACE(SOURCE_TYPE_FACTORY, scene_source_factory_iface_init))

#define PRODUCER "VideoMotionTracker"

namespace
{

constexpr const char *NICE_NAME = "Quon video motion tracker";
constexpr const char SAMPLE_FRAME[] = SCENE_SAMPLE_FRAME(PRODUCER, "");
static_assert(sizeof SAMPLE_FRAME - 1 == 860);

constexpr gint64 PROBE_INTERVAL_US = SCENE_SOURCE_FACTORY_PROBE_INTERVAL_MS * G_TIME_SPAN_MILLISECOND;

/* docs/compatibility.md, "blanks in texts". */
constexpr SceneSourceKind KIND = {
    .bin_name = "scenesrcfactorybin",
    .source = "scenesrc",
    .filter_name = "scenefilter",
    .media_type = "application/vnd.quon.scene",
    .converter = "scene2xml",
    .no_source = "Could not construct scenesrc.",
    .no_filter = "Could not construct capsfilter for metadata (analytics) stream.",
    .no_converter = "Could not construct scene2xml.",
    .converter_not_added = "Could not add scene2xml to scene source factory bin.",
    .filter_not_added = "Could not add capsfilter to scene source factory bin.",
    .source_not_added = "Could not add scenesrc to scene source factory bin.",
    .not_linked =
        "Could not link scenesrc, capsfilter and scene2xml         for metadata (analytics) stream.",
    .no_ghost_pad = "Could not add ghost pad for metadata (analytics) stream.",
};

struct Request {
  OptionValidationAnalytics analytics;
  gint32 channel;
  PtzValidationPtz ptz;
  PtzValidationSpaces spaces;
};

/* The converter's settings. */
struct Settings {
  const Request *request;
  gint32 ptz_move_capabilities;
  guint32 rotation;
  const gchar *source_name;
};

/* FALSE without an error when the request asks for no analytics. Its other parameters are not checked then.
 */
gboolean
parse_request(GHashTable *params, Request *request, GError **error)
{
  request->analytics = option_validation_lookup_analytics(params, option_validation_error_quark(), error);
  if (request->analytics == OPTION_VALIDATION_ANALYTICS_OFF ||
      request->analytics == OPTION_VALIDATION_ANALYTICS_INVALID) {
    return FALSE;
  }
  request->channel = option_validation_lookup_channel(params, error);
  if (request->channel < 0) {
    return FALSE;
  }
  request->ptz = ptz_validation_lookup_ptz(params, error);
  /* Bad coordinate spaces fail the request even without PTZ. */
  return request->ptz != PTZ_VALIDATION_PTZ_INVALID &&
         ptz_validation_lookup_spaces(params, &request->spaces, error);
}

/* Blocks the calling thread until a point in time or the cancellation. */
class Pause
{
public:
  explicit Pause(GCancellable *cancellable) : cancellable_(cancellable)
  {
    g_mutex_init(&lock_);
    g_cond_init(&cancelled_);
    if (cancellable_ != nullptr) {
      handler_id_ = g_cancellable_connect(cancellable_, G_CALLBACK(on_cancelled), this, nullptr);
    }
  }

  /* g_cancellable_disconnect() waits for a callback that is running. */
  ~Pause()
  {
    g_cancellable_disconnect(cancellable_, handler_id_);
    g_cond_clear(&cancelled_);
    g_mutex_clear(&lock_);
  }

  Pause(const Pause &) = delete;
  Pause &operator=(const Pause &) = delete;

  void until(gint64 end_us)
  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock_);
    gboolean woken = TRUE;

    while (woken && !g_cancellable_is_cancelled(cancellable_)) {
      woken = g_cond_wait_until(&cancelled_, &lock_, end_us);
    }
  }

private:
  static void on_cancelled(GCancellable *, gpointer user_data)
  {
    auto *self = static_cast<Pause *>(user_data);
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&self->lock_);

    g_cond_signal(&self->cancelled_);
  }

  GCancellable *cancellable_; /* borrowed; may be NULL */
  gulong handler_id_ = 0;
  GMutex lock_;
  GCond cancelled_;
};

/* Returns 0 after the deadline. */
gint
milliseconds_until(gint64 deadline_us)
{
  const gint64 left_us = MAX(deadline_us - g_get_monotonic_time(), 0);

  return static_cast<gint>(left_us / G_TIME_SPAN_MILLISECOND);
}

/* Waits for a scene provider. FALSE without an error when there is none at the deadline. */
gboolean
wait_for_scene_provider(SceneRunningFunc scene_running_func, GError **error)
{
  GCancellable *cancellable = g_cancellable_get_current();
  Pause pause(cancellable);
  const gint64 deadline_us =
      g_get_monotonic_time() + SCENE_SOURCE_FACTORY_MAX_WAIT_SECONDS * G_TIME_SPAN_SECOND;

  for (gint left_ms = milliseconds_until(deadline_us); left_ms > 0;
       left_ms = milliseconds_until(deadline_us)) {
    g_autoptr(GError) cause = nullptr;
    if (scene_running_func(MIN(left_ms, SCENE_SOURCE_FACTORY_PROBE_TIMEOUT_MS), cancellable, &cause)) {
      return TRUE;
    }
    if (cause != nullptr) {
      g_propagate_error(error, g_steal_pointer(&cause));
      return FALSE;
    }
    pause.until(MIN(deadline_us, g_get_monotonic_time() + PROBE_INTERVAL_US));
    if (g_cancellable_set_error_if_cancelled(cancellable, error)) {
      return FALSE;
    }
  }
  syslog(LOG_WARNING, "No scene provider available, skipping analytics.");
  /* docs/compatibility.md, "probe after the deadline". Does not wait for the reply. */
  scene_running_func(0, cancellable, nullptr);
  return FALSE;
}

/* A converter without PTZ refuses the property. */
gboolean
activate_ptz(GstElement *converter, const Request *request, GError **error)
{
  gboolean active = FALSE;

  g_object_set(converter, "pan-tilt-space", request->spaces.pan_tilt, "zoom-space", request->spaces.zoom,
               "channel", request->channel, "ptz", TRUE, nullptr);
  g_object_get(converter, "ptz", &active, nullptr);
  if (!active) {
    source_factory_fail(error, source_factory_error_quark(),
                        "Could not activate PTZ in the scene2xml element.");
  }
  return active;
}

gboolean
wants_polygons(const Request *request)
{
  return request->analytics == OPTION_VALIDATION_ANALYTICS_POLYGONS;
}

gboolean
configure_converter(GstElement *converter, gpointer user_data, GError **error)
{
  auto settings = static_cast<const Settings *>(user_data);

  g_object_set(converter, "polygon", wants_polygons(settings->request), "ptz-move-capabilities",
               settings->ptz_move_capabilities, "rotation", settings->rotation, "source-name",
               settings->source_name, nullptr);
  return settings->request->ptz == PTZ_VALIDATION_PTZ_OFF ||
         activate_ptz(converter, settings->request, error);
}

GstElement *
create_scene_source(SourceFactory *factory, GHashTable *params, GError **error)
{
  SceneSourceFactory *self = SCENE_SOURCE_FACTORY(factory);
  Request request = {};
  g_autofree gchar *source_name = nullptr;
  guint32 rotation = 0;

  /* docs/compatibility.md, "scene request gate". */
  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&self->lock);
  }

  if (!parse_request(params, &request, error) ||
      !scene_source_is_enabled(self->producers, PRODUCER, request.channel, &source_name) ||
      !wait_for_scene_provider(self->scene_running_func, error)) {
    return nullptr;
  }
  /* Without a rotation the factory declines (docs/compatibility.md, "rotation failure"). A shortage of
   * descriptors fails the request. */
  if (!capture_service_query_rotation(request.channel, &rotation, g_cancellable_get_current(), error)) {
    return nullptr;
  }

  Settings settings = {&request, self->ptz_move_capabilities, rotation, source_name};
  return scene_source_new(&KIND, request.channel, wants_polygons(&request), configure_converter, &settings,
                          error);
}

} // namespace

static void
scene_source_factory_init(SceneSourceFactory *self)
{
  g_mutex_init(&self->lock);
}

static void
scene_source_factory_finalize(GObject *object)
{
  g_mutex_clear(&SCENE_SOURCE_FACTORY(object)->lock);

  G_OBJECT_CLASS(scene_source_factory_parent_class)->finalize(object);
}

static void
scene_source_factory_class_init(SceneSourceFactoryClass *klass)
{
  G_OBJECT_CLASS(klass)->finalize = scene_source_factory_finalize;
}

static void
scene_source_factory_iface_init(SourceFactoryInterface *iface)
{
  iface->create_source = create_scene_source;
}

/**
 * scene_source_factory_new:
 * @producers: (transfer none): the list to which the video motion tracker is added; must outlive the factory
 * @ptz_move_capabilities: the movements of the camera's head, as its driver reports them; 0 when unknown
 * @scene_running_func: returns whether a scene provider is running
 *
 * Must be called after producer_config_setup(). The producer stays in the list when the factory is finalised.
 * Main thread.
 *
 * Returns: (transfer full): a new factory of scene sources
 */
SceneSourceFactory *
scene_source_factory_new(AnalyticsProducerList *producers, gint32 ptz_move_capabilities,
                         SceneRunningFunc scene_running_func)
{
  g_return_val_if_fail(scene_running_func, nullptr);

  auto *self = SCENE_SOURCE_FACTORY(g_object_new(SCENE_TYPE_SOURCE_FACTORY, nullptr));
  self->producers = producers;
  self->ptz_move_capabilities = ptz_move_capabilities;
  self->scene_running_func = scene_running_func;

  scene_source_publish_producer(producers, PRODUCER, NICE_NAME, SAMPLE_FRAME);
  return self;
}
