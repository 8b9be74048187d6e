/* SPDX-License-Identifier: MIT */
/* Reads the producers from the daemon's replies and signals. The type of each value is checked, and their
 * number is bounded.
 */
#include "producers.h"
#include "command.h"
#include "producerbus.h"

#include <algorithm>

namespace
{

GVariant *
get_property(const gchar *path, GVariant *properties, const gchar *name, const GVariantType *type,
             GError **error)
{
  g_autoptr(GVariant) value = g_variant_lookup_value(properties, name, nullptr);

  if (value == nullptr) {
    g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_MALFORMED,
                "The daemon's object '%s' has no property %s.", path, name);
    return nullptr;
  }
  return producer_bus_check_type(value, name, type, error) ? g_steal_pointer(&value) : nullptr;
}

gboolean
read_text(const gchar *path, GVariant *properties, const gchar *name, std::string *text, GError **error)
{
  g_autoptr(GVariant) value = get_property(path, properties, name, G_VARIANT_TYPE_STRING, error);

  if (value == nullptr) {
    return FALSE;
  }
  *text = g_variant_get_string(value, nullptr);
  return TRUE;
}

gboolean
comes_before(const Producer &one, const Producer &other)
{
  return one.name != other.name ? one.name < other.name : one.path < other.path;
}

} // namespace

/**
 * producer_find_channel:
 * @producer: a producer
 * @number: the number of a channel
 *
 * Returns: (transfer none) (nullable): the channel, valid as long as @producer is unchanged; %NULL when the
 * producer does not support it
 */
const ProducerChannel *
producer_find_channel(const Producer &producer, gint32 number)
{
  for (const ProducerChannel &channel : producer.channels) {
    if (channel.channel == number) {
      return &channel;
    }
  }
  return nullptr;
}

/**
 * producer_read_channels:
 * @path: (transfer none): the producer's object path
 * @properties: (transfer none): its properties, of the type "a{sv}"
 * @error: return location for an error of %TESSARDCTL_ERROR
 *
 * Returns: the producer's channels, or nothing with @error set
 */
std::optional<std::vector<ProducerChannel>>
producer_read_channels(const gchar *path, GVariant *properties, GError **error)
{
  g_autoptr(GVariant) value =
      get_property(path, properties, "ChannelsEnabled", G_VARIANT_TYPE("a(ibs)"), error);

  if (value == nullptr) {
    return std::nullopt;
  }
  if (g_variant_n_children(value) > PRODUCERS_MAX_CHANNELS) {
    g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_MALFORMED,
                "The daemon's object '%s' has more than %d channels.", path, PRODUCERS_MAX_CHANNELS);
    return std::nullopt;
  }

  std::vector<ProducerChannel> channels;
  GVariantIter iter;
  ProducerChannel channel;
  const gchar *configuration = nullptr;
  g_variant_iter_init(&iter, value);
  while (g_variant_iter_next(&iter, "(ib&s)", &channel.channel, &channel.enabled, &configuration)) {
    channel.configuration = configuration;
    channels.push_back(channel);
  }
  std::stable_sort(
      channels.begin(), channels.end(),
      [](const ProducerChannel &one, const ProducerChannel &other) { return one.channel < other.channel; });
  return channels;
}

/**
 * producer_read:
 * @path: (transfer none): the object's path
 * @properties: (transfer none): the properties of its producer interface, of the type "a{sv}"
 * @error: return location for an error of %TESSARDCTL_ERROR
 *
 * Returns: the producer, or nothing with @error set
 */
std::optional<Producer>
producer_read(const gchar *path, GVariant *properties, GError **error)
{
  Producer producer;
  producer.path = path;

  if (!read_text(path, properties, "Name", &producer.name, error) ||
      !read_text(path, properties, "NiceName", &producer.nice_name, error) ||
      !read_text(path, properties, "SampleFrameXML", &producer.sample_frame, error)) {
    return std::nullopt;
  }
  std::optional<std::vector<ProducerChannel>> channels = producer_read_channels(path, properties, error);
  if (!channels.has_value()) {
    return std::nullopt;
  }
  producer.channels = std::move(*channels);
  return producer;
}

/**
 * producers_read:
 * @objects: (transfer none): the reply of GetManagedObjects, of the type %PRODUCER_BUS_OBJECTS_TYPE
 * @error: return location for an error of %TESSARDCTL_ERROR
 *
 * Skips objects without the producer interface.
 *
 * Returns: the producers, or nothing with @error set
 */
std::optional<Producers>
producers_read(GVariant *objects, GError **error)
{
  g_autoptr(GVariant) by_path = g_variant_get_child_value(objects, 0);
  if (g_variant_n_children(by_path) > PRODUCERS_MAX) {
    g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_MALFORMED, "The daemon has more than %d producers.",
                PRODUCERS_MAX);
    return std::nullopt;
  }

  Producers producers;
  for (gsize index = 0; index < g_variant_n_children(by_path); index++) {
    const gchar *path = nullptr;
    g_autoptr(GVariant) interfaces = nullptr;
    g_variant_get_child(by_path, index, "{&o@a{sa{sv}}}", &path, &interfaces);
    g_autoptr(GVariant) properties = g_variant_lookup_value(interfaces, PRODUCER_BUS_PRODUCER, nullptr);
    if (properties == nullptr) {
      continue;
    }
    std::optional<Producer> producer = producer_read(path, properties, error);
    if (!producer.has_value()) {
      return std::nullopt;
    }
    producers.push_back(std::move(*producer));
  }
  std::sort(producers.begin(), producers.end(), comes_before);
  return producers;
}

/**
 * producers_fetch:
 * @connection: (transfer none): the connection
 * @error: return location for an error of %TESSARDCTL_ERROR
 *
 * Requests the daemon's producers and blocks until the reply or the time limit.
 *
 * Returns: the producers, or nothing with @error set
 */
std::optional<Producers>
producers_fetch(GDBusConnection *connection, GError **error)
{
  g_autoptr(GVariant) objects =
      producer_bus_call(connection, PRODUCER_BUS_ROOT, PRODUCER_BUS_OBJECT_MANAGER, "GetManagedObjects",
                        nullptr, PRODUCER_BUS_OBJECTS_TYPE, 0, error);

  return objects != nullptr ? producers_read(objects, error) : std::nullopt;
}

/**
 * producers_find:
 * @producers: the producers
 * @name: (transfer none): a producer's name
 * @error: return location for an error of %TESSARDCTL_ERROR
 *
 * Returns: (transfer none) (nullable): the producer of that name, valid as long as @producers is unchanged
 */
const Producer *
producers_find(const Producers &producers, const gchar *name, GError **error)
{
  for (const Producer &producer : producers) {
    if (producer.name == name) {
      return &producer;
    }
  }
  g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_REFUSED, "There is no producer '%s'.", name);
  return nullptr;
}
