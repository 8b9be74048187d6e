/* SPDX-License-Identifier: MIT */
#include "testdbusclient.h"

#include "descriptorreserve.h"
#include "receivercalls.h"
#include "sampleframequeue.h"

#include <array>
#include <atomic>
#include <fcntl.h>

using testhost::spin_until;
using testhost::SyslogLines;
using testhost::Texts;
using testreceiver::Object;

using namespace std::string_literals;

namespace
{

constexpr const char *NO_FD = "Failed to parse fd from variant: the reply holds no such descriptor\n";

const Texts SERVED = {"on_fd front door", "free"};
const Texts NOT_SERVED = {"free"};

gsize
count_done(const std::vector<StreamClient> &clients)
{
  return std::count_if(clients.begin(), clients.end(),
                       [](const StreamClient &client) { return client.is_done(); });
}

/* A pipe whose ends are closed with this object. */
struct Pipe {
  std::array<int, 2> ends = {-1, -1};

  Pipe()
  {
    EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
  }

  ~Pipe()
  {
    close_reader();
    close(ends[1]);
  }

  Pipe(const Pipe &) = delete;
  Pipe &operator=(const Pipe &) = delete;

  void close_reader()
  {
    if (ends[0] >= 0) {
      close(std::exchange(ends[0], -1));
    }
  }
};

struct OddStream {
  const char *body;
  bool with_fd;
};

void
PrintTo(const OddStream &stream, std::ostream *out)
{
  *out << stream.body << (stream.with_fd ? " with a descriptor" : " without one");
}

class OddStreamTest : public DbusClientTest, public testing::WithParamInterface<OddStream>
{
};

testbus::Answer
refuse_as_beyond_limits(std::atomic<unsigned> *left, testbus::Answer otherwise)
{
  return [left, otherwise = std::move(otherwise)](GDBusMessage *call) {
    return (*left)-- > 0 ? g_dbus_message_new_method_error_literal(
                               call, "org.freedesktop.DBus.Error.LimitsExceeded", "No more.")
                         : otherwise(call);
  };
}

} // namespace

TEST_F(DbusClientTest, PassesADescriptorToTheClient)
{
  Pipe pipe;
  start_with_stream(testbus::reply_with_fds("(handle 0,)", {pipe.ends[0]}));
  StreamClient client;

  ASSERT_TRUE(client.connect("Faces", 3));
  EXPECT_EQ(client.calls, Texts());
  client.expect_end(SERVED);
  EXPECT_EQ(client.thread, std::this_thread::get_id());
  pipe.close_reader();
  ASSERT_EQ(write(pipe.ends[1], "x", 1), 1);
  char byte = '\0';
  EXPECT_EQ(read(client.fd, &byte, 1), 1);
  EXPECT_EQ(byte, 'x');
  EXPECT_TRUE((fcntl(client.fd, F_GETFD) & FD_CLOEXEC) != 0);
  expect_listed({"Faces"});
  EXPECT_EQ(receiver_->take_calls(), Texts({"Faces GetSampleFrame ()", "Faces GetStreamFd (3,)"}));
}

TEST_F(DbusClientTest, ClosesUnusedDescriptorsOfAReply)
{
  Pipe wanted;
  Pipe other;
  start_with_stream(testbus::reply_with_fds("(handle 1,)", {other.ends[0], wanted.ends[0]}));
  StreamClient client;

  ASSERT_TRUE(client.connect("Faces"));
  ASSERT_TRUE(spin_until([&client] { return client.is_done(); }));
  wanted.close_reader();
  other.close_reader();
  EXPECT_EQ(write(wanted.ends[1], "x", 1), 1);
  /* The sender closes its copy on another thread. */
  EXPECT_TRUE(spin_until([&other] { return write(other.ends[1], "x", 1) < 0; }));
  expect_listed({"Faces"});
}

/* docs/compatibility.md, "line feed in a line". */
TEST_P(OddStreamTest, GivesNoDescriptor)
{
  const auto [body, with_fd] = GetParam();
  Pipe pipe;
  std::vector<int> fds;
  if (with_fd) {
    fds.push_back(pipe.ends[0]);
  }
  start_with_stream(with_fd ? testbus::reply_with_fds(body, fds) : testbus::reply(body));
  StreamClient client;

  ASSERT_TRUE(client.connect("Faces"));
  client.expect_end(SERVED);
  EXPECT_EQ(client.fd, -1);
  expect_lines({warning(NO_FD)});
}

INSTANTIATE_TEST_SUITE_P(Replies, OddStreamTest,
                         testing::Values(OddStream{"(handle 0,)", false}, OddStream{"(handle 1,)", true},
                                         OddStream{"(handle -1,)", true},
                                         OddStream{"(handle 2147483647,)", true}, OddStream{"()", true},
                                         OddStream{"()", false}, OddStream{"(0,)", true},
                                         OddStream{"('0',)", false}, OddStream{"(handle 0, 'x')", true}));

TEST_F(DbusClientTest, RefusesRequestsForUnlistedProducers)
{
  start();
  receiver_->add("Faces");
  expect_listed({"Faces"});
  receiver_->remove("Faces");
  expect_listed({});
  StreamClient client;

  for (const char *name : {"Faces", "", "Fa/ces", "Fa ces", "F\u00e4ces"}) {
    EXPECT_FALSE(client.connect(name)) << name;
    expect_lines({warning(NOT_FOUND)});
  }
  EXPECT_EQ(receiver_->take_calls(), Texts({"Faces GetSampleFrame ()"}));
  EXPECT_EQ(client.calls, Texts());
}

TEST_F(DbusClientTest, ChecksTheArgumentsOfConnectProducer)
{
  EXPECT_FALSE(
      dbus_client_connect_producer(nullptr, "front door", 1, nullptr, StreamClient::on_fd, nullptr, nullptr));
  EXPECT_FALSE(
      dbus_client_connect_producer("Faces", nullptr, 1, nullptr, StreamClient::on_fd, nullptr, nullptr));
  EXPECT_FALSE(dbus_client_connect_producer("Faces", "front door", 1, nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(testhost::take_failed_preconditions(),
            Texts({"producer_name != NULL", "source_name != NULL", "on_fd != NULL"}));
}

/* Ends of requests. */

TEST_F(DbusClientTest, EndsARequestWhenTheReceiverLeaves)
{
  start_with_stream(receiver_->hold());
  StreamClient client;
  ASSERT_TRUE(client.connect("Faces"));
  wait_until_held(1);

  receiver_->leave();
  client.expect_end(NOT_SERVED);
  const SyslogLines lines = testhost::take_syslog();
  ASSERT_EQ(lines.size(), 1);
  EXPECT_EQ(lines[0].priority, LOG_INFO);
  EXPECT_TRUE(lines[0].text.starts_with("handle_get_stream_fd failed: ")) << lines[0];
  expect_listed({});
  receiver_->come_back();
  receiver_->release_held(testbus::refuse());
  expect_listed({"Faces"});
}

TEST_F(DbusClientTest, EndsARequestWhenTheBusCloses)
{
  start_with_stream(receiver_->hold());
  StreamClient client;
  ASSERT_TRUE(client.connect("Faces"));
  wait_until_held(1);

  bus_.reset();
  client.expect_end(NOT_SERVED);
  EXPECT_EQ(testhost::take_syslog().size(), 1);
}

TEST_F(DbusClientTest, EndsEachRequestWhenTheBusCloses)
{
  constexpr unsigned RACES = 500;
  start_with_stream(testbus::reply("(handle 0,)"));
  std::atomic<unsigned> ended = 0;
  std::atomic<unsigned> refused = 0;
  std::atomic<bool> begun = false;

  std::thread requester([&] {
    for (unsigned i = 0; i < RACES; i++) {
      const gboolean made = dbus_client_connect_producer(
          "Faces", "front door", 1, nullptr, [](gint, const gchar *, gpointer) {}, &ended,
          [](gpointer count) { ++*static_cast<std::atomic<unsigned> *>(count); });
      refused += made ? 0 : 1;
      begun = true;
    }
  });
  ASSERT_TRUE(spin_until([&begun] { return begun.load(); }));
  close_bus();
  ASSERT_TRUE(spin_until([&] { return ended + refused == RACES; }));
  requester.join();
  StreamClient client;
  EXPECT_FALSE(client.connect("Faces"));
  EXPECT_EQ(testhost::take_syslog().size(), RACES + 1);
}

TEST_F(DbusClientTest, CancelsPendingAndWaitingRequests)
{
  start_with_stream(receiver_->hold());
  std::vector<StreamClient> clients(RECEIVER_CALLS_MAX_UNDER_WAY + 3);
  for (StreamClient &client : clients) {
    ASSERT_TRUE(client.connect("Faces"));
  }
  wait_until_held(RECEIVER_CALLS_MAX_UNDER_WAY);

  /* Another thread cancels a pending request, whose place a waiting one takes, and a waiting request. */
  std::thread([&clients] {
    g_cancellable_cancel(clients.front().cancellable);
    g_cancellable_cancel(clients.back().cancellable);
  }).join();
  ASSERT_TRUE(spin_until([&] { return clients.front().is_done() && clients.back().is_done(); }));
  wait_until_held(RECEIVER_CALLS_MAX_UNDER_WAY + 1);
  receiver_->release_held(testbus::reply("(handle 0,)"));
  wait_until_held(1);
  receiver_->release_held(testbus::reply("(handle 0,)"));
  for (unsigned i = 1; i < clients.size() - 1; i++) {
    ASSERT_TRUE(spin_until([&clients, i] { return clients[i].is_done(); }));
    EXPECT_EQ(clients[i].calls, SERVED);
  }
  EXPECT_EQ(clients.front().calls, NOT_SERVED);
  EXPECT_EQ(clients.back().calls, NOT_SERVED);
  EXPECT_EQ(testhost::take_syslog(), SyslogLines(clients.size() - 2, warning(NO_FD)));
}

/* Requests of several threads. */

TEST_F(DbusClientTest, ServesRequestsOfOtherThreads)
{
  constexpr unsigned THREADS = 2;
  constexpr unsigned REQUESTS = 50;
  Pipe pipe;
  start_with_stream(testbus::reply_with_fds("(handle 0,)", {pipe.ends[0]}));
  std::vector<StreamClient> clients(THREADS * REQUESTS);
  std::vector<std::thread> threads;

  for (unsigned thread = 0; thread < THREADS; thread++) {
    threads.emplace_back([&clients, thread] {
      for (unsigned i = 0; i < REQUESTS; i++) {
        EXPECT_TRUE(clients[thread * REQUESTS + i].connect("Faces"));
      }
    });
  }
  for (std::thread &thread : threads) {
    thread.join();
  }
  for (const StreamClient &client : clients) {
    client.expect_end(SERVED);
    EXPECT_EQ(client.thread, std::this_thread::get_id());
    EXPECT_GE(client.fd, 0);
  }
}

TEST_F(DbusClientTest, ReleasesTheUserDataOfEachRequest)
{
  constexpr unsigned RACES = 500;
  constexpr unsigned AT_A_TIME = 50; /* below the limit of the bus */
  Pipe pipe;
  start_with_stream(testbus::reply_with_fds("(handle 0,)", {pipe.ends[0]}));
  std::atomic<unsigned> freed = 0;
  std::atomic<unsigned> requests = 0;

  /* Both threads drop a reference to the user data, in either order. */
  std::thread requester([&] {
    for (unsigned i = 0; i < RACES; i++) {
      while (requests - freed >= AT_A_TIME) {
        g_thread_yield();
      }
      g_autoptr(GCancellable) taker = g_cancellable_new();
      g_object_set_data_full(G_OBJECT(taker), "freed", &freed,
                             [](gpointer count) { ++*static_cast<std::atomic<unsigned> *>(count); });
      requests += dbus_client_connect_producer(
          "Faces", "front door", 1, nullptr, [](gint fd, const gchar *, gpointer) { close(fd); },
          g_object_ref(taker), g_object_unref);
    }
  });
  ASSERT_TRUE(spin_until([&freed] { return freed == RACES; }));
  requester.join();
  EXPECT_EQ(requests, RACES);
}

/* Limits. */

/* The bus allows fewer calls than the clients request streams. */
TEST_F(DbusClientTest, LimitsConcurrentRequests)
{
  constexpr unsigned PRODUCERS = 8;
  constexpr unsigned CLIENTS = 40;
  Pipe pipe;
  const testbus::Answer answer = testbus::reply_with_fds("(handle 0,)", {pipe.ends[0]});
  for (unsigned i = 0; i < PRODUCERS; i++) {
    receiver_->add("P" + std::to_string(i), with_stream("P" + std::to_string(i), receiver_->hold()));
  }
  start();
  ASSERT_TRUE(spin_until([this] { return listed().size() == PRODUCERS; }));
  std::vector<StreamClient> clients(PRODUCERS * CLIENTS);
  for (unsigned i = 0; i < clients.size(); i++) {
    ASSERT_TRUE(clients[i].connect(("P" + std::to_string(i % PRODUCERS)).c_str()));
  }

  for (unsigned done = 0; done < clients.size(); done += RECEIVER_CALLS_MAX_UNDER_WAY) {
    wait_until_held(RECEIVER_CALLS_MAX_UNDER_WAY);
    receive_all_signals();
    EXPECT_EQ(receiver_->held(), RECEIVER_CALLS_MAX_UNDER_WAY);
    EXPECT_EQ(count_done(clients), done);
    receiver_->release_held(answer);
    ASSERT_TRUE(spin_until([&] { return count_done(clients) == done + RECEIVER_CALLS_MAX_UNDER_WAY; }));
  }
  for (const StreamClient &client : clients) {
    EXPECT_EQ(client.calls, SERVED);
    EXPECT_GE(client.fd, 0);
  }
}

TEST_F(DbusClientTest, RepeatsACallThatExceedsALimit)
{
  constexpr unsigned REFUSALS = 3;
  Pipe pipe;
  std::atomic<unsigned> sample_frame_refusals = REFUSALS;
  std::atomic<unsigned> stream_refusals = REFUSALS;
  Object faces = testreceiver::producer("Faces");
  faces.sample_frame = refuse_as_beyond_limits(&sample_frame_refusals, faces.sample_frame);
  faces.stream_fd =
      refuse_as_beyond_limits(&stream_refusals, testbus::reply_with_fds("(handle 0,)", {pipe.ends[0]}));
  start_with("Faces", faces);
  StreamClient client;

  ASSERT_TRUE(client.connect("Faces"));
  client.expect_end(SERVED);
  EXPECT_EQ(receiver_->calls_size(), 2 * (REFUSALS + 1));
}

TEST_F(DbusClientTest, GivesUpWhenALimitStaysExceeded)
{
  std::atomic<unsigned> refusals = G_MAXUINT;
  Object faces = testreceiver::producer("Faces");
  faces.stream_fd = refuse_as_beyond_limits(&refusals, testbus::refuse());
  start_with("Faces", faces);
  receiver_->take_calls();
  StreamClient client;

  ASSERT_TRUE(client.connect("Faces"));
  client.expect_end(NOT_SERVED);
  EXPECT_EQ(receiver_->calls_size(), RECEIVER_CALLS_MAX_TRIES);
  expect_lines({{LOG_INFO, "handle_get_stream_fd failed: GDBus.Error:org.freedesktop.DBus.Error."
                           "LimitsExceeded: No more."}});
}

/* One line in the log tells that requests wait. */
TEST_F(DbusClientTest, ReservesADescriptorForEachStream)
{
  Pipe pipe;
  /* The sample frame is held: the threads of a conversion would close descriptors at any time. */
  Object faces = with_sample_frame("Faces", receiver_->hold());
  faces.stream_fd = testbus::reply_with_fds("(handle 0,)", {pipe.ends[0]});
  receiver_->add("Faces", faces);
  start();
  wait_until_held(1);
  std::vector<StreamClient> clients(3);
  {
    const testhost::FreeDescriptors one(DESCRIPTOR_RESERVE_SIZE + 1);
    for (StreamClient &client : clients) {
      ASSERT_TRUE(client.connect("Faces"));
    }
    expect_lines({warning("streams of external producers wait: too few free file descriptors")});
    ASSERT_TRUE(spin_until([&] { return count_done(clients) == 1; }));
  }
  ASSERT_TRUE(spin_until([&] { return count_done(clients) == 3; }));
  for (const StreamClient &client : clients) {
    EXPECT_EQ(client.calls, SERVED);
    EXPECT_GE(client.fd, 0);
  }
}

TEST_F(DbusClientTest, ListsAndServesAfterAShortageOfDescriptors)
{
  Pipe pipe;
  start();
  expect_listed_after_another({});
  for (rlim_t free = 0; free <= DESCRIPTOR_RESERVE_SIZE + SAMPLE_FRAME_QUEUE_DESCRIPTORS; free++) {
    const std::string name = "P" + std::to_string(free);
    const Object object = with_stream(name, testbus::reply_with_fds("(handle 0,)", {pipe.ends[0]}));
    StreamClient client;
    {
      const testhost::FreeDescriptors few(free);
      receiver_->add(name, object);
      ASSERT_TRUE(spin_until([&] { return client.connect(name.c_str()) != FALSE; }));
    }
    expect_listed({name, "Zebras"});
    client.expect_end(SERVED);
    receiver_->remove(name);
    expect_listed({"Zebras"});
    testhost::take_syslog();
  }
}

/* GDBus drops the descriptors and delivers the rest. */
TEST_F(DbusClientTest, KeepsTheConnectionWhenAReplyFindsNoFreeDescriptor)
{
  Pipe pipe;
  start_with_stream(receiver_->hold());
  StreamClient client;
  ASSERT_TRUE(client.connect("Faces"));
  wait_until_held(1);
  {
    /* The sender's copy of the descriptor stays open until the message is freed. */
    g_autoptr(GDBusMessage) sent = nullptr;
    std::optional<testhost::FreeDescriptors> none;
    receiver_->release_held([&](GDBusMessage *call) {
      sent = testbus::reply_with_fds("(handle 0,)", {pipe.ends[0]})(call);
      none.emplace(0);
      return G_DBUS_MESSAGE(g_object_ref(sent));
    });
    ASSERT_TRUE(spin_until([&client] { return client.is_done(); }));
  }
  expect_lines({warning(NO_FD)});
  EXPECT_EQ(client.calls, SERVED);
  EXPECT_EQ(client.fd, -1);
  expect_listed_after_another({"Faces"});
}
