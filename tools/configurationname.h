/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

/* All functions can be called on any thread. */

gchar *configuration_name_describe_fault(const gchar *name);
