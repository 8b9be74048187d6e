/* SPDX-License-Identifier: MIT */
#include "headers.h"

#include "allheaders.h"

#include <string.h>

gboolean
use_factory_from_c(void)
{
  g_autoptr(Server) server = TESSARD_SERVER(g_object_new(TESSARD_TYPE_SERVER, NULL));
  g_autoptr(EventSourceFactory) factory = event_source_factory_new();
  g_autoptr(GHashTable) params = g_hash_table_new(g_str_hash, g_str_equal);
  g_autoptr(GError) error = NULL;

  server_register_source_factory(server, SOURCE_FACTORY(factory));
  return source_factory_create_source(SOURCE_FACTORY(factory), params, &error) == NULL && error == NULL;
}

guint
count_syncs_from_c(const gchar *text)
{
  SyncScanner scanner = {0};
  guint syncs = 0;

  return sync_scanner_feed(&scanner, text, strlen(text), &syncs) ? syncs : 0;
}

gsize
size_of_scanner_in_c(void)
{
  return sizeof(SyncScanner);
}
