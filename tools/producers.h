#pragma once

#include <gio/gio.h>
#include <optional>
#include <string>
#include <vector>

/**
 * PRODUCERS_MAX:
 *
 * How many producers are taken in; far above what a camera has.
 */
#define PRODUCERS_MAX 1000

/**
 * PRODUCERS_MAX_CHANNELS:
 *
 * How many channels of one producer are taken in.
 */
#define PRODUCERS_MAX_CHANNELS 1000

/* A channel that a producer supports. The configuration is empty where it is disabled. */
struct ProducerChannel {
  gint32 channel = 0;
  gboolean enabled = FALSE;
  std::string configuration;
};

/* A producer as the daemon shows it. All texts are UTF-8 and may hold control characters. */
struct Producer {
  std::string path;
  std::string name;
  std::string nice_name;
  std::string sample_frame;
  std::vector<ProducerChannel> channels; /* by number */
};

using Producers = std::vector<Producer>; /* by name */

std::optional<Producer> producer_read(const gchar *path, GVariant *properties, GError **error);
std::optional<std::vector<ProducerChannel>> producer_read_channels(const gchar *path, GVariant *properties,
                                                                   GError **error);
std::optional<Producers> producers_read(GVariant *objects, GError **error);
std::optional<Producers> producers_fetch(GDBusConnection *connection, GError **error);
const Producer *producers_find(const Producers &producers, const gchar *name, GError **error);
