/* SPDX-License-Identifier: MIT */
#pragma once

#include "tessardmacros.h"

#include <glib.h>

G_BEGIN_DECLS

/**
 * TESSARD_ERROR:
 *
 * The error domain of the library.
 */
#define TESSARD_ERROR (tessard_error_quark())

/**
 * TessardError:
 * @TESSARD_ERROR_INVALID_TIME: "UtcTime" is not from 1970 to 2099
 * @TESSARD_ERROR_DUPLICATE_ID: the item has an object with this "Id"
 * @TESSARD_ERROR_UNKNOWN_OBJECT: the item has no object with this "Id"
 * @TESSARD_ERROR_INVALID_BOX: a side of "BoundingBox" is not from -1 to 1, or the box is upside down
 * @TESSARD_ERROR_INVALID_CENTER: "CenterOfGravity" is not in the picture
 * @TESSARD_ERROR_INVALID_POLYGON: "Polygon" has a wrong number of points, or one that is not in the picture
 * @TESSARD_ERROR_INVALID_TYPE: "Type" is empty, too long, not UTF-8 or has control characters
 * @TESSARD_ERROR_INVALID_LIKELIHOOD: "Likelihood" is not from 0 to 1
 * @TESSARD_ERROR_TOO_MANY_OBJECTS: "Objects" is full
 * @TESSARD_ERROR_TOO_MANY_DELETED: "Deleted" is full
 * @TESSARD_ERROR_TOO_MANY_VALUES: the item has as many values as the converter takes
 *
 * The errors of the library.
 */
typedef enum {
  TESSARD_ERROR_INVALID_TIME,
  TESSARD_ERROR_DUPLICATE_ID,
  TESSARD_ERROR_UNKNOWN_OBJECT,
  TESSARD_ERROR_INVALID_BOX,
  TESSARD_ERROR_INVALID_CENTER,
  TESSARD_ERROR_INVALID_POLYGON,
  TESSARD_ERROR_INVALID_TYPE,
  TESSARD_ERROR_INVALID_LIKELIHOOD,
  TESSARD_ERROR_TOO_MANY_OBJECTS,
  TESSARD_ERROR_TOO_MANY_DELETED,
  TESSARD_ERROR_TOO_MANY_VALUES,
} TessardError;

TESSARD_API GQuark tessard_error_quark(void);

G_END_DECLS
