/* SPDX-License-Identifier: MIT */
#include "description.h"

#include "error.h"
#include "receiverlimits.h"

#include <algorithm>
#include <set>

/* The daemon leaves out a producer that it cannot list, and gives the reason only in its log. The receiver
 * refuses such a producer, so that the application gets the reason. It does not parse the sample frame: only
 * json2xml knows the format of items. */

namespace receiver
{

namespace
{

constexpr const char *WHITE_SPACE = " \t\r\n";

bool
check_nice_name(const Description &description, GError **error)
{
  if (description.nice_name.size() > RECEIVER_MAX_NICE_NAME_BYTES) {
    return refuse(error, Error::INVALID_NICE_NAME, "The name for display must have at most %d bytes, not %zu",
                  RECEIVER_MAX_NICE_NAME_BYTES, description.nice_name.size());
  }
  return true;
}

bool
check_channels(const Description &description, GError **error)
{
  const std::vector<guint32> &channels = description.channels;
  const std::set<guint32> unique(channels.begin(), channels.end());

  if (channels.empty() || channels.size() > RECEIVER_MAX_PRODUCER_CHANNELS) {
    return refuse(error, Error::INVALID_CHANNELS, "There must be 1 to %d channels, not %zu",
                  RECEIVER_MAX_PRODUCER_CHANNELS, channels.size());
  }
  if (*unique.begin() == 0 || *unique.rbegin() > RECEIVER_MAX_CHANNEL_NUMBER) {
    return refuse(error, Error::INVALID_CHANNELS, "A channel must be a number from 1 to %d",
                  RECEIVER_MAX_CHANNEL_NUMBER);
  }
  if (unique.size() < channels.size()) {
    return refuse(error, Error::INVALID_CHANNELS, "A channel must be listed once");
  }
  return true;
}

bool
check_sample_frame(const Description &description, GError **error)
{
  const std::string &frame = description.sample_frame;
  const gsize first = frame.find_first_not_of(WHITE_SPACE);
  const gsize last = frame.find_last_not_of(WHITE_SPACE);

  if (frame.size() > RECEIVER_MAX_SAMPLE_FRAME_BYTES) {
    return refuse(error, Error::INVALID_SAMPLE_FRAME, "The sample frame must have at most %d bytes, not %zu",
                  RECEIVER_MAX_SAMPLE_FRAME_BYTES, frame.size());
  }
  if (first == std::string::npos || frame[first] != '{' || frame[last] != '}') {
    return refuse(error, Error::INVALID_SAMPLE_FRAME, "The sample frame must be a JSON object");
  }
  return true;
}

} // namespace

/**
 * name_check:
 * @name: a producer's name
 * @error: set if @name cannot end an object's path, or is too long
 *
 * Returns: whether @name is valid
 */
bool
name_check(const std::string &name, GError **error)
{
  const bool element =
      std::all_of(name.begin(), name.end(), [](char c) { return g_ascii_isalnum(c) || c == '_'; });

  if (name.empty() || !element || name.size() > RECEIVER_MAX_NAME_BYTES) {
    return refuse(error, Error::INVALID_NAME,
                  "A producer's name must be 1 to %d letters, digits and underscores",
                  RECEIVER_MAX_NAME_BYTES);
  }
  return true;
}

/**
 * description_check:
 * @description: an application's description of its producer, in UTF-8
 * @error: set if a part is invalid
 *
 * Returns: whether @description is valid
 */
bool
description_check(const Description &description, GError **error)
{
  return name_check(description.name, error) && check_nice_name(description, error) &&
         check_channels(description, error) && check_sample_frame(description, error);
}

} // namespace receiver
