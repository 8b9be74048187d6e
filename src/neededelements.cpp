/* SPDX-License-Identifier: MIT */
/* Checks at start-up whether the GStreamer elements of clients' pipelines are installed: without the check,
 * only failed requests would show that one is missing. The look-up in the registry loads no plug-in.
 */
#include "neededelements.h"

#include <algorithm>
#include <array>
#include <gst/gst.h>
#include <syslog.h>

namespace
{

/* An element that is needed if one of @plugins is installed; without @plugins it is always needed. */
struct Need {
  const gchar *element;
  std::array<const gchar *, 2> plugins;
};

constexpr std::array NEEDS = {
    Need{"onvifxmlmetadatastreamdoc", {}},
    Need{"queue", {}},
    Need{"gdppay", {}},
    Need{"fdsink", {}},
    Need{"capsfilter", {}},
    Need{"appsrc", {}},
    Need{"appsink", {}},
    Need{"onvifeventsrc", {"onvifeventsrc"}},
    Need{"statuscacheptzsrc", {"statuscacheptz"}},
    Need{"scenesrc", {"scene"}},
    Need{"scene2xml", {"scene"}},
    Need{"radarscenesrc", {"radarscene"}},
    Need{"radarscene2xml", {"radarscene"}},
    /* A request for analytics fails without it, also if there are no external producers. */
    Need{"json2xml", {"scene", "radarscene"}},
};

gboolean
is_installed(const gchar *plugin_name)
{
  g_autoptr(GstPlugin) plugin =
      plugin_name != nullptr ? gst_registry_find_plugin(gst_registry_get(), plugin_name) : nullptr;

  return plugin != nullptr;
}

gboolean
is_missing(const Need &need)
{
  g_autoptr(GstElementFactory) factory = gst_element_factory_find(need.element);

  return factory == nullptr &&
         (need.plugins[0] == nullptr || std::any_of(need.plugins.begin(), need.plugins.end(), is_installed));
}

} // namespace

/**
 * needed_elements_check:
 *
 * Looks for the elements that requests need with the installed plug-ins. Must be called after GStreamer is
 * initialised. Any thread.
 *
 * Warnings: "GStreamer elements are missing, and requests that need them fail: %s.", once for all of them
 *
 * Returns: whether all elements are installed
 */
gboolean
needed_elements_check(void)
{
  g_autoptr(GString) missing = g_string_new(nullptr);

  for (const Need &need : NEEDS) {
    if (is_missing(need)) {
      g_string_append_printf(missing, "%s%s", missing->len > 0 ? ", " : "", need.element);
    }
  }
  if (missing->len > 0) {
    syslog(LOG_WARNING, "GStreamer elements are missing, and requests that need them fail: %s.",
           missing->str);
  }
  return missing->len == 0;
}
