/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

GError *library_error_convert(const GError *cause);
