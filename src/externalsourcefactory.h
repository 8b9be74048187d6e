/* SPDX-License-Identifier: MIT */
#pragma once

#include "analyticsproducerlist.h"

G_BEGIN_DECLS

#define EXTERNAL_TYPE_SOURCE_FACTORY (external_source_factory_get_type())
G_DECLARE_FINAL_TYPE(ExternalSourceFactory, external_source_factory, EXTERNAL, SOURCE_FACTORY, GObject)

ExternalSourceFactory *external_source_factory_new(AnalyticsProducerList *producers);

G_END_DECLS
