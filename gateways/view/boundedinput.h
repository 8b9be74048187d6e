/* SPDX-License-Identifier: MIT */
#pragma once

#include <gio/gio.h>

/* The input of a connection for the engine, which reads all that a client sends, without a bound for the
 * headers of a request, and which leaks with some of them, see #RequestHead. All functions are for the main
 * thread. */

G_BEGIN_DECLS

/* The stream is closed or released. */
typedef void (*BoundedInputFunc)(gpointer user_data);

#define BOUNDED_TYPE_INPUT (bounded_input_get_type())

G_DECLARE_FINAL_TYPE(BoundedInput, bounded_input, BOUNDED, INPUT, GFilterInputStream)

BoundedInput *bounded_input_new(GInputStream *base, gsize bytes_max, BoundedInputFunc on_closed,
                                gpointer user_data);
gboolean bounded_input_has_refused(BoundedInput *self);
void bounded_input_forget(BoundedInput *self);

G_END_DECLS
