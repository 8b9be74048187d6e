/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>
#include <string>
#include <string_view>
#include <vector>

/* The topics of ONVIF's events and metadata over MQTT. All functions can be called on any thread. */

namespace mqtt
{

const char *prefix_fault(std::string_view prefix);
std::string topic_level(std::string_view text);
std::string status_topic(const std::string &prefix);
std::string event_topic(const std::string &prefix, std::string_view topic,
                        const std::vector<std::string> &source_values);
std::string metadata_path(std::string_view kind, std::string_view profile, std::string_view producer);
std::string metadata_topic(const std::string &prefix, const std::string &path);

} // namespace mqtt
