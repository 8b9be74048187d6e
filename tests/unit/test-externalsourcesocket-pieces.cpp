/* SPDX-License-Identifier: MIT */
#include "producermeter.h"

#include "testexternalsocket.h"

#include <array>
#include <cstring>
#include <future>
#include <thread>

using testhost::Texts;
using teststream::Carrier;
using teststream::message;
using teststream::Mode;
using teststream::Producer;

using namespace std::string_literals;

namespace
{

constexpr const char *LONG = "0123456789";

class BlockingStreamTest : public ExternalSourceSocketTest, public testing::WithParamInterface<Carrier>
{
};

class NonBlockingStreamTest : public ExternalSourceSocketTest, public testing::WithParamInterface<Carrier>
{
};

/* What the stream of this name has delivered and dropped, as "delivered/dropped". */
std::string
counts_of(const char *source)
{
  ProducerCounts totals = {};
  g_autoptr(GPtrArray) producers = producer_meter_list(&totals);

  for (guint i = 0; i < producers->len; i++) {
    const auto *counts = static_cast<ProducerCounts *>(g_ptr_array_index(producers, i));
    if (g_str_equal(counts->source, source)) {
      return std::to_string(counts->messages) + "/" + std::to_string(counts->dropped);
    }
  }
  return "nothing";
}

constexpr std::array CARRIERS = {Carrier::PIPE, Carrier::FIFO, Carrier::SOCKET};

} // namespace

/* Blocking streams: the pieces of a message are kept. */

INSTANTIATE_TEST_SUITE_P(Carriers, BlockingStreamTest, testing::ValuesIn(CARRIERS),
                         [](const auto &carrier) { return carrier_name(carrier.param); });

TEST_P(BlockingStreamTest, CompletesAMessageCutAnywhere)
{
  const std::string bytes = message("1") + message("") + message(LONG);

  for (gsize cut = 1; cut < bytes.size(); cut++) {
    Stream stream(GetParam(), Mode::BLOCKING);

    stream.send(bytes.substr(0, cut));
    testhost::dispatch_ready();
    stream.send(bytes.substr(cut));
    EXPECT_EQ(stream.take_events(), frames({"1", LONG})) << cut;
  }
}

TEST_P(BlockingStreamTest, CompletesMessagesOfSingleBytes)
{
  Stream stream(GetParam(), Mode::BLOCKING);

  for (const char byte : message(LONG) + message("1")) {
    stream.send(std::string(1, byte));
    testhost::dispatch_ready();
  }
  EXPECT_EQ(stream.take_events(), frames({LONG, "1"}));
}

TEST_P(BlockingStreamTest, JoinsAPayloadOfThreeReads)
{
  Stream stream(GetParam(), Mode::BLOCKING);

  stream.send_while_reading({"45", "6789"});
  stream.send(message(LONG).substr(0, 4 + 4));
  EXPECT_EQ(stream.take_events(), frames({LONG}));
}

TEST_P(BlockingStreamTest, KeepsPiecesDuringAPause)
{
  Stream stream(GetParam(), Mode::BLOCKING);

  stream.send_in_a_pause(message(LONG).substr(0, 7));
  testhost::dispatch_ready();
  stream.send(message(LONG).substr(7));
  EXPECT_EQ(stream.take_events(), frames({LONG}));
}

TEST_P(BlockingStreamTest, CompletesABegunMessageDuringAPause)
{
  for (gsize begun = 1; begun < 4 + strlen(LONG); begun++) {
    Stream stream(GetParam(), Mode::BLOCKING);

    stream.send(message(LONG).substr(0, begun));
    testhost::dispatch_ready();
    stream.client.pause();
    stream.send(message(LONG).substr(begun) + message("next"));
    EXPECT_EQ(stream.take_events(), frames({LONG})) << begun;
    stream.client.resume();
    EXPECT_EQ(stream.take_events(), frames({"next"})) << begun;
  }
}

TEST_P(BlockingStreamTest, DropsPiecesWhenItIsClosed)
{
  Stream stream(GetParam(), Mode::BLOCKING);

  stream.send(message(LONG).substr(0, 7));
  testhost::dispatch_ready();
  external_source_socket_close(stream.socket, FALSE);
  EXPECT_EQ(stream.take_events(), (Texts{"released"}));
}

TEST_P(BlockingStreamTest, KeepsPiecesWithASecondSocketOnTheSameOpenFile)
{
  Producer producer(GetParam(), Mode::BLOCKING);
  const int shared_fd = fcntl(producer.consumer_fd, F_DUPFD_CLOEXEC, 0);
  {
    Reader first(producer.consumer_fd);
  }
  Reader second(shared_fd);

  producer.send(message(LONG).substr(0, 7));
  testhost::dispatch_ready();
  producer.send(message(LONG).substr(7));
  EXPECT_EQ(second.take_events(), frames({LONG}));
}

TEST_P(BlockingStreamTest, DoesNotBlockWhenAnotherThreadReadsTheData)
{
  constexpr gsize COUNT = 20 * 1000;
  const std::string bytes = message("1");
  Producer producer(GetParam(), Mode::BLOCKING);
  const int shared_fd = fcntl(producer.consumer_fd, F_DUPFD_CLOEXEC, 0);
  Reader reader(producer.consumer_fd);
  gsize taken = 0;
  std::thread other_reader([&] {
    std::array<char, 5> buffer = {};
    while (read(shared_fd, buffer.data(), buffer.size()) > 0) {
      taken++;
    }
  });

  /* A read that blocked would never return: the producer is on this thread. */
  for (gsize i = 0; i < COUNT; i++) {
    producer.send(bytes);
    testhost::dispatch_ready();
  }
  producer.hang_up();
  other_reader.join();
  testhost::dispatch_ready();
  EXPECT_GT(taken, 0U);
  EXPECT_EQ(reader.events.size() - ENDED.size() + taken, COUNT);
  close(shared_fd);
}

/* Non-blocking streams: a message must be complete when it is read (docs/compatibility.md, "partial
 * messages"). */

INSTANTIATE_TEST_SUITE_P(Carriers, NonBlockingStreamTest, testing::ValuesIn(CARRIERS),
                         [](const auto &carrier) { return carrier_name(carrier.param); });

TEST_P(NonBlockingStreamTest, DropsAnIncompletePayload)
{
  for (gsize cut = 4; cut < 4 + strlen(LONG); cut++) {
    Stream stream(GetParam(), Mode::NON_BLOCKING);

    stream.send(message(LONG).substr(0, cut));
    EXPECT_EQ(stream.take_events(), NOTHING);
    stream.send(message("next"));
    EXPECT_EQ(stream.take_events(), frames({"next"})) << cut;
  }
}

TEST_P(NonBlockingStreamTest, CountsWhatItDeliversAndDrops)
{
  const std::string name = "counted non-blocking " + carrier_name(GetParam());
  {
    Stream stream(GetParam(), Mode::NON_BLOCKING, name.c_str());

    stream.send(message("") + message("1"));
    stream.take_events();
    EXPECT_EQ(counts_of(name.c_str()), "1/0");
    stream.send(message(LONG).substr(0, 7));
    stream.take_events();
    EXPECT_EQ(counts_of(name.c_str()), "1/1");
    stream.send(message("2"));
    stream.take_events();
    EXPECT_EQ(counts_of(name.c_str()), "2/1");
  }
  EXPECT_EQ(counts_of(name.c_str()), "2/1");
}

TEST_P(BlockingStreamTest, CountsWhatItDeliversAndDrops)
{
  const std::string name = "counted blocking " + carrier_name(GetParam());
  {
    Stream stream(GetParam(), Mode::BLOCKING, name.c_str());

    stream.send(message(LONG).substr(0, 7));
    stream.take_events();
    EXPECT_EQ(counts_of(name.c_str()), "0/0");
    stream.send(message(LONG).substr(7) + message("1") + message(LONG).substr(0, 2));
    stream.take_events();
    EXPECT_EQ(counts_of(name.c_str()), "2/0");
  }
  EXPECT_EQ(counts_of(name.c_str()), "2/1") << "the stream has ended in a message";
}

TEST_P(NonBlockingStreamTest, TakesAShortLengthAsComplete)
{
  for (gsize cut = 1; cut < 4; cut++) {
    Stream stream(GetParam(), Mode::NON_BLOCKING);

    stream.send_while_reading({LONG});
    stream.send(message(LONG).substr(0, cut));
    EXPECT_EQ(stream.take_events(), frames({LONG})) << cut;

    /* Without a payload the message is dropped. */
    stream.send(message("x").substr(0, cut));
    EXPECT_EQ(stream.take_events(), NOTHING);
    stream.send(message("next"));
    EXPECT_EQ(stream.take_events(), frames({"next"})) << cut;
  }
}

TEST_P(NonBlockingStreamTest, TakesAShortLengthOfZeroAsAMessageWithoutPayload)
{
  Stream stream(GetParam(), Mode::NON_BLOCKING);

  stream.send("\0"s);
  EXPECT_EQ(stream.take_events(), NOTHING);
  stream.send(message("next"));
  EXPECT_EQ(stream.take_events(), frames({"next"}));
}

TEST_P(NonBlockingStreamTest, JoinsAPayloadOfTwoReads)
{
  Stream stream(GetParam(), Mode::NON_BLOCKING);

  stream.send_while_reading({"456789"});
  stream.send(message(LONG).substr(0, 4 + 4));
  EXPECT_EQ(stream.take_events(), frames({LONG}));
}

TEST_P(NonBlockingStreamTest, DeliversNothingAfterACloseBetweenTwoReads)
{
  Stream stream(GetParam(), Mode::NON_BLOCKING);
  std::promise<pid_t> tid;
  std::thread closer;

  faults::after_empty_reads([&] {
    if (closer.joinable()) {
      return;
    }
    closer = std::thread([&] {
      tid.set_value(gettid());
      external_source_socket_close(stream.socket, FALSE);
    });
    /* The closing thread waits for the read to end. */
    EXPECT_TRUE(testhost::wait_until_asleep(tid.get_future().get()));
    stream.send("456789");
  });
  stream.send(message(LONG).substr(0, 4 + 4));
  EXPECT_TRUE(testhost::spin_until([&] { return stream.released.load(); }));
  closer.join();
  EXPECT_EQ(stream.take_events(), (Texts{"released"}));
}

/* After a pause the pieces are kept until the stream is between two messages. */

TEST_P(NonBlockingStreamTest, CompletesAMessageCutByAPause)
{
  const std::string bytes = message("1") + message("") + message(LONG);

  for (gsize cut = 1; cut < bytes.size(); cut++) {
    Stream stream(GetParam(), Mode::NON_BLOCKING);

    stream.send_in_a_pause(bytes.substr(0, cut));
    testhost::dispatch_ready();
    /* The rest arrives at once. */
    stream.send(bytes.substr(cut));
    EXPECT_EQ(stream.take_events(), frames({"1", LONG})) << cut;
    stream.expect_incomplete_messages_dropped();
  }
}

TEST_P(NonBlockingStreamTest, CompletesAMessageOfSingleBytesAfterAPause)
{
  Stream stream(GetParam(), Mode::NON_BLOCKING);
  const std::string bytes = message(LONG);

  stream.send_in_a_pause(bytes.substr(0, 1));
  for (const char byte : bytes.substr(1)) {
    testhost::dispatch_ready();
    stream.send(std::string(1, byte));
  }
  EXPECT_EQ(stream.take_events(), frames({LONG}));
  stream.expect_incomplete_messages_dropped();
}

TEST_P(NonBlockingStreamTest, KeepsPiecesUntilNoDataIsLeftBetweenTwoMessages)
{
  Stream stream(GetParam(), Mode::NON_BLOCKING);
  const std::string bytes = message(LONG);

  stream.send_in_a_pause(bytes.substr(0, 6));
  EXPECT_EQ(stream.take_events(), NOTHING);
  for (int i = 0; i < 3; i++) {
    stream.send(bytes.substr(6) + bytes.substr(0, 6));
    EXPECT_EQ(stream.take_events(), frames({LONG}));
  }
  stream.send(bytes.substr(6));
  EXPECT_EQ(stream.take_events(), frames({LONG}));
  stream.expect_incomplete_messages_dropped();
}

TEST_P(NonBlockingStreamTest, CompletesAMessageCutByManyPauses)
{
  Stream stream(GetParam(), Mode::NON_BLOCKING);
  const std::string bytes = message(LONG);

  for (int i = 0; i < 3; i++) {
    for (gsize sent = 0; sent < bytes.size(); sent += 2) {
      EXPECT_EQ(stream.take_events(), NOTHING);
      stream.send_in_a_pause(bytes.substr(sent, 2));
    }
    EXPECT_EQ(stream.take_events(), frames({LONG}));
    stream.expect_incomplete_messages_dropped();
  }
}

/* docs/compatibility.md, "overlapping reads". */
TEST_P(NonBlockingStreamTest, OverlapsAPayloadOfThreeReadsExceptAfterAPause)
{
  const std::string begin = message(LONG).substr(0, 4 + 4);
  Stream stream(GetParam(), Mode::NON_BLOCKING);

  stream.send_while_reading({"45", "6789"});
  stream.send_in_a_pause(begin);
  EXPECT_EQ(stream.take_events(), frames({LONG}));

  stream.send_while_reading({"45", "6789"});
  stream.send(begin);
  EXPECT_EQ(stream.take_events(), frames({"016789"s + std::string(4, '\0')}));
}

TEST_P(NonBlockingStreamTest, DropsIncompleteMessagesAfterAPauseWithoutAnIncompleteMessage)
{
  for (const Texts &payloads : {Texts(), Texts{"1", "2"}}) {
    std::string bytes;
    for (const std::string &payload : payloads) {
      bytes += message(payload);
    }
    Stream stream(GetParam(), Mode::NON_BLOCKING);

    stream.send_in_a_pause(bytes);
    EXPECT_EQ(stream.take_events(), frames(payloads));
    stream.expect_incomplete_messages_dropped();
  }
}
