/* SPDX-License-Identifier: MIT */
#include "testscenes.h"

#include "producerconfig.h"

#include <fstream>

using testfactory::Params;
using testfactory::Result;

namespace testscenes
{
namespace
{

/* A reference of the caller's own. */
GstElement *
find(GstElement *bin, const char *name)
{
  GstElement *element = gst_bin_get_by_name(GST_BIN(bin), name);

  EXPECT_NE(element, nullptr) << name;
  return element;
}

/* A bin has its newest child first. */
testhost::Texts
names_of_children(GstElement *bin)
{
  testhost::Texts names;

  for (GList *child = GST_BIN(bin)->children; child != nullptr; child = child->next) {
    names.emplace_back(GST_OBJECT_NAME(child->data));
  }
  return names;
}

std::string
caps_of(GstElement *filter)
{
  g_autoptr(GstCaps) caps = nullptr;
  g_object_get(filter, "caps", &caps, nullptr);
  g_autofree gchar *text = gst_caps_to_string(caps);

  return text;
}

void
expect_chain(GstElement *bin, const BinNames &names, const std::string &caps)
{
  g_autoptr(GstElement) source = find(bin, names.source);
  g_autoptr(GstElement) filter = find(bin, names.filter);
  g_autoptr(GstElement) converter = find(bin, names.converter);

  EXPECT_EQ(testfactory::factory_name(source), names.source);
  EXPECT_EQ(testfactory::factory_name(filter), "capsfilter");
  EXPECT_EQ(testfactory::factory_name(converter), names.converter);
  EXPECT_EQ(caps_of(filter), caps);
  testfactory::expect_linked(source, filter);
  testfactory::expect_linked(filter, converter);
  testfactory::expect_ghost_pad(bin, converter);
}

} // namespace

const Kind VIDEO = {
    "VideoMotionTracker",
    "application/vnd.quon.scene",
    "ptz-move-capabilities=-9",
    {"scenesrcfactorybin", "scenesrc", "scenefilter", "scene2xml"},
    {
        "Could not construct scenesrc.",
        "Could not construct capsfilter for metadata (analytics) stream.",
        "Could not construct scene2xml.",
        "Could not add scene2xml to scene source factory bin.",
        "Could not add capsfilter to scene source factory bin.",
        "Could not add scenesrc to scene source factory bin.",
        "Could not link scenesrc, capsfilter and scene2xml         for metadata (analytics) stream.",
        "Could not add ghost pad for metadata (analytics) stream.",
    },
};

const Kind RADAR = {
    "RadarMotionTracker",
    "application/vnd.quon.radarscene",
    "velocity=TRUE geolocation=TRUE",
    {"radarscenesrcfactorybin", "radarscenesrc", "radarscenefilter", "radarscene2xml"},
    {
        "Could not construct radarscenesrc.",
        "Could not construct capsfilter for radar         metadata (analytics) stream.",
        "Could not construct radarscene2xml.",
        "Could not add radarscene2xml to radar scene source factory bin.",
        "Could not add capsfilter to radar scene source factory bin.",
        "Could not add radarscenesrc to radar scene source factory bin.",
        "Could not link radarscenesrc, capsfilter and radarscene2xml         for radar metadata (analytics) "
        "stream.",
        "Could not add ghost pad for radar metadata (analytics) stream.",
    },
};

void
Fixture::SetUpTestSuite()
{
  testelements::install();
  testbus::Fixture::SetUpTestSuite();
}

void
Fixture::set_up(const Kind &kind)
{
  const std::string tracker = kind.tracker;

  testbus::Fixture::SetUp();
  kind_ = &kind;
  configuration_ = path("producers.conf");
  std::ofstream(configuration_) << "[Producers.0." << tracker << "]\nName=front door\n"
                                << "[Producers.4." << tracker << "]\nName=yard\n"
                                << "[Producers.1." << tracker << "]\nName=\n"
                                << "[Producers.2.Another]\nName=other\n";
  ASSERT_TRUE(producer_config_setup(configuration_.c_str()));

  producers_ = analytics_producer_list_new();
  capture_.emplace("com.quon.Capt1", testbus::reply(ROTATION_90));
  testelements::take_settings();
}

void
Fixture::TearDown()
{
  release_factory();
  g_clear_pointer(&producers_, analytics_producer_list_free);
  producer_config_free();
  stop_capture();
  testbus::Fixture::TearDown();
}

void
Fixture::set_factory(gpointer factory)
{
  factory_ = SOURCE_FACTORY(factory);
}

void
Fixture::release_factory()
{
  g_clear_object(&factory_);
}

const Kind &
Fixture::kind() const
{
  return *kind_;
}

AnalyticsProducerList *
Fixture::producers() const
{
  return producers_;
}

AnalyticsProducer *
Fixture::dup_producer() const
{
  return analytics_producer_list_get_producer(producers_, kind_->tracker);
}

testbus::Service &
Fixture::capture()
{
  return *capture_;
}

void
Fixture::stop_capture()
{
  capture_.reset();
}

Result
Fixture::request(const Params &params) const
{
  return Result(factory_, params);
}

void
Fixture::expect_declined(const Params &params) const
{
  testfactory::expect_declined(factory_, params);
}

void
Fixture::expect_refused(const Params &params, GQuark domain, const std::string &text) const
{
  testfactory::expect_refused(factory_, params, domain, text);
}

void
Fixture::expect_hostile_values_refused(const std::string &key, GQuark domain,
                                       const std::string &problem) const
{
  testfactory::expect_hostile_values_refused(factory_, key, domain, problem);
}

std::string
Fixture::converter_settings(bool polygon, guint rotation, const std::string &source_name) const
{
  return kind_->names.converter + std::string(" polygon=") + (polygon ? "TRUE " : "FALSE ") +
         kind_->converter_settings + " rotation=" + std::to_string(rotation) + " source-name=" + source_name;
}

void
Fixture::expect_bin(const Params &params, bool polygon, gint32 channel, guint rotation,
                    const std::string &source_name) const
{
  const std::string number = std::to_string(channel);
  const BinNames &names = kind_->names;
  const Result result = request(params);

  EXPECT_EQ(result.error, nullptr);
  ASSERT_NE(result.source, nullptr);
  EXPECT_EQ(G_OBJECT_TYPE(result.source), GST_TYPE_BIN);
  EXPECT_STREQ(GST_OBJECT_NAME(result.source), names.bin);
  EXPECT_EQ(GST_OBJECT_PARENT(result.source), nullptr);
  ASSERT_EQ(names_of_children(result.source), (testhost::Texts{names.source, names.filter, names.converter}));
  expect_chain(result.source, names,
               kind_->media_type + std::string(", bounding-box=(boolean)true, polygon=(boolean)") +
                   (polygon ? "true" : "false") + ", velocity=(boolean)true, channel=(int)" + number);
  EXPECT_EQ(testelements::take_settings(),
            (testhost::Texts{names.source + (" video-channel=" + number),
                             converter_settings(polygon, rotation, source_name)}));
}

} // namespace testscenes
