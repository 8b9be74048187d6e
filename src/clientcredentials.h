/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>
#include <sys/types.h>

G_BEGIN_DECLS

/* Any thread can call the functions of this component. */

/**
 * ClientCredentials:
 * @pid: the process that connected
 * @uid: its user
 */
typedef struct {
  pid_t pid;
  uid_t uid;
} ClientCredentials;

ClientCredentials client_credentials_get(gint fd);

void client_credentials_log(gint fd, const gchar *format, ...) G_GNUC_PRINTF(2, 3);

G_END_DECLS
