/* SPDX-License-Identifier: MIT */
#include "externalsrc.h"

#include "externalsourcesocket.h"
#include "faults.h"
#include "messageaccount.h"
#include "testhost.h"
#include "teststream.h"

#include <atomic>
#include <fcntl.h>
#include <gst/app/gstappsink.h>
#include <memory>
#include <optional>
#include <syslog.h>
#include <thread>
#include <unistd.h>

using testhost::Observed;
using testhost::SyslogLines;
using testhost::Texts;
using teststream::Carrier;
using teststream::Mode;
using teststream::Producer;

namespace
{

constexpr const char *NAME = "tracker";

guint
num_sockets(ExternalSrc *src)
{
  guint count = 0;

  g_object_get(src, "num-sockets", &count, nullptr);
  return count;
}

gint
video_channel(ExternalSrc *src)
{
  gint channel = 0;

  g_object_get(src, "video-channel", &channel, nullptr);
  return channel;
}

bool
is_open(int fd)
{
  return fcntl(fd, F_GETFD) >= 0;
}

std::string
text_of(GstBuffer *buffer)
{
  GstMapInfo map = GST_MAP_INFO_INIT;

  EXPECT_TRUE(gst_buffer_map(buffer, &map, GST_MAP_READ));
  std::string text(reinterpret_cast<const char *>(map.data), map.size);
  gst_buffer_unmap(buffer, &map);
  return text;
}

/* An element and a sink from which a test pulls buffers. */
class Branch
{
public:
  Branch()
      : src(external_src_new()), observed(src), pipeline_(gst_pipeline_new(nullptr)),
        sink_(GST_APP_SINK(gst_element_factory_make("appsink", nullptr)))
  {
    gst_object_ref_sink(pipeline_);
    g_object_set(sink_, "sync", FALSE, "max-buffers", 1, nullptr);
    gst_bin_add_many(GST_BIN(pipeline_), GST_ELEMENT(src), GST_ELEMENT(sink_), nullptr);
    EXPECT_TRUE(gst_element_link(GST_ELEMENT(src), GST_ELEMENT(sink_)));
  }

  ~Branch()
  {
    if (pipeline_ != nullptr) {
      stop();
    }
    drop_pipeline();
    EXPECT_TRUE(testhost::spin_until([this] { return !observed.alive(); }));
  }

  Branch(const Branch &) = delete;
  Branch &operator=(const Branch &) = delete;

  void drop_pipeline()
  {
    g_clear_pointer(&pipeline_, gst_object_unref);
  }

  /* Any thread. */
  void set_state(GstState state) const
  {
    EXPECT_NE(gst_element_set_state(pipeline_, state), GST_STATE_CHANGE_FAILURE);
  }

  void play() const
  {
    set_state(GST_STATE_PLAYING);
  }

  void stop() const
  {
    set_state(GST_STATE_NULL);
  }

  guint64 queued_bytes() const
  {
    return gst_app_src_get_current_level_bytes(GST_APP_SRC(src));
  }

  bool ended() const
  {
    return gst_app_sink_is_eos(sink_);
  }

  /* NULL without a buffer. */
  GstSample *pull() const
  {
    return gst_app_sink_try_pull_sample(sink_, 0);
  }

  GstSample *wait_for_sample() const
  {
    GstSample *sample = nullptr;

    EXPECT_TRUE(testhost::spin_until([&] {
      sample = pull();
      return sample != nullptr;
    }));
    return sample;
  }

  std::string wait_for_text() const
  {
    g_autoptr(GstSample) sample = wait_for_sample();

    return sample != nullptr ? text_of(gst_sample_get_buffer(sample)) : "nothing";
  }

  ExternalSrc *src; /* borrowed from the pipeline */
  Observed observed;

private:
  GstElement *pipeline_;
  GstAppSink *sink_;
};

/* Numbered messages, whose content depends on the number. */
class Numbered
{
public:
  using Size = gsize (*)(gsize number);

  Numbered(gsize number, Size size) : count(number), size_(size)
  {
  }

  std::string payload(gsize number) const
  {
    std::string text = std::to_string(number);

    text.resize(std::max(text.size(), size_(number)), static_cast<char>('a' + number % 26));
    return text;
  }

  std::string frame(gsize number) const
  {
    return teststream::frame(NAME, payload(number));
  }

  /* Sends a message, or the rest of one. FALSE when not all of it fits. */
  bool send_one(const Producer &producer)
  {
    if (!is_cut()) {
      bytes_ = teststream::message(payload(sent));
      offset_ = 0;
    }
    const gsize size = producer.send_some(bytes_.data() + offset_, bytes_.size() - offset_);
    offset_ += size;
    total += size;
    sent += is_cut() ? 0 : 1;
    return !is_cut();
  }

  /* Sends as much as fits. FALSE when all is sent. */
  bool send_some(const Producer &producer)
  {
    while (sent < count) {
      if (!send_one(producer)) {
        return true;
      }
    }
    return false;
  }

  /* Whether a message has been sent in part. */
  bool is_cut() const
  {
    return offset_ < bytes_.size();
  }

  const gsize count;
  gsize sent = 0;
  gsize total = 0;

private:
  Size size_;
  std::string bytes_;
  gsize offset_ = 0;
};

/* Pulls the buffers of a branch until all messages have arrived, in order. */
void
expect_all(const Branch &branch, const Numbered &messages, const std::function<void()> &meanwhile)
{
  gsize number = 0;

  EXPECT_TRUE(testhost::spin_until(
      [&] {
        meanwhile();
        for (GstSample *sample = branch.pull(); sample != nullptr; sample = branch.pull()) {
          EXPECT_TRUE(text_of(gst_sample_get_buffer(sample)) == messages.frame(number)) << number;
          gst_sample_unref(sample);
          number++;
        }
        return number == messages.count || testing::Test::HasFailure();
      },
      60 * G_TIME_SPAN_SECOND))
      << number;
  testhost::dispatch_ready();
  EXPECT_EQ(branch.pull(), nullptr);
}

class ExternalSrcTest : public testhost::Fixture
{
protected:
  void TearDown() override
  {
    Fixture::TearDown();
    EXPECT_EQ(message_account_get_total(), 0U);
  }

  static void add(const Branch &branch, const Producer &producer)
  {
    external_src_add_socket(branch.src, producer.consumer_fd, NAME);
  }
};

/* An element, and a producer with a blocking pipe. */
class ExternalSrcStreamTest : public ExternalSrcTest
{
protected:
  void SetUp() override
  {
    ExternalSrcTest::SetUp();
    branch_.emplace();
    producer_.emplace(Carrier::PIPE, Mode::BLOCKING);
  }

  void TearDown() override
  {
    producer_.reset();
    branch_.reset();
    ExternalSrcTest::TearDown();
  }

  std::optional<Branch> branch_;
  std::optional<Producer> producer_;
};

} // namespace

TEST_F(ExternalSrcTest, HasTwoProperties)
{
  auto *object_class = G_OBJECT_CLASS(g_type_class_ref(external_src_get_type()));
  GParamSpec *sockets = g_object_class_find_property(object_class, "num-sockets");
  GParamSpec *channel = g_object_class_find_property(object_class, "video-channel");

  EXPECT_STREQ(g_type_name(external_src_get_type()), "ExternalSrc");
  EXPECT_EQ(g_type_parent(external_src_get_type()), GST_TYPE_APP_SRC);
  ASSERT_TRUE(G_IS_PARAM_SPEC_UINT(sockets));
  EXPECT_EQ(sockets->owner_type, external_src_get_type());
  EXPECT_STREQ(g_param_spec_get_nick(sockets), "Number of sockets");
  EXPECT_STREQ(g_param_spec_get_blurb(sockets), "Number of sockets to connected producers");
  EXPECT_EQ(sockets->flags, G_PARAM_READABLE | G_PARAM_STATIC_STRINGS);
  EXPECT_EQ(G_PARAM_SPEC_UINT(sockets)->minimum, 0U);
  EXPECT_EQ(G_PARAM_SPEC_UINT(sockets)->maximum, G_MAXUINT);
  EXPECT_EQ(G_PARAM_SPEC_UINT(sockets)->default_value, 0U);
  ASSERT_TRUE(G_IS_PARAM_SPEC_INT(channel));
  EXPECT_EQ(channel->owner_type, external_src_get_type());
  EXPECT_STREQ(g_param_spec_get_nick(channel), "Videochannel");
  EXPECT_STREQ(g_param_spec_get_blurb(channel), "Videochannel to get metadata for");
  EXPECT_EQ(channel->flags, G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS);
  EXPECT_EQ(G_PARAM_SPEC_INT(channel)->minimum, 1);
  EXPECT_EQ(G_PARAM_SPEC_INT(channel)->maximum, G_MAXINT);
  EXPECT_EQ(G_PARAM_SPEC_INT(channel)->default_value, 1);
  EXPECT_LT(sockets->param_id, channel->param_id);
  g_type_class_unref(object_class);
}

TEST_F(ExternalSrcTest, IsMadeFloatingWithoutAFactory)
{
  ExternalSrc *src = external_src_new();

  EXPECT_TRUE(g_object_is_floating(src));
  EXPECT_EQ(gst_element_get_factory(GST_ELEMENT(src)), nullptr);
  EXPECT_EQ(num_sockets(src), 0U);
  EXPECT_EQ(video_channel(src), 1);
  gst_object_unref(gst_object_ref_sink(src));
}

TEST_F(ExternalSrcTest, KeepsTheApplicationSourcesDefaults)
{
  Branch branch;
  g_autoptr(GstElement) app_src =
      GST_ELEMENT(gst_object_ref_sink(gst_element_factory_make("appsrc", nullptr)));
  guint count = 0;
  g_autofree GParamSpec **properties = g_object_class_list_properties(G_OBJECT_GET_CLASS(app_src), &count);

  for (guint i = 0; i < count; i++) {
    const std::string name = properties[i]->name;
    if ((properties[i]->flags & G_PARAM_WRITABLE) == 0 || name == "name" || name == "parent") {
      continue;
    }
    g_auto(GValue) value = G_VALUE_INIT;
    g_auto(GValue) plain = G_VALUE_INIT;
    g_value_init(&value, properties[i]->value_type);
    g_value_init(&plain, properties[i]->value_type);
    g_object_get_property(G_OBJECT(branch.src), name.c_str(), &value);
    g_object_get_property(G_OBJECT(app_src), name.c_str(), &plain);
    EXPECT_EQ(g_param_values_cmp(properties[i], &value, &plain), 0) << name;
  }
}

TEST_F(ExternalSrcTest, AcceptsAVideoChannelFromOneOn)
{
  Branch branch;

  g_object_set(branch.src, "video-channel", G_MAXINT, nullptr);
  EXPECT_EQ(video_channel(branch.src), G_MAXINT);
  g_object_set(branch.src, "video-channel", 0, nullptr);
  EXPECT_EQ(video_channel(branch.src), G_MAXINT);
  const Texts messages = testhost::take_glib_messages();
  ASSERT_EQ(messages.size(), 1U);
  EXPECT_NE(messages[0].find("out of range for property 'video-channel'"), std::string::npos) << messages[0];
}

TEST_F(ExternalSrcTest, StoresEveryValueInTheVideoChannel)
{
  Branch branch;
  auto *object_class = G_OBJECT_CLASS(g_type_class_peek(external_src_get_type()));
  GValue value = G_VALUE_INIT;

  g_value_init(&value, G_TYPE_INT);
  g_value_set_int(&value, 7);
  object_class->set_property(G_OBJECT(branch.src), 99, &value,
                             g_object_class_find_property(object_class, "num-sockets"));
  EXPECT_EQ(video_channel(branch.src), 7);
}

TEST_F(ExternalSrcTest, WarnsOfUnknownProperties)
{
  Branch branch;
  auto *object_class = G_OBJECT_CLASS(g_type_class_peek(external_src_get_type()));
  GValue value = G_VALUE_INIT;

  object_class->get_property(G_OBJECT(branch.src), 99, &value,
                             g_object_class_find_property(object_class, "num-sockets"));
  const Texts messages = testhost::take_glib_messages();
  ASSERT_EQ(messages.size(), 1U);
  EXPECT_TRUE(messages[0].ends_with(
      "invalid property id 99 for \"num-sockets\" of type 'GParamUInt' in 'ExternalSrc'"))
      << messages[0];
}

TEST_F(ExternalSrcStreamTest, ChecksTheArgumentsOfASocket)
{
  external_src_add_socket(nullptr, producer_->consumer_fd, NAME);
  external_src_add_socket(branch_->src, producer_->consumer_fd, nullptr);
  EXPECT_EQ(testhost::take_failed_preconditions(), (Texts{"src != NULL", "source_name != NULL"}));
  EXPECT_EQ(close(producer_->consumer_fd), 0);
}

/* The branch's destructor detects a reference that is left. */
TEST_F(ExternalSrcTest, WarnsOfANegativeDescriptorAndKeepsNoReference)
{
  Branch branch;

  external_src_add_socket(branch.src, -1, NAME);
  EXPECT_EQ(testhost::take_failed_preconditions(), (Texts{"consumer_fd > -1"}));
  EXPECT_EQ(num_sockets(branch.src), 0U);
}

TEST_F(ExternalSrcTest, IgnoresANegativeDescriptorWhileItCloses)
{
  Branch branch;

  branch.set_state(GST_STATE_PAUSED);
  branch.stop();
  external_src_add_socket(branch.src, -1, NAME);
  EXPECT_EQ(num_sockets(branch.src), 0U);
}

TEST_F(ExternalSrcStreamTest, DeliversEachMessageAsOneBufferWithoutTimes)
{
  branch_->play();
  add(*branch_, *producer_);
  /* GStreamer's base class sets the decoding time of the first buffer to 0. */
  producer_->send(teststream::message("first"));
  EXPECT_EQ(branch_->wait_for_text(), teststream::frame(NAME, "first"));

  producer_->send(teststream::message("{}") + teststream::message("{},{}"));
  for (const char *payload : {"{}", "{},{}"}) {
    g_autoptr(GstSample) sample = branch_->wait_for_sample();
    ASSERT_NE(sample, nullptr);
    GstBuffer *buffer = gst_sample_get_buffer(sample);
    EXPECT_EQ(text_of(buffer), teststream::frame(NAME, payload));
    EXPECT_EQ(gst_buffer_n_memory(buffer), 1U);
    EXPECT_FALSE(GST_BUFFER_PTS_IS_VALID(buffer));
    EXPECT_FALSE(GST_BUFFER_DTS_IS_VALID(buffer));
    EXPECT_FALSE(GST_BUFFER_DURATION_IS_VALID(buffer));
    EXPECT_EQ(gst_sample_get_caps(sample), nullptr);
  }
}

TEST_F(ExternalSrcTest, MergesSeveralProducers)
{
  Branch branch;
  Producer one(Carrier::PIPE, Mode::BLOCKING);
  Producer other(Carrier::SOCKET, Mode::NON_BLOCKING);

  branch.play();
  external_src_add_socket(branch.src, one.consumer_fd, "one");
  external_src_add_socket(branch.src, other.consumer_fd, "other");
  one.send(teststream::message("1"));
  EXPECT_EQ(branch.wait_for_text(), teststream::frame("one", "1"));
  other.send(teststream::message("2"));
  EXPECT_EQ(branch.wait_for_text(), teststream::frame("other", "2"));
}

TEST_F(ExternalSrcTest, CountsTheOpenStreams)
{
  Branch branch;
  Producer one(Carrier::PIPE, Mode::BLOCKING);
  Producer other(Carrier::SOCKET, Mode::NON_BLOCKING);

  branch.play();
  add(branch, one);
  EXPECT_EQ(num_sockets(branch.src), 1U);
  add(branch, other);
  EXPECT_EQ(num_sockets(branch.src), 2U);
  one.hang_up();
  EXPECT_TRUE(testhost::spin_until([&] { return num_sockets(branch.src) == 1; }));
  other.send(teststream::message("1"));
  EXPECT_EQ(branch.wait_for_text(), teststream::frame(NAME, "1"));
  EXPECT_EQ(num_sockets(branch.src), 1U);
  other.hang_up();
  EXPECT_TRUE(testhost::spin_until([&] { return num_sockets(branch.src) == 0; }));
}

TEST_F(ExternalSrcTest, ContinuesWithoutProducers)
{
  Branch branch;
  Producer one(Carrier::PIPE, Mode::BLOCKING);
  Producer other(Carrier::PIPE, Mode::BLOCKING);

  branch.play();
  add(branch, one);
  one.hang_up();
  EXPECT_TRUE(testhost::spin_until([&] { return num_sockets(branch.src) == 0; }));
  add(branch, other);
  other.send(teststream::message("1"));
  EXPECT_EQ(branch.wait_for_text(), teststream::frame(NAME, "1"));
  EXPECT_FALSE(branch.ended());
}

TEST_F(ExternalSrcStreamTest, KeepsMessagesFromBeforeTheStart)
{
  add(*branch_, *producer_);
  producer_->send(teststream::message("1"));
  testhost::dispatch_ready();
  branch_->play();
  EXPECT_EQ(branch_->wait_for_text(), teststream::frame(NAME, "1"));
}

TEST_F(ExternalSrcTest, ClosesItsSocketsWhenItStops)
{
  Branch branch;
  Producer one(Carrier::PIPE, Mode::BLOCKING);
  Producer other(Carrier::SOCKET, Mode::NON_BLOCKING);

  branch.play();
  add(branch, one);
  add(branch, other);
  one.send(teststream::message("1"));
  branch.set_state(GST_STATE_PAUSED);
  EXPECT_EQ(num_sockets(branch.src), 2U);
  EXPECT_FALSE(g_cancellable_is_cancelled(external_src_get_cancellable(branch.src)));
  branch.set_state(GST_STATE_READY);
  EXPECT_EQ(num_sockets(branch.src), 0U);
  EXPECT_TRUE(g_cancellable_is_cancelled(external_src_get_cancellable(branch.src)));
  EXPECT_FALSE(is_open(one.consumer_fd));
  EXPECT_FALSE(is_open(other.consumer_fd));
}

TEST_F(ExternalSrcStreamTest, ClosesDescriptorsThatAreAddedAfterItsStop)
{
  branch_->play();
  branch_->set_state(GST_STATE_READY);
  add(*branch_, *producer_);
  EXPECT_FALSE(is_open(producer_->consumer_fd));
  EXPECT_EQ(num_sockets(branch_->src), 0U);
  branch_->play();

  Producer late(Carrier::PIPE, Mode::BLOCKING);
  add(*branch_, late);
  EXPECT_FALSE(is_open(late.consumer_fd));
}

TEST_F(ExternalSrcStreamTest, ClosesNothingAtOtherChangesOfState)
{
  add(*branch_, *producer_);
  branch_->set_state(GST_STATE_READY);
  branch_->set_state(GST_STATE_NULL);
  branch_->play();
  EXPECT_EQ(num_sockets(branch_->src), 1U);
  EXPECT_FALSE(g_cancellable_is_cancelled(external_src_get_cancellable(branch_->src)));
  producer_->send(teststream::message("1"));
  EXPECT_EQ(branch_->wait_for_text(), teststream::frame(NAME, "1"));
}

TEST_F(ExternalSrcTest, ClosesItsSocketsWithAPipelineThatNeverStarted)
{
  Producer producer(Carrier::PIPE, Mode::BLOCKING);
  Producer late(Carrier::PIPE, Mode::BLOCKING);
  Branch branch;
  auto *src = EXTERNAL_SRC(gst_object_ref(branch.src));

  add(branch, producer);
  producer.send(teststream::message("1"));
  branch.drop_pipeline();
  EXPECT_EQ(num_sockets(src), 0U);
  EXPECT_TRUE(g_cancellable_is_cancelled(external_src_get_cancellable(src)));
  EXPECT_FALSE(is_open(producer.consumer_fd));

  external_src_add_socket(src, late.consumer_fd, NAME);
  EXPECT_FALSE(is_open(late.consumer_fd));
  gst_object_unref(src);
}

TEST_F(ExternalSrcTest, LivesUntilItsProducersHangUp)
{
  ExternalSrc *src = external_src_new();
  Observed observed(src);
  Producer producer(Carrier::PIPE, Mode::BLOCKING);

  gst_object_ref_sink(src);
  external_src_add_socket(src, producer.consumer_fd, NAME);
  gst_object_unref(src);
  EXPECT_TRUE(observed.alive());
  producer.hang_up();
  EXPECT_TRUE(testhost::spin_until([&] { return !observed.alive(); }));
}

TEST_F(ExternalSrcStreamTest, IgnoresASocketThatCannotBeSetUp)
{
  faults::fail_next(faults::Call::IO_CHANNEL_SET_ENCODING);
  add(*branch_, *producer_);
  EXPECT_EQ(num_sockets(branch_->src), 0U);
  EXPECT_FALSE(is_open(producer_->consumer_fd));
  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{{LOG_WARNING, "Failed to set encoding on channel: No such encoding"}}));
}

TEST_F(ExternalSrcStreamTest, IgnoresADescriptorThatIsNotAStream)
{
  const int fd = open("/dev/zero", O_RDONLY | O_CLOEXEC);

  branch_->play();
  add(*branch_, *producer_);
  external_src_add_socket(branch_->src, fd, NAME);
  EXPECT_EQ(num_sockets(branch_->src), 1U);
  EXPECT_FALSE(is_open(fd));
  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{{LOG_WARNING, R"(closed the stream of producer "tracker": it is a device)"}}));
  producer_->send(teststream::message("1"));
  EXPECT_EQ(branch_->wait_for_text(), teststream::frame(NAME, "1"));
}

TEST_F(ExternalSrcStreamTest, BoundsTheMessagesOfAClientThatDoesNotRead)
{
  constexpr gsize MESSAGE_SIZE = 100 * 1000;
  Producer other(Carrier::PIPE, Mode::BLOCKING);
  Numbered messages(500, [](gsize) { return MESSAGE_SIZE; });
  const gsize limit = MESSAGE_ACCOUNT_CLIENT_LIMIT + messages.frame(0).size();

  branch_->set_state(GST_STATE_PAUSED);
  add(*branch_, *producer_);
  EXPECT_TRUE(testhost::spin_until([&] {
    messages.send_some(*producer_);
    EXPECT_LE(branch_->queued_bytes(), limit);
    return message_account_get_total() > MESSAGE_ACCOUNT_CLIENT_LIMIT;
  }));

  /* The unfinished message is read to its end, then no other one begins, also none of another producer. */
  add(*branch_, other);
  other.send(teststream::message("unread"));
  for (int i = 0; i < 1000; i++) {
    messages.send_some(*producer_);
    testhost::dispatch_ready();
  }
  EXPECT_LE(branch_->queued_bytes(), limit);
  EXPECT_LT(messages.total, 2 * limit);
  external_src_add_socket(branch_->src, -1, NAME);
  EXPECT_EQ(testhost::take_failed_preconditions(), (Texts{"consumer_fd > -1"}));
  other.hang_up();
  EXPECT_EQ(num_sockets(branch_->src), 2U);
  branch_->stop();
  EXPECT_FALSE(is_open(producer_->consumer_fd));
}

TEST_F(ExternalSrcStreamTest, CountsTheMessagesInItsQueue)
{
  const auto expected = [&] {
    return branch_->queued_bytes() + gst_app_src_get_current_level_buffers(GST_APP_SRC(branch_->src)) *
                                         MESSAGE_ACCOUNT_MESSAGE_OVERHEAD;
  };

  branch_->set_state(GST_STATE_PAUSED);
  add(*branch_, *producer_);
  for (int i = 0; i < 100; i++) {
    producer_->send(teststream::message(std::string(i * 10 + 1, 'x')));
    testhost::dispatch_ready();
  }
  EXPECT_TRUE(testhost::spin_until([&] { return message_account_get_total() == expected(); }));
  EXPECT_GT(message_account_get_total(), 90U * (MESSAGE_ACCOUNT_MESSAGE_OVERHEAD + 1));
  branch_->play();
  for (int i = 0; i < 50; i++) {
    branch_->wait_for_text();
  }
  EXPECT_TRUE(testhost::spin_until([&] { return message_account_get_total() == expected(); }));
  EXPECT_GT(message_account_get_total(), 0U);
  branch_->stop();
  EXPECT_EQ(message_account_get_total(), 0U);
}

TEST_F(ExternalSrcStreamTest, ContinuesAfterAnotherClientThatHoldsTooMuchHasStopped)
{
  /* Each stays within its own limit. */
  constexpr gsize CLIENTS = 2 * MESSAGE_ACCOUNT_TOTAL_LIMIT / MESSAGE_ACCOUNT_CLIENT_LIMIT;
  std::vector<std::unique_ptr<Branch>> stuck;
  std::vector<std::unique_ptr<Producer>> producers;
  const std::string bytes = teststream::message(std::string(60 * 1000, 'x'));

  branch_->play();
  add(*branch_, *producer_);
  for (gsize i = 0; i < CLIENTS; i++) {
    stuck.push_back(std::make_unique<Branch>());
    producers.push_back(std::make_unique<Producer>(Carrier::SOCKET, Mode::BLOCKING));
    stuck.back()->set_state(GST_STATE_PAUSED);
    add(*stuck.back(), *producers.back());
  }
  std::vector<gsize> sent(CLIENTS);
  EXPECT_TRUE(testhost::spin_until([&] {
    for (gsize i = 0; i < CLIENTS; i++) {
      sent[i] =
          (sent[i] + producers[i]->send_some(bytes.data() + sent[i], bytes.size() - sent[i])) % bytes.size();
    }
    return message_account_get_total() > MESSAGE_ACCOUNT_TOTAL_LIMIT;
  }));
  EXPECT_LE(message_account_get_total(), MESSAGE_ACCOUNT_TOTAL_LIMIT + MESSAGE_ACCOUNT_CLIENT_LIMIT);
  producer_->send(teststream::message("1"));
  testhost::dispatch_ready();
  EXPECT_EQ(branch_->pull(), nullptr);

  stuck.back()->stop();
  EXPECT_EQ(branch_->wait_for_text(), teststream::frame(NAME, "1"));
}

TEST_F(ExternalSrcStreamTest, LosesNothingForAClientThatReadsLate)
{
  Numbered messages(500, [](gsize) { return gsize{100 * 1000}; });

  branch_->set_state(GST_STATE_PAUSED);
  add(*branch_, *producer_);
  EXPECT_TRUE(testhost::spin_until([&] {
    messages.send_some(*producer_);
    return message_account_get_total() > MESSAGE_ACCOUNT_CLIENT_LIMIT;
  }));
  branch_->play();
  expect_all(*branch_, messages, [&] {
    messages.send_some(*producer_);
    EXPECT_LE(branch_->queued_bytes(), MESSAGE_ACCOUNT_CLIENT_LIMIT + messages.frame(0).size());
  });
}

TEST_F(ExternalSrcTest, LosesNothingOfANonBlockingStreamForAClientThatReadsInBursts)
{
  constexpr int ROUNDS = 30;
  for (const Carrier carrier : {Carrier::PIPE, Carrier::FIFO, Carrier::SOCKET}) {
    Branch branch;
    Producer producer(carrier, Mode::NON_BLOCKING);
    Numbered messages(G_MAXSIZE, [](gsize number) { return number % 17 * 1900 + 10; });
    gsize received = 0;
    branch.play();
    add(branch, producer);

    for (int round = 0; round < ROUNDS && !HasFailure(); round++) {
      /* While the stream is read, each message fits completely. */
      while (message_account_get_total() <= MESSAGE_ACCOUNT_CLIENT_LIMIT) {
        ASSERT_TRUE(messages.send_one(producer));
        testhost::dispatch_ready();
      }
      /* The stream is paused, and the producer fills it. */
      while (messages.send_one(producer)) {
      }
      EXPECT_TRUE(testhost::spin_until([&] {
        for (GstSample *sample = branch.pull(); sample != nullptr; sample = branch.pull()) {
          EXPECT_TRUE(text_of(gst_sample_get_buffer(sample)) == messages.frame(received)) << received;
          gst_sample_unref(sample);
          received++;
        }
        return received == messages.sent || HasFailure();
      }));
    }
  }
}

TEST_F(ExternalSrcStreamTest, DeliversManyMessagesCompleteAndInOrder)
{
  /* Most are small, one in a hundred is big, up to 200 KB. */
  Numbered messages(10 * 1000,
                    [](gsize number) { return number % 100 == 0 ? number * 20 + 10 : number % 1000 + 10; });

  branch_->play();
  add(*branch_, *producer_);
  std::thread sender([&] {
    while (messages.send_some(*producer_)) {
      g_thread_yield();
    }
  });
  expect_all(*branch_, messages, [] {});
  sender.join();
}

TEST_F(ExternalSrcTest, StopsWhileProducersConnectAndHangUp)
{
  constexpr int ROUNDS = 500;
  const std::string bytes = teststream::message(std::string(1000, 'x'));

  for (int round = 0; round < ROUNDS && !HasFailure(); round++) {
    Branch branch;
    std::vector<std::unique_ptr<Producer>> producers;
    for (int i = 0; i < 3; i++) {
      producers.push_back(std::make_unique<Producer>(i == 0 ? Carrier::SOCKET : Carrier::PIPE,
                                                     i == 1 ? Mode::NON_BLOCKING : Mode::BLOCKING));
    }
    branch.play();
    add(branch, *producers[0]);
    add(branch, *producers[1]);

    std::atomic<bool> over = false;
    std::thread sender([&] {
      for (int i = 0; i < 10 + round % 7; i++) {
        producers[0]->send_some(bytes.data(), bytes.size());
        producers[1]->send_some(bytes.data(), bytes.size());
      }
      producers[0]->hang_up();
    });
    std::thread stopper([&] {
      for (int i = 0; i < round % 16; i++) {
        g_thread_yield();
      }
      branch.stop();
      over = true;
    });
    for (int i = 0; i < round % 20; i++) {
      g_main_context_iteration(nullptr, FALSE);
    }
    add(branch, *producers[2]);
    EXPECT_TRUE(testhost::spin_until([&] { return over.load(); }));
    sender.join();
    stopper.join();
    EXPECT_EQ(num_sockets(branch.src), 0U);
  }
}
