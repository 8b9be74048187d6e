#pragma once

#include <glib.h>

G_BEGIN_DECLS

/**
 * MEMORY_MMAP_THRESHOLD:
 *
 * From how many bytes on a block is a mapping of its own, which goes back to the system when the block is
 * freed.
 */
#define MEMORY_MMAP_THRESHOLD (256 * 1024)

/**
 * MEMORY_MAX_ARENAS:
 *
 * Into how many heaps the threads of a program share.
 */
#define MEMORY_MAX_ARENAS 2

/**
 * MEMORY_TRIM_INTERVAL_MS:
 *
 * How long two trims are apart, at least.
 */
#define MEMORY_TRIM_INTERVAL_MS 2000

void memory_set_up(void);

void memory_start_trimming(void);

void memory_trim_later(void);

void memory_hand_over_kept_blocks(void);

void memory_free_kept_blocks(void);

void memory_stop_trimming(void);

G_END_DECLS
