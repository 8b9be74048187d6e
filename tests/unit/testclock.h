/* SPDX-License-Identifier: MIT */
/* The clock of the code under test, on all threads. A test can advance it, and stop it; GLib's own time-outs
 * do not use it.
 */
#pragma once

#include <glib.h>

namespace testclock
{

void reset();
void advance_ms(gint64 milliseconds);
void stop(); /* until reset() */

} // namespace testclock
