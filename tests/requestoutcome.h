/* SPDX-License-Identifier: MIT */
/* The outcome of one request, for the unit tests and the fuzz targets that read requests. */
#pragma once

#include "request.h"

#include <map>
#include <ostream>
#include <string>

namespace requests
{

using Params = std::map<std::string, std::string>;

struct Outcome {
  bool accepted = false;
  Params params;
  std::string failure;

  bool operator==(const Outcome &) const = default;
};

inline std::ostream &
operator<<(std::ostream &stream, const Outcome &outcome)
{
  stream << (outcome.accepted ? "accepted" : "refused") << " \"" << outcome.failure << '"';
  for (const auto &[key, value] : outcome.params) {
    stream << " \"" << key << "\"=\"" << value << '"';
  }
  return stream;
}

/* The outcome of request_read() on @channel. */
inline Outcome
read_outcome(GIOChannel *channel)
{
  g_autofree gchar *failure = nullptr;
  g_autoptr(GHashTable) table = request_read(channel, &failure);
  Outcome outcome = {table != nullptr, {}, failure != nullptr ? failure : ""};

  if (table != nullptr) {
    GHashTableIter iter;
    gpointer key = nullptr;
    gpointer value = nullptr;
    g_hash_table_iter_init(&iter, table);
    while (g_hash_table_iter_next(&iter, &key, &value)) {
      outcome.params[static_cast<gchar *>(key)] = static_cast<gchar *>(value);
    }
  }
  return outcome;
}

} // namespace requests
