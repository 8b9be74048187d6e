/* SPDX-License-Identifier: MIT */
/* The timers of the worker, which are over when the test says so. The linker puts them in place of
 * g_timeout_source_new().
 */
#pragma once

#include <glib.h>
#include <vector>

namespace timers
{

/* The lengths in milliseconds of all timers since the last call of this, in order. */
std::vector<guint> take_begun();

/* The number of timers that are set. */
gsize count_set();

/* Waits until a timer of this length is set, and ends it. FALSE when it is not within the bound. */
bool fire(guint milliseconds);

/* Does not wait, so that the main loop does not run. */
bool try_to_fire(guint milliseconds);

} // namespace timers
