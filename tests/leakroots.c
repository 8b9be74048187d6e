/* SPDX-License-Identifier: MIT */
/* Keeps LeakSanitizer from reporting GLib's first table of quarks.
 *
 * The readers of quarks take no lock, so GLib never frees a table that has grown too small. The loader makes
 * the first one while it runs GLib's constructors, before any block of the same size. The stack of its
 * allocation, by which leaks can be suppressed, ends in GLib: its functions have no frame pointers.
 *
 * The sanitizer calls the hook for each allocation, and treats what a variable points to as in use. */
#include <stddef.h>

#define QUARK_TABLE_BYTES (2048 * sizeof(char *))

__attribute__((visibility("default"))) void __sanitizer_malloc_hook(const volatile void *block, size_t size);

static const volatile void *quark_table;

void
__sanitizer_malloc_hook(const volatile void *block, size_t size)
{
  if (quark_table == NULL && size == QUARK_TABLE_BYTES) {
    quark_table = block;
  }
}
