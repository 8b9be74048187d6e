/* SPDX-License-Identifier: MIT */
/* The element, with a fake of the library's producer that records items and does as it is told. */
#include "producerelement.h"

#include "complaint.h"
#include "tessard.h"
#include "testhost.h"

#include <gst/check/gstharness.h>
#include <gst/video/gstvideometa.h>
#include <optional>

namespace
{

constexpr const char *VIDEO = "video/x-raw,format=GRAY8,width=200,height=100,framerate=30/1";

/* 2024-01-01T00:00:00Z */
constexpr guint64 NEW_YEAR_SECONDS = 1704067200;
constexpr gint64 NEW_YEAR = NEW_YEAR_SECONDS * G_USEC_PER_SEC;

constexpr gint64 STOP_US = TESSARD_PRODUCER_ELEMENT_STOP_MS * G_TIME_SPAN_MILLISECOND;

constexpr const char *SAMPLE =
    R"({"UtcTime":"1970-01-01T00:00:00.000000Z","Objects":[{"Id":1,)"
    R"("BoundingBox":{"Left":-1,"Top":1,"Right":1,"Bottom":-1},"Type":"Human","Likelihood":1}],"Deleted":[0]})";

/* The last producer that was made. */
struct Fake {
  GObject *producer = nullptr;
  std::string name;
  std::optional<std::string> nice_name;
  std::vector<guint32> channels;
  std::string sample;
  std::vector<std::pair<guint32, std::string>> items;
  bool takes_items = true;
  bool ready = true;
  guint64 dropped = 0;
  guint pending = 0;
  guint looks_until_taken = G_MAXUINT; /* at what waits */
  std::optional<gint64> now;           /* the wall clock, if it is not the real one */
};

Fake *fake;

struct TestProducer {
  GObject parent_instance;
};

struct TestProducerClass {
  GObjectClass parent_class;
};

GType test_producer_get_type();
G_DEFINE_TYPE(TestProducer, test_producer, G_TYPE_OBJECT)

void
test_producer_init(TestProducer *self)
{
}

void
test_producer_get_property(GObject *object, guint id, GValue *value, GParamSpec *pspec)
{
}

void
test_producer_class_init(TestProducerClass *klass)
{
  G_OBJECT_CLASS(klass)->get_property = test_producer_get_property;
  g_object_class_install_property(
      G_OBJECT_CLASS(klass), 1,
      g_param_spec_boolean("ready", nullptr, nullptr, FALSE,
                           static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS)));
  for (const char *name : {"interrupted", "failed"}) {
    g_signal_new(name, G_TYPE_FROM_CLASS(klass), G_SIGNAL_RUN_LAST, 0, nullptr, nullptr, nullptr, G_TYPE_NONE,
                 1, G_TYPE_ERROR);
  }
}

} // namespace

/* The library refers to some of them, too. */
#pragma GCC visibility push(default)

extern "C" {

TessardProducer *__wrap_tessard_producer_new(const gchar *name, const gchar *nice_name,
                                             const guint32 *channels, gsize n_channels,
                                             const gchar *sample_frame);
gboolean __wrap_tessard_producer_send(TessardProducer *producer, guint32 channel, TessardItem *item,
                                      GError **error);
guint64 __wrap_tessard_producer_get_dropped(TessardProducer *producer);
guint __wrap_tessard_producer_get_pending(TessardProducer *producer);
gboolean __wrap_tessard_producer_get_ready(TessardProducer *producer);
gint64 __real_g_get_real_time();
gint64 __wrap_g_get_real_time();

TessardProducer *
__wrap_tessard_producer_new(const gchar *name, const gchar *nice_name, const guint32 *channels,
                            gsize n_channels, const gchar *sample_frame)
{
  fake->name = name;
  fake->nice_name = nice_name != nullptr ? std::optional<std::string>(nice_name) : std::nullopt;
  fake->channels.assign(channels, channels + n_channels);
  fake->sample = sample_frame;
  fake->dropped = 0;
  fake->producer = G_OBJECT(g_object_new(test_producer_get_type(), nullptr));
  g_object_add_weak_pointer(fake->producer, reinterpret_cast<gpointer *>(&fake->producer));
  return reinterpret_cast<TessardProducer *>(fake->producer);
}

gboolean
__wrap_tessard_producer_send(TessardProducer *producer, guint32 channel, TessardItem *item, GError **error)
{
  g_autofree gchar *text = tessard_item_to_json(item);
  fake->items.emplace_back(channel, text);
  if (!fake->takes_items) {
    fake->dropped++;
    g_set_error_literal(error, TESSARD_ERROR, TESSARD_ERROR_QUEUE_FULL, "Too much waits.");
  }
  return fake->takes_items;
}

guint64
__wrap_tessard_producer_get_dropped(TessardProducer *producer)
{
  return fake->dropped;
}

guint
__wrap_tessard_producer_get_pending(TessardProducer *producer)
{
  if (fake->looks_until_taken-- == 0) {
    fake->pending = 0;
  }
  return fake->pending;
}

gboolean
__wrap_tessard_producer_get_ready(TessardProducer *producer)
{
  return fake->ready;
}

gint64
__wrap_g_get_real_time()
{
  return fake != nullptr && fake->now.has_value() ? *fake->now : __real_g_get_real_time();
}
}

#pragma GCC visibility pop

namespace
{

/* The item of a frame at this time of the New Year, in milliseconds. */
std::string
item(const std::string &time, const std::string &objects, const std::string &rest = "")
{
  return "{\"UtcTime\":\"2024-01-01T00:00:" + time + "000Z\",\"Objects\":[" + objects + "]" + rest + "}";
}

constexpr const char *CAR =
    R"({"Id":7,"BoundingBox":{"Left":-0.5,"Top":0.6,"Right":0.5,"Bottom":-0.2},"Type":"car"})";

class ProducerElementTest : public testhost::Fixture
{
protected:
  void SetUp() override
  {
    testhost::Fixture::SetUp();
    fake = &fake_;
    element_ = GST_ELEMENT(gst_object_ref_sink(g_object_new(TESSARD_TYPE_PRODUCER_ELEMENT, nullptr)));
    g_object_set(element_, "producer-name", "Mine", nullptr);
    bus_ = gst_bus_new();
    gst_element_set_bus(element_, bus_);
  }

  void TearDown() override
  {
    gst_element_set_bus(element_, nullptr);
    EXPECT_EQ(pop_complaint(), std::nullopt);
    if (harness_ != nullptr) {
      gst_harness_teardown(harness_);
    }
    EXPECT_EQ(gst_element_set_state(element_, GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
    gst_object_unref(element_);
    gst_object_unref(bus_);
    EXPECT_EQ(fake_.producer, nullptr);
    fake = nullptr;
    testhost::Fixture::TearDown();
  }

  /* Begins a stream with these caps, in PLAYING. */
  void play(const char *caps = VIDEO)
  {
    harness_ = gst_harness_new_with_element(element_, "sink", "src");
    gst_element_set_bus(element_, bus_);
    gst_harness_set_src_caps_str(harness_, caps);
  }

  static void add_car(GstBuffer *buffer)
  {
    gst_buffer_add_video_region_of_interest_meta(buffer, "car", 50, 20, 100, 40)->id = 7;
  }

  static void add_reference(GstBuffer *buffer, const char *name, GstClockTime time)
  {
    g_autoptr(GstCaps) caps = gst_caps_new_empty_simple(name);
    gst_buffer_add_reference_timestamp_meta(buffer, caps, time, GST_CLOCK_TIME_NONE);
  }

  /* Passes a frame. */
  void push(GstBuffer *buffer)
  {
    ASSERT_EQ(gst_harness_push(harness_, buffer), GST_FLOW_OK);
    gst_buffer_unref(gst_harness_pull(harness_));
  }

  /* A frame at the running time in milliseconds. */
  static GstBuffer *make_frame(GstClockTime milliseconds)
  {
    GstBuffer *buffer = gst_buffer_new();
    GST_BUFFER_PTS(buffer) = milliseconds * GST_MSECOND;
    return buffer;
  }

  /* A frame with a car that was taken at New Year. */
  static GstBuffer *make_car_frame()
  {
    GstBuffer *buffer = make_frame(0);
    add_car(buffer);
    add_reference(buffer, "timestamp/x-unix", NEW_YEAR_SECONDS * GST_SECOND);
    return buffer;
  }

  std::string pop_item()
  {
    if (fake_.items.empty()) {
      return "none";
    }
    std::string text = fake_.items.front().second;
    fake_.items.erase(fake_.items.begin());
    return text;
  }

  guint64 count(const char *name)
  {
    g_autoptr(GstStructure) stats = nullptr;
    guint64 number = 0;
    g_object_get(element_, "stats", &stats, nullptr);
    EXPECT_TRUE(gst_structure_get_uint64(stats, name, &number)) << name;
    return number;
  }

  std::optional<Complaint> pop_complaint()
  {
    constexpr auto COMPLAINTS =
        static_cast<GstMessageType>(GST_MESSAGE_INFO | GST_MESSAGE_WARNING | GST_MESSAGE_ERROR);
    g_autoptr(GstMessage) message = gst_bus_pop_filtered(bus_, COMPLAINTS);
    if (message == nullptr) {
      return std::nullopt;
    }
    return read_complaint(message);
  }

  void emit(const char *signal)
  {
    g_autoptr(GError) reason = g_error_new(TESSARD_ERROR, TESSARD_ERROR_REFUSED, "Because of %s.", signal);
    g_signal_emit_by_name(fake_.producer, signal, reason);
  }

  void set_wall_clock(gint64 milliseconds_from_new_year)
  {
    fake_.now = NEW_YEAR + milliseconds_from_new_year * 1000;
  }

  Fake fake_;
  GstElement *element_ = nullptr;
  GstBus *bus_ = nullptr;
  GstHarness *harness_ = nullptr;
};

} // namespace

/* The stream */

TEST_F(ProducerElementTest, PassesBuffersUntouched)
{
  play();
  GstBuffer *buffer = gst_buffer_new_allocate(nullptr, 100, nullptr);
  add_car(buffer);
  gst_buffer_ref(buffer);
  gst_harness_push(harness_, buffer);
  g_autoptr(GstBuffer) out = gst_harness_pull(harness_);
  EXPECT_EQ(out, buffer);
  EXPECT_NE(gst_buffer_get_video_region_of_interest_meta_id(out, 7), nullptr);
  gst_buffer_unref(buffer);
}

TEST_F(ProducerElementTest, PassesEncodedVideo)
{
  play("video/x-h264,stream-format=byte-stream,width=200,height=100");
  push(make_car_frame());
  EXPECT_EQ(pop_item(), item("00.000", CAR));
}

TEST_F(ProducerElementTest, PassesTheCapsOn)
{
  play();
  push(make_frame(0));
  g_autoptr(GstCaps) caps = gst_pad_get_current_caps(harness_->sinkpad);
  g_autoptr(GstCaps) expected = gst_caps_from_string(VIDEO);
  EXPECT_TRUE(gst_caps_is_equal(caps, expected));
}

TEST_F(ProducerElementTest, PassesWhatHasNoSizeWithAWarning)
{
  play("audio/x-raw,format=S16LE,rate=8000,channels=1,layout=interleaved");
  EXPECT_EQ(pop_complaint(), (Complaint{GST_MESSAGE_WARNING, GST_STREAM_ERROR, GST_STREAM_ERROR_FORMAT,
                                        "The video has no size, so that its detections have no place."}));
  push(make_car_frame());
  EXPECT_EQ(pop_item(), item("00.000", ""));
  EXPECT_EQ(count("boxes-outside"), 1U);
}

/* The producer */

TEST_F(ProducerElementTest, RegistersAProducer)
{
  play();
  EXPECT_EQ(fake_.name, "Mine");
  EXPECT_EQ(fake_.nice_name, std::nullopt);
  EXPECT_EQ(fake_.channels, std::vector<guint32>{1});
  EXPECT_EQ(fake_.sample, SAMPLE);
}

TEST_F(ProducerElementTest, RegistersTheNamesAndTheChannelOfItsProperties)
{
  g_object_set(element_, "nice-name", "My detector", "channel", 3, nullptr);
  play();
  EXPECT_EQ(fake_.nice_name, "My detector");
  EXPECT_EQ(fake_.channels, std::vector<guint32>{3});
  push(make_frame(0));
  ASSERT_EQ(fake_.items.size(), 1U);
  EXPECT_EQ(fake_.items[0].first, 3U);
}

TEST_F(ProducerElementTest, NeedsAName)
{
  for (const char *name : {static_cast<const char *>(nullptr), ""}) {
    g_object_set(element_, "producer-name", name, nullptr);
    EXPECT_EQ(gst_element_set_state(element_, GST_STATE_PAUSED), GST_STATE_CHANGE_FAILURE);
    EXPECT_EQ(pop_complaint(), (Complaint{GST_MESSAGE_ERROR, GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_SETTINGS,
                                          "\"producer-name\" is not set."}));
    gst_element_set_state(element_, GST_STATE_NULL);
  }
}

TEST_F(ProducerElementTest, IsAProducerWhileItIsPaused)
{
  play();
  EXPECT_NE(fake_.producer, nullptr);
  gst_element_set_state(element_, GST_STATE_READY);
  EXPECT_EQ(fake_.producer, nullptr);
  g_object_set(element_, "producer-name", "Other", nullptr);
  gst_element_set_state(element_, GST_STATE_PLAYING);
  EXPECT_EQ(fake_.name, "Other");
}

TEST_F(ProducerElementTest, TellsWhatTheReceiverRefuses)
{
  play();
  emit("failed");
  EXPECT_EQ(pop_complaint(), (Complaint{GST_MESSAGE_WARNING, GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_SETTINGS,
                                        "Because of failed."}));
}

TEST_F(ProducerElementTest, TellsOnceThatItIsInterrupted)
{
  const Complaint interruption = {GST_MESSAGE_INFO, GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_WRITE,
                                  "Because of interrupted."};
  play();
  for (guint i = 0; i < 2; i++) {
    emit("interrupted");
    EXPECT_EQ(pop_complaint(), interruption);
    emit("interrupted");
    EXPECT_EQ(pop_complaint(), std::nullopt);
    g_object_notify(fake_.producer, "ready");
  }
}

TEST_F(ProducerElementTest, StopsWhenTheLastItemsAreTaken)
{
  play();
  fake_.pending = 1;
  fake_.looks_until_taken = 1;
  gst_element_set_state(element_, GST_STATE_READY);
  EXPECT_EQ(fake_.looks_until_taken, G_MAXUINT);
}

TEST_F(ProducerElementTest, WaitsForAReceiverForAMoment)
{
  play();
  fake_.pending = 1;
  gint64 start = g_get_monotonic_time();
  gst_element_set_state(element_, GST_STATE_READY);
  EXPECT_GE(g_get_monotonic_time() - start, STOP_US);
  EXPECT_EQ(fake_.producer, nullptr);
}

TEST_F(ProducerElementTest, DoesNotWaitWithoutAReceiver)
{
  play();
  fake_.pending = 1;
  fake_.ready = false;
  gst_element_set_state(element_, GST_STATE_READY);
  EXPECT_GT(fake_.looks_until_taken, G_MAXUINT - 5);
}

/* Items */

TEST_F(ProducerElementTest, SendsAnItemForEachFrame)
{
  play();
  push(make_car_frame());
  push(make_car_frame());
  EXPECT_EQ(pop_item(), item("00.000", CAR));
  EXPECT_EQ(pop_item(), item("00.000", CAR));
  EXPECT_EQ(pop_item(), "none");
  EXPECT_EQ(count("sent"), 2U);
  EXPECT_EQ(count("dropped"), 0U);
}

TEST_F(ProducerElementTest, MapsTypes)
{
  g_object_set(element_, "type-map", "car=Vehicle", nullptr);
  play();
  push(make_car_frame());
  EXPECT_NE(pop_item().find("\"Type\":\"Vehicle\""), std::string::npos);
}

TEST_F(ProducerElementTest, WarnsOfAMalformedTypeMap)
{
  g_object_set(element_, "type-map", "person:Human, car=Vehicle", nullptr);
  play();
  EXPECT_EQ(pop_complaint(), (Complaint{GST_MESSAGE_WARNING, GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_SETTINGS,
                                        "\"person:Human\" in \"type-map\" is not WORD=TYPE."}));
  push(make_car_frame());
  EXPECT_NE(pop_item().find("\"Type\":\"Vehicle\""), std::string::npos);
}

TEST_F(ProducerElementTest, IgnoresUnlikelyDetectionsFromTheNextFrameOn)
{
  play();
  for (double least : {0.0, 0.6, 0.4}) {
    g_object_set(element_, "min-likelihood", least, nullptr);
    GstBuffer *buffer = make_frame(0);
    GstVideoRegionOfInterestMeta *region =
        gst_buffer_add_video_region_of_interest_meta(buffer, "car", 50, 20, 100, 40);
    gst_video_region_of_interest_meta_add_param(
        region, gst_structure_new("detection", "confidence", G_TYPE_DOUBLE, 0.5, nullptr));
    push(buffer);
    EXPECT_EQ(pop_item().find("Likelihood") != std::string::npos, least < 0.5) << least;
  }
}

TEST_F(ProducerElementTest, LimitsTheRate)
{
  g_object_set(element_, "max-rate", 10.0, nullptr);
  play();
  for (GstClockTime milliseconds = 0; milliseconds < 1000; milliseconds += 20) {
    push(make_frame(milliseconds));
  }
  EXPECT_EQ(fake_.items.size(), 10U);
}

TEST_F(ProducerElementTest, LimitsTheRateOfFramesWithoutATimestamp)
{
  g_object_set(element_, "max-rate", 0.001, nullptr);
  play();
  for (guint i = 0; i < 10; i++) {
    push(gst_buffer_new());
  }
  EXPECT_EQ(fake_.items.size(), 1U);
}

TEST_F(ProducerElementTest, FollowsBoxesUnlessItIsOff)
{
  gst_util_set_object_arg(G_OBJECT(element_), "tracking", "off");
  play();
  for (const char *expected : {"\"Id\":1000000000,", "\"Id\":1000000001,"}) {
    GstBuffer *buffer = make_frame(0);
    gst_buffer_add_video_region_of_interest_meta(buffer, "car", 50, 20, 100, 40);
    push(buffer);
    EXPECT_NE(pop_item().find(expected), std::string::npos);
  }
}

TEST_F(ProducerElementTest, DeletesAllObjectsAtTheEnd)
{
  play();
  push(make_car_frame());
  pop_item();
  EXPECT_TRUE(gst_harness_push_event(harness_, gst_event_new_eos()));
  EXPECT_EQ(pop_item(), item("00.000", "", ",\"Deleted\":[7]"));
  gst_element_set_state(element_, GST_STATE_NULL);
  EXPECT_EQ(pop_item(), "none");
}

TEST_F(ProducerElementTest, DeletesAllObjectsWhenItStops)
{
  play();
  push(make_car_frame());
  pop_item();
  gst_element_set_state(element_, GST_STATE_READY);
  EXPECT_EQ(pop_item(), item("00.000", "", ",\"Deleted\":[7]"));
}

TEST_F(ProducerElementTest, DropsItemsThatAreNotTaken)
{
  play();
  fake_.takes_items = false;
  push(make_car_frame());
  push(make_car_frame());
  fake_.takes_items = true;
  push(make_car_frame());
  EXPECT_EQ(count("sent"), 1U);
  EXPECT_EQ(count("dropped"), 2U);
}

TEST_F(ProducerElementTest, ItemsThatWaitAreNotSent)
{
  play();
  fake_.pending = 1;
  push(make_car_frame());
  push(make_car_frame());
  EXPECT_EQ(count("sent"), 1U);
  fake_.pending = 0;
  fake_.dropped = 1;
  EXPECT_EQ(count("sent"), 1U);
  EXPECT_EQ(count("dropped"), 1U);
}

TEST_F(ProducerElementTest, CountsOverAllProducers)
{
  play();
  fake_.takes_items = false;
  push(make_frame(0));
  gst_element_set_state(element_, GST_STATE_READY);
  fake_.takes_items = true;
  gst_element_set_state(element_, GST_STATE_PLAYING);
  gst_harness_set_src_caps_str(harness_, VIDEO);
  push(make_frame(0));
  EXPECT_EQ(count("sent"), 1U);
  EXPECT_EQ(count("dropped"), 2U);
}

/* The time of a frame; the clock of the harness is at 0 and moves only when it is told. */

TEST_F(ProducerElementTest, TimeIsTheReferenceOfTheFrame)
{
  set_wall_clock(5000);
  play();
  GstBuffer *buffer = make_frame(0);
  add_reference(buffer, "timestamp/x-ntp", (NEW_YEAR_SECONDS + 2208988800) * GST_SECOND + 250 * GST_MSECOND);
  push(buffer);
  EXPECT_EQ(pop_item(), item("00.250", ""));
}

TEST_F(ProducerElementTest, TimeIsTheRunningTimeAfterTheChangeToPlaying)
{
  set_wall_clock(5000);
  play();
  push(make_frame(0));
  EXPECT_EQ(pop_item(), item("05.000", ""));
  push(make_frame(40));
  EXPECT_EQ(pop_item(), item("05.040", ""));
}

TEST_F(ProducerElementTest, TimeIsThatOfTheFrameEvenWhenItIsLate)
{
  set_wall_clock(5000);
  play();
  ASSERT_TRUE(gst_harness_set_time(harness_, 2 * GST_SECOND));
  push(make_frame(500));
  EXPECT_EQ(pop_item(), item("03.500", ""));
}

TEST_F(ProducerElementTest, TimeFollowsAWallClockThatIsSet)
{
  set_wall_clock(5000);
  play();
  push(make_frame(0));
  pop_item();
  ASSERT_TRUE(gst_harness_set_time(harness_, GST_SECOND));
  set_wall_clock(30000);
  push(make_frame(1000));
  EXPECT_EQ(pop_item(), item("30.000", ""));
}

TEST_F(ProducerElementTest, ClocksAreComparedAgainAfterAPause)
{
  set_wall_clock(5000);
  play();
  push(make_frame(0));
  pop_item();
  gst_element_set_state(element_, GST_STATE_PAUSED);
  set_wall_clock(5600);
  gst_element_set_state(element_, GST_STATE_PLAYING);
  push(make_frame(40));
  EXPECT_EQ(pop_item(), item("05.640", ""));
}

TEST_F(ProducerElementTest, TimeOfAFrameBeforePlayingIsThatOfItsArrival)
{
  set_wall_clock(5000);
  play();
  gst_element_set_state(element_, GST_STATE_PAUSED);
  set_wall_clock(7000);
  push(make_frame(500));
  EXPECT_EQ(pop_item(), item("07.000", ""));
}

TEST_F(ProducerElementTest, TimeOfAFrameWithoutATimestampIsThatOfItsArrival)
{
  play();
  set_wall_clock(7000);
  push(gst_buffer_new());
  EXPECT_EQ(pop_item(), item("07.000", ""));
}

/* Properties */

TEST_F(ProducerElementTest, HasTheDefaultsOfItsDocumentation)
{
  g_autofree gchar *nice_name = nullptr;
  g_autofree gchar *type_map = nullptr;
  guint channel = 0;
  gdouble min_likelihood = 1;
  gdouble max_rate = 1;
  gint tracking = 0;
  g_object_get(element_, "nice-name", &nice_name, "type-map", &type_map, "channel", &channel,
               "min-likelihood", &min_likelihood, "max-rate", &max_rate, "tracking", &tracking, nullptr);
  EXPECT_EQ(nice_name, nullptr);
  EXPECT_EQ(type_map, nullptr);
  EXPECT_EQ(channel, 1U);
  EXPECT_EQ(min_likelihood, 0);
  EXPECT_EQ(max_rate, 0);
  EXPECT_EQ(tracking, 1);
}

TEST_F(ProducerElementTest, KeepsWhatIsSet)
{
  g_autofree gchar *name = nullptr;
  g_autofree gchar *nice_name = nullptr;
  g_autofree gchar *type_map = nullptr;
  g_object_set(element_, "nice-name", "a", "type-map", "b=C", nullptr);
  g_object_get(element_, "producer-name", &name, "nice-name", &nice_name, "type-map", &type_map, nullptr);
  EXPECT_STREQ(name, "Mine");
  EXPECT_STREQ(nice_name, "a");
  EXPECT_STREQ(type_map, "b=C");
}

TEST_F(ProducerElementTest, KnowsNoOtherProperty)
{
  testhost::expect_unknown_property_warnings(element_, "max-rate");
}
