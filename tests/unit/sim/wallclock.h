#pragma once

#include <glib.h>

/* Sets the wall clock that the program and its plug-ins see, relative to the real one, in microseconds. */
void set_wall_clock_offset(gint64 offset);

/* Sets it after that many more reads, as another process may between any two reads. */
void set_wall_clock_offset_after(int reads, gint64 offset);
