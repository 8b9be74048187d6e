/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

/* Sets the wall clock of the program and its plug-ins, in microseconds relative to the real one. */
void set_wall_clock_offset(gint64 offset);

/* Sets it after this number of further reads, like another process between two reads. */
void set_wall_clock_offset_after(int reads, gint64 offset);
