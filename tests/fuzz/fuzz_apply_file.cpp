// A file for "tessardctl apply" in any bytes: either an error that says why, or a request that the bus can
// carry.
#include "applyfile.h"
#include "fuzz.h"

#include <gio/gio.h>

namespace
{

gsize
count_changes(GVariant *request)
{
  gsize count = 0;
  GVariantIter iter;
  GVariant *channels = nullptr;

  g_variant_iter_init(&iter, request);
  while (g_variant_iter_loop(&iter, "{s@a(ibs)}", nullptr, &channels)) {
    count += g_variant_n_children(channels);
  }
  return count;
}

} // namespace

int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
  gsize change_count = 0;
  g_autoptr(GError) error = nullptr;
  g_autoptr(GVariant) request =
      apply_file_parse(reinterpret_cast<const gchar *>(data), size, "the file", &change_count, &error);

  fuzz::require((request != nullptr) != (error != nullptr), "either a request or an error");
  if (request == nullptr) {
    fuzz::require(g_str_has_prefix(error->message, "Could not take 'the file': "), "an error says where");
    return 0;
  }
  fuzz::require(g_variant_is_of_type(request, G_VARIANT_TYPE("a{sa(ibs)}")), "the bus knows the type");
  fuzz::require(g_variant_is_normal_form(request), "every text is one");
  fuzz::require(count_changes(request) == change_count, "every change is counted");
  return 0;
}
