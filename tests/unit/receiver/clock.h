/* SPDX-License-Identifier: MIT */
/* The clock of the code under test, which a test can advance. GLib's own time-outs do not follow it. */
#pragma once

#include <glib.h>

namespace testclock
{

void reset();
void advance_ms(gint64 milliseconds);

} // namespace testclock
