/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

/* What the programs of the fleet share. */

[[noreturn]] void fail(const char *what, const char *why);
void require(int status, const char *what);
void parse_options(int *argc, char ***argv, const GOptionEntry *entries, const char *argument);
