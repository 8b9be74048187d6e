/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

G_BEGIN_DECLS

/**
 * OPTION_VALIDATION_DEFAULT_CHANNEL:
 *
 * The video channel of a request for analytics that names none; docs/compatibility.md, "default channel".
 */
#define OPTION_VALIDATION_DEFAULT_CHANNEL 1

/**
 * OptionValidationAnalytics:
 * @OPTION_VALIDATION_ANALYTICS_OFF: no analytics
 * @OPTION_VALIDATION_ANALYTICS_BOUNDING_BOXES: objects with bounding boxes
 * @OPTION_VALIDATION_ANALYTICS_POLYGONS: objects with bounding boxes and polygons
 * @OPTION_VALIDATION_ANALYTICS_INVALID: the text is refused
 *
 * The values of the parameter "analytics". Any thread can call the functions of this component.
 */
typedef enum {
  OPTION_VALIDATION_ANALYTICS_OFF = 0,
  OPTION_VALIDATION_ANALYTICS_BOUNDING_BOXES = 1,
  OPTION_VALIDATION_ANALYTICS_POLYGONS = 2,
  OPTION_VALIDATION_ANALYTICS_INVALID = 3,
} OptionValidationAnalytics;

GQuark option_validation_error_quark(void);

gint32 option_validation_parse_channel(const gchar *value, GError **error);

gboolean option_validation_lookup_named_channel(GHashTable *params, gint32 *channel, GError **error);

gint32 option_validation_lookup_channel(GHashTable *params, GError **error);

gint32 option_validation_parse_analytics(const gchar *value, GError **error);

OptionValidationAnalytics option_validation_lookup_analytics(GHashTable *params, GQuark domain,
                                                             GError **error);

G_END_DECLS
