/* SPDX-License-Identifier: MIT */
#include "ptzsourcefactory.h"

#include "optionvalidation.h"
#include "ptzvalidation.h"
#include "testelements.h"
#include "testfactory.h"
#include "testhost.h"

#include <algorithm>
#include <thread>

using testfactory::Params;
using testfactory::Result;
using testhost::Texts;

namespace
{

constexpr gint32 MOVE_CAPABILITIES = -77;

/* The last call, which sets all three. */
constexpr const char *STATUS_AND_POSITION =
    "filter-position=FALSE filter-status=FALSE ptz-move-capabilities=-77";
constexpr const char *POSITION_ONLY = "filter-position=TRUE filter-status=FALSE ptz-move-capabilities=-77";
constexpr const char *STATUS_ONLY = "filter-position=FALSE filter-status=TRUE ptz-move-capabilities=-77";

class PTZSourceFactoryTest : public testhost::Fixture
{
protected:
  static void SetUpTestSuite()
  {
    testelements::install();
  }

  void SetUp() override
  {
    Fixture::SetUp();
    testelements::take_settings();
    factory_ = ptz_source_factory_new(MOVE_CAPABILITIES);
  }

  void TearDown() override
  {
    g_clear_object(&factory_);
    Fixture::TearDown();
  }

  void expect_declined(const Params &params) const
  {
    testfactory::expect_declined(factory_, params);
  }

  void expect_refused(const Params &params, GQuark domain, const std::string &text) const
  {
    testfactory::expect_refused(factory_, params, domain, text);
  }

  void expect_hostile_values_refused(const std::string &key, const std::string &problem) const
  {
    testfactory::expect_hostile_values_refused(factory_, key, ptz_validation_error_quark(), problem);
  }

  /* The calls that set properties of the element that the factory makes, each as "property=value ...". */
  Texts settings_for(const Params &params) const
  {
    const Result result(factory_, params);
    Texts settings;

    EXPECT_EQ(result.error, nullptr);
    EXPECT_NE(result.source, nullptr);
    for (const std::string &setting : testelements::take_settings()) {
      settings.push_back(setting.substr(setting.find(' ') + 1));
    }
    return settings;
  }

  SourceFactory *factory_ = nullptr;
};

} // namespace

TEST_F(PTZSourceFactoryTest, IsAnObjectWithOneFieldAndTheFactoryInterface)
{
  const GType type = ptz_source_factory_get_type();
  GTypeQuery query = {};
  g_type_query(type, &query);

  EXPECT_STREQ(g_type_name(type), "PTZSourceFactory");
  EXPECT_EQ(g_type_parent(type), static_cast<GType>(G_TYPE_OBJECT));
  EXPECT_TRUE(g_type_is_a(type, SOURCE_TYPE_FACTORY));
  EXPECT_EQ(query.class_size, sizeof(GObjectClass));
  EXPECT_EQ(G_OBJECT_TYPE(factory_), type);
}

TEST_F(PTZSourceFactoryTest, DeclinesAnEmptyRequest)
{
  expect_declined({});
}

TEST_F(PTZSourceFactoryTest, DeclinesARequestThatDisablesPtz)
{
  expect_declined({{"ptz", "0"}});
  expect_declined({{"ptz", "0"},
                   {"video_channel", "3"},
                   {"ptz_pantilt_coordinate_space", "1"},
                   {"ptz_zoom_coordinate_space", "2"}});
  expect_declined({{"video_channel", "3"}, {"analytics", "2"}});
}

TEST_F(PTZSourceFactoryTest, MakesAnElementWithoutASpecialName)
{
  const Result result(factory_, {{"ptz", "1"}});

  ASSERT_NE(result.source, nullptr);
  EXPECT_STREQ(GST_OBJECT_NAME(gst_element_get_factory(result.source)), "statuscacheptzsrc");
  EXPECT_TRUE(g_str_has_prefix(GST_OBJECT_NAME(result.source), "testptzsource"));
  EXPECT_EQ(GST_OBJECT_PARENT(result.source), nullptr);
}

TEST_F(PTZSourceFactoryTest, KeepsTheDefaultsOfTheElementForAbsentParameters)
{
  EXPECT_EQ(settings_for({{"ptz", "1"}}), (Texts{STATUS_AND_POSITION}));
}

TEST_F(PTZSourceFactoryTest, FiltersTheStatusForPositionOnly)
{
  EXPECT_EQ(settings_for({{"ptz", "2"}, {"video_channel", "3"}}), (Texts{"channel=3", POSITION_ONLY}));
}

TEST_F(PTZSourceFactoryTest, FiltersThePositionForStatusOnly)
{
  EXPECT_EQ(settings_for({{"ptz", "3"}}), (Texts{STATUS_ONLY}));
}

TEST_F(PTZSourceFactoryTest, SetsEachParameter)
{
  EXPECT_EQ(
      settings_for({{"ptz", "1"},
                    {"ptz_zoom_coordinate_space", "2"},
                    {"ptz_pantilt_coordinate_space", "0"},
                    {"video_channel", ""}}),
      (Texts{"channel=0", "coordinate-space-pantilt=0", "coordinate-space-zoom=2", STATUS_AND_POSITION}));
  EXPECT_EQ(settings_for({{"ptz", "1"}, {"ptz_zoom_coordinate_space", "0"}}),
            (Texts{"coordinate-space-zoom=0", STATUS_AND_POSITION}));
}

TEST_F(PTZSourceFactoryTest, SetsAnyMoveCapabilitiesUnchanged)
{
  for (const gint32 capabilities : {0, 1, G_MAXINT32, G_MININT32}) {
    g_autoptr(SourceFactory) factory = ptz_source_factory_new(capabilities);
    const Result result(factory, {{"ptz", "1"}});

    ASSERT_NE(result.source, nullptr);
    EXPECT_TRUE(g_str_has_suffix(testelements::take_settings().back().c_str(),
                                 (" ptz-move-capabilities=" + std::to_string(capabilities)).c_str()));
  }
}

TEST_F(PTZSourceFactoryTest, RefusesABadPtz)
{
  expect_refused({{"ptz", "4"}}, ptz_validation_error_quark(),
                 "Value out of bounds for 'ptz'         parameter: '4'.");
  expect_refused({{"ptz", ""}}, ptz_validation_error_quark(),
                 "Invalid value of 'ptz'         parameter: ''.");
}

TEST_F(PTZSourceFactoryTest, EscapesAndClipsAHostileValueInTheLog)
{
  expect_hostile_values_refused("ptz", "Invalid value of 'ptz'         parameter");
  expect_hostile_values_refused("ptz_pantilt_coordinate_space",
                                "Invalid value of         'ptz pantilt coordinate space' parameter");
  expect_hostile_values_refused("ptz_zoom_coordinate_space",
                                "Invalid value of 'ptz zoom coordinate space'         parameter");
}

TEST_F(PTZSourceFactoryTest, RefusesABadChannelAlsoWithoutPtz)
{
  expect_refused({{"video_channel", "x"}}, option_validation_error_quark(),
                 "Invalid value of 'channel'           parameter: 'x'.");
}

TEST_F(PTZSourceFactoryTest, RefusesABadSpaceAlsoWithoutPtz)
{
  expect_refused({{"ptz", "0"}, {"ptz_zoom_coordinate_space", "5"}}, ptz_validation_error_quark(),
                 "Value out of bounds for         'ptz zoom coordinate space' parameter: '5'.");
  expect_refused({{"ptz_pantilt_coordinate_space", "a"}}, ptz_validation_error_quark(),
                 "Invalid value of         'ptz pantilt coordinate space' parameter: 'a'.");
}

TEST_F(PTZSourceFactoryTest, ReportsTheFirstBadParameterOfPtzChannelPantiltZoom)
{
  Params params = {{"ptz_zoom_coordinate_space", "9"},
                   {"ptz_pantilt_coordinate_space", "8"},
                   {"video_channel", "c"},
                   {"ptz", "7"}};

  expect_refused(params, ptz_validation_error_quark(),
                 "Value out of bounds for 'ptz'         parameter: '7'.");
  params.back().second = "0";
  expect_refused(params, option_validation_error_quark(),
                 "Invalid value of 'channel'           parameter: 'c'.");
  params[2].second = "1";
  expect_refused(params, ptz_validation_error_quark(),
                 "Value out of bounds for         'ptz pantilt coordinate space' parameter: '8'.");
  params[1].second = "1";
  expect_refused(params, ptz_validation_error_quark(),
                 "Value out of bounds for         'ptz zoom coordinate space' parameter: '9'.");
}

TEST_F(PTZSourceFactoryTest, FailsWithoutThePlatformsElement)
{
  const testelements::WithoutFactory without("statuscacheptzsrc");

  expect_declined({{"ptz", "0"}});
  expect_refused({{"ptz", "1"}}, source_factory_error_quark(), "Could not construct statuscacheptzsrc.");
}

TEST_F(PTZSourceFactoryTest, ServesTwoThreadsAtOnce)
{
  constexpr int TIMES = 50;
  const auto request_often = [this](const char *channel) {
    for (int i = 0; i < TIMES; i++) {
      const Result result(factory_, {{"ptz", "1"}, {"video_channel", channel}});
      EXPECT_NE(result.source, nullptr);
    }
  };

  std::thread other(request_often, "1");
  request_often("2");
  other.join();
  const Texts settings = testelements::take_settings();
  for (const char *set : {" channel=1", " channel=2"}) {
    EXPECT_EQ(std::count_if(settings.begin(), settings.end(),
                            [set](const std::string &line) { return g_str_has_suffix(line.c_str(), set); }),
              TIMES);
  }
}
