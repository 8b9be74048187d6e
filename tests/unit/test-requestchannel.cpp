/* SPDX-License-Identifier: MIT */
#include "requestchannel.h"

#include "requestoutcome.h"
#include "server.h"
#include "testclient.h"
#include "testhost.h"

#include <future>
#include <optional>
#include <sys/socket.h>
#include <unistd.h>

using requests::Outcome;

using namespace std::string_literals;

namespace
{

/* More bytes than one read returns, and fewer than a socket holds. */
constexpr gsize MORE_BYTES = 20'000;

/* A connection with a request channel at the server's end. */
class RequestChannelTest : public testhost::Fixture
{
protected:
  void open(const std::string &text = "", const char *failure = nullptr)
  {
    text_ = text;
    client_.emplace(Client::connect_pair(&fd_));
    channel_ = request_channel_new(fd_, text_.data(), text_.size(), failure);
  }

  /* The outcome of a text that ends, or fails, behind its last byte. */
  Outcome read(const std::string &text, const char *failure = nullptr)
  {
    open(text, failure);
    const Outcome outcome = requests::read_outcome(channel_);
    close_connection();
    return outcome;
  }

  void TearDown() override
  {
    close_connection();
    Fixture::TearDown();
  }

  /* Writes the whole reply, with its NUL, into the channel and flushes it. */
  GIOStatus reply(const std::string &text, GError **error = nullptr)
  {
    EXPECT_EQ(g_io_channel_set_encoding(channel_, nullptr, nullptr), G_IO_STATUS_NORMAL);
    g_io_channel_write_chars(channel_, text.c_str(), static_cast<gssize>(text.size()) + 1, nullptr, nullptr);
    return g_io_channel_flush(channel_, error);
  }

  void close_connection()
  {
    g_clear_pointer(&channel_, g_io_channel_unref);
    client_.reset();
    if (fd_ >= 0) {
      EXPECT_EQ(close(fd_), 0);
      fd_ = -1;
    }
  }

  int fd_ = -1;
  std::string text_;
  GIOChannel *channel_ = nullptr;
  std::optional<Client> client_;
};

} // namespace

TEST_F(RequestChannelTest, ReadsTextsOfAnyLength)
{
  const std::string begin = "OPEN\na=";

  for (const gsize size : std::initializer_list<gsize>{0, 1, 1000, 1024, 5000, MORE_BYTES}) {
    const std::string value(size, 'x');
    EXPECT_EQ(read(begin + value + "\n\n"), (Outcome{true, {{"a", value}}, ""}));
  }
}

TEST_F(RequestChannelTest, EndsAfterTheText)
{
  EXPECT_EQ(read(""), (Outcome{false, {}, "FAIL\nCould not read request from client socket: "}));
  EXPECT_EQ(read("OPEN"), (Outcome{false, {}, "FAIL\nUnknown: request: OPEN (4)"}));
  EXPECT_EQ(read("OPEN\na=b\n"), (Outcome{false, {}, "FAIL\nCould not read request header from socket: "}));
}

/* After a failure, a last line without a line end is not read. */
TEST_F(RequestChannelTest, FailsAfterTheTextWithTheReason)
{
  EXPECT_EQ(read("OPEN", "Too late"),
            (Outcome{false, {}, "FAIL\nCould not read request from client socket: Too late"}));
  EXPECT_EQ(read("OPEN\na=b\nwrong", "Too late"),
            (Outcome{false, {}, "FAIL\nCould not read request header from socket: Too late"}));
  EXPECT_EQ(read("OPEN\na=b\n", ""),
            (Outcome{false, {}, "FAIL\nCould not read request header from socket: "}));
  EXPECT_EQ(read("OPEN\n\n", "Too late"), (Outcome{true, {}, ""}));
}

/* The bytes behind a request belong to the stream. */
TEST_F(RequestChannelTest, ReadsNothingFromTheSocket)
{
  open("OPEN\n");
  ASSERT_TRUE(client_->send("\n"));

  EXPECT_EQ(requests::read_outcome(channel_),
            (Outcome{false, {}, "FAIL\nCould not read request header from socket: "}));
  EXPECT_NE(client_->unread(), 0U);
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
  open("OPEN\n\n");
  client_->half_close();
  EXPECT_EQ(requests::read_outcome(channel_), (Outcome{true, {}, ""}));
  EXPECT_EQ(g_io_channel_write_chars(channel_, "OK", 3, nullptr, nullptr), G_IO_STATUS_NORMAL);
  EXPECT_EQ(g_io_channel_flush(channel_, nullptr), G_IO_STATUS_NORMAL);
  EXPECT_EQ(client_->received(), "OK\0"s);
}

/* The channel still holds the reply when it is released. */
TEST_F(RequestChannelTest, FailsToWriteToAClientThatIsGone)
{
  open();
  client_->hang_up();
  g_autoptr(GError) error = nullptr;

  EXPECT_EQ(reply("OK", &error), G_IO_STATUS_ERROR);
  EXPECT_TRUE(g_error_matches(error, G_IO_CHANNEL_ERROR, G_IO_CHANNEL_ERROR_PIPE));
  g_clear_pointer(&channel_, g_io_channel_unref);
}

/* The descriptor may be closed before the channel is released, and another client may get its number. */
TEST_F(RequestChannelTest, NeverWritesToAReusedDescriptor)
{
  int next[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, next), 0);
  open();
  client_->hang_up();
  EXPECT_EQ(reply("OK"), G_IO_STATUS_ERROR);

  ASSERT_EQ(dup2(next[0], fd_), fd_);
  g_clear_pointer(&channel_, g_io_channel_unref);
  gchar byte = 0;
  EXPECT_EQ(recv(next[1], &byte, 1, MSG_DONTWAIT), -1);
  EXPECT_EQ(errno, EAGAIN);
  for (const int fd : next) {
    EXPECT_EQ(close(fd), 0);
  }
}

/* The reply contains the request line, which can be as long as a request. */
TEST_F(RequestChannelTest, WritesTheLongestReplyToAClientThatDoesNotRead)
{
  open();
  const std::string longest(SERVER_MAX_REQUEST_BYTES + 100, 'x');

  EXPECT_EQ(reply(longest), G_IO_STATUS_NORMAL);
  g_clear_pointer(&channel_, g_io_channel_unref);
  EXPECT_TRUE(client_->received() == longest + '\0');
}

/* Neither the flush nor the release of the channel waits. */
TEST_F(RequestChannelTest, FailsToWriteToAFullSocket)
{
  open();
  const std::string filling(64 * 1024, 'x');
  while (send(fd_, filling.data(), filling.size(), MSG_DONTWAIT) > 0) {
  }
  while (send(fd_, filling.data(), 1, MSG_DONTWAIT) > 0) {
  }
  const gint64 begin = g_get_monotonic_time();

  EXPECT_NE(reply("OK"), G_IO_STATUS_NORMAL);
  g_clear_pointer(&channel_, g_io_channel_unref);
  EXPECT_LT(g_get_monotonic_time() - begin, 5 * G_TIME_SPAN_SECOND);
}

TEST_F(RequestChannelTest, KeepsTheDescriptorOpen)
{
  open();
  g_clear_pointer(&channel_, g_io_channel_unref);
  EXPECT_FALSE(client_->ended());
}

TEST_F(RequestChannelTest, DiscardingUnreadInputKeepsTheReplyAndTheEnd)
{
  for (const int flags : {0, static_cast<int>(MSG_OOB)}) {
    open();
    client_->send_some(std::string(MORE_BYTES, 'x'), flags);
    client_->send_some("SYNC\n", flags);
    ASSERT_EQ(reply("FAIL"), G_IO_STATUS_NORMAL);
    g_clear_pointer(&channel_, g_io_channel_unref);
    request_channel_discard_input(fd_);
    ASSERT_EQ(close(std::exchange(fd_, -1)), 0);

    EXPECT_TRUE(client_->ended());
    EXPECT_EQ(client_->received(), "FAIL\0"s);
  }
}

TEST_F(RequestChannelTest, DiscardsTheInputAndRefusesMore)
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

/* The client blocks because the socket is full. */
TEST_F(RequestChannelTest, DiscardingUnblocksAClientThatSends)
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
  gchar byte = 0;
  EXPECT_EQ(recv(fd_, &byte, 1, MSG_DONTWAIT), 0);
}
