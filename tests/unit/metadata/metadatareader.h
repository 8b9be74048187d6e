/* SPDX-License-Identifier: MIT */
#pragma once

#include <gst/gst.h>
#include <string>
#include <utility>
#include <vector>

/* An event that was read from XML. */
struct ReadEvent {
  std::string topic;
  std::string operation; /* empty for an event that is no property */
  std::string utc;
  std::vector<std::pair<std::string, std::string>> items; /* those of the source, then those of the data */

  bool operator==(const ReadEvent &) const = default;
};

/* A status of a PTZ head that was read from XML. Missing parts are empty. */
struct ReadPtzStatus {
  std::string pan;
  std::string tilt;
  std::string pan_tilt_space;
  std::string zoom;
  std::string zoom_space;
  std::string pan_tilt_status;
  std::string zoom_status;
  std::string utc;
};

std::string buffer_text(GstBuffer *buffer);
std::string root_name(const std::string &xml);
std::string evaluate(const std::string &xml, const std::string &path);
std::vector<ReadEvent> read_events(const std::string &xml);
std::vector<ReadPtzStatus> read_ptz_statuses(const std::string &xml);
gint64 parse_utc(const std::string &text);
void PrintTo(const ReadEvent &event, std::ostream *stream);
