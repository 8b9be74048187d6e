/* SPDX-License-Identifier: MIT */
#include "testexternalsocket.h"

#include <algorithm>
#include <array>
#include <sys/socket.h>

using testhost::SyslogLines;
using testhost::Texts;
using teststream::Carrier;
using teststream::frame;
using teststream::message;
using teststream::Mode;
using teststream::Producer;

namespace
{

constexpr gint64 STALL_US = 2 * G_TIME_SPAN_SECOND;
constexpr gsize MIB = 1024 * 1024;
constexpr off_t READ_AHEAD = 16 * 1024 + sizeof(guint32);

const SyslogLines NO_MEMORY = failure("data", "Cannot allocate memory");

/* Sends a length and none of its payload. */
void
begin_message(const Producer &producer, gsize length)
{
  producer.send(length_only(length));
  testhost::dispatch_ready();
}

int
open_file_with(const std::string &bytes, int flags)
{
  const int written = open_empty_file();

  EXPECT_EQ(write(written, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  const int fd = teststream::reopen(written, O_RDONLY | flags);
  close(written);
  return fd;
}

int
open_file_with_message(const std::string &payload, int flags)
{
  return open_file_with(message(payload), flags);
}

std::string
numbers(gsize size)
{
  std::string text;

  for (int number = 0; text.size() < size; number++) {
    text += std::to_string(number) + ",";
  }
  return text.substr(0, size);
}

std::vector<std::unique_ptr<Stream>>
idle_streams(gsize count)
{
  std::vector<std::unique_ptr<Stream>> streams;

  for (gsize i = 0; i < count; i++) {
    streams.push_back(std::make_unique<Stream>(Carrier::PIPE, Mode::BLOCKING));
  }
  return streams;
}

} // namespace

/* Time. */

TEST_F(ExternalSourceSocketTest, EndsMessagesThatTakeTooLong)
{
  constexpr gint64 LIMIT_US = G_TIME_SPAN_MILLISECOND * EXTERNAL_SOURCE_MESSAGE_TIMEOUT_MS;
  constexpr guint DRIP_MS = 50;
  const std::string long_message = message(std::string(MIB, 'x'));
  Stream silent_length(Carrier::PIPE, Mode::BLOCKING);
  Stream silent_data(Carrier::SOCKET, Mode::BLOCKING);
  Stream dripping(Carrier::PIPE, Mode::BLOCKING);
  Stream paused(Carrier::PIPE, Mode::NON_BLOCKING);
  Stream between(Carrier::PIPE, Mode::BLOCKING);
  Stream later(Carrier::PIPE, Mode::BLOCKING);

  const gint64 begun_us = g_get_monotonic_time();
  silent_length.send(long_message.substr(0, 1));
  silent_data.send(long_message.substr(0, 1000));
  dripping.send(long_message.substr(0, 1000));
  paused.send_in_a_pause(long_message.substr(0, 1000));
  between.send(message("1"));
  later.send(message("1").substr(0, 2));
  const auto drip = [](gpointer user_data) -> gboolean {
    const char byte = 'x';
    static_cast<Stream *>(user_data)->send_some(&byte, 1);
    return G_SOURCE_CONTINUE;
  };
  const guint dripping_id = g_timeout_add(DRIP_MS, drip, &dripping);
  const auto begin_next = [](gpointer user_data) {
    static_cast<Stream *>(user_data)->send(message("1").substr(2) + message("2").substr(0, 2));
  };
  g_timeout_add_once(4 * DRIP_MS, begin_next, &later);

  EXPECT_TRUE(testhost::spin_until([&] {
    return silent_length.released || silent_data.released || dripping.released || paused.released;
  }));
  EXPECT_GE(g_get_monotonic_time(), begun_us + LIMIT_US);
  EXPECT_TRUE(testhost::spin_until([&] {
    return silent_length.released && silent_data.released && dripping.released && paused.released &&
           later.released;
  }));
  EXPECT_LT(g_get_monotonic_time(), begun_us + 2 * LIMIT_US);
  g_source_remove(dripping_id);

  for (Stream *stream : {&silent_length, &silent_data, &dripping, &paused}) {
    EXPECT_EQ(stream->take_events(), ENDED);
  }
  EXPECT_EQ(between.take_events(), frames({"1"}));
  EXPECT_EQ(later.take_events(), frames({"1"}, ENDED));
  SyslogLines lines = testhost::take_syslog();
  std::ranges::sort(lines, {}, &testhost::SyslogLine::text);
  const SyslogLines data = failure("data", "Connection timed out");
  const SyslogLines length = failure("length", "Connection timed out");
  EXPECT_EQ(lines, (SyslogLines{data[0], data[0], data[0], length[0], length[0]}));
}

TEST_F(ExternalSourceSocketTest, RestartsTheTimeLimitForEachMessage)
{
  const std::string bytes = message("0123456789");
  Stream stream(Carrier::PIPE, Mode::BLOCKING);
  const gint64 end_us =
      g_get_monotonic_time() + G_TIME_SPAN_MILLISECOND * EXTERNAL_SOURCE_MESSAGE_TIMEOUT_MS * 5 / 4;

  /* Each message arrives in two pieces within its time. */
  stream.send(bytes.substr(0, 6));
  EXPECT_TRUE(testhost::spin_until([&] {
    stream.send(bytes.substr(6) + bytes.substr(0, 6));
    testhost::dispatch_ready();
    return g_get_monotonic_time() > end_us;
  }));
  stream.send(bytes.substr(6));
  testhost::dispatch_ready();
  EXPECT_FALSE(stream.released);
  for (const std::string &event : stream.take_events()) {
    EXPECT_EQ(event, frame(NAME, "0123456789"));
  }
}

/* Memory. */

TEST_F(ExternalSourceSocketTest, ChargesAMessageFromItsLengthToItsDelivery)
{
  constexpr gsize LENGTH = 1000;
  const std::string bytes = message(std::string(LENGTH, 'x'));
  const gsize charge = frame(NAME, std::string(LENGTH, 'x')).size() + MESSAGE_ACCOUNT_MESSAGE_OVERHEAD;
  Stream stream(Carrier::PIPE, Mode::BLOCKING);
  gsize during_data = 0;
  stream.during_data = [&] { during_data = message_account_get_total(); };

  stream.send(bytes.substr(0, 3));
  testhost::dispatch_ready();
  EXPECT_EQ(message_account_get_total(), 0U);
  stream.send(bytes.substr(3, 1));
  testhost::dispatch_ready();
  EXPECT_EQ(message_account_get_total(), charge);
  stream.send(bytes.substr(4));
  testhost::dispatch_ready();
  EXPECT_EQ(during_data, charge);
  EXPECT_EQ(message_account_get_total(), 0U);
}

TEST_F(ExternalSourceSocketTest, EndsTheIncompleteMessageOfTheClientWithTheLargestCharge)
{
  Stream modest(Carrier::PIPE, Mode::BLOCKING);
  Stream first(Carrier::PIPE, Mode::BLOCKING);
  Stream second(Carrier::PIPE, Mode::BLOCKING);

  begin_message(modest, 20 * MIB);
  begin_message(first, 60 * MIB);
  EXPECT_EQ(first.events, NOTHING);
  begin_message(second, 50 * MIB);
  EXPECT_EQ(first.take_events(), ENDED);
  EXPECT_EQ(testhost::take_syslog(), NO_MEMORY);
  EXPECT_EQ(second.events, NOTHING);

  /* Here that is the message that begins. */
  Stream third(Carrier::PIPE, Mode::BLOCKING);
  begin_message(third, 60 * MIB);
  EXPECT_EQ(third.take_events(), ENDED);
  EXPECT_EQ(testhost::take_syslog(), NO_MEMORY);
  EXPECT_EQ(second.events, NOTHING);
  EXPECT_EQ(modest.events, NOTHING);
  EXPECT_LE(message_account_get_total(), 128U * MIB);
}

TEST_F(ExternalSourceSocketTest, BeginsNoMessageWhileTheTotalIsOverItsLimit)
{
  const Account other;
  Stream stream(Carrier::PIPE, Mode::BLOCKING);
  Stream begun(Carrier::PIPE, Mode::BLOCKING);

  begun.send(message("begun").substr(0, 5));
  testhost::dispatch_ready();
  other.hold(MESSAGE_ACCOUNT_TOTAL_LIMIT + 1);
  begun.send(message("begun").substr(5) + message("2"));
  stream.send(message("1"));
  EXPECT_EQ(stream.take_events(), NOTHING);
  EXPECT_EQ(begun.take_events(), frames({"begun"}));
  expect_idle();

  other.hold(MESSAGE_ACCOUNT_TOTAL_LIMIT - MIB);
  EXPECT_EQ(stream.take_events(), frames({"1"}));
  EXPECT_EQ(begun.take_events(), frames({"2"}));
}

/* Turns of the main loop. */

TEST_F(ExternalSourceSocketTest, EndlessEmptyMessagesDoNotBlockTheMainLoop)
{
  constexpr int TURNS = 1000;
  const int fd = open_empty_file(G_MAXINT32);
  const int shared_fd = fcntl(fd, F_DUPFD_CLOEXEC, 0);
  Reader reader(fd);
  testhost::LatencyMeter latency;
  int turns = 0;

  g_idle_add_full(
      G_PRIORITY_DEFAULT,
      [](gpointer user_data) -> gboolean { return ++*static_cast<int *>(user_data) < TURNS; }, &turns,
      nullptr);
  EXPECT_TRUE(testhost::spin_until([&] { return turns == TURNS; }));
  EXPECT_LT(latency.longest_us(), STALL_US);
  EXPECT_GT(lseek(shared_fd, 0, SEEK_CUR), 0);
  EXPECT_LE(lseek(shared_fd, 0, SEEK_CUR),
            static_cast<off_t>(TURNS * EXTERNAL_SOURCE_TURN_MESSAGES * sizeof(guint32) + READ_AHEAD));
  EXPECT_EQ(reader.events, NOTHING);
  close(shared_fd);
}

TEST_F(ExternalSourceSocketTest, EndlessMessagesLeaveOtherSourcesTheirTurns)
{
  struct Other {
    const Reader *reader;
    gsize turns;
    gsize seen;
    gsize most;
  };
  constexpr gsize TURNS = 100;
  const faults::Rests clock([](gint64) {});
  const std::string bytes = message("1");
  std::string endless;
  for (gsize i = 0; i < 2 * TURNS * EXTERNAL_SOURCE_TURN_MESSAGES; i++) {
    endless += bytes;
  }
  Reader reader(open_file_with(endless, 0));
  Other other = {&reader, 0, 0, 0};
  const auto count = [](gpointer user_data) -> gboolean {
    auto *self = static_cast<Other *>(user_data);
    self->most = std::max(self->most, self->reader->events.size() - self->seen);
    self->seen = self->reader->events.size();
    return ++self->turns < TURNS;
  };

  g_idle_add_full(G_PRIORITY_DEFAULT, count, &other, nullptr);
  while (other.turns < TURNS) {
    ASSERT_TRUE(g_main_context_iteration(nullptr, FALSE));
  }
  EXPECT_EQ(other.most, EXTERNAL_SOURCE_TURN_MESSAGES);
}

/* Each delivery takes the given time, and a turn always relays one message. */
TEST_F(ExternalSourceSocketTest, BeginsNoMessageAfterItsShareOfTheTurnsTime)
{
  constexpr gsize SOCKETS = 4;
  constexpr gint64 SHARE_US = EXTERNAL_SOURCE_TURN_US / SOCKETS;
  const faults::Rests clock([](gint64) {});
  const std::vector<std::unique_ptr<Stream>> idle = idle_streams(SOCKETS - 1);

  for (const auto &[delivery_us, messages] : {std::pair(SHARE_US / 5, 5U), std::pair(SHARE_US * 3, 1U)}) {
    Stream stream(Carrier::PIPE, Mode::BLOCKING);
    stream.during_data = [us = delivery_us] { faults::Rests::spend(us); };
    for (gsize i = 0; i < 20; i++) {
      stream.send(message("1"));
    }

    for (gsize turn = 1; turn <= 3; turn++) {
      g_main_context_iteration(nullptr, FALSE);
      EXPECT_EQ(stream.events.size(), turn * messages);
    }
    EXPECT_EQ(stream.take_events().size(), 20U);
  }
}

TEST_F(ExternalSourceSocketTest, ReadsABoundedPartOfManyMessagesInEachTurn)
{
  constexpr gsize IDLE = 255;
  constexpr gsize SHARE = EXTERNAL_SOURCE_TURN_BYTES / (IDLE + 1);
  const faults::Rests clock([](gint64) {});
  const std::string payload(SHARE / 4, 'x');
  const std::vector<std::unique_ptr<Stream>> idle = idle_streams(IDLE);
  Stream stream(Carrier::PIPE, Mode::BLOCKING);

  for (gsize i = 0; i < 12; i++) {
    stream.send(message(payload));
  }
  for (gsize turn = 1; turn <= 2; turn++) {
    g_main_context_iteration(nullptr, FALSE);
    EXPECT_EQ(stream.events.size(), turn * 4);
  }
  EXPECT_EQ(stream.take_events(), frames(Texts(12, payload)));
}

TEST_F(ExternalSourceSocketTest, KeepsTheRestOfADatagramForTheNextTurn)
{
  constexpr gsize IDLE = 255;
  constexpr gsize SHARE = EXTERNAL_SOURCE_TURN_BYTES / (IDLE + 1);
  const std::string payload = numbers(2 * SHARE);
  const std::string bytes = message(payload);
  const std::vector<std::unique_ptr<Stream>> idle = idle_streams(IDLE);
  std::array<int, 2> ends = {-1, -1};

  ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()), 0);
  ASSERT_EQ(send(ends[1], bytes.data(), 10, 0), 10);
  ASSERT_EQ(send(ends[1], bytes.data() + 10, bytes.size() - 10, 0), static_cast<ssize_t>(bytes.size() - 10));
  Reader reader(ends[0]);
  testhost::dispatch_ready();
  EXPECT_EQ(reader.events, frames({payload}));
  close(ends[1]);
}

/* A wake-up would make another descriptor ready in poll(). The clock rests, because the end of a turn's time
 * is one too. */
TEST_F(ExternalSourceSocketTest, DoesNotWakeTheMainLoopForEachMessage)
{
  static int stream_fd;
  static unsigned wake_ups;
  constexpr unsigned COUNT = 20;
  const faults::Rests clock([](gint64) {});
  const std::string bytes = message(std::string(1000, 'x'));
  Stream stream(Carrier::PIPE, Mode::BLOCKING);
  GPollFunc poll_func = g_main_context_get_poll_func(nullptr);

  testhost::dispatch_ready();
  stream_fd = stream.consumer_fd;
  wake_ups = 0;
  g_main_context_set_poll_func(nullptr, [](GPollFD *fds, guint count, gint timeout) {
    const gint ready = g_poll(fds, count, timeout);
    wake_ups += std::any_of(fds, fds + count,
                            [](const GPollFD &fd) { return fd.fd != stream_fd && fd.revents != 0; });
    return ready;
  });
  for (unsigned i = 0; i < COUNT; i++) {
    stream.send(bytes.substr(0, 500));
    testhost::dispatch_ready();
    stream.send(bytes.substr(500) + bytes);
    testhost::dispatch_ready();
  }
  g_main_context_set_poll_func(nullptr, poll_func);

  /* The first incomplete message sets the time of its deadline. */
  EXPECT_LE(wake_ups, 1U);
  EXPECT_EQ(stream.take_events().size(), 2 * COUNT);
}

TEST_F(ExternalSourceSocketTest, ReadsABoundedPartOfAMessageInEachTurn)
{
  constexpr gsize SOCKETS = 4;
  constexpr off_t SHARE = EXTERNAL_SOURCE_TURN_BYTES / SOCKETS;
  const std::string payload = numbers(8 * MIB);
  for (const int flags : {0, O_NONBLOCK}) {
    std::vector<int> files;
    std::vector<std::unique_ptr<Reader>> readers;
    for (gsize i = 0; i < SOCKETS; i++) {
      const int fd = open_file_with_message(payload, flags);
      files.push_back(fcntl(fd, F_DUPFD_CLOEXEC, 0));
      readers.push_back(std::make_unique<Reader>(fd));
    }

    for (off_t turn = 1; turn < 8; turn++) {
      g_main_context_iteration(nullptr, FALSE);
      for (const int file : files) {
        /* All get equally far. */
        EXPECT_GE(lseek(file, 0, SEEK_CUR), turn * SHARE);
        EXPECT_LE(lseek(file, 0, SEEK_CUR), turn * SHARE + READ_AHEAD);
      }
    }
    for (const auto &reader : readers) {
      EXPECT_TRUE(reader->take_events() == frames({payload}, ENDED));
    }
    for (const int file : files) {
      close(file);
    }
  }
}

TEST_F(ExternalSourceSocketTest, ReadsAMessageInFewTurnsBesideManyIdleStreams)
{
  constexpr gsize IDLE = 200;
  constexpr gsize TURNS = 3; /* the first one, which reads little, the rest, and the end of the file */
  const std::string payload = numbers(EXTERNAL_SOURCE_TURN_BYTES);
  const std::vector<std::unique_ptr<Stream>> idle = idle_streams(IDLE);

  for (int round = 0; round < 3; round++) {
    {
      /* A socket that ends within its message takes no share afterwards. */
      const Reader ended(open_file_with_message(payload, 0));
      g_main_context_iteration(nullptr, FALSE);
    }
    Reader reader(open_file_with_message(payload, 0));
    for (gsize turn = 0; turn < TURNS; turn++) {
      g_main_context_iteration(nullptr, FALSE);
    }
    EXPECT_TRUE(reader.events == frames({payload}, ENDED)) << round;
  }
}

/* The limit of the turn cuts the message, not the producer. */
TEST_F(ExternalSourceSocketTest, KeepsANonBlockingMessageThatTakesSeveralTurns)
{
  const std::string payload = numbers(900 * 1000);
  Stream stream(Carrier::PIPE, Mode::NON_BLOCKING);
  ASSERT_GE(fcntl(stream.consumer_fd, F_SETPIPE_SZ, MIB), 0);
  const std::vector<std::unique_ptr<Stream>> idle = idle_streams(7);

  stream.send(message(payload));
  g_main_context_iteration(nullptr, FALSE);
  EXPECT_EQ(stream.events, NOTHING);
  EXPECT_TRUE(stream.take_events() == frames({payload}));
  stream.expect_incomplete_messages_dropped();
}
