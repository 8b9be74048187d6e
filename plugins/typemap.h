/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>
#include <map>
#include <string>

/* The classes of objects: a detector's words in ONVIF's. */

namespace plugins
{

class TypeMap
{
public:
  std::string parse(const char *text);
  GQuark find(GQuark word) const;

private:
  bool add(const char *pair);

  std::map<GQuark, GQuark> types_;
};

} // namespace plugins
