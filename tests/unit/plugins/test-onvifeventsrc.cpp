/* SPDX-License-Identifier: MIT */
/* The element with a fake metadata receiver on a private bus. */
#include "onvifeventsrc.h"

#include "testbus.h"

#include <cstring>
#include <fcntl.h>
#include <gst/check/gstharness.h>
#include <gst/gst.h>
#include <thread>
#include <unistd.h>

G_DEFINE_AUTOPTR_CLEANUP_FUNC(GstHarness, gst_harness_teardown)

namespace
{

constexpr const char *NAME = "com.quon.MetadataReceiver1";
constexpr const char *CURRENT = R"({"Current":true})";
constexpr const char *RESYNC = R"({"Resync":true})";

/* The time within which an element that does not wait for a peer stops. */
constexpr gint64 PROMPTLY_US = 5 * G_TIME_SPAN_SECOND;

/* The time for which the first buffer waits for a receiver that does not reply. */
constexpr gint64 BEGIN_TIMEOUT_US = 2 * G_TIME_SPAN_SECOND;

std::string
alarm(const std::string &operation, const std::string &source, const std::string &state)
{
  return R"({"Topic":"tns1:VideoSource/MotionAlarm","Namespaces":{},"Property":true,"Operation":")" +
         operation + R"(","UtcTime":"2026-01-31T12:00:00.000000Z","Source":[["Source",")" + source +
         R"("]],"Data":[["State",")" + state + R"("]]})";
}

/* The events of a fragment: operation, source and state of each. */
std::string
summary(const std::string &xml)
{
  std::string found;
  const auto value = [&xml](gsize from, const std::string &before) {
    const gsize begin = xml.find(before, from) + before.size();
    return xml.substr(begin, xml.find('"', begin) - begin);
  };
  for (gsize at = xml.find("PropertyOperation"); at != xml.npos; at = xml.find("PropertyOperation", at + 1)) {
    found += value(at, "PropertyOperation=\"") + " " + value(at, "\"Source\" Value=\"") + " " +
             value(at, "\"State\" Value=\"") + "\n";
  }
  return found;
}

/* The receiver's end of a stream of events. */
class Pipe
{
public:
  Pipe()
  {
    EXPECT_EQ(pipe2(fds_, O_CLOEXEC), 0);
  }

  ~Pipe()
  {
    close(fds_[0]);
    close(fds_[1]);
  }

  Pipe(const Pipe &) = delete;
  Pipe &operator=(const Pipe &) = delete;

  int read_end() const
  {
    return fds_[0];
  }

  void write_bytes(const std::string &bytes) const
  {
    EXPECT_EQ(write(fds_[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }

  void send(const std::string &text) const
  {
    auto length = static_cast<guint32>(text.size());
    std::string form(sizeof length, '\0');
    std::memcpy(form.data(), &length, sizeof length);
    write_bytes(form + text);
  }

private:
  int fds_[2] = {-1, -1};
};

class OnvifEventSrcTest : public testbus::Fixture
{
protected:
  void SetUp() override
  {
    testbus::Fixture::SetUp();
    pipe_.emplace();
  }

  void TearDown() override
  {
    harness_.reset();
    receiver_.reset();
    pipe_.reset();
    testbus::Fixture::TearDown();
  }

  void start_receiver()
  {
    receiver_.emplace(NAME, testbus::reply_with_fds("(handle 0,)", {pipe_->read_end()}));
  }

  void play(const char *topic = nullptr, const char *content = nullptr)
  {
    auto *element = static_cast<GstElement *>(
        g_object_new(TESSARD_TYPE_EVENT_SRC, "event-topic", topic, "event-content", content, nullptr));
    gst_object_ref_sink(element);
    harness_.reset(gst_harness_new_with_element(element, nullptr, "src"));
    gst_object_unref(element);
    gst_harness_play(harness_.get());
  }

  std::string pull()
  {
    g_autoptr(GstBuffer) buffer = gst_harness_pull(harness_.get());
    if (buffer == nullptr) {
      ADD_FAILURE() << "no buffer";
      return "";
    }
    GstMapInfo map;
    gst_buffer_map(buffer, &map, GST_MAP_READ);
    std::string text(reinterpret_cast<char *>(map.data), map.size);
    gst_buffer_unmap(buffer, &map);
    return summary(text);
  }

  void sync()
  {
    gst_harness_push_upstream_event(
        harness_.get(), gst_event_new_custom(GST_EVENT_CUSTOM_UPSTREAM,
                                             gst_structure_new_empty("GstMetaDataStreamSetSyncPoint")));
  }

  void expect_prompt_stop()
  {
    const gint64 before = g_get_monotonic_time();
    harness_.reset();
    EXPECT_LT(g_get_monotonic_time() - before, PROMPTLY_US);
  }

  struct Teardown {
    void operator()(GstHarness *harness) const
    {
      gst_harness_teardown(harness);
    }
  };

  std::optional<Pipe> pipe_;
  std::optional<testbus::Service> receiver_;
  std::unique_ptr<GstHarness, Teardown> harness_;
};

TEST_F(OnvifEventSrcTest, BeginsWithTheStates)
{
  pipe_->send(alarm("Initialized", "1", "true"));
  pipe_->send(CURRENT);
  start_receiver();
  play();

  EXPECT_EQ(pull(), "Initialized 1 true\n");
  pipe_->send(alarm("Changed", "1", "false"));
  EXPECT_EQ(pull(), "Changed 1 false\n");
  sync();
  EXPECT_EQ(pull(), "Initialized 1 false\n");
  EXPECT_EQ(
      receiver_->take_calls(),
      testhost::Texts{"/com/quon/MetadataReceiver1 com.quon.MetadataReceiver1.Events.GetEventStream ()"});
}

TEST_F(OnvifEventSrcTest, FiltersApply)
{
  start_receiver();
  pipe_->send(alarm("Initialized", "1", "false"));
  pipe_->send(alarm("Initialized", "2", "true"));
  pipe_->send(CURRENT);
  play("tns1:VideoSource//.", "//tt:SimpleItem[@Value='true']");

  EXPECT_EQ(pull(), "Initialized 2 true\n");
  pipe_->send(alarm("Changed", "2", "false"));
  pipe_->send(alarm("Changed", "1", "true"));
  EXPECT_EQ(pull(), "Changed 1 true\n");
}

TEST_F(OnvifEventSrcTest, WaitsForTheReceiver)
{
  receiver_.emplace("com.quon.Other", testbus::reply_with_fds("(handle 0,)", {pipe_->read_end()}));
  play();
  EXPECT_EQ(pull(), "");

  pipe_->send(alarm("Initialized", "1", "true"));
  pipe_->send(CURRENT);
  receiver_->take_name_again(NAME);
  EXPECT_EQ(pull(), "Initialized 1 true\n");
}

TEST_F(OnvifEventSrcTest, DeletesPropertiesWhenTheReceiverGoes)
{
  pipe_->send(alarm("Initialized", "1", "true"));
  pipe_->send(CURRENT);
  start_receiver();
  play();
  EXPECT_EQ(pull(), "Initialized 1 true\n");

  receiver_.reset();
  EXPECT_EQ(pull(), "Deleted 1 true\n");
}

TEST_F(OnvifEventSrcTest, StatesAfterALossBringTheDifference)
{
  pipe_->send(alarm("Initialized", "1", "true"));
  pipe_->send(CURRENT);
  start_receiver();
  play();
  EXPECT_EQ(pull(), "Initialized 1 true\n");

  pipe_->send(RESYNC);
  pipe_->send(CURRENT);
  EXPECT_EQ(pull(), "Deleted 1 true\n");
}

/* After each of these, the states are deleted. */
TEST_F(OnvifEventSrcTest, AMalformedStreamEnds)
{
  using std::string_literals::operator""s;
  for (const std::string &bytes : {"\x02\0\0\0{}"s, "\xff\xff\xff\xff"s, "\x01\0\0\0\xff"s}) {
    Pipe stream;
    stream.send(alarm("Initialized", "1", "true"));
    stream.send(CURRENT);
    receiver_.emplace(NAME, testbus::reply_with_fds("(handle 0,)", {stream.read_end()}));
    play();
    EXPECT_EQ(pull(), "Initialized 1 true\n");

    stream.write_bytes(bytes);
    EXPECT_EQ(pull(), "Deleted 1 true\n");
    harness_.reset();
    receiver_.reset();
  }
}

TEST_F(OnvifEventSrcTest, AWrongReplyIsNoStream)
{
  const int file = open("/dev/null", O_RDONLY | O_CLOEXEC);
  for (const testbus::Answer &answer :
       {testbus::reply_with_fds("(handle 0,)", {file}), testbus::reply("(handle 0,)"),
        testbus::reply("('text',)"), testbus::reply("(handle 7,)"), testbus::refuse()}) {
    receiver_.emplace(NAME, answer);
    play();
    EXPECT_EQ(pull(), "");
    expect_prompt_stop();
    receiver_.reset();
  }
  close(file);
}

TEST_F(OnvifEventSrcTest, DoesNotWaitForAReply)
{
  start_receiver();
  receiver_->set_slow(true);
  play();
  expect_prompt_stop();

  play();
  EXPECT_EQ(pull(), "");
  expect_prompt_stop();
}

TEST_F(OnvifEventSrcTest, WithoutABusTheSourceIsSilent)
{
  bus_.reset();
  play();

  EXPECT_EQ(pull(), "");
  expect_prompt_stop();
}

TEST_F(OnvifEventSrcTest, StartsAndStopsOften)
{
  pipe_->send(alarm("Initialized", "1", "true"));
  pipe_->send(CURRENT);
  start_receiver();
  for (int i = 0; i < 50; i++) {
    play();
    harness_.reset();
  }
}

/* The bus tells of the owner while the thread that would take it ends. */
TEST_F(OnvifEventSrcTest, ReceiverThatLeavesAtTheEndLeavesNothingBehind)
{
  for (int i = 0; i < 100; i++) {
    receiver_.emplace(NAME, testbus::reply("(handle 0,)"));
    play();
    EXPECT_EQ(pull(), "");
    std::thread leaving([this] { receiver_.reset(); });
    harness_.reset();
    leaving.join();
  }
}

TEST_F(OnvifEventSrcTest, ElementsShareAStream)
{
  pipe_->send(alarm("Initialized", "1", "true"));
  pipe_->send(CURRENT);
  start_receiver();
  play();
  EXPECT_EQ(pull(), "Initialized 1 true\n");
  const std::unique_ptr<GstHarness, Teardown> first = std::move(harness_);
  const gint64 before = g_get_monotonic_time();
  play();

  EXPECT_EQ(pull(), "Initialized 1 true\n");
  EXPECT_LT(g_get_monotonic_time() - before, BEGIN_TIMEOUT_US);
  EXPECT_EQ(receiver_->calls_size(), 1U);
}

TEST_F(OnvifEventSrcTest, PausesAndContinues)
{
  start_receiver();
  pipe_->send(CURRENT);
  play();
  EXPECT_EQ(pull(), "");
  GstElement *element = harness_->element;

  gst_element_set_state(element, GST_STATE_PAUSED);
  gst_element_set_state(element, GST_STATE_PLAYING);
  pipe_->send(alarm("Initialized", "1", "true"));
  EXPECT_EQ(pull(), "Initialized 1 true\n");
}

} // namespace
