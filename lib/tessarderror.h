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
 * @TESSARD_ERROR_INVALID_ITEM: a text is too long for a message, not UTF-8 or no JSON object
 * @TESSARD_ERROR_UNKNOWN_CHANNEL: the producer does not have this channel
 * @TESSARD_ERROR_QUEUE_FULL: as much waits for the receiver as can wait
 * @TESSARD_ERROR_CLOSED: the object is closed
 * @TESSARD_ERROR_NOT_TAKEN: the receiver has not taken everything before the end
 * @TESSARD_ERROR_NO_BUS: there is no connection to the bus; it is tried again
 * @TESSARD_ERROR_BUS_CLOSED: the bus has closed the connection; it is made again
 * @TESSARD_ERROR_NO_RECEIVER: the receiver is not on the bus
 * @TESSARD_ERROR_CHANNEL_CLOSED: the receiver has closed a channel, which is opened again
 * @TESSARD_ERROR_BUSY: the receiver refuses for now; it is tried again
 * @TESSARD_ERROR_NAME_TAKEN: another application has the producer's name; it is tried again
 * @TESSARD_ERROR_NOT_ALLOWED: the bus policy refuses calls of this user
 * @TESSARD_ERROR_REFUSED: the receiver refuses for good
 * @TESSARD_ERROR_MALFORMED_REPLY: what the receiver has replied is not valid
 * @TESSARD_ERROR_INVALID_TOPIC: a topic has not ONVIF's form, or a prefix without a namespace
 * @TESSARD_ERROR_INVALID_ITEMS: source or data have wrong names, types or values
 * @TESSARD_ERROR_INVALID_OPERATION: the operation does not belong to this topic
 * @TESSARD_ERROR_UNKNOWN_TOPIC: the topic is not declared
 * @TESSARD_ERROR_UNKNOWN_PROPERTY: a property is deleted that is not there
 * @TESSARD_ERROR_TOPIC_CONFLICT: another application has declared the topic in another way
 * @TESSARD_ERROR_NOT_OWNER: another application has the property
 * @TESSARD_ERROR_TOO_MANY_TOPICS: the application has as many topics as it can have
 * @TESSARD_ERROR_TOO_MANY_PROPERTIES: the application has as many properties as it can have
 * @TESSARD_ERROR_EVENT_TOO_LARGE: the event is too long
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
  TESSARD_ERROR_INVALID_ITEM,
  TESSARD_ERROR_UNKNOWN_CHANNEL,
  TESSARD_ERROR_QUEUE_FULL,
  TESSARD_ERROR_CLOSED,
  TESSARD_ERROR_NOT_TAKEN,
  TESSARD_ERROR_NO_BUS,
  TESSARD_ERROR_BUS_CLOSED,
  TESSARD_ERROR_NO_RECEIVER,
  TESSARD_ERROR_CHANNEL_CLOSED,
  TESSARD_ERROR_BUSY,
  TESSARD_ERROR_NAME_TAKEN,
  TESSARD_ERROR_NOT_ALLOWED,
  TESSARD_ERROR_REFUSED,
  TESSARD_ERROR_MALFORMED_REPLY,
  TESSARD_ERROR_INVALID_TOPIC,
  TESSARD_ERROR_INVALID_ITEMS,
  TESSARD_ERROR_INVALID_OPERATION,
  TESSARD_ERROR_UNKNOWN_TOPIC,
  TESSARD_ERROR_UNKNOWN_PROPERTY,
  TESSARD_ERROR_TOPIC_CONFLICT,
  TESSARD_ERROR_NOT_OWNER,
  TESSARD_ERROR_TOO_MANY_TOPICS,
  TESSARD_ERROR_TOO_MANY_PROPERTIES,
  TESSARD_ERROR_EVENT_TOO_LARGE,
} TessardError;

TESSARD_API GQuark tessard_error_quark(void);

G_END_DECLS
