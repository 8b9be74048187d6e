/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

G_BEGIN_DECLS

/**
 * SAMPLE_FRAME_TIMEOUT_MS:
 *
 * The longest wait for the converter's output for one sample frame.
 */
#define SAMPLE_FRAME_TIMEOUT_MS 5000

gchar *sample_frame_convert(gchar **json, const gchar *producer_name);

G_END_DECLS
