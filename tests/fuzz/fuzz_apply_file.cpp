/* SPDX-License-Identifier: MIT */
// A file of arbitrary bytes for "tessardctl apply": it yields either an error with line and column, or a
// request that the bus can carry. A JSON library makes the same request of an accepted file.
#include "applyfile.h"
#include "fuzz.h"

#include <gio/gio.h>
#include <json-glib/json-glib.h>

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

GVariant *
build_channels(JsonArray *channels)
{
  GVariantBuilder builder = G_VARIANT_BUILDER_INIT(G_VARIANT_TYPE("a(ibs)"));

  for (guint index = 0; index < json_array_get_length(channels); index++) {
    JsonObject *channel = json_array_get_object_element(channels, index);
    g_variant_builder_add(&builder, "(ibs)",
                          static_cast<gint32>(json_object_get_int_member(channel, "Channel")),
                          json_object_get_boolean_member(channel, "Enabled"),
                          json_object_get_string_member_with_default(channel, "Configuration", ""));
  }
  return g_variant_builder_end(&builder);
}

GVariant *
build_expected(JsonArray *producers)
{
  GVariantBuilder builder = G_VARIANT_BUILDER_INIT(G_VARIANT_TYPE("a{sa(ibs)}"));

  for (guint index = 0; index < json_array_get_length(producers); index++) {
    JsonObject *producer = json_array_get_object_element(producers, index);
    g_variant_builder_add(&builder, "{s@a(ibs)}", json_object_get_string_member(producer, "Name"),
                          build_channels(json_object_get_array_member(producer, "Channels")));
  }
  return g_variant_ref_sink(g_variant_builder_end(&builder));
}

void
compare_with_model(const gchar *text, gsize size, GVariant *request)
{
  g_autoptr(JsonParser) parser = json_parser_new_immutable();

  fuzz::require(json_parser_load_from_data(parser, text, static_cast<gssize>(size), nullptr),
                "an accepted file is JSON");
  g_autoptr(GVariant) expected = build_expected(json_node_get_array(json_parser_get_root(parser)));
  fuzz::require(g_variant_equal(request, expected), "the request says what the file says");
}

} // namespace

int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
  gsize change_count = 0;
  g_autoptr(GError) error = nullptr;
  const auto *text = reinterpret_cast<const gchar *>(data);
  g_autoptr(GVariant) request = apply_file_parse(text, size, "the file", &change_count, &error);

  fuzz::require((request != nullptr) != (error != nullptr), "either a request or an error");
  if (request == nullptr) {
    fuzz::require(g_str_has_prefix(error->message, "Could not apply 'the file': line "),
                  "an error says where");
    return 0;
  }
  fuzz::require(g_variant_is_of_type(request, G_VARIANT_TYPE("a{sa(ibs)}")), "the bus knows the type");
  fuzz::require(g_variant_is_normal_form(request), "every text is one");
  fuzz::require(count_changes(request) == change_count, "every change is counted");
  compare_with_model(text, size, request);
  return 0;
}
