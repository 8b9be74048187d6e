/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>
#include <string>
#include <vector>

/* Which metadata to publish. All functions can be called on any thread; a filter does not change. */

namespace mqtt
{

/* A pattern is KIND, KIND/PROFILE or KIND/PROFILE/MODULE, and each level a glob. */
class MetadataFilter
{
public:
  bool add(const std::string &pattern, GError **error);
  bool selects(const std::string &path) const;

private:
  std::vector<std::vector<std::string>> patterns_; /* the levels of each */
};

} // namespace mqtt
