/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>
#include <simdjson.h>
#include <string>
#include <string_view>
#include <vector>

/* An event, as a user gives it. For the main thread. */
struct EventArguments {
  EventArguments();
  EventArguments(const EventArguments &) = delete;
  EventArguments &operator=(const EventArguments &) = delete;
  ~EventArguments();

  std::string topic;
  gboolean is_property = FALSE;
  std::string operation;                 /* empty for the default */
  std::vector<std::string> source_names; /* each NAME or NAME:TYPE */
  std::vector<std::string> data_names;
  GHashTable *source; /* values by name */
  GHashTable *data;
  GHashTable *namespaces; /* URIs by prefix */
};

/* Where take_items() puts items. */
struct EventItemsTarget {
  std::vector<std::string> *names; /* NULL if items have no types */
  GHashTable *values;
};

gboolean event_arguments_take_items(const gchar *const *texts, const gchar *option, EventItemsTarget target,
                                    GError **error);
gboolean event_arguments_parse_line(simdjson::dom::parser *parser, std::string_view line,
                                    EventArguments *event, GError **error);
