/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

G_BEGIN_DECLS

/**
 * MEMORY_MMAP_THRESHOLD:
 *
 * The size in bytes from which a block is a separate mapping, which returns to the system when the block is
 * freed.
 */
#define MEMORY_MMAP_THRESHOLD (256 * 1024)

/**
 * MEMORY_MAX_ARENAS:
 *
 * The number of heaps that the threads of a program share.
 */
#define MEMORY_MAX_ARENAS 2

/**
 * MEMORY_TRIM_INTERVAL_MS:
 *
 * The minimum time between two trims.
 */
#define MEMORY_TRIM_INTERVAL_MS 2000

/* Any thread can call the functions of this component, except memory_set_up(), memory_start_trimming() and
 * memory_stop_trimming(), which are for the main thread. */

void memory_set_up(void);

void memory_start_trimming(void);

void memory_trim_later(void);

void memory_hand_over_kept_blocks(void);

void memory_free_kept_blocks(void);

void memory_stop_trimming(void);

G_END_DECLS
