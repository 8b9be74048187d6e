/* SPDX-License-Identifier: MIT */
#include "neededelements.h"

#include "testelements.h"
#include "testhost.h"

#include <string>
#include <syslog.h>

using testelements::WithoutFactory;
using testhost::SyslogLines;

namespace
{

/* Adds a plug-in of this name without elements to the registry, while this object lives. */
class Plugin
{
public:
  explicit Plugin(const char *name)
  {
    gst_plugin_register_static(
        GST_VERSION_MAJOR, GST_VERSION_MINOR, name, "test", [](GstPlugin *) -> gboolean { return TRUE; }, "0",
        "unknown", "test", "test", "test");
    plugin_ = gst_registry_find_plugin(gst_registry_get(), name);
  }

  ~Plugin()
  {
    gst_registry_remove_plugin(gst_registry_get(), plugin_);
    gst_object_unref(plugin_);
  }

  Plugin(const Plugin &) = delete;
  Plugin &operator=(const Plugin &) = delete;

private:
  GstPlugin *plugin_;
};

class NeededElementsTest : public testhost::Fixture
{
protected:
  static void SetUpTestSuite()
  {
    testelements::install();
  }

  static void expect_missing(const std::string &names)
  {
    EXPECT_FALSE(needed_elements_check());
    EXPECT_EQ(
        testhost::take_syslog(),
        (SyslogLines{{LOG_WARNING,
                      "GStreamer elements are missing, and requests that need them fail: " + names + "."}}));
  }
};

class AlwaysNeededTest : public NeededElementsTest, public testing::WithParamInterface<const char *>
{
};

struct Kind {
  const char *plugin;
  const char *element;
};

std::string
name_of(const testing::TestParamInfo<Kind> &kind)
{
  return std::string(kind.param.plugin) + "_" + kind.param.element;
}

class NeededByAKindTest : public NeededElementsTest, public testing::WithParamInterface<Kind>
{
};

} // namespace

TEST_F(NeededElementsTest, LogsNothingWhenNoneIsMissing)
{
  const Plugin scenes("scene");

  EXPECT_TRUE(needed_elements_check());
}

TEST_F(NeededElementsTest, NamesAllMissingElementsInOneLine)
{
  const WithoutFactory document("onvifxmlmetadatastreamdoc");
  const WithoutFactory payloader("gdppay");
  const WithoutFactory sink("fdsink");

  expect_missing("onvifxmlmetadatastreamdoc, gdppay, fdsink");
}

TEST_P(AlwaysNeededTest, IsNamed)
{
  const WithoutFactory without(GetParam());

  expect_missing(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Elements, AlwaysNeededTest,
                         testing::Values("onvifxmlmetadatastreamdoc", "queue", "gdppay", "fdsink",
                                         "capsfilter", "appsrc", "appsink"));

TEST_P(NeededByAKindTest, IsNamedOnlyIfThePluginIsInstalled)
{
  const WithoutFactory without(GetParam().element);

  EXPECT_TRUE(needed_elements_check());
  const Plugin plugin(GetParam().plugin);
  expect_missing(GetParam().element);
}

INSTANTIATE_TEST_SUITE_P(Kinds, NeededByAKindTest,
                         testing::Values(Kind{"onvifeventsrc", "onvifeventsrc"},
                                         Kind{"statuscacheptz", "statuscacheptzsrc"},
                                         Kind{"scene", "scenesrc"}, Kind{"scene", "scene2xml"},
                                         Kind{"scene", "json2xml"}, Kind{"radarscene", "radarscenesrc"},
                                         Kind{"radarscene", "radarscene2xml"},
                                         Kind{"radarscene", "json2xml"}),
                         name_of);

TEST_F(NeededElementsTest, NamesAnElementThatSeveralKindsNeedOnce)
{
  const Plugin scenes("scene");
  const Plugin radar_scenes("radarscene");
  const WithoutFactory without("json2xml");

  expect_missing("json2xml");
}
