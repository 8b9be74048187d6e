#include "testscenes.h"

#include "producerconfig.h"
#include "systembus.h"

#include <fstream>
#include <future>

using testelements::ReplacedFactory;
using testelements::Unusable;
using testelements::WithoutFactory;
using testfactory::Answer;
using testfactory::Params;

namespace testscenes
{
namespace
{

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

/* A reference of the caller's own. */
GstElement *
find(GstElement *bin, const char *name)
{
  GstElement *element = gst_bin_get_by_name(GST_BIN(bin), name);

  EXPECT_NE(element, nullptr) << name;
  return element;
}

} // namespace

std::string
print_in_one_line(const Node &root)
{
  std::string out;

  print(root, 0, &out);
  return out;
}

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

bool
is_well_formed(const std::string &text)
{
  const GMarkupParser parser = {};
  g_autoptr(GMarkupParseContext) context =
      g_markup_parse_context_new(&parser, static_cast<GMarkupParseFlags>(0), nullptr, nullptr);

  return g_markup_parse_context_parse(context, text.data(), static_cast<gssize>(text.size()), nullptr) &&
         g_markup_parse_context_end_parse(context, nullptr);
}

void
expect_bin(GstElement *bin, const BinNames &names, const std::string &caps)
{
  ASSERT_NE(bin, nullptr);
  EXPECT_EQ(G_OBJECT_TYPE(bin), GST_TYPE_BIN);
  EXPECT_STREQ(GST_OBJECT_NAME(bin), names.bin);
  EXPECT_EQ(GST_OBJECT_PARENT(bin), nullptr);

  /* A bin has its newest child first. */
  testhost::Texts children;
  for (GList *child = GST_BIN(bin)->children; child != nullptr; child = child->next) {
    children.emplace_back(GST_OBJECT_NAME(child->data));
  }
  ASSERT_EQ(children, (testhost::Texts{names.source, names.filter, names.converter}));

  g_autoptr(GstElement) source = find(bin, names.source);
  g_autoptr(GstElement) filter = find(bin, names.filter);
  g_autoptr(GstElement) converter = find(bin, names.converter);
  EXPECT_EQ(testfactory::factory_name(source), names.source);
  EXPECT_EQ(testfactory::factory_name(filter), "capsfilter");
  EXPECT_EQ(testfactory::factory_name(converter), names.converter);

  g_autoptr(GstCaps) actual_caps = nullptr;
  g_object_get(filter, "caps", &actual_caps, nullptr);
  g_autofree gchar *actual = gst_caps_to_string(actual_caps);
  EXPECT_EQ(actual, caps);

  testfactory::expect_linked(source, filter);
  testfactory::expect_linked(filter, converter);
  testfactory::expect_ghost_pad(bin, converter);
}

void
Fixture::SetUpTestSuite()
{
  testelements::install();
  testbus::install();
}

void
Fixture::set_up(const std::string &tracker)
{
  testhost::Fixture::SetUp();
  tracker_ = tracker;
  configuration_ = path("producers.conf");
  std::ofstream(configuration_) << "[Producers.0." << tracker << "]\nName=front door\n"
                                << "[Producers.4." << tracker << "]\nName=yard\n"
                                << "[Producers.1." << tracker << "]\nName=\n"
                                << "[Producers.2.Another]\nName=other\n";
  ASSERT_TRUE(producer_config_setup(configuration_.c_str()));

  producers_ = analytics_producer_list_new();
  bus_.emplace();
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
  stop_bus();
  testhost::Fixture::TearDown();
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

AnalyticsProducerList *
Fixture::producers() const
{
  return producers_;
}

AnalyticsProducer *
Fixture::dup_producer() const
{
  return analytics_producer_list_get_producer(producers_, tracker_.c_str());
}

testbus::Service &
Fixture::capture()
{
  return *capture_;
}

void
Fixture::expect_published(const char *nice_name) const
{
  g_autoptr(AnalyticsProducer) producer = dup_producer();
  ASSERT_NE(producer, nullptr);
  g_autofree gchar *name = nullptr;
  g_autofree gchar *actual_nice_name = nullptr;
  gint type = -1;

  g_object_get(producer, "name", &name, "nice-name", &actual_nice_name, "type", &type, nullptr);
  EXPECT_EQ(name, tracker_);
  EXPECT_STREQ(actual_nice_name, nice_name);
  EXPECT_EQ(type, ANALYTICS_PRODUCER_BUILT_IN);
}

void
Fixture::expect_supported_channels(const std::vector<guint32> &supported,
                                   const std::vector<guint32> &others) const
{
  g_autoptr(AnalyticsProducer) producer = dup_producer();
  ASSERT_NE(producer, nullptr);

  for (const guint32 channel : supported) {
    EXPECT_TRUE(analytics_producer_is_channel_supported(producer, channel)) << channel;
  }
  for (const guint32 channel : others) {
    EXPECT_FALSE(analytics_producer_is_channel_supported(producer, channel)) << channel;
  }
}

void
Fixture::expect_left_to_the_list()
{
  AnalyticsProducer *producer = dup_producer();
  const testhost::Observed observed(producer);
  g_object_unref(producer);

  release_factory();
  EXPECT_TRUE(analytics_producer_list_contains(producers_, tracker_.c_str()));
  analytics_producer_list_remove(producers_, tracker_.c_str());
  EXPECT_FALSE(observed.alive());
}

void
Fixture::expect_sample_frame(gsize length, const Node &root) const
{
  g_autoptr(AnalyticsProducer) producer = dup_producer();
  ASSERT_NE(producer, nullptr);
  g_autofree gchar *sample_frame = nullptr;

  g_object_get(producer, "sample-frame-xml", &sample_frame, nullptr);
  const std::string text = sample_frame;
  EXPECT_EQ(text.size(), length);
  EXPECT_EQ(text, print_in_one_line(root));
  EXPECT_TRUE(is_well_formed(text));
  EXPECT_EQ(text.find_first_of("\n\r\t"), std::string::npos);
}

void
Fixture::stop_capture()
{
  capture_.reset();
}

void
Fixture::stop_bus()
{
  bus_.reset();
}

Answer
Fixture::ask(const Params &params) const
{
  return Answer(factory_, params);
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

void
Fixture::expect_shortage(const Params &params)
{
  const testhost::FreeDescriptors free(DESCRIPTOR_RESERVE_SIZE + SYSTEM_BUS_CALL_DESCRIPTORS - 1);
  const Answer answer(factory_, params);

  EXPECT_EQ(answer.source, nullptr);
  EXPECT_TRUE(g_error_matches(answer.error, G_IO_ERROR, G_IO_ERROR_TOO_MANY_OPEN_FILES));
  EXPECT_EQ(capture().take_calls(), testhost::Texts());
  EXPECT_EQ(testhost::take_syslog(), testhost::SyslogLines());
}

void
Fixture::expect_cancelled_while_asking(const Params &params)
{
  g_autoptr(GCancellable) cancellable = g_cancellable_new();
  capture().set_slow(true);
  auto request = std::async(std::launch::async, [&] {
    g_cancellable_push_current(cancellable);
    const Answer answer(factory_, params);
    g_cancellable_pop_current(cancellable);
    EXPECT_EQ(answer.source, nullptr);
    EXPECT_TRUE(g_error_matches(answer.error, G_IO_ERROR, G_IO_ERROR_CANCELLED));
  });

  EXPECT_TRUE(testhost::spin_until([this] { return capture().calls_size() == 1; }));
  g_cancellable_cancel(cancellable);
  request.get();
  EXPECT_EQ(testhost::take_syslog(), testhost::SyslogLines());
}

void
Fixture::expect_build_failure(const Params &params, const char *text) const
{
  expect_refused(params, source_factory_error_quark(), text);
}

void
Fixture::expect_failures_to_make(const Params &params, const BinNames &names, const BuildTexts &texts) const
{
  const WithoutFactory no_converter(names.converter);
  expect_build_failure(params, texts.no_converter);

  const WithoutFactory no_filter("capsfilter");
  expect_build_failure(params, texts.no_filter);

  const WithoutFactory no_source(names.source);
  expect_build_failure(params, texts.no_source);
}

void
Fixture::expect_failures_to_add(const Params &params, const BinNames &names, const BuildTexts &texts) const
{
  const ReplacedFactory source(names.source, Unusable::HAS_PARENT);
  expect_build_failure(params, texts.source_not_added);

  const ReplacedFactory filter("capsfilter", Unusable::HAS_PARENT);
  expect_build_failure(params, texts.filter_not_added);

  const ReplacedFactory converter(names.converter, Unusable::HAS_PARENT);
  expect_build_failure(params, texts.converter_not_added);
}

void
Fixture::expect_failures_to_link(const Params &params, const BinNames &names, const BuildTexts &texts) const
{
  for (const char *name : {names.source, "capsfilter", names.converter}) {
    const ReplacedFactory replaced(name, Unusable::CANNOT_BE_LINKED);
    expect_build_failure(params, texts.not_linked);
  }
}

void
Fixture::expect_failure_to_add_ghost_pad(const Params &params, const BinNames &names,
                                         const BuildTexts &texts) const
{
  const ReplacedFactory converter(names.converter, Unusable::HAS_NO_SOURCE_PAD);

  expect_build_failure(params, texts.no_ghost_pad);
}

} // namespace testscenes
