#pragma once

#include "analyticsproducer.h"

#include <glib-object.h>

G_BEGIN_DECLS

/* How many seconds a request waits for a scene provider, which is asked once a second. */
#define SCENE_SOURCE_FACTORY_MAX_WAIT_SECONDS 300

/**
 * SceneRunningFunc:
 *
 * Called on the request server's pool threads, for several requests at once.
 *
 * Returns: whether a scene provider is running
 */
typedef gboolean (*SceneRunningFunc)(void);

#define SCENE_TYPE_SOURCE_FACTORY (scene_source_factory_get_type())
G_DECLARE_FINAL_TYPE(SceneSourceFactory, scene_source_factory, SCENE, SOURCE_FACTORY, GObject)

SceneSourceFactory *scene_source_factory_new(AnalyticsProducerList *producers, gint32 ptz_move_capabilities,
                                             SceneRunningFunc scene_running_func);

G_END_DECLS
