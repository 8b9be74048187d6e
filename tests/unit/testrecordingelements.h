/* SPDX-License-Identifier: MIT */
/* Elements that only record what is set on them: "statuscacheptzsrc", "scenesrc", "scene2xml",
 * "radarscenesrc", "radarscene2xml" and "json2xml".
 */
#pragma once

#include <gst/gst.h>
#include <string>
#include <vector>

namespace testelements
{

constexpr const char *SOURCE_CAPS = "application/x-test";

/* testelements::install() calls this. */
void install_recording_elements();

/* All calls since the last call of this that set properties of these elements, in order, each as "element
 * property=value property=value". */
std::vector<std::string> take_settings();

/* "ptz" of every "scene2xml" stays FALSE while this object lives. */
class WithoutPtz
{
public:
  WithoutPtz();
  ~WithoutPtz();
  WithoutPtz(const WithoutPtz &) = delete;
  WithoutPtz &operator=(const WithoutPtz &) = delete;
};

} // namespace testelements
