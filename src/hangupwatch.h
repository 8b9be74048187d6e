/* SPDX-License-Identifier: MIT */
#pragma once

#include <gio/gio.h>

G_BEGIN_DECLS

/**
 * HangUpWatch:
 *
 * Cancels a thread's work for a client when the client hangs up. Any thread can call the functions of this
 * component; the thread that makes a watch also frees it.
 */
typedef struct HangUpWatch HangUpWatch;

HangUpWatch *hang_up_watch_new(int fd);

void hang_up_watch_free(HangUpWatch *self);

G_DEFINE_AUTOPTR_CLEANUP_FUNC(HangUpWatch, hang_up_watch_free)

gboolean hang_up_watch_is_gone(int fd);

G_END_DECLS
