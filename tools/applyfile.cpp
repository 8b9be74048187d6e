/* SPDX-License-Identifier: MIT */
/* The file of "tessardctl apply", in the form that "tessardctl producers --json" prints: an array of
 * producers, each with an array of channels.
 *
 * The daemon decides which names and channels exist. A fault in the form is an error here, with its place in
 * the file: unknown members are refused, because a misspelt member would otherwise have no effect, and so is
 * a file that contradicts itself. Nothing is sent unless all of the file is correct.
 */
#include "applyfile.h"
#include "boundedread.h"
#include "command.h"
#include "configurationname.h"
#include "jsonreader.h"

#include <array>
#include <fcntl.h>
#include <map>
#include <set>
#include <unistd.h>
#include <vector>

namespace
{

constexpr gchar STANDARD_INPUT[] = "-";

struct Channel {
  gint32 number = 0;
  gboolean enabled = FALSE;
  gboolean has_configuration = FALSE;
  std::string configuration;
};

struct Producer {
  std::string name;
  std::string nice_name;
  std::vector<Channel> channels;
};

/* A member of an object, and the function that reads its value. */
template <typename Target> struct Member {
  const gchar *name;
  gboolean required;
  gboolean (*read)(JsonReader *reader, Target *target, GError **error);
};

template <typename Target, gsize COUNT>
gboolean
read_member(JsonReader *reader, const gchar *what, const std::array<Member<Target>, COUNT> &members,
            std::set<std::string> *found, Target *target, GError **error)
{
  const gchar *place = reader->find_next();
  std::string name;

  if (!reader->read_string(&name, error)) {
    return FALSE;
  }
  for (const Member<Target> &member : members) {
    if (name != member.name) {
      continue;
    }
    if (!found->insert(name).second) {
      return reader->refuse(place, error, "the member \"%s\" of a %s is there twice", member.name, what);
    }
    return reader->expect(':', error) && member.read(reader, target, error);
  }
  return reader->refuse(place, error, "unknown member \"%s\" of a %s", name.c_str(), what);
}

template <typename Target, gsize COUNT>
gboolean
read_object(JsonReader *reader, const gchar *what, const std::array<Member<Target>, COUNT> &members,
            Target *target, GError **error)
{
  const gchar *place = reader->find_next();
  std::set<std::string> found;

  if (!reader->take('{')) {
    return reader->refuse(place, error, "a %s is not an object", what);
  }
  if (!reader->take('}')) {
    do {
      if (!read_member(reader, what, members, &found, target, error)) {
        return FALSE;
      }
    } while (reader->take(','));
    if (!reader->expect('}', error)) {
      return FALSE;
    }
  }
  for (const Member<Target> &member : members) {
    if (member.required && !found.contains(member.name)) {
      return reader->refuse(place, error, "a %s without \"%s\"", what, member.name);
    }
  }
  return TRUE;
}

/* @read_item is called for each item, as bool(). */
template <typename ReadItem>
gboolean
read_array(JsonReader *reader, const gchar *what, ReadItem read_item, GError **error)
{
  const gchar *place = reader->find_next();

  if (!reader->take('[')) {
    return reader->refuse(place, error, "not an array of %s", what);
  }
  if (reader->take(']')) {
    return TRUE;
  }
  do {
    if (!read_item()) {
      return FALSE;
    }
  } while (reader->take(','));
  return reader->expect(']', error);
}

gboolean
read_configuration(JsonReader *reader, Channel *channel, GError **error)
{
  const gchar *place = reader->find_next();

  channel->has_configuration = TRUE;
  if (!reader->read_string(&channel->configuration, error)) {
    return FALSE;
  }
  g_autofree gchar *fault = configuration_name_describe_fault(channel->configuration.c_str());
  return fault == nullptr || reader->refuse(place, error, "a configuration name that %s", fault);
}

constexpr std::array CHANNEL_MEMBERS = {
    Member<Channel>{"Channel", TRUE,
                    [](JsonReader *reader, Channel *channel, GError **error) {
                      return reader->read_int32(&channel->number, error);
                    }},
    Member<Channel>{"Enabled", TRUE,
                    [](JsonReader *reader, Channel *channel, GError **error) {
                      return reader->read_boolean(&channel->enabled, error);
                    }},
    Member<Channel>{"Configuration", FALSE, read_configuration},
};

gboolean
have_same_effect(const Channel &one, const Channel &other)
{
  return one.enabled == other.enabled && (!one.enabled || one.configuration == other.configuration);
}

/* @by_number has the producer's channels so far. */
gboolean
read_channel(JsonReader *reader, Producer *producer, std::map<gint32, Channel> *by_number, GError **error)
{
  const gchar *place = reader->find_next();
  Channel channel;

  if (!read_object(reader, "channel", CHANNEL_MEMBERS, &channel, error)) {
    return FALSE;
  }
  if (channel.enabled && !channel.has_configuration) {
    return reader->refuse(place, error, "an enabled channel without \"Configuration\"");
  }
  const auto [earlier, is_new] = by_number->emplace(channel.number, channel);
  if (!is_new && !have_same_effect(earlier->second, channel)) {
    return reader->refuse(place, error, "channel %d is there twice, with different values", channel.number);
  }
  producer->channels.push_back(std::move(channel));
  return TRUE;
}

gboolean
read_channels(JsonReader *reader, Producer *producer, GError **error)
{
  std::map<gint32, Channel> by_number;

  return read_array(
      reader, "channels", [&]() { return read_channel(reader, producer, &by_number, error); }, error);
}

constexpr std::array PRODUCER_MEMBERS = {
    Member<Producer>{"Name", TRUE,
                     [](JsonReader *reader, Producer *producer, GError **error) {
                       return reader->read_string(&producer->name, error);
                     }},
    Member<Producer>{"NiceName", FALSE,
                     [](JsonReader *reader, Producer *producer, GError **error) {
                       return reader->read_string(&producer->nice_name, error);
                     }},
    Member<Producer>{"Channels", TRUE, read_channels},
};

/* @names has the producers so far. */
gboolean
read_producer(JsonReader *reader, std::vector<Producer> *producers, std::set<std::string> *names,
              GError **error)
{
  const gchar *place = reader->find_next();
  Producer producer;

  if (!read_object(reader, "producer", PRODUCER_MEMBERS, &producer, error)) {
    return FALSE;
  }
  if (!names->insert(producer.name).second) {
    return reader->refuse(place, error, "the producer \"%s\" is there twice", producer.name.c_str());
  }
  producers->push_back(std::move(producer));
  return TRUE;
}

gboolean
read_producers(JsonReader *reader, std::vector<Producer> *producers, GError **error)
{
  std::set<std::string> names;

  return reader->check_encoding(error) &&
         read_array(
             reader, "producers", [&]() { return read_producer(reader, producers, &names, error); }, error) &&
         reader->expect_end(error);
}

GVariant *
build_request(const std::vector<Producer> &producers, gsize *change_count)
{
  g_auto(GVariantBuilder) builder = G_VARIANT_BUILDER_INIT(G_VARIANT_TYPE("a{sa(ibs)}"));

  for (const Producer &producer : producers) {
    g_variant_builder_open(&builder, G_VARIANT_TYPE("{sa(ibs)}"));
    g_variant_builder_add(&builder, "s", producer.name.c_str());
    g_variant_builder_open(&builder, G_VARIANT_TYPE("a(ibs)"));
    for (const Channel &channel : producer.channels) {
      g_variant_builder_add(&builder, "(ibs)", channel.number, channel.enabled,
                            channel.configuration.c_str());
    }
    g_variant_builder_close(&builder);
    g_variant_builder_close(&builder);
    *change_count += producer.channels.size();
  }
  return g_variant_ref_sink(g_variant_builder_end(&builder));
}

int
open_file(const gchar *path)
{
  return g_str_equal(path, STANDARD_INPUT) ? STDIN_FILENO : open(path, O_RDONLY | O_CLOEXEC);
}

} // namespace

/**
 * apply_file_parse:
 * @text: (transfer none) (array length=size): the content of the file, any bytes
 * @size: its length in bytes
 * @file_name: (transfer none): the file's name for the error
 * @change_count: (out): how many channels the file enables and disables
 * @error: return location for an error of %TESSARDCTL_ERROR
 *
 * Returns: (transfer full) (nullable): the argument of SetProducersEnabled, "a{sa(ibs)}"; %NULL with an error
 * that names the line and column of the first fault
 */
GVariant *
apply_file_parse(const gchar *text, gsize size, const gchar *file_name, gsize *change_count, GError **error)
{
  JsonReader reader(text, size);
  std::vector<Producer> producers;
  g_autoptr(GError) cause = nullptr;

  *change_count = 0;
  if (!read_producers(&reader, &producers, &cause)) {
    g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_LOCAL, "Could not apply '%s': %s.", file_name,
                cause->message);
    return nullptr;
  }
  return build_request(producers, change_count);
}

/**
 * apply_file_read:
 * @path: (transfer none): the file, "-" for standard input
 * @change_count: (out): how many channels the file enables and disables
 * @error: return location for an error of %TESSARDCTL_ERROR
 *
 * Blocks until the end of the file.
 *
 * Returns: (transfer full) (nullable): the argument of SetProducersEnabled, "a{sa(ibs)}"; %NULL when the file
 * cannot be read or has a fault
 */
GVariant *
apply_file_read(const gchar *path, gsize *change_count, GError **error)
{
  const gboolean is_standard_input = g_str_equal(path, STANDARD_INPUT);
  const gchar *file_name = is_standard_input ? "standard input" : path;
  const int fd = open_file(path);
  if (fd < 0) {
    g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_LOCAL, "Could not open '%s': %s.", path,
                g_strerror(errno));
    return nullptr;
  }

  g_autoptr(GError) cause = nullptr;
  g_autoptr(GByteArray) bytes = bounded_read(fd, APPLY_FILE_MAX_BYTES, &cause);
  if (bytes == nullptr) {
    g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_LOCAL, "Could not read '%s': %s.", file_name,
                cause->message);
    return nullptr;
  }
  if (bytes->len > APPLY_FILE_MAX_BYTES) {
    g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_LOCAL, "Could not apply '%s': more than %d bytes.",
                file_name, APPLY_FILE_MAX_BYTES);
    return nullptr;
  }
  return apply_file_parse(reinterpret_cast<const gchar *>(bytes->data), bytes->len, file_name, change_count,
                          error);
}
