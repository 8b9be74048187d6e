#include "requestchannel.h"

#include "requestoutcome.h"
#include "server.h"
#include "testclient.h"
#include "testhost.h"

#include <future>
#include <sys/socket.h>
#include <unistd.h>

using requests::Outcome;
using requests::Params;

using namespace std::string_literals;

namespace
{

constexpr guint LONG_MS = 20 * 1000;
constexpr guint SHORT_MS = 100;

/* More than one read takes, and less than a socket holds. */
constexpr gsize MORE_BYTES = 20'000;

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

/* One connection, whose server's end is a request channel. */
class RequestChannelTest : public testhost::Fixture
{
protected:
  void open(gsize max_bytes = SERVER_MAX_REQUEST_BYTES, guint timeout_ms = LONG_MS)
  {
    client_.emplace(Client::connect_pair(&fd_));
    channel_ = request_channel_new(fd_, max_bytes, timeout_ms);
    g_io_channel_set_close_on_unref(channel_, TRUE);
  }

  void TearDown() override
  {
    g_clear_pointer(&channel_, g_io_channel_unref);
    client_.reset();
    Fixture::TearDown();
  }

  /* What becomes of a client that sends @bytes and then no more. */
  Outcome read_all_of(const std::string &bytes)
  {
    open();
    EXPECT_TRUE(client_->send(bytes));
    client_->half_close();
    return requests::read_outcome(channel_);
  }

  /* What arrived and was not read by the channel. */
  std::string left()
  {
    std::array<char, 1024> bytes;
    const ssize_t count = recv(fd_, bytes.data(), bytes.size(), MSG_DONTWAIT);

    return {bytes.data(), static_cast<gsize>(std::max<ssize_t>(count, 0))};
  }

  int fd_ = -1;
  GIOChannel *channel_ = nullptr;
  std::optional<Client> client_;
};

/* A request that is in the socket before it is read. */
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

class RequestTest : public RequestChannelTest, public testing::WithParamInterface<Example>
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
    {"BackslashesStay", "OPEN\na=x\\ny\n\n", accepted({{"a", "x\\ny"}})},
    {"BytesThatAreNoText", "OPEN\na=\xff\xfe\n\n", accepted({{"a", "\xff\xfe"}})},
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
    {"FirstLineIsNoText", "\xff%s%n\n", refused("FAIL\nUnknown: request: \xff%s%n\n (6)")},

    {"NoHeader", "OPEN\n", refused(NO_HEADER)},
    {"NoEmptyLine", "OPEN\nevent=1\n", refused(NO_HEADER)},
    {"LastLineWithoutEndCounts", "OPEN\nevent=1", refused(NO_HEADER)},
    {"LastLineWithoutEndIsJudged", "OPEN\nevent", refused("FAIL\nUnable to parse header line: event.")},
    {"NoEqualsSign", "OPEN\nevent\n\n", refused("FAIL\nUnable to parse header line: event.")},
    {"NoEqualsSignAndBlanks", "OPEN\n  event  \n\n",
     refused("FAIL\nUnable to parse header line:   event  .")},
    {"FirstWrongLineCounts", "OPEN\na=1\nwrong\nworse\n\n",
     refused("FAIL\nUnable to parse header line: wrong.")},
    {"EmptyLineWithCarriageReturn", "OPEN\n\r\n", refused("FAIL\nUnable to parse header line: .")},
    {"EmptyLineWithCarriageReturnAlone", "OPEN\n\rx", refused("FAIL\nUnable to parse header line: .")},
    {"EmptyLineWithNul", "OPEN\n\0"s, refused("FAIL\nUnable to parse header line: .")},
    {"EmptyLineWithParagraphSeparator", "OPEN\n\u2029", refused("FAIL\nUnable to parse header line: .")},
    {"BlankLine", "OPEN\n   \n\n", refused("FAIL\nUnable to parse header line:    .")},
    {"HeaderLineIsNoText", "OPEN\n\xff%s\n\n", refused("FAIL\nUnable to parse header line: \xff%s.")},
};

} // namespace

TEST_P(RequestTest, IsReadInOnePiece)
{
  EXPECT_EQ(read_all_of(GetParam().bytes), GetParam().outcome);
}

/* Everything behind the first byte comes later, then everything behind the second, and so on. */
TEST_P(RequestTest, IsReadInTwoPiecesCutAnywhere)
{
  const std::string &bytes = GetParam().bytes;

  for (gsize end = 1; end < bytes.size(); end++) {
    open();
    ASSERT_TRUE(client_->send(bytes.substr(0, end)));
    auto reading = std::async(std::launch::async, requests::read_outcome, channel_);
    ASSERT_TRUE(testhost::spin_until([this, &reading] {
      return client_->unread() == 0 || reading.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    }));
    ASSERT_TRUE(client_->send(bytes.substr(end)));
    client_->half_close();
    EXPECT_EQ(reading.get(), GetParam().outcome) << "cut at " << end;
    g_clear_pointer(&channel_, g_io_channel_unref);
  }
}

INSTANTIATE_TEST_SUITE_P(Requests, RequestTest, testing::ValuesIn(EXAMPLES),
                         [](const auto &example) { return std::string(example.param.name); });

TEST_F(RequestChannelTest, LeavesWhatStandsBehindTheRequest)
{
  open();
  ASSERT_TRUE(client_->send("OPEN\nevent=1\n\nSYNC\nSYN"));

  EXPECT_EQ(requests::read_outcome(channel_), accepted({{"event", "1"}}));
  EXPECT_EQ(left(), "SYNC\nSYN");
}

TEST_F(RequestChannelTest, LeavesWhatStandsBehindARequestWithOtherLineEnds)
{
  for (const std::string &end : {"\r"s, "\r\n"s, "\0"s, "\u2029"s}) {
    open();
    ASSERT_TRUE(client_->send("OPEN\nevent=1" + end + "\nSYNC\n"));
    /* A carriage return and the line feed behind it are one line end. */
    const bool ended = end != "\r";
    if (!ended) {
      ASSERT_TRUE(client_->send("event=0\n\nSYNC\n"));
    }
    const Outcome outcome = requests::read_outcome(channel_);
    if (ended) {
      EXPECT_EQ(outcome, accepted({{"event", "1"}}));
      EXPECT_EQ(left(), "SYNC\n");
    } else {
      EXPECT_EQ(outcome, refused("FAIL\nUnable to parse header line: SYNC."));
    }
    g_clear_pointer(&channel_, g_io_channel_unref);
  }
}

TEST_F(RequestChannelTest, DoesNotWaitBehindTheEmptyLine)
{
  open();
  ASSERT_TRUE(client_->send("OPEN\n\n"));

  EXPECT_EQ(requests::read_outcome(channel_), accepted({}));
  EXPECT_EQ(left(), "");
}

TEST_F(RequestChannelTest, TakesTheLongestRequest)
{
  const std::string begin = "OPEN\nevent_topic=";
  const std::string value(SERVER_MAX_REQUEST_BYTES - begin.size() - 2, 'x');
  open();
  ASSERT_TRUE(client_->send(begin + value + "\n\n" + "SYNC\n"));

  EXPECT_EQ(requests::read_outcome(channel_), accepted({{"event_topic", value}}));
  EXPECT_EQ(left(), "SYNC\n");
}

TEST_F(RequestChannelTest, RefusesARequestThatIsOneByteLonger)
{
  const std::string begin = "OPEN\nevent_topic=";
  const std::string value(SERVER_MAX_REQUEST_BYTES - begin.size() - 1, 'x');
  open();
  ASSERT_TRUE(client_->send(begin + value + "\n\n"));

  EXPECT_EQ(requests::read_outcome(channel_), refused(NO_HEADER + "Request longer than 65536 bytes"s));
}

TEST_F(RequestChannelTest, RefusesAFirstLineWithoutEnd)
{
  open(16);
  ASSERT_TRUE(client_->send(std::string(17, 'x')));

  EXPECT_EQ(requests::read_outcome(channel_), refused(NO_REQUEST + "Request longer than 16 bytes"s));
}

TEST_F(RequestChannelTest, GivesUpOnAClientThatSendsNothing)
{
  open(SERVER_MAX_REQUEST_BYTES, SHORT_MS);
  const gint64 begin = g_get_monotonic_time();

  EXPECT_EQ(requests::read_outcome(channel_), refused(NO_REQUEST + "Request not complete within 100 ms"s));
  EXPECT_GE(g_get_monotonic_time() - begin, (SHORT_MS - 1) * G_TIME_SPAN_MILLISECOND);
  EXPECT_LT(g_get_monotonic_time() - begin, 5 * G_TIME_SPAN_SECOND);
}

TEST_F(RequestChannelTest, GivesUpOnAHeaderWithoutEnd)
{
  open(SERVER_MAX_REQUEST_BYTES, SHORT_MS);
  ASSERT_TRUE(client_->send("OPEN\nevent=1\nptz"));

  EXPECT_EQ(requests::read_outcome(channel_), refused(NO_HEADER + "Request not complete within 100 ms"s));
}

/* A byte now and then does not win more time. */
TEST_F(RequestChannelTest, GivesUpOnAClientThatTrickles)
{
  open(SERVER_MAX_REQUEST_BYTES, SHORT_MS);
  ASSERT_TRUE(client_->send("OPEN\na="));
  const gint64 begin = g_get_monotonic_time();
  auto reading = std::async(std::launch::async, requests::read_outcome, channel_);
  const guint trickle = g_timeout_add(
      SHORT_MS / 10,
      [](gpointer client) -> gboolean {
        static_cast<Client *>(client)->send_some("x");
        return G_SOURCE_CONTINUE;
      },
      &*client_);

  EXPECT_TRUE(testhost::spin_until(
      [&reading] { return reading.wait_for(std::chrono::seconds(0)) == std::future_status::ready; },
      5 * G_TIME_SPAN_SECOND));
  EXPECT_GE(g_get_monotonic_time() - begin, (SHORT_MS - 1) * G_TIME_SPAN_MILLISECOND);
  g_source_remove(trickle);
  client_->half_close();
  EXPECT_EQ(reading.get(), refused(NO_HEADER + "Request not complete within 100 ms"s));
}

TEST_F(RequestChannelTest, NamesTheErrorOfALostConnection)
{
  open();
  /* What a client leaves unread when it closes makes the other end's reading fail. */
  ASSERT_EQ(send(fd_, "x", 1, MSG_DONTWAIT), 1);
  client_->hang_up();

  EXPECT_EQ(requests::read_outcome(channel_), refused(NO_REQUEST + "Connection reset by peer"s));
}

TEST_F(RequestChannelTest, NamesTheErrorOfAConnectionLostInTheHeader)
{
  open();
  ASSERT_EQ(send(fd_, "x", 1, MSG_DONTWAIT), 1);
  ASSERT_TRUE(client_->send("OPEN\n"));
  auto reading = std::async(std::launch::async, requests::read_outcome, channel_);
  ASSERT_TRUE(testhost::spin_until([this] { return client_->unread() == 0; }));
  client_->hang_up();

  EXPECT_EQ(reading.get(), refused(NO_HEADER + "Connection reset by peer"s));
}

TEST_F(RequestChannelTest, WritesAReply)
{
  open();
  gsize written = 0;

  ASSERT_EQ(g_io_channel_set_encoding(channel_, nullptr, nullptr), G_IO_STATUS_NORMAL);
  EXPECT_EQ(g_io_channel_write_chars(channel_, "OK", 3, &written, nullptr), G_IO_STATUS_NORMAL);
  EXPECT_EQ(g_io_channel_flush(channel_, nullptr), G_IO_STATUS_NORMAL);
  EXPECT_EQ(written, 3U);
  EXPECT_EQ(client_->received(), "OK\0"s);
}

TEST_F(RequestChannelTest, WritesAReplyToAClientThatHasEndedItsHalf)
{
  EXPECT_EQ(read_all_of("OPEN\n\n"), accepted({}));
  EXPECT_EQ(g_io_channel_write_chars(channel_, "OK", 3, nullptr, nullptr), G_IO_STATUS_NORMAL);
  EXPECT_EQ(g_io_channel_flush(channel_, nullptr), G_IO_STATUS_NORMAL);
  EXPECT_EQ(client_->received(), "OK\0"s);
}

/* What could not be written is still in the channel when it is released. */
TEST_F(RequestChannelTest, FailsToWriteToAClientThatIsGone)
{
  open();
  client_->hang_up();
  ASSERT_EQ(g_io_channel_set_encoding(channel_, nullptr, nullptr), G_IO_STATUS_NORMAL);
  g_io_channel_write_chars(channel_, "OK", 3, nullptr, nullptr);
  g_autoptr(GError) error = nullptr;

  EXPECT_EQ(g_io_channel_flush(channel_, &error), G_IO_STATUS_ERROR);
  EXPECT_TRUE(g_error_matches(error, G_IO_CHANNEL_ERROR, G_IO_CHANNEL_ERROR_PIPE));
  g_clear_pointer(&channel_, g_io_channel_unref);
}

/* The descriptor may be closed before the channel goes, and its number given to another client. */
TEST_F(RequestChannelTest, NeverWritesToWhoeverGetsTheDescriptorNext)
{
  int next[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, next), 0);
  open();
  client_->hang_up();
  g_io_channel_set_close_on_unref(channel_, FALSE);
  ASSERT_EQ(g_io_channel_set_encoding(channel_, nullptr, nullptr), G_IO_STATUS_NORMAL);
  g_io_channel_write_chars(channel_, "OK", 3, nullptr, nullptr);
  EXPECT_EQ(g_io_channel_flush(channel_, nullptr), G_IO_STATUS_ERROR);

  ASSERT_EQ(dup2(next[0], fd_), fd_);
  g_clear_pointer(&channel_, g_io_channel_unref);
  gchar byte = 0;
  EXPECT_EQ(recv(next[1], &byte, 1, MSG_DONTWAIT), -1);
  EXPECT_EQ(errno, EAGAIN);
  for (const int fd : {fd_, next[0], next[1]}) {
    EXPECT_EQ(close(fd), 0);
  }
}

/* The client reads nothing, so that its socket takes no more. Nor does releasing the channel wait for it. */
TEST_F(RequestChannelTest, GivesUpWritingToAClientThatDoesNotRead)
{
  open();
  const std::string filling(64 * 1024, 'x');
  while (send(fd_, filling.data(), filling.size(), MSG_DONTWAIT) > 0) {
  }
  while (send(fd_, filling.data(), 1, MSG_DONTWAIT) > 0) {
  }
  ASSERT_EQ(g_io_channel_set_encoding(channel_, nullptr, nullptr), G_IO_STATUS_NORMAL);
  const gint64 begin = g_get_monotonic_time();

  g_io_channel_write_chars(channel_, "OK", 3, nullptr, nullptr);
  EXPECT_NE(g_io_channel_flush(channel_, nullptr), G_IO_STATUS_NORMAL);
  g_clear_pointer(&channel_, g_io_channel_unref);
  EXPECT_LT(g_get_monotonic_time() - begin, 5 * G_TIME_SPAN_SECOND);
}

TEST_F(RequestChannelTest, ClosesTheDescriptorOnlyWhenToldSo)
{
  open();
  g_clear_pointer(&channel_, g_io_channel_unref);
  EXPECT_TRUE(client_->ended());

  open();
  g_io_channel_set_close_on_unref(channel_, FALSE);
  g_clear_pointer(&channel_, g_io_channel_unref);
  EXPECT_FALSE(client_->ended());
  EXPECT_EQ(close(fd_), 0);
}

/* Out-of-band bytes included. */
TEST_F(RequestChannelTest, ClosesWithTheReplyAndTheEndWhateverIsUnread)
{
  for (const int flags : {0, static_cast<int>(MSG_OOB)}) {
    open();
    client_->send_some(std::string(MORE_BYTES, 'x'), flags);
    client_->send_some("SYNC\n", flags);
    ASSERT_EQ(g_io_channel_set_encoding(channel_, nullptr, nullptr), G_IO_STATUS_NORMAL);
    g_io_channel_write_chars(channel_, "FAIL", 5, nullptr, nullptr);
    g_clear_pointer(&channel_, g_io_channel_unref);

    EXPECT_TRUE(client_->ended());
    EXPECT_EQ(client_->received(), "FAIL\0"s);
  }
}

TEST_F(RequestChannelTest, DiscardsWhatHasComeAndRefusesMore)
{
  open();
  ASSERT_TRUE(client_->send(std::string(MORE_BYTES, 'x')));

  request_channel_discard_input(fd_);
  EXPECT_EQ(client_->unread(), 0U);
  EXPECT_FALSE(client_->send("x"));
  EXPECT_EQ(send(fd_, "OK", 3, MSG_DONTWAIT), 3);
  EXPECT_EQ(client_->received(), "OK\0"s);
  EXPECT_FALSE(client_->ended());
}

/* The client waits for room when the socket is full. */
TEST_F(RequestChannelTest, DiscardingFreesAClientThatIsSending)
{
  open();
  auto sending = std::async(std::launch::async, [this] { return client_->send_until_refused(); });
  ASSERT_TRUE(testhost::spin_until([this] { return client_->unread() > MORE_BYTES; }));

  request_channel_discard_input(fd_);
  EXPECT_EQ(sending.get(), EPIPE);
}

TEST_F(RequestChannelTest, DiscardsTheInputOfAClientThatIsGone)
{
  open();
  ASSERT_TRUE(client_->send("x"));
  client_->hang_up();

  request_channel_discard_input(fd_);
  EXPECT_EQ(left(), "");
}
