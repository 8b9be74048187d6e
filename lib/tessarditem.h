/* SPDX-License-Identifier: MIT */
#pragma once

#include "tessarderror.h"

#include <glib-object.h>

/* Any thread, one at a time. */

/**
 * TESSARD_ITEM_MAX_OBJECTS:
 *
 * How many objects an item can have.
 */
#define TESSARD_ITEM_MAX_OBJECTS 1024

/**
 * TESSARD_ITEM_MAX_DELETED:
 *
 * How many deleted ids an item can have.
 */
#define TESSARD_ITEM_MAX_DELETED 1024

/**
 * TESSARD_ITEM_MAX_POINTS:
 *
 * How many points a polygon can have.
 */
#define TESSARD_ITEM_MAX_POINTS 128

/**
 * TESSARD_ITEM_MAX_TYPE_CHARACTERS:
 *
 * How many characters a type can have.
 */
#define TESSARD_ITEM_MAX_TYPE_CHARACTERS 64

/**
 * TESSARD_ITEM_MAX_VALUES:
 *
 * How many JSON values an item can have, including those that the daemon adds. A point of a polygon has
 * three.
 */
#define TESSARD_ITEM_MAX_VALUES 65536

G_BEGIN_DECLS

#define TESSARD_TYPE_ITEM (tessard_item_get_type())
TESSARD_API
G_DECLARE_FINAL_TYPE(TessardItem, tessard_item, TESSARD, ITEM, GObject)

TESSARD_API TessardItem *tessard_item_new(void);
TESSARD_API gboolean tessard_item_set_utc_time(TessardItem *self, gint64 utc_time, GError **error);
TESSARD_API gboolean tessard_item_add_object(TessardItem *self, gint64 id, gdouble left, gdouble top,
                                             gdouble right, gdouble bottom, GError **error);
TESSARD_API gboolean tessard_item_add_object_without_box(TessardItem *self, gint64 id, GError **error);
TESSARD_API gboolean tessard_item_set_center(TessardItem *self, gint64 id, gdouble x, gdouble y,
                                             GError **error);
TESSARD_API gboolean tessard_item_set_polygon(TessardItem *self, gint64 id, const gdouble *coordinates,
                                              gsize n_coordinates, GError **error);
TESSARD_API gboolean tessard_item_set_type(TessardItem *self, gint64 id, const gchar *type, GError **error);
TESSARD_API gboolean tessard_item_set_likelihood(TessardItem *self, gint64 id, gdouble likelihood,
                                                 GError **error);
TESSARD_API gboolean tessard_item_add_deleted(TessardItem *self, gint64 id, GError **error);
TESSARD_API gchar *tessard_item_to_json(TessardItem *self);

G_END_DECLS
