/* SPDX-License-Identifier: MIT */
/* What a stream can make the page keep and draw. */

export const SOURCES_MAX = 32;

/* Of one frame; the others are left out. */
export const OBJECTS_MAX = 256;

/* Of all polygons of an object; the others are left out. */
export const POINTS_MAX = 512;

/* Deleted or renamed objects of one frame. */
export const CHANGES_MAX = 1024;

/* Points of an object's trail, and how long they stay. */
export const TRAIL_POINTS_MAX = 60;
export const TRAIL_MS = 6000;

/* Without a frame that has it, an object vanishes. */
export const OBJECT_MS = 5000;

/* Without a frame, a source vanishes; a source without objects sends one every few seconds. */
export const SOURCE_MS = 15000;

/* Rows of the table of objects. */
export const ROWS_MAX = 100;

/* Lines of the ticker, and properties whose state is shown; the oldest ones go. */
export const EVENTS_MAX = 100;
export const PROPERTIES_MAX = 200;

/* Producers and channels that are shown. */
export const SWITCHES_MAX = 512;

/* Characters of any text from outside; the rest is cut off. */
export const TEXT_MAX = 120;

/* The largest coordinate of the picture, whose edges are at 1, and of the map, in metres. */
export const COORDINATE_MAX = 100;
export const METRES_MAX = 100000;

/* The shortest time between two drawings, and for people who prefer reduced motion. */
export const DRAW_MS = 40;
export const DRAW_REDUCED_MS = 1000;

/* The same for tables; people read them more slowly than frames arrive. */
export const TABLE_MS = 500;

/* The time before a request that failed is repeated. */
export const RETRY_MS = 3000;
