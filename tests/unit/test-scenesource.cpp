/* SPDX-License-Identifier: MIT */
/* What both factories of scenes do alike. */

#include "scenesource.h"

#include "producerconfig.h"
#include "radarscenesourcefactory.h"
#include "scenesourcefactory.h"
#include "systembus.h"
#include "testscenes.h"

#include <atomic>
#include <future>
#include <string>
#include <utility>
#include <vector>

using testelements::ReplacedFactory;
using testelements::Unusable;
using testelements::WithoutFactory;
using testfactory::Params;
using testfactory::Result;
using testhost::Observed;
using testhost::SyslogLines;
using testhost::Texts;
using testscenes::MOVE_CAPABILITIES;

namespace
{

/* An element of a document. One with a text has no children. */
struct Node {
  std::string name;
  std::vector<std::pair<std::string, std::string>> attributes;
  std::vector<Node> children = {};
  std::string text = "";
  std::string end_of_empty_tag = "/>";
};

constexpr gsize BLANKS_PER_LEVEL = 2;

void
print(const Node &node, gsize depth, std::string *out)
{
  const std::string indentation(depth * BLANKS_PER_LEVEL, ' ');

  *out += indentation + "<" + node.name;
  for (const auto &[name, value] : node.attributes) {
    *out += " " + name + "=\"" + value + "\"";
  }
  if (node.children.empty() && node.text.empty()) {
    *out += node.end_of_empty_tag;
    return;
  }
  *out += ">" + node.text;
  for (const Node &child : node.children) {
    print(child, depth + 1, out);
  }
  *out += (node.children.empty() ? "" : indentation) + "</" + node.name + ">";
}

Node
point(const char *y, const char *x)
{
  return {"tt:Point", {{"y", y}, {"x", x}}};
}

Node
reference(const char *name, const char *object_id)
{
  return {name, {{"ObjectId", object_id}}};
}

/* The document with two blanks per level and without line breaks. */
std::string
print_in_one_line(const Node &root)
{
  std::string out;

  print(root, 0, &out);
  return out;
}

/* The sample frame of @producer, whose object has @more_appearance after its shape. */
Node
sample_frame(const std::string &producer, const std::vector<Node> &more_appearance)
{
  std::vector<Node> appearance = {
      {"tt:Shape",
       {},
       {{"tt:BoundingBox", {{"bottom", "0.2"}, {"right", "-0.2"}, {"top", "0.6"}, {"left", "-0.6"}}},
        {"tt:CenterOfGravity", {{"y", "0.4"}, {"x", "-0.4"}}},
        {"tt:Polygon",
         {},
         {point("0.2", "-0.2"), point("0.6", "-0.2"), point("0.6", "-0.6"), point("0.2", "-0.6")}}}}};
  appearance.insert(appearance.end(), more_appearance.begin(), more_appearance.end());

  return {
      "tt:SampleFrame",
      {{"xmlns:tt", "http://www.onvif.org/ver10/schema"},
       {"Source", producer},
       {"UtcTime", "2021-08-12T05:36:00Z"}},
      {{"tt:Object", {{"ObjectId", "105"}}, {{"tt:Appearance", {}, appearance}}},
       {"tt:ObjectTree",
        {},
        {{"tt:Split", {}, {reference("tt:from", "18"), reference("tt:to", "20"), reference("tt:to", "18")}},
         {"tt:Merge", {}, {reference("tt:from", "19"), reference("tt:from", "18"), reference("tt:to", "18")}},
         reference("tt:Delete", "11")}}}};
}

/* The text is one element, in which every tag is closed. Ignores namespaces. */
bool
is_well_formed(const std::string &text)
{
  const GMarkupParser parser = {};
  g_autoptr(GMarkupParseContext) context =
      g_markup_parse_context_new(&parser, static_cast<GMarkupParseFlags>(0), nullptr, nullptr);

  return g_markup_parse_context_parse(context, text.data(), static_cast<gssize>(text.size()), nullptr) &&
         g_markup_parse_context_end_parse(context, nullptr);
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

/* The appearance of an object of the radar, without its shape. */
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

std::atomic<unsigned> probes = 0;

gboolean
probe(gint, GCancellable *, GError **)
{
  probes++;
  return TRUE;
}

gpointer
make_video_factory(AnalyticsProducerList *producers)
{
  return scene_source_factory_new(producers, MOVE_CAPABILITIES, probe);
}

gpointer
make_radar_factory(AnalyticsProducerList *producers)
{
  return radar_scene_source_factory_new(producers);
}

struct Factory {
  const char *name;
  const testscenes::Kind *kind;
  GType (*get_type)();
  gpointer (*make)(AnalyticsProducerList *producers);
  const char *nice_name;
  gsize sample_frame_length;
  std::vector<Node> more_appearance;
};

const std::vector<Factory> FACTORIES = {
    {"SceneSourceFactory",
     &testscenes::VIDEO,
     scene_source_factory_get_type,
     make_video_factory,
     "Quon video motion tracker",
     860,
     {}},
    {"RadarSceneSourceFactory", &testscenes::RADAR, radar_scene_source_factory_get_type, make_radar_factory,
     "Quon radar motion tracker", 2007, radar_appearance()},
};

class SceneSourceTest : public testscenes::Fixture, public testing::WithParamInterface<Factory>
{
protected:
  void SetUp() override
  {
    probes = 0;
    set_up(*GetParam().kind);
    set_factory(GetParam().make(producers()));
  }

  void expect_build_failure(const char *text) const
  {
    expect_refused({{"analytics", "2"}, {"ptz", "1"}}, source_factory_error_quark(), text);
  }
};

} // namespace

TEST_P(SceneSourceTest, IsAPlainObjectWithTheFactoryInterface)
{
  testfactory::expect_plain_factory(GetParam().get_type(), GetParam().name);
}

/* The producer. */

TEST_P(SceneSourceTest, PublishesTheTracker)
{
  g_autoptr(AnalyticsProducer) producer = dup_producer();
  ASSERT_NE(producer, nullptr);
  g_autofree gchar *name = nullptr;
  g_autofree gchar *nice_name = nullptr;
  gint type = -1;

  g_object_get(producer, "name", &name, "nice-name", &nice_name, "type", &type, nullptr);
  EXPECT_STREQ(name, kind().tracker);
  EXPECT_STREQ(nice_name, GetParam().nice_name);
  EXPECT_EQ(type, ANALYTICS_PRODUCER_BUILT_IN);
}

TEST_P(SceneSourceTest, PublishesTheChannelsOfTheConfiguration)
{
  g_autoptr(AnalyticsProducer) producer = dup_producer();
  ASSERT_NE(producer, nullptr);

  for (const guint32 channel : {0, 1, 2, 3, 4, 5, 6}) {
    EXPECT_EQ(analytics_producer_is_channel_supported(producer, channel),
              channel == 1 || channel == 2 || channel == 5)
        << channel;
  }
}

TEST_P(SceneSourceTest, LeavesTheProducerToTheList)
{
  AnalyticsProducer *producer = dup_producer();
  const Observed observed(producer);
  g_object_unref(producer);

  release_factory();
  EXPECT_TRUE(analytics_producer_list_contains(producers(), kind().tracker));
  analytics_producer_list_remove(producers(), kind().tracker);
  EXPECT_FALSE(observed.alive());
}

TEST_P(SceneSourceTest, HasASampleFrameInOneLine)
{
  g_autoptr(AnalyticsProducer) producer = dup_producer();
  ASSERT_NE(producer, nullptr);
  g_autofree gchar *sample_frame_xml = nullptr;

  g_object_get(producer, "sample-frame-xml", &sample_frame_xml, nullptr);
  const std::string text = sample_frame_xml;
  EXPECT_EQ(text.size(), GetParam().sample_frame_length);
  EXPECT_EQ(text, print_in_one_line(sample_frame(kind().tracker, GetParam().more_appearance)));
  EXPECT_TRUE(is_well_formed(text));
  EXPECT_EQ(text.find_first_of("\n\r\t"), std::string::npos);
}

/* Enabled channels. */

TEST_P(SceneSourceTest, DeclinesWithoutTheProducer)
{
  analytics_producer_list_remove(producers(), kind().tracker);

  expect_declined({{"analytics", "1"}});
  EXPECT_EQ(probes, 0U);
  EXPECT_EQ(capture().take_calls(), Texts());
}

TEST_P(SceneSourceTest, FollowsAChannelThatIsEnabledAndDisabled)
{
  const Params params = {{"analytics", "1"}, {"video_channel", "2"}};
  g_autoptr(AnalyticsProducer) producer = dup_producer();

  analytics_producer_set_channel_enabled(producer, 2, TRUE, "porch");
  expect_bin(params, false, 2, 90, "porch");
  analytics_producer_set_channel_enabled(producer, 2, FALSE, nullptr);
  expect_declined(params);
}

/* Rotation. */

TEST_P(SceneSourceTest, RequestsTheRotationOfItsChannelOnce)
{
  const Result result = request({{"analytics", "1"}, {"video_channel", "5"}});

  EXPECT_NE(result.source, nullptr);
  EXPECT_EQ(capture().take_calls(), (Texts{"/com/quon/Capt1/Channels/5 org.freedesktop.DBus.Properties.Get "
                                           "('com.quon.Capt1.Channel', 'settings')"}));
}

TEST_P(SceneSourceTest, TakesAMissingRotationForZeroWithoutAWarning)
{
  for (const char *body : {"(<@a{sv} {}>,)", "(<{'rotation': <'90'>}>,)"}) {
    capture().set_answer(testbus::reply(body));
    expect_bin({{"analytics", "1"}}, false, 1, 0, "front door");
  }
}

/* The caller gets the shortage, and nothing is logged. */
TEST_P(SceneSourceTest, FailsWhenTooFewDescriptorsAreFreeForTheCall)
{
  const testhost::FreeDescriptors free(DESCRIPTOR_RESERVE_SIZE + SYSTEM_BUS_CALL_DESCRIPTORS - 1);
  const Result result = request({{"analytics", "1"}});

  EXPECT_EQ(result.source, nullptr);
  EXPECT_TRUE(g_error_matches(result.error, G_IO_ERROR, G_IO_ERROR_TOO_MANY_OPEN_FILES));
  EXPECT_EQ(capture().take_calls(), Texts());
  EXPECT_EQ(testhost::take_syslog(), SyslogLines());
}

TEST_P(SceneSourceTest, FailsWhenItIsCancelledWhileTheCaptureServiceDoesNotReply)
{
  g_autoptr(GCancellable) cancellable = g_cancellable_new();
  capture().set_slow(true);
  auto cancelled = std::async(std::launch::async, [&] {
    g_cancellable_push_current(cancellable);
    const Result result = request({{"analytics", "1"}});
    g_cancellable_pop_current(cancellable);
    EXPECT_EQ(result.source, nullptr);
    EXPECT_TRUE(g_error_matches(result.error, G_IO_ERROR, G_IO_ERROR_CANCELLED));
  });

  EXPECT_TRUE(testhost::spin_until([this] { return capture().calls_size() == 1; }));
  g_cancellable_cancel(cancellable);
  cancelled.get();
  EXPECT_EQ(testhost::take_syslog(), SyslogLines());
}

/* The bin. */

TEST_P(SceneSourceTest, BuildsABinWithoutPolygonsForTheFirstChannelByDefault)
{
  expect_bin({{"analytics", "1"}}, false, 1, 90, "front door");
}

TEST_P(SceneSourceTest, BuildsABinWithPolygonsForTheChannelOfTheRequest)
{
  expect_bin({{"analytics", "2"}, {"video_channel", "05"}}, true, 5, 90, "yard");
}

TEST_P(SceneSourceTest, MakesABinOfItsOwnForEachRequest)
{
  const Result one = request({{"analytics", "1"}});
  const Result other = request({{"analytics", "1"}});

  EXPECT_NE(one.source, nullptr);
  EXPECT_NE(other.source, nullptr);
  EXPECT_NE(one.source, other.source);
}

TEST_P(SceneSourceTest, ServesTwoThreadsAtOnce)
{
  const auto request_often = [this](const char *channel) {
    int right = 0;
    for (int i = 0; i < 20; i++) {
      const Result result = request({{"analytics", "1"}, {"video_channel", channel}});
      right += result.source != nullptr ? 1 : 0;
    }
    return right;
  };

  auto other = std::async(std::launch::async, request_often, "5");
  EXPECT_EQ(request_often("1"), 20);
  EXPECT_EQ(other.get(), 20);
  EXPECT_EQ(testelements::take_settings().size(), 80U);
}

/* Failures of the bin. */

TEST_P(SceneSourceTest, FailsWhenAnElementCannotBeMade)
{
  const WithoutFactory no_converter(kind().names.converter);
  expect_build_failure(kind().texts.no_converter);

  const WithoutFactory no_filter("capsfilter");
  expect_build_failure(kind().texts.no_filter);

  const WithoutFactory no_source(kind().names.source);
  expect_build_failure(kind().texts.no_source);
}

TEST_P(SceneSourceTest, FailsWhenAnElementCannotBeAdded)
{
  const ReplacedFactory source(kind().names.source, Unusable::HAS_PARENT);
  expect_build_failure(kind().texts.source_not_added);

  const ReplacedFactory filter("capsfilter", Unusable::HAS_PARENT);
  expect_build_failure(kind().texts.filter_not_added);

  const ReplacedFactory converter(kind().names.converter, Unusable::HAS_PARENT);
  expect_build_failure(kind().texts.converter_not_added);
}

TEST_P(SceneSourceTest, FailsWhenTheElementsCannotBeLinked)
{
  for (const char *name : {kind().names.source, "capsfilter", kind().names.converter}) {
    const ReplacedFactory replaced(name, Unusable::CANNOT_BE_LINKED);
    expect_build_failure(kind().texts.not_linked);
  }
}

TEST_P(SceneSourceTest, FailsWhenTheBinCannotGetItsPad)
{
  const ReplacedFactory converter(kind().names.converter, Unusable::HAS_NO_SOURCE_PAD);

  expect_build_failure(kind().texts.no_ghost_pad);
}

INSTANTIATE_TEST_SUITE_P(Factories, SceneSourceTest, testing::ValuesIn(FACTORIES),
                         [](const auto &example) { return std::string(example.param.name); });
