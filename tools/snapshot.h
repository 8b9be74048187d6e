/* SPDX-License-Identifier: MIT */
#pragma once

/* All functions are for the main thread. */

int snapshot_command_run(int argc, char **argv);
