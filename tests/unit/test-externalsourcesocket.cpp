/* SPDX-License-Identifier: MIT */
#include "testexternalsocket.h"

#include <array>
#include <sys/ioctl.h>
#include <thread>

using testhost::SyslogLines;
using testhost::Texts;
using teststream::Carrier;
using teststream::frame;
using teststream::message;
using teststream::Mode;
using teststream::Producer;

using namespace std::string_literals;

namespace
{

constexpr gint64 STALL_US = 2 * G_TIME_SPAN_SECOND;
constexpr int ROUNDS = 300; /* of a race between threads */

class AnyStreamTest : public ExternalSourceSocketTest,
                      public testing::WithParamInterface<std::tuple<Carrier, Mode>>
{
};

} // namespace

/* The object. */

TEST_F(ExternalSourceSocketTest, HasOneReadOnlyProperty)
{
  auto *object_class = G_OBJECT_CLASS(g_type_class_ref(external_source_socket_get_type()));
  guint count = 0;
  g_autofree GParamSpec **properties = g_object_class_list_properties(object_class, &count);
  GParamSpec *name = g_object_class_find_property(object_class, "source-name");

  EXPECT_STREQ(g_type_name(external_source_socket_get_type()), "ExternalSourceSocket");
  ASSERT_EQ(count, 1U);
  ASSERT_TRUE(G_IS_PARAM_SPEC_STRING(name));
  EXPECT_STREQ(g_param_spec_get_nick(name), "Name of source");
  EXPECT_STREQ(g_param_spec_get_blurb(name), "Name of source connected to this socket");
  EXPECT_EQ(name->flags, G_PARAM_READABLE | G_PARAM_STATIC_STRINGS);
  EXPECT_EQ(G_PARAM_SPEC_STRING(name)->default_value, nullptr);
  g_type_class_unref(object_class);
}

TEST_F(ExternalSourceSocketTest, ReturnsItsName)
{
  Stream stream(Carrier::PIPE, Mode::BLOCKING);
  g_autofree gchar *name = nullptr;

  g_object_get(stream.socket, "source-name", &name, nullptr);
  EXPECT_STREQ(name, NAME);
}

TEST_F(ExternalSourceSocketTest, HasNoNameByDefault)
{
  auto *socket = G_OBJECT(g_object_new(external_source_socket_get_type(), nullptr));
  g_auto(GValue) name = G_VALUE_INIT;

  g_value_init(&name, G_TYPE_STRING);
  g_value_set_static_string(&name, "something");
  g_object_get_property(socket, "source-name", &name);
  EXPECT_EQ(g_value_get_string(&name), nullptr);
  g_object_unref(socket);
}

TEST_F(ExternalSourceSocketTest, WarnsAboutUnknownProperties)
{
  g_autoptr(GObject) socket = G_OBJECT(g_object_new(external_source_socket_get_type(), nullptr));

  testhost::expect_unknown_property_warnings(socket, "source-name");
}

TEST_F(ExternalSourceSocketTest, TakesNoOwnershipWhenAnArgumentIsInvalid)
{
  const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
  const auto on_release = [](gpointer) { ADD_FAILURE() << "released"; };

  const auto on_data = Reader::on_data;
  const auto on_close = Reader::on_close;
  const Account client;

  EXPECT_EQ(external_source_socket_new(fd, nullptr, client.account, on_data, on_close, this, on_release),
            nullptr);
  EXPECT_EQ(external_source_socket_new(fd, NAME, nullptr, on_data, on_close, this, on_release), nullptr);
  EXPECT_EQ(external_source_socket_new(fd, NAME, client.account, nullptr, on_close, this, on_release),
            nullptr);
  EXPECT_EQ(external_source_socket_new(fd, NAME, client.account, on_data, nullptr, this, on_release),
            nullptr);
  EXPECT_EQ(testhost::take_failed_preconditions(),
            (Texts{"source_name != NULL", "account != NULL", "on_data != NULL", "on_close != NULL"}));
  EXPECT_EQ(close(fd), 0);
}

TEST_F(ExternalSourceSocketTest, ReleasesTheUserDataOfANegativeDescriptor)
{
  for (const int fd : {-1, G_MININT}) {
    const Account client;
    int released = 0;

    EXPECT_EQ(external_source_socket_new(fd, NAME, client.account, Reader::on_data, Reader::on_close,
                                         &released, [](gpointer count) { ++*static_cast<int *>(count); }),
              nullptr);
    EXPECT_EQ(released, 1);
    EXPECT_EQ(external_source_socket_new(fd, NAME, client.account, Reader::on_data, Reader::on_close, nullptr,
                                         nullptr),
              nullptr);
    EXPECT_EQ(testhost::take_failed_preconditions(), (Texts{"consumer_fd > -1", "consumer_fd > -1"}));
  }
}

TEST_F(ExternalSourceSocketTest, RefusesToCloseNull)
{
  external_source_socket_close(nullptr, TRUE);
  EXPECT_EQ(testhost::take_failed_preconditions(), (Texts{"self != NULL"}));
}

TEST_F(ExternalSourceSocketTest, NeedsNoReleaseFunction)
{
  const Account client;
  Producer producer(Carrier::PIPE, Mode::BLOCKING);
  auto *socket = external_source_socket_new(
      producer.consumer_fd, NAME, client.account, [](auto *, guint8 *, gsize, gpointer) {},
      [](auto *, gpointer) {}, nullptr, nullptr);
  testhost::Observed observed(socket);

  external_source_socket_close(socket, FALSE);
  g_object_unref(socket);
  EXPECT_FALSE(observed.alive());
}

/* Messages. */

INSTANTIATE_TEST_SUITE_P(Streams, AnyStreamTest,
                         testing::Combine(testing::Values(Carrier::PIPE, Carrier::FIFO, Carrier::SOCKET),
                                          testing::Values(Mode::BLOCKING, Mode::NON_BLOCKING)),
                         [](const auto &stream) {
                           return carrier_name(std::get<0>(stream.param)) +
                                  (std::get<1>(stream.param) == Mode::BLOCKING ? "Blocking" : "NonBlocking");
                         });

TEST_P(AnyStreamTest, DeliversAMessageAsOneFrameWithoutTerminator)
{
  Stream stream(GetParam());

  stream.send(message(R"({"Id":1},{"Id":2})"));
  EXPECT_EQ(stream.take_events(), (Texts{R"({"Source":"camera 1","Data":{"Item":[{"Id":1},{"Id":2}]}})"}));
}

TEST_P(AnyStreamTest, DeliversThePayloadUnchanged)
{
  Stream stream(GetParam());
  const std::string payload = "\0\xff]}}%s\n"s;

  stream.send(message(payload));
  EXPECT_EQ(stream.take_events(), frames({payload}));
}

TEST_P(AnyStreamTest, DoesNotEscapeTheName)
{
  const std::string name = R"(a"b\%s%n)" + std::string(100 * 1000, 'x');
  Stream stream(GetParam(), name.c_str());

  stream.send(message("1"));
  EXPECT_EQ(stream.take_events(), (Texts{frame(name, "1")}));
}

TEST_P(AnyStreamTest, SkipsAMessageWithoutPayload)
{
  Stream stream(GetParam());

  stream.send(message(""));
  EXPECT_EQ(stream.take_events(), NOTHING);
  stream.send(message("") + message("1") + message(""));
  EXPECT_EQ(stream.take_events(), frames({"1"}));
}

TEST_P(AnyStreamTest, ReadsSeveralMessagesInAnIteration)
{
  const faults::Rests clock([](gint64) {});
  Stream stream(GetParam());
  Texts payloads;

  for (int i = 0; i < 2 * EXTERNAL_SOURCE_TURN_MESSAGES + 1; i++) {
    payloads.push_back(std::to_string(i));
    stream.send(message(payloads.back()));
  }
  g_main_context_iteration(nullptr, FALSE);
  EXPECT_EQ(stream.events.size(), EXTERNAL_SOURCE_TURN_MESSAGES);
  g_main_context_iteration(nullptr, FALSE);
  EXPECT_EQ(stream.events.size(), 2 * EXTERNAL_SOURCE_TURN_MESSAGES);
  EXPECT_EQ(stream.take_events(), frames(payloads));
}

TEST_P(AnyStreamTest, ReadsALargeMessageInFewReads)
{
  Stream stream(GetParam());
  const std::string payload(100 * 1000, 'x');
  fcntl(stream.consumer_fd, F_SETPIPE_SZ, 1024 * 1024);
  stream.send(message(payload));

  const unsigned before = faults::read_call_count();
  g_main_context_iteration(nullptr, FALSE);
  EXPECT_GT(faults::read_call_count() - before, 0U);
  EXPECT_LT(faults::read_call_count() - before, 16U);
  EXPECT_EQ(stream.take_events(), frames({payload}));
}

TEST_P(AnyStreamTest, EndsAtALengthOverTheLimit)
{
  for (const guint32 length : {EXTERNAL_SOURCE_MAX_PAYLOAD + 1U, G_MAXUINT32}) {
    Stream stream(GetParam());

    stream.send(length_only(length) + "payload");
    EXPECT_EQ(stream.take_events(), ENDED);
    EXPECT_EQ(testhost::take_syslog(), failure("data", "Message too long"));
  }
}

TEST_P(AnyStreamTest, AcceptsALengthAtTheLimit)
{
  Stream stream(GetParam());

  stream.send(length_only(EXTERNAL_SOURCE_MAX_PAYLOAD) + "payload");
  EXPECT_EQ(stream.take_events(), NOTHING);
}

TEST_P(AnyStreamTest, EndsWithoutMemoryForTheFrame)
{
  Stream stream(GetParam());

  faults::fail_next(faults::Call::TRY_MALLOC);
  stream.send(message("1"));
  EXPECT_EQ(stream.take_events(), ENDED);
  EXPECT_EQ(testhost::take_syslog(), failure("data", "Cannot allocate memory"));
}

/* The end of a stream. */

TEST_P(AnyStreamTest, ClosesOnceWhenTheProducerHangsUp)
{
  Stream stream(GetParam());

  stream.hang_up();
  EXPECT_EQ(stream.take_events(), ENDED);
  EXPECT_LT(fcntl(stream.consumer_fd, F_GETFD), 0);
  external_source_socket_close(stream.socket, TRUE);
  EXPECT_EQ(stream.take_events(), NOTHING);
}

TEST_P(AnyStreamTest, DeliversTheMessagesBeforeAHangUp)
{
  Stream stream(GetParam());

  stream.send(message("1") + message("2") + message("3"));
  stream.hang_up();
  EXPECT_EQ(stream.take_events(), frames({"1", "2", "3"}, ENDED));
}

TEST_P(AnyStreamTest, DropsAnIncompleteLengthAtAHangUp)
{
  for (gsize size = 1; size < sizeof(guint32); size++) {
    Stream stream(GetParam());

    stream.send(message("1").substr(0, size));
    stream.hang_up();
    EXPECT_EQ(stream.take_events(), ENDED) << size;
  }
}

TEST_P(AnyStreamTest, DropsAnIncompletePayloadAtAHangUp)
{
  Stream stream(GetParam());

  stream.send(message("12") + message("34").substr(0, 5));
  stream.hang_up();
  EXPECT_EQ(stream.take_events(), frames({"12"}, ENDED));
}

TEST_P(AnyStreamTest, ClosesWithoutNotification)
{
  Stream stream(GetParam());

  stream.send(message("1"));
  external_source_socket_close(stream.socket, FALSE);
  EXPECT_EQ(stream.events, (Texts{"released"}));
  EXPECT_LT(fcntl(stream.consumer_fd, F_GETFD), 0);
  EXPECT_EQ(stream.take_events(), (Texts{"released"}));
}

TEST_P(AnyStreamTest, ClosesWithNotification)
{
  Stream stream(GetParam());

  external_source_socket_close(stream.socket, TRUE);
  EXPECT_EQ(stream.take_events(), ENDED);
}

TEST_P(AnyStreamTest, CanBeClosedDuringADelivery)
{
  Stream stream(GetParam());

  stream.during_data = [&] {
    external_source_socket_close(stream.socket, FALSE);
    EXPECT_FALSE(stream.released);
  };
  stream.send(message("1") + message("2"));
  EXPECT_EQ(stream.take_events(), frames({"1"}, {"released"}));
}

TEST_P(AnyStreamTest, OutlivesTheCallersReference)
{
  Stream stream(GetParam());
  ExternalSourceSocket *socket = stream.socket;

  g_object_unref(socket);
  stream.send(message("1"));
  EXPECT_EQ(stream.take_events(), frames({"1"}));
  EXPECT_TRUE(stream.observed.alive());
  stream.hang_up();
  EXPECT_EQ(stream.take_events(), ENDED);
  EXPECT_FALSE(stream.observed.alive());
  stream.socket = nullptr;
}

TEST_F(ExternalSourceSocketTest, EndsWhenAPayloadCannotBeRead)
{
  for (const Mode mode : {Mode::BLOCKING, Mode::NON_BLOCKING}) {
    Stream stream(Carrier::SOCKET, mode);

    /* A peer that closes with unread data resets the connection. */
    EXPECT_EQ(write(stream.consumer_fd, "unread", 6), 6);
    stream.send(length_only(1));
    stream.hang_up();
    EXPECT_EQ(stream.take_events(), ENDED);
    EXPECT_EQ(testhost::take_syslog(), failure("data", "Connection reset by peer"));
  }
}

/* The descriptor. */

TEST_P(AnyStreamTest, ClosesADescriptorThatItCannotSetUpOrWatch)
{
  for (const auto &[call, text] :
       {std::pair(faults::Call::IO_CHANNEL_SET_ENCODING,
                  "Failed to set encoding on channel: No such encoding"),
        std::pair(faults::Call::IO_ADD_WATCH, "Failed to add gio watch of externalsourcesocket fd")}) {
    faults::fail_next(call);
    const Stream stream(GetParam());

    EXPECT_EQ(stream.socket, nullptr);
    EXPECT_EQ(stream.events, (Texts{"released"}));
    EXPECT_LT(fcntl(stream.consumer_fd, F_GETFD), 0);
    EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_WARNING, text}}));
  }
}

TEST_P(AnyStreamTest, NeverBlocksWhenTheModeOfTheDescriptorChanges)
{
  Producer producer(std::get<0>(GetParam()), std::get<1>(GetParam()));
  const int shared_fd = fcntl(producer.consumer_fd, F_DUPFD_CLOEXEC, 0);
  Reader reader(producer.consumer_fd);
  testhost::LatencyMeter latency;

  for (const gsize size : {1, 5, 2}) {
    fcntl(shared_fd, F_SETFL, 0);
    producer.send(message("12").substr(0, size));
    EXPECT_EQ(reader.take_events(), NOTHING);
  }
  EXPECT_LT(latency.longest_us(), STALL_US);
  close(shared_fd);
}

TEST_P(AnyStreamTest, KeepsTheFlagsOfTheOpenFile)
{
  Producer producer(std::get<0>(GetParam()), std::get<1>(GetParam()));
  const int shared_fd = fcntl(producer.consumer_fd, F_DUPFD_CLOEXEC, 0);
  const int flags = fcntl(shared_fd, F_GETFL);
  {
    Reader reader(producer.consumer_fd);

    producer.send(message("1") + message("2").substr(0, 4));
    EXPECT_EQ(reader.take_events(), frames({"1"}));
    EXPECT_EQ(fcntl(shared_fd, F_GETFL), flags);
  }
  EXPECT_EQ(fcntl(shared_fd, F_GETFL), flags);
  close(shared_fd);
}

TEST_P(AnyStreamTest, DoesNotBlockWhenAnotherSocketReadsTheData)
{
  constexpr gsize COUNT = 100;
  Producer producer(std::get<0>(GetParam()), std::get<1>(GetParam()));
  Reader one(producer.consumer_fd);
  Reader other(fcntl(producer.consumer_fd, F_DUPFD_CLOEXEC, 0));

  /* Both watches are ready at once. The second one finds no data. */
  for (gsize i = 0; i < COUNT; i++) {
    producer.send(message("1"));
    testhost::dispatch_ready();
  }
  EXPECT_EQ(one.events.size() + other.events.size(), COUNT);
}

/* Pauses. */

TEST_P(AnyStreamTest, ReadsNothingWhilePaused)
{
  Stream stream(GetParam());

  stream.client.pause();
  stream.send(message("1"));
  stream.hang_up();
  EXPECT_EQ(stream.take_events(), NOTHING);
  stream.client.resume();
  EXPECT_EQ(stream.take_events(), frames({"1"}, ENDED));
}

TEST_P(AnyStreamTest, DeliversBufferedMessagesAfterAPause)
{
  Stream stream(GetParam());

  stream.during_data = [&] { stream.client.pause(); };
  stream.send(message("1") + message("2"));
  EXPECT_EQ(stream.take_events(), frames({"1"}));

  /* Another thread resumes. The descriptor has no data left that would wake the main loop. */
  std::thread thread([&] { stream.client.resume(); });
  EXPECT_TRUE(testhost::spin_until([&] { return !stream.events.empty(); }));
  thread.join();
  EXPECT_EQ(stream.take_events(), frames({"2"}));
}

TEST_P(AnyStreamTest, WakesTheMainLoopForBufferedMessagesAfterAPause)
{
  static const Account *paused;
  static std::vector<bool> waits;
  Stream stream(GetParam());
  GPollFunc poll_func = g_main_context_get_poll_func(nullptr);

  stream.during_data = [&] { stream.client.pause(); };
  stream.send(message("1") + message("2"));
  EXPECT_EQ(stream.take_events(), frames({"1"}));

  paused = &stream.client;
  waits.clear();
  g_main_context_set_poll_func(nullptr, [](GPollFD *fds, guint count, gint timeout) {
    waits.push_back(timeout != 0);
    if (paused != nullptr) {
      std::thread thread([] { std::exchange(paused, nullptr)->resume(); });
      thread.join();
    }
    return g_poll(fds, count, 0);
  });
  g_main_context_iteration(nullptr, TRUE);
  g_main_context_iteration(nullptr, TRUE);
  g_main_context_set_poll_func(nullptr, poll_func);

  /* In the second iteration nothing would end a wait. */
  EXPECT_EQ(waits, (std::vector<bool>{true, false}));
  EXPECT_EQ(stream.take_events(), frames({"2"}));
}

TEST_P(AnyStreamTest, DoesNotWakeTheMainLoopWhilePaused)
{
  Stream stream(GetParam());

  stream.during_data = [&] { stream.client.pause(); };
  stream.send(message("1") + message("2"));
  EXPECT_EQ(stream.take_events(), frames({"1"}));
  stream.send(message("3"));
  stream.hang_up();

  EXPECT_LE(count_polls(), 3U);
  EXPECT_EQ(stream.take_events(), NOTHING);
}

TEST_P(AnyStreamTest, ClosesWhilePaused)
{
  Stream stream(GetParam());

  stream.client.pause();
  stream.send(message("1"));
  EXPECT_EQ(stream.take_events(), NOTHING);
  external_source_socket_close(stream.socket, FALSE);
  EXPECT_EQ(stream.events, (Texts{"released"}));
  EXPECT_LT(fcntl(stream.consumer_fd, F_GETFD), 0);
  stream.client.resume();
  EXPECT_EQ(stream.take_events(), (Texts{"released"}));
}

/* Threads. */

/* The producer sends without pause. A pipe gets the number of the closed descriptor at once, and nothing may
 * read its bytes. */
TEST_F(ExternalSourceSocketTest, CanBeClosedByAnotherThreadAtAnyTime)
{
  const std::string payload(1000, 'x');
  const std::string bytes = message(payload);
  for (int round = 0; round < ROUNDS; round++) {
    Stream stream(Carrier::PIPE, Mode::BLOCKING);
    std::atomic<unsigned> delivered = 0;
    std::atomic<bool> over = false;
    std::array<int, 2> reused = {-1, -1};
    int unread = 0;
    stream.during_data = [&] { delivered++; };

    std::thread sender([&] {
      for (gsize sent = 0; !over;) {
        sent = (sent + stream.send_some(bytes.data() + sent, bytes.size() - sent)) % bytes.size();
      }
    });
    std::thread closer([&] {
      /* Every second round closes the socket before the first frame. */
      while (delivered < static_cast<unsigned>(round % 2) * (round % 16)) {
        g_thread_yield();
      }
      if (round % 3 == 0) {
        stream.client.pause();
      }
      external_source_socket_close(stream.socket, FALSE);
      EXPECT_EQ(pipe2(reused.data(), O_CLOEXEC), 0);
      EXPECT_EQ(write(reused[1], "untouched", 9), 9);
      over = true;
    });
    EXPECT_TRUE(testhost::spin_until([&] { return stream.released && over; }));
    sender.join();
    closer.join();
    const Texts events = stream.take_events();
    EXPECT_EQ(events, frames(Texts(events.size() - 1, payload), {"released"}));
    EXPECT_EQ(ioctl(reused[0], FIONREAD, &unread), 0);
    EXPECT_EQ(unread, 9);
    close(reused[0]);
    close(reused[1]);
  }
}

/* No piece is dropped, in whichever state of the main thread another thread ends the pause. */
TEST_F(ExternalSourceSocketTest, CanBeResumedByAnotherThreadAtAnyTime)
{
  constexpr gsize COUNT = 2000;
  const std::string bytes = message("0123456789");
  Stream stream(Carrier::PIPE, Mode::NON_BLOCKING);
  std::atomic<gsize> received = 0;
  std::atomic<gsize> turns = 0;
  std::atomic<bool> over = false;
  const auto count_turn = [](gpointer user_data) -> gboolean {
    ++*static_cast<std::atomic<gsize> *>(user_data);
    return G_SOURCE_CONTINUE;
  };
  stream.during_data = [&] {
    if (received % 2 == 0) {
      stream.client.pause();
    }
    received++;
  };
  const guint turning = g_idle_add_full(G_PRIORITY_DEFAULT, count_turn, &turns, nullptr);
  const auto wait_for = [&over](const std::atomic<gsize> &counter, gsize count) {
    while (counter < count && !over) {
      g_thread_yield();
    }
  };

  std::thread resumer([&] {
    for (gsize i = 0; i < COUNT && !over; i++) {
      stream.send(bytes);
      wait_for(received, 2 * i + 1);
      stream.send(bytes.substr(0, 7));
      /* Then the socket has been paused. */
      wait_for(turns, turns + 2);
      for (gsize waited = 0; waited < i % 997; waited++) {
      }
      stream.client.resume();
      stream.send(bytes.substr(7));
      wait_for(received, 2 * i + 2);
    }
  });
  /* Each part has its own time limit, because the threads wait for each other in every round. */
  constexpr gsize PARTS = 10;
  bool complete = true;
  for (gsize part = 1; part <= PARTS && complete; part++) {
    complete = testhost::spin_until([&] { return received >= 2 * COUNT / PARTS * part; });
  }
  EXPECT_TRUE(complete) << received;
  over = true;
  resumer.join();
  g_source_remove(turning);
}

TEST_F(ExternalSourceSocketTest, IsClosedOnceByManyThreads)
{
  const std::string bytes = message("1");

  for (int round = 0; round < ROUNDS; round++) {
    Stream stream(Carrier::SOCKET, Mode::NON_BLOCKING);
    std::thread one([&] { external_source_socket_close(stream.socket, FALSE); });
    std::thread other([&] { round % 2 != 0 ? stream.client.pause() : stream.client.resume(); });

    stream.send_some(bytes.data(), bytes.size());
    stream.hang_up();
    testhost::dispatch_ready();
    one.join();
    other.join();
    EXPECT_TRUE(testhost::spin_until([&] { return stream.released.load(); }));
    EXPECT_EQ(stream.events.back(), "released");
    EXPECT_LE(std::count(stream.events.begin(), stream.events.end(), "closed"), 1);
  }
}
