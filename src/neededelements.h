/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

G_BEGIN_DECLS

gboolean needed_elements_check(void);

G_END_DECLS
