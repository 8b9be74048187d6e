/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

G_BEGIN_DECLS

/**
 * PtzValidationPtz:
 * @PTZ_VALIDATION_PTZ_INVALID: the text is refused
 * @PTZ_VALIDATION_PTZ_OFF: no PTZ
 * @PTZ_VALIDATION_PTZ_STATUS_AND_POSITION: status and position
 * @PTZ_VALIDATION_PTZ_POSITION: position
 * @PTZ_VALIDATION_PTZ_STATUS: status
 *
 * The values of the parameter "ptz". Any thread can call the functions of this component.
 */
typedef enum {
  PTZ_VALIDATION_PTZ_INVALID = -1,
  PTZ_VALIDATION_PTZ_OFF = 0,
  PTZ_VALIDATION_PTZ_STATUS_AND_POSITION = 1,
  PTZ_VALIDATION_PTZ_POSITION = 2,
  PTZ_VALIDATION_PTZ_STATUS = 3,
} PtzValidationPtz;

/**
 * PtzValidationSpaces:
 * @pan_tilt: the coordinate space of pan and tilt, from 0; -1 when the request has none
 * @zoom: the coordinate space of zoom, from 0; -1 when the request has none
 *
 * The coordinate spaces of a request.
 */
typedef struct {
  gint32 pan_tilt;
  gint32 zoom;
} PtzValidationSpaces;

GQuark ptz_validation_error_quark(void);

gint32 ptz_validation_parse_ptz(const gchar *value, GError **error);

gint32 ptz_validation_parse_ptz_pantilt(const gchar *value, GError **error);

gint32 ptz_validation_parse_ptz_zoom(const gchar *value, GError **error);

PtzValidationPtz ptz_validation_lookup_ptz(GHashTable *params, GError **error);

gboolean ptz_validation_lookup_spaces(GHashTable *params, PtzValidationSpaces *spaces, GError **error);

G_END_DECLS
