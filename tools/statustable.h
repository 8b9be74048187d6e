/* SPDX-License-Identifier: MIT */
#pragma once

#include "daemonstatus.h"

/* The function can be called on any thread. */

gchar *status_table_format(const DaemonStatus &earlier, const DaemonStatus &status);
