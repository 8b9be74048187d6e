/* SPDX-License-Identifier: MIT */
#include "radarscenesourcefactory.h"

#include "optionvalidation.h"
#include "testscenes.h"

#include <syslog.h>

using testfactory::Params;
using testfactory::Result;
using testhost::SyslogLines;
using testhost::Texts;

namespace
{

constexpr const char *NO_ROTATION = "could not get rotation from capt, using rotation 0";

class RadarSceneSourceFactoryTest : public testscenes::Fixture
{
protected:
  void SetUp() override
  {
    set_up(testscenes::RADAR);
    set_factory(radar_scene_source_factory_new(producers()));
  }

  /* A bin with rotation 0, and one warning. */
  void expect_rotation_zero()
  {
    expect_bin({{"analytics", "1"}}, false, 1, 0, "front door");
    EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_WARNING, NO_ROTATION}}));
  }
};

} // namespace

/* The producer. */

TEST_F(RadarSceneSourceFactoryTest, DoesNotDeclareThePrefixOfTheRadar)
{
  g_autoptr(AnalyticsProducer) producer = dup_producer();
  g_autofree gchar *sample_frame = nullptr;

  g_object_get(producer, "sample-frame-xml", &sample_frame, nullptr);
  EXPECT_EQ(std::string(sample_frame).find("xmlns:qurt"), std::string::npos);
}

/* Parameters. */

TEST_F(RadarSceneSourceFactoryTest, DeclinesARequestWithoutAnalytics)
{
  expect_declined({});
  expect_declined({{"analytics", "0"}});
  expect_declined({{"analytics", "0"}, {"video_channel", "5"}, {"ptz", "x"}});
  EXPECT_EQ(capture().take_calls(), Texts());
}

TEST_F(RadarSceneSourceFactoryTest, RefusesOtherAnalyticsInItsOwnDomain)
{
  for (const std::string value : {"yes", "3", "", "01", " 1", "1 ", "22", "%s"}) {
    expect_refused({{"analytics", value}}, source_factory_error_quark(),
                   "Invalid value of 'analytics' parameter: '" + value + "'.");
  }
}

TEST_F(RadarSceneSourceFactoryTest, EscapesAndClipsAHostileValueInTheLog)
{
  expect_hostile_values_refused("analytics", source_factory_error_quark(),
                                "Invalid value of 'analytics' parameter");
  expect_hostile_values_refused("video_channel", option_validation_error_quark(),
                                "Invalid value of 'channel'           parameter");
}

TEST_F(RadarSceneSourceFactoryTest, RefusesABadChannelAlsoWithoutAnalytics)
{
  for (const Params &analytics : {Params{}, Params{{"analytics", "0"}}, Params{{"analytics", "1"}}}) {
    Params params = analytics;
    params.emplace_back("video_channel", "abc");
    expect_refused(params, option_validation_error_quark(),
                   "Invalid value of 'channel'           parameter: 'abc'.");
    params.back().second = "99999999999";
    expect_refused(params, option_validation_error_quark(),
                   "Value out of bounds for 'channel'         parameter: '99999999999'.");
  }
}

TEST_F(RadarSceneSourceFactoryTest, ReportsBadAnalyticsBeforeABadChannel)
{
  expect_refused({{"video_channel", "x"}, {"analytics", "9"}}, source_factory_error_quark(),
                 "Invalid value of 'analytics' parameter: '9'.");
}

TEST_F(RadarSceneSourceFactoryTest, IgnoresOtherParameters)
{
  const Result result = request({{"analytics", "1"},
                                 {"ptz", "9"},
                                 {"ptz_pantilt_coordinate_space", "9"},
                                 {"ptz_zoom_coordinate_space", "9"}});

  EXPECT_NE(result.source, nullptr);
}

/* Enabled channels. */

TEST_F(RadarSceneSourceFactoryTest, DeclinesADisabledChannelWithoutACallOnTheBus)
{
  for (const char *channel : {"2", "3", "0", ""}) {
    expect_declined({{"analytics", "2"}, {"video_channel", channel}});
  }
  EXPECT_EQ(capture().take_calls(), Texts());
}

/* Rotation. */

TEST_F(RadarSceneSourceFactoryTest, UsesRotationZeroWithoutTheCaptureService)
{
  stop_capture();

  expect_rotation_zero();
}

TEST_F(RadarSceneSourceFactoryTest, UsesRotationZeroWithoutABus)
{
  stop_capture();
  bus_.reset();

  expect_rotation_zero();
}

TEST_F(RadarSceneSourceFactoryTest, UsesRotationZeroAfterAWrongReply)
{
  capture().set_answer(testbus::refuse());
  expect_rotation_zero();

  for (const char *body : {"()", "(uint32 90,)", "(<uint32 90>,)"}) {
    capture().set_answer(testbus::reply(body));
    expect_rotation_zero();
  }
}
