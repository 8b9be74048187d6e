/* SPDX-License-Identifier: MIT */
/* The properties of an external producer, as the metadata receiver announces them on the bus. Type and length
 * of each value are checked when it arrives. A value that fails the check is dropped and its problem is kept,
 * so that an announced object takes a bounded amount of memory.
 */
#include "producerproperties.h"

#include <array>
#include <cstring>

namespace
{

constexpr const char *NAME_CHARACTERS = G_CSET_A_2_Z G_CSET_a_2_z G_CSET_DIGITS "_";

/* Name, NiceName and SupportedChannels. */
constexpr gsize N_VALUES = 3;

} // namespace

struct ProducerProperties {
  gchar *name;
  gchar *nice_name;
  GArray *channels;
  std::array<const gchar *, N_VALUES> problems;
};

namespace
{

gboolean
is_path_element(const gchar *name)
{
  return *name != '\0' && name[strspn(name, NAME_CHARACTERS)] == '\0';
}

gboolean
is_of_type(GVariant *value, const gchar *type)
{
  return value != nullptr && g_variant_is_of_type(value, G_VARIANT_TYPE(type));
}

/* The next three functions store a value, or NULL for an absent one, and return its problem or NULL. */
const gchar *
take_name(ProducerProperties *self, GVariant *value)
{
  g_clear_pointer(&self->name, g_free);
  if (!is_of_type(value, "s")) {
    return "it has no property Name of type s";
  }
  const gchar *text = g_variant_get_string(value, nullptr);
  if (strlen(text) > PRODUCER_PROPERTIES_MAX_NAME_BYTES) {
    return "its name is too long";
  }
  if (!is_path_element(text)) {
    return "its name cannot end an object's path";
  }
  self->name = g_strdup(text);
  return nullptr;
}

const gchar *
take_nice_name(ProducerProperties *self, GVariant *value)
{
  g_clear_pointer(&self->nice_name, g_free);
  if (!is_of_type(value, "s")) {
    return "it has no property NiceName of type s";
  }
  const gchar *text = g_variant_get_string(value, nullptr);
  if (strlen(text) > PRODUCER_PROPERTIES_MAX_NICE_NAME_BYTES) {
    return "its nice name is too long";
  }
  self->nice_name = g_strdup(text);
  return nullptr;
}

const gchar *
take_channels(ProducerProperties *self, GVariant *value)
{
  g_clear_pointer(&self->channels, g_array_unref);
  if (!is_of_type(value, "au")) {
    return "it has no property SupportedChannels of type au";
  }
  gsize count = 0;
  const gconstpointer channels = g_variant_get_fixed_array(value, &count, sizeof(guint32));
  if (count > PRODUCER_PROPERTIES_MAX_CHANNELS) {
    return "it supports too many channels";
  }
  self->channels = g_array_new(FALSE, FALSE, sizeof(guint32));
  if (count > 0) {
    g_array_append_vals(self->channels, channels, static_cast<guint>(count));
  }
  return nullptr;
}

struct Property {
  const gchar *name;
  const gchar *(*take)(ProducerProperties *self, GVariant *value);
};

/* In the order in which their problems are reported. */
constexpr std::array<Property, N_VALUES> PROPERTIES = {{
    {"Name", take_name},
    {"NiceName", take_nice_name},
    {"SupportedChannels", take_channels},
}};

} // namespace

/**
 * producer_properties_new:
 * @values: (transfer none): an a{sv} with the values
 *
 * Returns: (transfer full): a copy of the values that are within their bounds
 */
ProducerProperties *
producer_properties_new(GVariant *values)
{
  auto *self = g_new0(ProducerProperties, 1);

  for (gsize i = 0; i < N_VALUES; i++) {
    g_autoptr(GVariant) value = g_variant_lookup_value(values, PROPERTIES[i].name, nullptr);
    self->problems[i] = PROPERTIES[i].take(self, value);
  }
  return self;
}

/**
 * producer_properties_free:
 * @self: (transfer full): the properties
 */
void
producer_properties_free(ProducerProperties *self)
{
  g_free(self->name);
  g_free(self->nice_name);
  g_clear_pointer(&self->channels, g_array_unref);
  g_free(self);
}

/**
 * producer_properties_change:
 * @self: (transfer none): the properties
 * @changed: (transfer none): an a{sv} with new values
 * @invalidated: (transfer none) (array zero-terminated=1): the names of values that became invalid
 *
 * Applies a change. Ignores names that a producer does not have.
 */
void
producer_properties_change(ProducerProperties *self, GVariant *changed, const gchar *const *invalidated)
{
  for (gsize i = 0; i < N_VALUES; i++) {
    g_autoptr(GVariant) value = g_variant_lookup_value(changed, PROPERTIES[i].name, nullptr);
    if (value != nullptr || g_strv_contains(invalidated, PROPERTIES[i].name)) {
      self->problems[i] = PROPERTIES[i].take(self, value);
    }
  }
}

/**
 * producer_properties_get_problem:
 * @self: (transfer none): the properties
 *
 * Returns: (transfer none) (nullable): why the object is not a producer, a static text for the log; %NULL
 * when it is
 */
const gchar *
producer_properties_get_problem(const ProducerProperties *self)
{
  for (const gchar *problem : self->problems) {
    if (problem != nullptr) {
      return problem;
    }
  }
  return nullptr;
}

/**
 * producer_properties_get_name:
 * @self: (transfer none): properties without a problem
 *
 * Returns: (transfer none): the unique name, which can end an object's path
 */
const gchar *
producer_properties_get_name(const ProducerProperties *self)
{
  return self->name;
}

/**
 * producer_properties_get_nice_name:
 * @self: (transfer none): properties without a problem
 *
 * Returns: (transfer none): the name for display
 */
const gchar *
producer_properties_get_nice_name(const ProducerProperties *self)
{
  return self->nice_name;
}

/**
 * producer_properties_get_channels:
 * @self: (transfer none): properties without a problem
 *
 * Returns: (transfer none) (element-type guint32): the supported video channels, in the order announced
 */
GArray *
producer_properties_get_channels(const ProducerProperties *self)
{
  return self->channels;
}
