/* SPDX-License-Identifier: MIT */
#include "channelpipe.h"

#include "testclock.h"
#include "testlibrary.h"
#include "testpipes.h"

#include <fcntl.h>
#include <unistd.h>

using testpipes::Pipe;
using Texts = std::vector<std::string>;

namespace
{

constexpr guint32 CHANNEL = 7;
constexpr int CAPACITY = 4096;

/* The length before a text. */
constexpr gsize HEADER = sizeof(guint32);

class Client : public ChannelPipe::Client
{
public:
  explicit Client(testlibrary::Told *told) : told_(told)
  {
  }

  virtual ~Client() = default;

  void items_passed(guint written, guint expired) override
  {
    told_->add("passed " + std::to_string(written) + ", expired " + std::to_string(expired));
  }

  void channel_closed(ChannelPipe *pipe, const LostMessages &lost) override
  {
    EXPECT_EQ(pipe->channel(), CHANNEL);
    EXPECT_FALSE(pipe->is_open());
    EXPECT_FALSE(pipe->is_writing());
    told_->add("closed, unwritten " + std::to_string(lost.unwritten) + ", unread " +
               std::to_string(lost.unread));
  }

private:
  testlibrary::Told *told_;
};

const std::string PASSED = "passed 1, expired 0";

class ChannelPipeTest : public testlibrary::Fixture
{
protected:
  void SetUp() override
  {
    Fixture::SetUp();
    testclock::reset();
    pipe_.emplace<guint32, MessageQueue *, ChannelPipe::Client *>(CHANNEL, &queue_, &client_);
  }

  void TearDown() override
  {
    pipe_.reset();
    told_.expect({});
    reader_.reset();
    Fixture::TearDown();
  }

  void push(const std::string &text)
  {
    guint expired = 0;

    EXPECT_TRUE(queue_.push(text, &expired));
    EXPECT_EQ(expired, 0U);
  }

  /* Opens the channel with a new pipe, of which it has the write end alone, and writes what waits. */
  void open(int capacity = 0)
  {
    reader_.reset();
    Pipe ends = testpipes::open_pipe(capacity);
    const int descriptor = testpipes::duplicate(ends.write_end);

    reader_.emplace(std::move(ends.read_end));
    ends.write_end.close();
    pipe_.with([&](ChannelPipe &pipe) {
      EXPECT_FALSE(pipe.is_open());
      pipe.open(descriptor);
      EXPECT_TRUE(pipe.is_open());
      pipe.write_queued();
    });
  }

  void write_queued()
  {
    pipe_.with([](ChannelPipe &pipe) { pipe.write_queued(); });
  }

  bool is_writing()
  {
    bool writing = false;

    pipe_.with([&](ChannelPipe &pipe) { writing = pipe.is_writing() != FALSE; });
    return writing;
  }

  void expect_close(guint unwritten, guint unread)
  {
    pipe_.with([&](ChannelPipe &pipe) {
      const LostMessages lost = pipe.close();
      EXPECT_EQ(lost.unwritten, unwritten);
      EXPECT_EQ(lost.unread, unread);
      EXPECT_FALSE(pipe.is_open());
      EXPECT_FALSE(pipe.is_writing());
    });
  }

  std::optional<testpipes::Descriptor> reader_; /* the receiver's end */
  MessageQueue queue_;
  testlibrary::Told told_;
  Client client_{&told_};
  testlibrary::OnWorker<ChannelPipe> pipe_;
};

} // namespace

TEST_F(ChannelPipeTest, WritesEachItemWithItsLength)
{
  push("first");
  push("");
  open();
  told_.expect({PASSED, PASSED});
  EXPECT_EQ(reader_->read(2 * HEADER + 5), testpipes::wire_form("first") + testpipes::wire_form(""));
  push("second");
  told_.expect({});
  write_queued();
  told_.expect({PASSED});
  EXPECT_EQ(reader_->messages(1), Texts{"second"});
}

TEST_F(ChannelPipeTest, DoesNothingWhileItIsClosed)
{
  push("waits");
  write_queued();
  expect_close(0, 0);
  open();
  told_.expect({PASSED});
  EXPECT_EQ(reader_->messages(1), Texts{"waits"});
}

TEST_F(ChannelPipeTest, MakesItsDescriptorNonBlocking)
{
  const Pipe ends = testpipes::open_pipe(CAPACITY);
  ASSERT_EQ(fcntl(ends.write_end.fd(), F_SETFL, O_WRONLY), 0);

  push(std::string(3 * CAPACITY, 'x'));
  pipe_.with([&](ChannelPipe &pipe) {
    pipe.open(testpipes::duplicate(ends.write_end));
    pipe.write_queued();
  });
  EXPECT_TRUE(is_writing());
  EXPECT_EQ(fcntl(ends.write_end.fd(), F_GETFL) & O_NONBLOCK, O_NONBLOCK);
  pipe_.reset();
}

TEST_F(ChannelPipeTest, GoesOnWhenTheReceiverReads)
{
  const Texts texts = {"first", std::string(3 * CAPACITY, 'x'), "last"};

  for (const std::string &text : texts) {
    push(text);
  }
  open(CAPACITY);
  told_.expect({PASSED});
  EXPECT_TRUE(is_writing());
  EXPECT_EQ(reader_->messages(3), texts);
  told_.expect({PASSED, PASSED});
  EXPECT_FALSE(is_writing());
}

TEST_F(ChannelPipeTest, CountsItemsThatWaitForTooLong)
{
  push("old");
  push("old");
  testclock::advance_ms(TESSARD_QUEUE_MAX_AGE_MS + 1);
  open();
  told_.expect({"passed 0, expired 2"});
}

/* An item whose first byte is written is not dropped. */
TEST_F(ChannelPipeTest, ItemThatIsPartlyWrittenDoesNotExpire)
{
  const std::string text(3 * CAPACITY, 'x');

  push(text);
  push("waits");
  open(CAPACITY);
  testclock::advance_ms(TESSARD_QUEUE_MAX_AGE_MS + 1);
  EXPECT_EQ(reader_->messages(1), Texts{text});
  told_.expect({PASSED, "passed 0, expired 1"});
}

TEST_F(ChannelPipeTest, CountsWhatTheReceiverLeavesUnread)
{
  const struct {
    gsize read;
    const char *closed;
  } cases[] = {
      {0, "closed, unwritten 0, unread 2"},          {1, "closed, unwritten 0, unread 2"},
      {HEADER + 3, "closed, unwritten 0, unread 2"}, {HEADER + 4, "closed, unwritten 0, unread 1"},
      {HEADER + 5, "closed, unwritten 0, unread 1"}, {2 * (HEADER + 4), "closed, unwritten 0, unread 0"},
  };

  for (const auto &[read, closed] : cases) {
    push("aaaa");
    push("bbbb");
    open();
    reader_->read(read);
    reader_->close();
    told_.expect({PASSED, PASSED, closed});
  }
}

TEST_F(ChannelPipeTest, CountsAnItemThatIsPartlyWritten)
{
  push("unread");
  push(std::string(3 * CAPACITY, 'x'));
  push("waits");
  open(CAPACITY);
  reader_->close();
  told_.expect({PASSED, "closed, unwritten 1, unread 1"});
  open();
  told_.expect({PASSED});
  EXPECT_EQ(reader_->messages(1), Texts{"waits"});
}

/* The write fails before the hang-up is dispatched. */
TEST_F(ChannelPipeTest, FindsThatTheReceiverHasGoneWhenItWrites)
{
  open();

  push("unread");
  write_queued();
  push("unwritten");
  pipe_.with([&](ChannelPipe &pipe) {
    reader_->close();
    pipe.write_queued();
    EXPECT_FALSE(pipe.is_open());
  });
  told_.expect({PASSED, "closed, unwritten 1, unread 1"});
}

TEST_F(ChannelPipeTest, CloseCountsWhatIsLost)
{
  push("unread");
  push(std::string(3 * CAPACITY, 'x'));
  open(CAPACITY);
  told_.expect({PASSED});
  expect_close(1, 1);
  expect_close(0, 0);
  while (!reader_->read_some(CAPACITY).empty()) {
  }
  EXPECT_TRUE(reader_->reaches_end()) << "its write end is closed";
}

TEST_F(ChannelPipeTest, CountsAnewWhenItIsOpenedAgain)
{
  for (guint round = 0; round < 3; round++) {
    push("unread");
    open();
    told_.expect({PASSED});
    expect_close(0, 1);
  }
}

/* It forgets where messages end that the receiver must have read. */
TEST_F(ChannelPipeTest, CountsAfterManyMessages)
{
  constexpr guint MESSAGES = 3000;
  open(CAPACITY);

  for (guint i = 0; i < MESSAGES; i++) {
    push(std::to_string(i));
    write_queued();
    EXPECT_EQ(reader_->messages(1), Texts{std::to_string(i)});
  }
  told_.expect(Texts(MESSAGES, PASSED));
  /* As many as the pipe holds: all of them can be unread. */
  constexpr guint UNREAD = CAPACITY / (HEADER + 4);
  for (guint i = 0; i < UNREAD; i++) {
    push("text");
  }
  write_queued();
  told_.expect(Texts(UNREAD, PASSED));
  reader_->close();
  told_.expect({"closed, unwritten 0, unread " + std::to_string(UNREAD)});
}

TEST_F(ChannelPipeTest, ClosesItsDescriptorAtItsEnd)
{
  open();
  pipe_.reset();
  EXPECT_TRUE(reader_->reaches_end());
}

TEST_F(ChannelPipeTest, TakesItemsThatAreQueuedMeanwhile)
{
  const std::string text(2 * CAPACITY, 'x');

  push(text);
  open(CAPACITY);
  push("queued");
  EXPECT_EQ(reader_->messages(2), (Texts{text, "queued"}));
  told_.expect({PASSED, PASSED});
}
