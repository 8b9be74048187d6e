/* SPDX-License-Identifier: MIT */
#pragma once

#include "analyticsproducerlist.h"

#include <glib-object.h>

G_BEGIN_DECLS

#define RADAR_SCENE_TYPE_SOURCE_FACTORY (radar_scene_source_factory_get_type())
G_DECLARE_FINAL_TYPE(RadarSceneSourceFactory, radar_scene_source_factory, RADAR_SCENE, SOURCE_FACTORY,
                     GObject)

RadarSceneSourceFactory *radar_scene_source_factory_new(AnalyticsProducerList *producers);

G_END_DECLS
