/* SPDX-License-Identifier: MIT */
/* The properties of one producer from the metadata receiver: their first values, changed values, and the
 * names of invalidated ones, each as the bytes of a GVariant from the bus. The first two have their length in
 * two bytes in front. A simple model predicts the resulting properties.
 */
#include "fuzz.h"
#include "producerproperties.h"

#include <algorithm>
#include <cstring>
#include <gio/gio.h>
#include <optional>
#include <string>

namespace
{

using Channels = std::vector<guint32>;

/* A value, or the reason for its absence. */
template <typename T> struct Known {
  std::optional<T> value;
  std::string problem;
};

struct Model {
  Known<std::string> name;
  Known<std::string> nice_name;
  Known<Channels> channels;
};

/* Takes a part, which follows its length. */
std::string_view
take_part(std::string_view *input)
{
  if (input->size() < 2) {
    return {};
  }
  const size_t length =
      static_cast<unsigned char>((*input)[0]) * 256 + static_cast<unsigned char>((*input)[1]);
  input->remove_prefix(2);
  const std::string_view part = input->substr(0, length);
  input->remove_prefix(part.size());
  return part;
}

/* Values from the bus are in normal form, so arbitrary bytes are brought into it. */
GVariant *
make_variant(const char *type, std::string_view bytes)
{
  g_autoptr(GBytes) copy = g_bytes_new(bytes.data(), bytes.size());
  g_autoptr(GVariant) value = g_variant_ref_sink(g_variant_new_from_bytes(G_VARIANT_TYPE(type), copy, FALSE));

  return g_variant_get_normal_form(value);
}

/* Returns the first value with that name. */
GVariant *
find(GVariant *values, const char *name)
{
  for (gsize i = 0; i < g_variant_n_children(values); i++) {
    g_autoptr(GVariant) entry = g_variant_get_child_value(values, i);
    g_autoptr(GVariant) key = g_variant_get_child_value(entry, 0);
    if (g_str_equal(g_variant_get_string(key, nullptr), name)) {
      g_autoptr(GVariant) boxed = g_variant_get_child_value(entry, 1);
      return g_variant_get_variant(boxed);
    }
  }
  return nullptr;
}

bool
is_of_type(GVariant *value, const char *type)
{
  return value != nullptr && g_str_equal(g_variant_get_type_string(value), type);
}

Known<std::string>
take_text(GVariant *value, const std::string &property, gsize max_bytes, const char *too_long)
{
  if (!is_of_type(value, "s")) {
    return {std::nullopt, "it has no property " + property + " of type s"};
  }
  const std::string text = g_variant_get_string(value, nullptr);
  return text.size() > max_bytes ? Known<std::string>{std::nullopt, too_long} : Known<std::string>{text, ""};
}

Known<std::string>
take_name(GVariant *value)
{
  Known<std::string> name =
      take_text(value, "Name", PRODUCER_PROPERTIES_MAX_NAME_BYTES, "its name is too long");
  const auto is_odd = [](char c) { return !g_ascii_isalnum(c) && c != '_'; };

  if (name.value.has_value() &&
      (name.value->empty() || std::any_of(name.value->begin(), name.value->end(), is_odd))) {
    return {std::nullopt, "its name cannot end an object's path"};
  }
  return name;
}

Known<Channels>
take_channels(GVariant *value)
{
  if (!is_of_type(value, "au")) {
    return {std::nullopt, "it has no property SupportedChannels of type au"};
  }
  Channels channels;
  for (gsize i = 0; i < g_variant_n_children(value); i++) {
    g_autoptr(GVariant) channel = g_variant_get_child_value(value, i);
    channels.push_back(g_variant_get_uint32(channel));
  }
  if (channels.size() > PRODUCER_PROPERTIES_MAX_CHANNELS) {
    return {std::nullopt, "it supports too many channels"};
  }
  return {channels, ""};
}

/* Without names of invalidated properties, each missing property is invalid. */
void
update(Model *model, GVariant *values, const gchar *const *invalidated)
{
  const auto changes = [&](const char *name, GVariant *value) {
    return value != nullptr || invalidated == nullptr || g_strv_contains(invalidated, name);
  };
  g_autoptr(GVariant) name = find(values, "Name");
  g_autoptr(GVariant) nice_name = find(values, "NiceName");
  g_autoptr(GVariant) channels = find(values, "SupportedChannels");

  if (changes("Name", name)) {
    model->name = take_name(name);
  }
  if (changes("NiceName", nice_name)) {
    model->nice_name = take_text(nice_name, "NiceName", PRODUCER_PROPERTIES_MAX_NICE_NAME_BYTES,
                                 "its nice name is too long");
  }
  if (changes("SupportedChannels", channels)) {
    model->channels = take_channels(channels);
  }
}

std::string
problem_of(const Model &model)
{
  for (const std::string &problem : {model.name.problem, model.nice_name.problem, model.channels.problem}) {
    if (!problem.empty()) {
      return problem;
    }
  }
  return "";
}

void
compare(const ProducerProperties *properties, const Model &model)
{
  const gchar *problem = producer_properties_get_problem(properties);

  fuzz::require((problem != nullptr ? problem : "") == problem_of(model), "the problem is the model's");
  if (problem != nullptr) {
    return;
  }
  const GArray *channels = producer_properties_get_channels(properties);
  fuzz::require(producer_properties_get_name(properties) == *model.name.value, "the name is the model's");
  fuzz::require(producer_properties_get_nice_name(properties) == *model.nice_name.value,
                "the nice name is the model's");
  fuzz::require(channels->len == model.channels.value->size() &&
                    (channels->len == 0 || memcmp(channels->data, model.channels.value->data(),
                                                  channels->len * sizeof(guint32)) == 0),
                "the channels are the model's");
}

} // namespace

int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
  std::string_view input = fuzz::as_text(data, size);
  g_autoptr(GVariant) first = make_variant("a{sv}", take_part(&input));
  g_autoptr(GVariant) changed = make_variant("a{sv}", take_part(&input));
  g_autoptr(GVariant) names = make_variant("as", input);
  g_autofree const gchar **invalidated = g_variant_get_strv(names, nullptr);
  Model model;

  g_autoptr(ProducerProperties) properties = producer_properties_new(first);
  update(&model, first, nullptr);
  compare(properties, model);
  producer_properties_change(properties, changed, invalidated);
  update(&model, changed, invalidated);
  compare(properties, model);
  return 0;
}
