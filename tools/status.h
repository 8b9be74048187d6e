/* SPDX-License-Identifier: MIT */
#pragma once

/**
 * STATUS_INTERVAL_MS:
 *
 * The time over which "tessardctl status" measures rates.
 */
#define STATUS_INTERVAL_MS 1000

int status_command_run(int argc, char **argv);
