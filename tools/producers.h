/* SPDX-License-Identifier: MIT */
#pragma once

#include <gio/gio.h>
#include <optional>
#include <string>
#include <vector>

/* All functions can be called on any thread. */

/**
 * PRODUCERS_MAX:
 *
 * The most producers that are accepted; a camera has far fewer.
 */
#define PRODUCERS_MAX 1000

/**
 * PRODUCERS_MAX_CHANNELS:
 *
 * The most channels of one producer that are accepted.
 */
#define PRODUCERS_MAX_CHANNELS 1000

/* A channel that a producer supports. The configuration is empty while the channel is disabled. */
struct ProducerChannel {
  gint32 channel = 0;
  gboolean enabled = FALSE;
  std::string configuration;
};

/* A producer on the bus. All texts are UTF-8 and can contain control characters. */
struct Producer {
  std::string path;
  std::string name;
  std::string nice_name;
  std::string sample_frame;
  std::vector<ProducerChannel> channels; /* by number */
};

using Producers = std::vector<Producer>; /* by name */

const ProducerChannel *producer_find_channel(const Producer &producer, gint32 number);
std::optional<Producer> producer_read(const gchar *path, GVariant *properties, GError **error);
std::optional<std::vector<ProducerChannel>> producer_read_channels(const gchar *path, GVariant *properties,
                                                                   GError **error);
std::optional<Producers> producers_read(GVariant *objects, GError **error);
std::optional<Producers> producers_fetch(GDBusConnection *connection, GError **error);
const Producer *producers_find(const Producers &producers, const gchar *name, GError **error);
