/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>
#include <string>
#include <vector>

namespace receiver
{

/* An application's description of its producer. */
struct Description {
  std::string name;
  std::string nice_name;
  std::vector<guint32> channels;
  std::string sample_frame;

  bool operator==(const Description &) const = default;
};

bool name_check(const std::string &name, GError **error);
bool description_check(const Description &description, GError **error);

} // namespace receiver
