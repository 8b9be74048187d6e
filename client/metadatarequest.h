/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

/* The text of a request. Any thread can call the functions, one at a time for one request. */

G_BEGIN_DECLS

GString *metadata_request_new(void);
void metadata_request_add(GString *request, const gchar *key, const gchar *value);
void metadata_request_add_text(GString *request, const gchar *key, const gchar *text);
gchar *metadata_request_finish(GString *request);

G_END_DECLS
