/* SPDX-License-Identifier: MIT */
#pragma once

#include "analyticsproducerlist.h"

#include <gio/gio.h>

G_BEGIN_DECLS

/**
 * SCENE_SOURCE_FACTORY_MAX_WAIT_SECONDS:
 *
 * The longest wait of a request for a scene provider, in seconds, including the provider's time to reply.
 */
#define SCENE_SOURCE_FACTORY_MAX_WAIT_SECONDS 300

/**
 * SCENE_SOURCE_FACTORY_PROBE_INTERVAL_MS:
 *
 * The time between two probes while a request waits for a scene provider.
 */
#define SCENE_SOURCE_FACTORY_PROBE_INTERVAL_MS 1000

/**
 * SCENE_SOURCE_FACTORY_PROBE_TIMEOUT_MS:
 *
 * The longest wait for the reply to a probe.
 */
#define SCENE_SOURCE_FACTORY_PROBE_TIMEOUT_MS 1000

/**
 * SceneRunningFunc:
 * @timeout_ms: the longest wait for the reply, in milliseconds; 0 makes the call without waiting for it
 * @cancellable: (nullable): ends the wait for the reply
 * @error: (out) (optional): where to put a shortage of descriptors or the cancellation; other failures are
 *   no errors
 *
 * Called on the server's pool threads, for several requests at once.
 *
 * Returns: whether a scene provider is running; %FALSE with @error set to %G_IO_ERROR_TOO_MANY_OPEN_FILES
 *   when too few descriptors are free for the probe, or to %G_IO_ERROR_CANCELLED
 */
typedef gboolean (*SceneRunningFunc)(gint timeout_ms, GCancellable *cancellable, GError **error);

#define SCENE_TYPE_SOURCE_FACTORY (scene_source_factory_get_type())
G_DECLARE_FINAL_TYPE(SceneSourceFactory, scene_source_factory, SCENE, SOURCE_FACTORY, GObject)

SceneSourceFactory *scene_source_factory_new(AnalyticsProducerList *producers, gint32 ptz_move_capabilities,
                                             SceneRunningFunc scene_running_func);

G_END_DECLS
