#pragma once

#include <glib.h>

/* Sets the wall clock that the program and its plug-ins see, relative to the real one, in microseconds. */
void set_wall_clock_offset(gint64 offset);

/* Sets it so after that many more looks at it, as somebody else may between any two. */
void set_wall_clock_offset_after(int looks, gint64 offset);
