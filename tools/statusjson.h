/* SPDX-License-Identifier: MIT */
#pragma once

#include "daemonstatus.h"

/* The function can be called on any thread. */

gchar *status_json_format(const DaemonStatus &status);
