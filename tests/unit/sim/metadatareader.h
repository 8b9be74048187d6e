#pragma once

#include <gst/gst.h>
#include <string>
#include <utility>
#include <vector>

/* One event as a receiver reads it out of XML. */
struct ReadEvent {
  std::string topic;
  std::string operation; /* empty for an event that is no property */
  std::string utc;
  std::vector<std::pair<std::string, std::string>> items; /* those of the source, then those of the data */

  bool operator==(const ReadEvent &) const = default;
};

std::string buffer_text(GstBuffer *buffer);
std::string root_name(const std::string &xml);
std::vector<ReadEvent> read_events(const std::string &xml);
void PrintTo(const ReadEvent &event, std::ostream *stream);
