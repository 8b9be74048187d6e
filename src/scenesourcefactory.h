#pragma once

#include "analyticsproducerlist.h"

#include <gio/gio.h>

G_BEGIN_DECLS

/**
 * SCENE_SOURCE_FACTORY_MAX_WAIT_SECONDS:
 *
 * How many seconds a request waits for a scene provider at most, the time that the provider takes to answer
 * included.
 */
#define SCENE_SOURCE_FACTORY_MAX_WAIT_SECONDS 300

/**
 * SCENE_SOURCE_FACTORY_PROBE_INTERVAL_MS:
 *
 * How long a request that waits for a scene provider rests before it looks for one again.
 */
#define SCENE_SOURCE_FACTORY_PROBE_INTERVAL_MS 1000

/**
 * SCENE_SOURCE_FACTORY_PROBE_TIMEOUT_MS:
 *
 * How long a scene provider may take to answer.
 */
#define SCENE_SOURCE_FACTORY_PROBE_TIMEOUT_MS 1000

/**
 * SceneRunningFunc:
 * @timeout_ms: how many milliseconds the answer may take; with 0 it is not waited for
 * @cancellable: (nullable): ends the wait for the answer
 * @error: (out) (optional): where to put a shortage of descriptors; nothing else is an error
 *
 * Called on the request server's pool threads, for several requests at once.
 *
 * Returns: whether a scene provider is running; %FALSE with @error set to %G_IO_ERROR_TOO_MANY_OPEN_FILES
 *   when too few descriptors are free to ask
 */
typedef gboolean (*SceneRunningFunc)(gint timeout_ms, GCancellable *cancellable, GError **error);

#define SCENE_TYPE_SOURCE_FACTORY (scene_source_factory_get_type())
G_DECLARE_FINAL_TYPE(SceneSourceFactory, scene_source_factory, SCENE, SOURCE_FACTORY, GObject)

SceneSourceFactory *scene_source_factory_new(AnalyticsProducerList *producers, gint32 ptz_move_capabilities,
                                             SceneRunningFunc scene_running_func);

G_END_DECLS
