/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib-object.h>

/* The values of a request's keys as GObject enumerations. Their numbers are those of the protocol, and
 * NOT_ASKED leaves the key out. The functions can be called on any thread. */

G_BEGIN_DECLS

#define TESSARD_TYPE_ANALYTICS (tessard_analytics_get_type())
#define TESSARD_TYPE_PTZ (tessard_ptz_get_type())
#define TESSARD_TYPE_PAN_TILT_SPACE (tessard_pan_tilt_space_get_type())
#define TESSARD_TYPE_ZOOM_SPACE (tessard_zoom_space_get_type())

/**
 * TESSARD_NOT_ASKED:
 *
 * The value of each of these enumerations for a key that the request does not have.
 */
#define TESSARD_NOT_ASKED (-1)

GType tessard_analytics_get_type(void);
GType tessard_ptz_get_type(void);
GType tessard_pan_tilt_space_get_type(void);
GType tessard_zoom_space_get_type(void);

G_END_DECLS
