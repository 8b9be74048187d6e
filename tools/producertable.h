/* SPDX-License-Identifier: MIT */
#pragma once

#include "producers.h"

/* All functions can be called on any thread. */

gchar *producer_table_format(const Producers &producers);
gchar *producer_table_format_json(const Producers &producers);
gchar *producer_table_format_names(const Producers &producers);
gchar *producer_table_format_channels(const Producer &producer);
gchar *producer_table_format_one(const Producer &producer);
