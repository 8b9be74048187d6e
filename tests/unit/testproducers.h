/* SPDX-License-Identifier: MIT */
/* Producers of the tests and their properties. */
#pragma once

#include "analyticsproducer.h"

#include <string>
#include <vector>

namespace testproducers
{

using Channels = std::vector<guint32>;

AnalyticsProducer *make_producer(const std::string &name, const Channels &channels,
                                 gint type = ANALYTICS_PRODUCER_EXTERNAL);

std::string text_property(AnalyticsProducer *producer, const char *name);

/* The state of a channel: its name in brackets, or "disabled". */
std::string state(AnalyticsProducer *producer, guint32 channel);

guint references(gpointer object);

} // namespace testproducers
