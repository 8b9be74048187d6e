/* SPDX-License-Identifier: MIT */
#pragma once

#include <gio/gio.h>
#include <gst/app/gstappsrc.h>

G_BEGIN_DECLS

/**
 * ExternalSrc:
 *
 * The source element of the external producers of one client. Any thread can call the functions of this
 * component.
 */
#define EXTERNAL_TYPE_SRC (external_src_get_type())
G_DECLARE_FINAL_TYPE(ExternalSrc, external_src, EXTERNAL, SRC, GstAppSrc)

ExternalSrc *external_src_new(void);

void external_src_add_socket(ExternalSrc *src, gint fd, const gchar *source_name);

GCancellable *external_src_get_cancellable(ExternalSrc *src);

G_END_DECLS
