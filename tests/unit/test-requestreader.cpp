/* SPDX-License-Identifier: MIT */
#include "requestreader.h"

#include "faults.h"
#include "requestchannel.h"
#include "requestoutcome.h"
#include "server.h"
#include "testclient.h"
#include "testhost.h"

#include <optional>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

using requests::Outcome;
using requests::Params;

using namespace std::string_literals;

namespace
{

constexpr guint LONG_MS = 20 * 1000;
constexpr guint SHORT_MS = 100;

Outcome
accepted(const Params &params)
{
  return {true, params, ""};
}

Outcome
refused(const std::string &failure)
{
  return {false, {}, failure};
}

/* A connection with a request reader at the server's end. */
class RequestReaderTest : public testhost::Fixture
{
protected:
  void open(gsize max_bytes = SERVER_MAX_REQUEST_BYTES, guint timeout_ms = LONG_MS)
  {
    close_connection();
    client_.emplace(Client::connect_pair(&fd_));
    reader_ = request_reader_new(fd_, max_bytes, timeout_ms, on_end, this);
  }

  void TearDown() override
  {
    close_connection();
    Fixture::TearDown();
  }

  /* Runs the main loop until the reader has ended, and parses its text. */
  Outcome wait_for_outcome()
  {
    EXPECT_TRUE(testhost::spin_until([this] { return ended_; }));
    gsize length = 0;
    const gchar *text = request_reader_get_text(reader_, &length);
    g_autoptr(GIOChannel) channel =
        request_channel_new(fd_, text, length, request_reader_get_failure(reader_));
    return requests::read_outcome(channel);
  }

  /* The outcome for a client that sends @bytes and half-closes. */
  Outcome read_all_of(const std::string &bytes)
  {
    open();
    EXPECT_TRUE(client_->send(bytes));
    client_->half_close();
    return wait_for_outcome();
  }

  /* Dispatches the reader without waiting for more bytes. */
  void read_what_has_come()
  {
    testhost::dispatch_ready();
  }

  /* The bytes that the reader left in the socket. */
  std::string left()
  {
    std::array<char, 1024> bytes;
    const ssize_t count = recv(fd_, bytes.data(), bytes.size(), MSG_DONTWAIT);

    return {bytes.data(), static_cast<gsize>(std::max<ssize_t>(count, 0))};
  }

  /* How many bytes are in the socket. */
  int count_waiting() const
  {
    int count = -1;

    EXPECT_EQ(ioctl(fd_, FIONREAD, &count), 0) << g_strerror(errno);
    return count;
  }

  int fd_ = -1;
  bool ended_ = false;
  RequestReader *reader_ = nullptr;
  std::optional<Client> client_;

private:
  static void on_end(RequestReader *reader, gpointer user_data)
  {
    auto *self = static_cast<RequestReaderTest *>(user_data);

    EXPECT_EQ(reader, self->reader_);
    EXPECT_FALSE(self->ended_);
    self->ended_ = true;
  }

  void close_connection()
  {
    g_clear_pointer(&reader_, request_reader_free);
    client_.reset();
    ended_ = false;
    if (fd_ >= 0) {
      EXPECT_EQ(close(fd_), 0);
      fd_ = -1;
    }
  }
};

/* A request and its outcome. */
struct Example {
  const char *name;
  std::string bytes;
  Outcome outcome;
};

std::ostream &
operator<<(std::ostream &stream, const Example &example)
{
  return stream << example.name;
}

class RequestTest : public RequestReaderTest, public testing::WithParamInterface<Example>
{
};

constexpr const char *NO_REQUEST = "FAIL\nCould not read request from client socket: ";
constexpr const char *NO_HEADER = "FAIL\nCould not read request header from socket: ";

const std::vector<Example> EXAMPLES = {
    {"NoHeaderLines", "OPEN\n\n", accepted({})},
    {"OneLine", "OPEN\nevent=1\n\n", accepted({{"event", "1"}})},
    {"SeveralLines", "OPEN\nevent=1\nptz=3\nvideo_channel=2\n\n",
     accepted({{"event", "1"}, {"ptz", "3"}, {"video_channel", "2"}})},
    {"SeveralEqualsSigns", "OPEN\na=b=c\n\n", accepted({{"a", "b=c"}})},
    {"EmptyValue", "OPEN\na=\n\n", accepted({{"a", ""}})},
    {"EmptyKey", "OPEN\n=b\n\n", accepted({{"", "b"}})},
    {"EqualsSignAlone", "OPEN\n=\n\n", accepted({{"", ""}})},
    {"BlanksAroundEqualsSign", "OPEN\na = b  \n\n", accepted({{"a ", " b"}})},
    {"BlanksBefore", "OPEN\n  a=b\t \n\n", accepted({{"  a", "b"}})},
    {"EmptyValueOfBlanks", "OPEN\na=  \n\n", accepted({{"a", ""}})},
    {"RepeatedKey", "OPEN\na=1\nb=2\na=3\n\n", accepted({{"a", "3"}, {"b", "2"}})},
    {"Backslashes", "OPEN\na=x\\ny\n\n", accepted({{"a", "x\\ny"}})},
    {"InvalidUtf8", "OPEN\na=\xff\xfe\n\n", accepted({{"a", "\xff\xfe"}})},
    {"CarriageReturnsWithLineFeeds", "OPEN\na=1\r\nb=2\r\n\n", accepted({{"a", "1"}, {"b", "2"}})},
    {"CarriageReturnsAlone", "OPEN\na=1\rb=2\r\n\n", accepted({{"a", "1"}, {"b", "2"}})},
    {"Nuls", "OPEN\na=1\0b=2\0\n"s, accepted({{"a", "1"}, {"b", "2"}})},
    {"ParagraphSeparators", "OPEN\na=1\u2029b=2\u2029\n", accepted({{"a", "1"}, {"b", "2"}})},
    {"HalfAParagraphSeparator", "OPEN\na=\xe2\x80\n\n", accepted({{"a", "\xe2\x80"}})},
    {"VerticalTabEndsNoLine", "OPEN\na=1\vb\n\n", accepted({{"a", "1\vb"}})},

    {"Nothing", "", refused(NO_REQUEST)},
    {"OtherWord", "HELLO\n", refused("FAIL\nUnknown: request: HELLO\n (6)")},
    {"LowerCase", "open\n\n", refused("FAIL\nUnknown: request: open\n (5)")},
    {"EmptyFirstLine", "\nOPEN\n\n", refused("FAIL\nUnknown: request: \n (1)")},
    {"BlankBehindOpen", "OPEN \n\n", refused("FAIL\nUnknown: request: OPEN \n (6)")},
    {"OpenWithCarriageReturn", "OPEN\r\n\n", refused("FAIL\nUnknown: request: OPEN\r\n (6)")},
    {"OpenWithCarriageReturnAlone", "OPEN\ra=b\n\n", refused("FAIL\nUnknown: request: OPEN\r (5)")},
    {"OpenWithNul", "OPEN\0\n\n"s, refused("FAIL\nUnknown: request: OPEN (5)")},
    {"OpenWithParagraphSeparator", "OPEN\u2029\n\n", refused("FAIL\nUnknown: request: OPEN\u2029 (7)")},
    {"OpenWithoutLineEnd", "OPEN", refused("FAIL\nUnknown: request: OPEN (4)")},
    {"FirstLineOfInvalidUtf8", "\xff%s%n\n", refused("FAIL\nUnknown: request: \xff%s%n\n (6)")},

    {"NoHeader", "OPEN\n", refused(NO_HEADER)},
    {"NoEmptyLine", "OPEN\nevent=1\n", refused(NO_HEADER)},
    {"LastLineWithoutLineEnd", "OPEN\nevent=1", refused(NO_HEADER)},
    {"WrongLastLineWithoutLineEnd", "OPEN\nevent", refused("FAIL\nUnable to parse header line: event.")},
    {"NoEqualsSign", "OPEN\nevent\n\n", refused("FAIL\nUnable to parse header line: event.")},
    {"NoEqualsSignAndBlanks", "OPEN\n  event  \n\n",
     refused("FAIL\nUnable to parse header line:   event  .")},
    {"TwoWrongLines", "OPEN\na=1\nwrong\nworse\n\n", refused("FAIL\nUnable to parse header line: wrong.")},
    {"EmptyLineWithCarriageReturn", "OPEN\n\r\n", refused("FAIL\nUnable to parse header line: .")},
    {"EmptyLineWithCarriageReturnAlone", "OPEN\n\rx", refused("FAIL\nUnable to parse header line: .")},
    {"EmptyLineWithNul", "OPEN\n\0"s, refused("FAIL\nUnable to parse header line: .")},
    {"EmptyLineWithParagraphSeparator", "OPEN\n\u2029", refused("FAIL\nUnable to parse header line: .")},
    {"BlankLine", "OPEN\n   \n\n", refused("FAIL\nUnable to parse header line:    .")},
    {"HeaderLineOfInvalidUtf8", "OPEN\n\xff%s\n\n", refused("FAIL\nUnable to parse header line: \xff%s.")},
};

} // namespace

TEST_P(RequestTest, IsReadInOnePiece)
{
  EXPECT_EQ(read_all_of(GetParam().bytes), GetParam().outcome);
}

TEST_P(RequestTest, IsReadInTwoPiecesCutAnywhere)
{
  const std::string &bytes = GetParam().bytes;

  for (gsize end = 1; end < bytes.size(); end++) {
    open();
    ASSERT_TRUE(client_->send(bytes.substr(0, end)));
    read_what_has_come();
    ASSERT_TRUE(client_->send(bytes.substr(end)));
    client_->half_close();
    EXPECT_EQ(wait_for_outcome(), GetParam().outcome) << "cut at " << end;
  }
}

TEST_P(RequestTest, IsReadInSingleBytes)
{
  open();
  for (const char byte : GetParam().bytes) {
    ASSERT_TRUE(client_->send(std::string(1, byte)));
    read_what_has_come();
  }
  client_->half_close();
  EXPECT_EQ(wait_for_outcome(), GetParam().outcome);
}

INSTANTIATE_TEST_SUITE_P(Requests, RequestTest, testing::ValuesIn(EXAMPLES),
                         [](const auto &example) { return std::string(example.param.name); });

TEST_F(RequestReaderTest, LeavesTheBytesBehindTheRequest)
{
  open();
  ASSERT_TRUE(client_->send("OPEN\nevent=1\n\nSYNC\nSYN"));

  EXPECT_EQ(wait_for_outcome(), accepted({{"event", "1"}}));
  EXPECT_EQ(left(), "SYNC\nSYN");
}

/* The empty line is at the end of one read or at the beginning of the next one. */
TEST_F(RequestReaderTest, LeavesTheBytesBehindARequestOfAnyLength)
{
  const std::string begin = "OPEN\na=";
  for (gsize size = REQUEST_READER_BYTES_PER_TURN - 4; size <= REQUEST_READER_BYTES_PER_TURN + 4; size++) {
    const std::string value(size - begin.size() - 2, 'x');
    open();
    ASSERT_TRUE(client_->send(begin + value + "\n\n\n\nSYNC\n"));

    EXPECT_EQ(wait_for_outcome(), accepted({{"a", value}}));
    EXPECT_EQ(left(), "\n\nSYNC\n");
  }
}

TEST_F(RequestReaderTest, LeavesTheBytesBehindARequestWithOtherLineEnds)
{
  for (const std::string &end : {"\r"s, "\r\n"s, "\0"s, "\u2029"s}) {
    open();
    ASSERT_TRUE(client_->send("OPEN\nevent=1" + end + "\nSYNC\n"));
    /* A carriage return and the line feed behind it are one line end. */
    if (end == "\r") {
      EXPECT_EQ(wait_for_outcome(), refused("FAIL\nUnable to parse header line: SYNC."));
    } else {
      EXPECT_EQ(wait_for_outcome(), accepted({{"event", "1"}}));
      EXPECT_EQ(left(), "SYNC\n");
    }
  }
}

TEST_F(RequestReaderTest, DoesNotWaitAfterTheEndOfARequest)
{
  for (const auto &[bytes, outcome] :
       {std::pair("OPEN\n\n", accepted({})),
        std::pair("CLOSE\n", refused("FAIL\nUnknown: request: CLOSE\n (6)")),
        std::pair("OPEN\rx", refused("FAIL\nUnknown: request: OPEN\r (5)")),
        std::pair("OPEN\na=b\nwrong\n", refused("FAIL\nUnable to parse header line: wrong.")),
        std::pair("OPEN\n\r\n", refused("FAIL\nUnable to parse header line: ."))}) {
    open();
    ASSERT_TRUE(client_->send(bytes));
    EXPECT_EQ(wait_for_outcome(), outcome);
  }
}

TEST_F(RequestReaderTest, WaitsWhileARequestIsIncomplete)
{
  for (const char *bytes : {"", "O", "OPEN", "OPEN\r", "OPEN\n", "OPEN\na", "OPEN\na=b", "OPEN\na=b\n",
                            "OPEN\n\r", "OPEN\na\xe2\x80"}) {
    open();
    ASSERT_TRUE(client_->send(bytes));
    read_what_has_come();
    EXPECT_FALSE(ended_) << bytes;
    EXPECT_EQ(client_->unread(), 0U) << bytes;
  }
}

TEST_F(RequestReaderTest, AcceptsTheLongestRequest)
{
  const std::string begin = "OPEN\nevent_topic=";
  const std::string value(SERVER_MAX_REQUEST_BYTES - begin.size() - 2, 'x');
  open();
  ASSERT_TRUE(client_->send(begin + value + "\n\n" + "SYNC\n"));

  EXPECT_EQ(wait_for_outcome(), accepted({{"event_topic", value}}));
  EXPECT_EQ(left(), "SYNC\n");
}

TEST_F(RequestReaderTest, RefusesARequestOneByteTooLong)
{
  const std::string begin = "OPEN\nevent_topic=";
  const std::string value(SERVER_MAX_REQUEST_BYTES - begin.size() - 1, 'x');
  open();
  ASSERT_TRUE(client_->send(begin + value + "\n\n"));

  EXPECT_EQ(wait_for_outcome(), refused(NO_HEADER + "Request longer than 65536 bytes"s));
}

TEST_F(RequestReaderTest, RefusesAFirstLineWithoutEnd)
{
  open(16);
  ASSERT_TRUE(client_->send(std::string(17, 'x')));

  EXPECT_EQ(wait_for_outcome(), refused(NO_REQUEST + "Request longer than 16 bytes"s));
}

TEST_F(RequestReaderTest, ReadsALongRequestInSeveralTurns)
{
  constexpr int TURNS = 3;
  open();
  ASSERT_TRUE(client_->send("OPEN\na=" + std::string(TURNS * REQUEST_READER_BYTES_PER_TURN, 'x')));
  const int sent = count_waiting();

  for (int turn = 1; turn <= TURNS; turn++) {
    ASSERT_TRUE(g_main_context_iteration(nullptr, FALSE));
    EXPECT_EQ(count_waiting(), sent - turn * REQUEST_READER_BYTES_PER_TURN);
  }
}

/* The reader peeks once and reads once, regardless of the number of lines. */
TEST_F(RequestReaderTest, MakesTwoSystemCallsInATurn)
{
  open();
  std::string lines = "OPEN\n";
  while (lines.size() < REQUEST_READER_BYTES_PER_TURN - 4) {
    lines += "a=b\n";
  }
  ASSERT_TRUE(client_->send(lines));
  const unsigned before = faults::read_call_count();

  read_what_has_come();
  EXPECT_EQ(faults::read_call_count(), before + 2);
}

TEST_F(RequestReaderTest, TimesOutAClientThatSendsNothing)
{
  const gint64 begin = g_get_monotonic_time();
  open(SERVER_MAX_REQUEST_BYTES, SHORT_MS);

  EXPECT_EQ(wait_for_outcome(), refused(NO_REQUEST + "Request not complete within 100 ms"s));
  EXPECT_GE(g_get_monotonic_time() - begin, SHORT_MS * G_TIME_SPAN_MILLISECOND);
  EXPECT_LT(g_get_monotonic_time() - begin, 5 * G_TIME_SPAN_SECOND);
}

TEST_F(RequestReaderTest, TimesOutAHeaderWithoutEnd)
{
  open(SERVER_MAX_REQUEST_BYTES, SHORT_MS);
  ASSERT_TRUE(client_->send("OPEN\nevent=1\nptz"));

  EXPECT_EQ(wait_for_outcome(), refused(NO_HEADER + "Request not complete within 100 ms"s));
}

/* Single bytes, now and then or in each turn, do not extend the time. */
TEST_F(RequestReaderTest, TimesOutAClientThatSendsSingleBytes)
{
  for (const guint pause_ms : {SHORT_MS / 10, 0U}) {
    const gint64 begin = g_get_monotonic_time();
    open(SERVER_MAX_REQUEST_BYTES, SHORT_MS);
    ASSERT_TRUE(client_->send("OPEN\na="));
    const guint trickle = g_timeout_add(
        pause_ms,
        [](gpointer client) -> gboolean {
          static_cast<Client *>(client)->send_some("x");
          return G_SOURCE_CONTINUE;
        },
        &*client_);

    EXPECT_TRUE(testhost::spin_until([this] { return ended_; }, 5 * G_TIME_SPAN_SECOND));
    EXPECT_GE(g_get_monotonic_time() - begin, SHORT_MS * G_TIME_SPAN_MILLISECOND);
    g_source_remove(trickle);
    EXPECT_EQ(wait_for_outcome(), refused(NO_HEADER + "Request not complete within 100 ms"s));
  }
}

TEST_F(RequestReaderTest, ReportsTheErrorOfALostConnection)
{
  open();
  /* A peer that closes with unread data resets the connection. */
  ASSERT_EQ(send(fd_, "x", 1, MSG_DONTWAIT), 1);
  client_->hang_up();

  EXPECT_EQ(wait_for_outcome(), refused(NO_REQUEST + "Connection reset by peer"s));
}

TEST_F(RequestReaderTest, ReportsTheErrorOfAConnectionLostInTheHeader)
{
  open();
  ASSERT_EQ(send(fd_, "x", 1, MSG_DONTWAIT), 1);
  ASSERT_TRUE(client_->send("OPEN\n"));
  read_what_has_come();
  client_->hang_up();

  EXPECT_EQ(wait_for_outcome(), refused(NO_HEADER + "Connection reset by peer"s));
}

TEST_F(RequestReaderTest, UsesNoProcessorTimeForOutOfBandData)
{
  open();
  ASSERT_EQ(client_->send_some("x", MSG_OOB), 1U);
  read_what_has_come();

  const gint64 before_us = testhost::processor_time_us();
  testhost::spin_until([] { return false; }, SHORT_MS * G_TIME_SPAN_MILLISECOND);
  EXPECT_LT(testhost::processor_time_us() - before_us, SHORT_MS * G_TIME_SPAN_MILLISECOND / 2);
}

TEST_F(RequestReaderTest, StopsReadingWhenItIsFreed)
{
  open();
  ASSERT_TRUE(client_->send("OPEN\n"));
  read_what_has_come();
  g_clear_pointer(&reader_, request_reader_free);
  ASSERT_TRUE(client_->send("a=b\n"));
  read_what_has_come();

  EXPECT_FALSE(ended_);
  EXPECT_EQ(left(), "a=b\n");
  EXPECT_FALSE(client_->ended());
}

TEST_F(RequestReaderTest, RefusesToFreeNull)
{
  request_reader_free(nullptr);
  EXPECT_EQ(testhost::take_failed_preconditions(), (testhost::Texts{"self != NULL"}));
}

TEST_F(RequestReaderTest, CanBeFreedInItsCallback)
{
  int fd = -1;
  Client client = Client::connect_pair(&fd);
  bool freed = false;
  request_reader_new(
      fd, SERVER_MAX_REQUEST_BYTES, LONG_MS,
      [](RequestReader *reader, gpointer is_freed) {
        request_reader_free(reader);
        *static_cast<bool *>(is_freed) = true;
      },
      &freed);

  ASSERT_TRUE(client.send("OPEN\n\n"));
  EXPECT_TRUE(testhost::spin_until([&freed] { return freed; }));
  EXPECT_EQ(close(fd), 0);
}
