/* SPDX-License-Identifier: MIT */
#pragma once

#include "sourcefactory.h"

G_BEGIN_DECLS

#define PTZ_TYPE_SOURCE_FACTORY (ptz_source_factory_get_type())
G_DECLARE_FINAL_TYPE(PTZSourceFactory, ptz_source_factory, PTZ, SOURCE_FACTORY, GObject)

SourceFactory *ptz_source_factory_new(gint32 ptz_move_capabilities);

G_END_DECLS
