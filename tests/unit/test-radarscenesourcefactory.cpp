#include "radarscenesourcefactory.h"

#include "optionvalidation.h"
#include "testscenes.h"

#include <future>
#include <syslog.h>

using testfactory::Answer;
using testfactory::Params;
using testhost::SyslogLines;
using testhost::Texts;
using testscenes::BinNames;
using testscenes::BuildTexts;
using testscenes::Node;

namespace
{

constexpr const char *TRACKER = "RadarMotionTracker";
constexpr gsize SAMPLE_FRAME_LENGTH = 2007;
constexpr const char *NO_ROTATION = "could not get rotation from capt, using rotation 0";

constexpr BinNames NAMES = {"radarscenesrcfactorybin", "radarscenesrc", "radarscenefilter", "radarscene2xml"};

constexpr BuildTexts TEXTS = {
    "Could not construct radarscenesrc.",
    "Could not construct capsfilter for radar         metadata (analytics) stream.",
    "Could not construct radarscene2xml.",
    "Could not add radarscene2xml to radar scene source factory bin.",
    "Could not add capsfilter to radar scene source factory bin.",
    "Could not add radarscenesrc to radar scene source factory bin.",
    "Could not link radarscenesrc, capsfilter and radarscene2xml         for radar metadata (analytics) "
    "stream.",
    "Could not add ghost pad for radar metadata (analytics) stream.",
};

std::string
caps(bool polygon, gint32 channel)
{
  return std::string("application/vnd.quon.radarscene, bounding-box=(boolean)true, polygon=(boolean)") +
         (polygon ? "true" : "false") + ", velocity=(boolean)true, channel=(int)" + std::to_string(channel);
}

Node
text(const char *name, const char *text)
{
  return {name, {}, {}, text};
}

Node
candidate(const char *type, const char *likelihood)
{
  return {"tt:ClassCandidate", {}, {text("tt:Type", type), text("tt:Likelihood", likelihood)}};
}

Node
type(const char *likelihood, const char *type)
{
  return {"tt:Type", {{"Likelihood", likelihood}}, {}, type};
}

/* What a radar shows of an object beside its shape. */
std::vector<Node>
radar_appearance()
{
  return {
      {"tt:Class",
       {},
       {candidate("Vehical", "0.92"),
        candidate("Human", "0.96"),
        candidate("Other", "1.00"),
        {"tt:Extension",
         {},
         {{"tt:OtherTypes", {}, {text("tt:Type", "SmallObject"), text("tt:Likelihood", "0.72")}}}},
        type("1.00", "Unknown"),
        type("0.92", "Vehicle"),
        type("0.96", "Human"),
        type("0.72", "SmallObject")}},
      {"tt:Extension",
       {},
       {{"qurt:RadarObjectInfo",
         {},
         {{"qurt:PolarCoordinate", {{"angle", "20.0"}, {"range", "50.0"}}},
          {"qurt:Velocity", {{"m-s", "10.0"}, {"angle", "10.0"}}},
          {"qurt:Size", {{"m", "10.0"}}}}}}},
      {"tt:GeoLocation", {{"lon", "0.0000000"}, {"lat", "0.0000000"}, {"elevation", "0.00"}}, {}, "", " />"}};
}

class RadarSceneSourceFactoryTest : public testscenes::Fixture
{
protected:
  void SetUp() override
  {
    set_up(TRACKER);
    set_factory(radar_scene_source_factory_new(producers()));
  }

  /* A bin all the same, with rotation 0, and one warning. */
  void expect_rotation_unknown()
  {
    const Answer answer = ask({{"analytics", "1"}});

    EXPECT_EQ(answer.error, nullptr);
    testscenes::expect_bin(answer.source, NAMES, caps(false, 1));
    EXPECT_EQ(testelements::take_settings(),
              (Texts{"radarscenesrc video-channel=1",
                     "radarscene2xml polygon=FALSE velocity=TRUE geolocation=TRUE rotation=0 "
                     "source-name=front door"}));
    EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_WARNING, NO_ROTATION}}));
  }
};

} // namespace

TEST_F(RadarSceneSourceFactoryTest, IsAPlainObjectThatIsAFactory)
{
  const GType type = radar_scene_source_factory_get_type();
  GTypeQuery query = {};
  g_type_query(type, &query);

  EXPECT_STREQ(g_type_name(type), "RadarSceneSourceFactory");
  EXPECT_EQ(g_type_parent(type), static_cast<GType>(G_TYPE_OBJECT));
  EXPECT_TRUE(g_type_is_a(type, SOURCE_TYPE_FACTORY));
  EXPECT_EQ(query.class_size, sizeof(GObjectClass));
}

/* The producer. */

TEST_F(RadarSceneSourceFactoryTest, PublishesTheTracker)
{
  expect_published("Quon radar motion tracker");
}

TEST_F(RadarSceneSourceFactoryTest, PublishesTheChannelsOfTheConfiguration)
{
  expect_supported_channels({1, 2, 5}, {0, 3, 4, 6});
}

TEST_F(RadarSceneSourceFactoryTest, LeavesTheProducerToTheList)
{
  expect_left_to_the_list();
}

TEST_F(RadarSceneSourceFactoryTest, ShowsASampleFrameInOneLine)
{
  expect_sample_frame(SAMPLE_FRAME_LENGTH, testscenes::sample_frame(TRACKER, radar_appearance()));
}

TEST_F(RadarSceneSourceFactoryTest, LeavesThePrefixOfTheRadarUndeclared)
{
  g_autoptr(AnalyticsProducer) producer = dup_producer();
  g_autofree gchar *sample_frame = nullptr;

  g_object_get(producer, "sample-frame-xml", &sample_frame, nullptr);
  EXPECT_EQ(std::string(sample_frame).find("xmlns:qurt"), std::string::npos);
}

/* Parameters. */

TEST_F(RadarSceneSourceFactoryTest, DeclinesARequestForNoAnalytics)
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

TEST_F(RadarSceneSourceFactoryTest, LogsAFitPartOfAHostileValue)
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

TEST_F(RadarSceneSourceFactoryTest, TellsOfBadAnalyticsBeforeABadChannel)
{
  expect_refused({{"video_channel", "x"}, {"analytics", "9"}}, source_factory_error_quark(),
                 "Invalid value of 'analytics' parameter: '9'.");
}

TEST_F(RadarSceneSourceFactoryTest, LooksAtNoOtherParameter)
{
  const Answer answer = ask({{"analytics", "1"},
                             {"ptz", "9"},
                             {"ptz_pantilt_coordinate_space", "9"},
                             {"ptz_zoom_coordinate_space", "9"}});

  EXPECT_NE(answer.source, nullptr);
}

/* Enablement. */

TEST_F(RadarSceneSourceFactoryTest, DeclinesAChannelThatIsNotEnabledWithoutAskingTheBus)
{
  for (const char *channel : {"2", "3", "0", ""}) {
    expect_declined({{"analytics", "2"}, {"video_channel", channel}});
  }
  EXPECT_EQ(capture().take_calls(), Texts());
}

TEST_F(RadarSceneSourceFactoryTest, DeclinesWithoutTheProducer)
{
  analytics_producer_list_remove(producers(), TRACKER);

  expect_declined({{"analytics", "1"}});
  EXPECT_EQ(capture().take_calls(), Texts());
}

TEST_F(RadarSceneSourceFactoryTest, FollowsAChannelThatIsEnabledAndDisabled)
{
  const Params params = {{"analytics", "1"}, {"video_channel", "2"}};
  g_autoptr(AnalyticsProducer) producer = dup_producer();

  analytics_producer_set_channel_enabled(producer, 2, TRUE, "gate");
  {
    const Answer answer = ask(params);
    EXPECT_NE(answer.source, nullptr);
  }
  EXPECT_EQ(testelements::take_settings().back(),
            "radarscene2xml polygon=FALSE velocity=TRUE geolocation=TRUE rotation=90 source-name=gate");

  analytics_producer_set_channel_enabled(producer, 2, FALSE, nullptr);
  expect_declined(params);
}

/* Rotation. */

TEST_F(RadarSceneSourceFactoryTest, AsksForTheRotationOfItsChannelOnce)
{
  const Answer answer = ask({{"analytics", "1"}, {"video_channel", "5"}});

  EXPECT_NE(answer.source, nullptr);
  EXPECT_EQ(capture().take_calls(), (Texts{"/com/quon/Capt1/Channels/5 org.freedesktop.DBus.Properties.Get "
                                           "('com.quon.Capt1.Channel', 'settings')"}));
}

TEST_F(RadarSceneSourceFactoryTest, GoesOnUnturnedWithoutTheCaptureService)
{
  stop_capture();

  expect_rotation_unknown();
}

TEST_F(RadarSceneSourceFactoryTest, GoesOnUnturnedWithoutABus)
{
  stop_capture();
  stop_bus();

  expect_rotation_unknown();
}

TEST_F(RadarSceneSourceFactoryTest, FailsWhenTooFewDescriptorsAreFreeToAsk)
{
  expect_shortage({{"analytics", "1"}});
}

TEST_F(RadarSceneSourceFactoryTest, FailsWhenItIsCancelledWhileTheCaptureServiceDoesNotReply)
{
  expect_cancelled_while_asking({{"analytics", "1"}});
}

TEST_F(RadarSceneSourceFactoryTest, GoesOnUnturnedWhenTheCaptureServiceAnswersWrong)
{
  capture().set_answer(testbus::refuse());
  expect_rotation_unknown();

  for (const char *body : {"()", "(uint32 90,)", "(<uint32 90>,)"}) {
    capture().set_answer(testbus::reply(body));
    expect_rotation_unknown();
  }
}

TEST_F(RadarSceneSourceFactoryTest, TakesAMissingRotationForZeroWithoutAWarning)
{
  capture().set_answer(testbus::reply("(<{'rotation': <'90'>}>,)"));
  const Answer answer = ask({{"analytics", "1"}});

  EXPECT_NE(answer.source, nullptr);
  EXPECT_EQ(testelements::take_settings().back(),
            "radarscene2xml polygon=FALSE velocity=TRUE geolocation=TRUE rotation=0 source-name=front door");
}

/* The bin. */

TEST_F(RadarSceneSourceFactoryTest, BuildsABinWithoutPolygonsForTheFirstChannelByDefault)
{
  const Answer answer = ask({{"analytics", "1"}});

  EXPECT_EQ(answer.error, nullptr);
  testscenes::expect_bin(answer.source, NAMES, caps(false, 1));
  EXPECT_EQ(testelements::take_settings(),
            (Texts{"radarscenesrc video-channel=1",
                   "radarscene2xml polygon=FALSE velocity=TRUE geolocation=TRUE rotation=90 "
                   "source-name=front door"}));
}

TEST_F(RadarSceneSourceFactoryTest, BuildsABinWithPolygonsForTheChannelOfTheRequest)
{
  const Answer answer = ask({{"analytics", "2"}, {"video_channel", "5"}});

  EXPECT_EQ(answer.error, nullptr);
  testscenes::expect_bin(answer.source, NAMES, caps(true, 5));
  EXPECT_EQ(testelements::take_settings(),
            (Texts{"radarscenesrc video-channel=5",
                   "radarscene2xml polygon=TRUE velocity=TRUE geolocation=TRUE rotation=90 "
                   "source-name=yard"}));
}

TEST_F(RadarSceneSourceFactoryTest, FailsWhenAnElementCannotBeMade)
{
  expect_failures_to_make({{"analytics", "1"}}, NAMES, TEXTS);
}

TEST_F(RadarSceneSourceFactoryTest, FailsWhenAnElementCannotBeAdded)
{
  expect_failures_to_add({{"analytics", "1"}}, NAMES, TEXTS);
}

TEST_F(RadarSceneSourceFactoryTest, FailsWhenTheElementsCannotBeLinked)
{
  expect_failures_to_link({{"analytics", "2"}}, NAMES, TEXTS);
}

TEST_F(RadarSceneSourceFactoryTest, FailsWhenTheBinCannotGetItsPad)
{
  expect_failure_to_add_ghost_pad({{"analytics", "1"}}, NAMES, TEXTS);
}

TEST_F(RadarSceneSourceFactoryTest, AnswersTwoThreadsAtOnce)
{
  const auto ask_often = [this](const char *channel) {
    int right = 0;
    for (int i = 0; i < 20; i++) {
      const Answer answer = ask({{"analytics", "1"}, {"video_channel", channel}});
      right += answer.source != nullptr ? 1 : 0;
    }
    return right;
  };

  auto other = std::async(std::launch::async, ask_often, "5");
  EXPECT_EQ(ask_often("1"), 20);
  EXPECT_EQ(other.get(), 20);
  EXPECT_EQ(testelements::take_settings().size(), 80U);
}
