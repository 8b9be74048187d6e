/* SPDX-License-Identifier: MIT */
#include "channelwriter.h"

#include <algorithm>
#include <array>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace
{

constexpr guint32 CHANNEL = 7;

/* More than a pipe holds. */
const std::string LONG(1024 * 1024, 'x');

class ChannelWriterTest : public testing::Test
{
protected:
  ChannelWriterTest() : writer(CHANNEL, on_written, on_end, this)
  {
    EXPECT_EQ(pipe2(pipe_ends.data(), O_CLOEXEC), 0);
    writer.open(pipe_ends[1]);
  }

  ~ChannelWriterTest() override
  {
    close_reader();
  }

  void close_reader()
  {
    if (pipe_ends[0] >= 0) {
      close(pipe_ends[0]);
    }
    pipe_ends[0] = -1;
  }

  std::string read_some() const
  {
    std::array<char, 65536> bytes;
    const ssize_t count = read(pipe_ends[0], bytes.data(), bytes.size());
    return {bytes.data(), static_cast<gsize>(std::max<ssize_t>(count, 0))};
  }

  /* Reads so many bytes while the main loop writes them. */
  std::string read_bytes(gsize size) const
  {
    std::string bytes;
    while (bytes.size() < size) {
      bytes += read_some();
      while (g_main_context_iteration(nullptr, FALSE)) {
      }
    }
    return bytes;
  }

  void wait_for_end() const
  {
    while (ended == 0) {
      g_main_context_iteration(nullptr, TRUE);
    }
  }

  static void on_written(ChannelWriter *writer, gpointer user_data)
  {
    static_cast<ChannelWriterTest *>(user_data)->written++;
  }

  static void on_end(ChannelWriter *writer, gpointer user_data)
  {
    EXPECT_EQ(writer->channel(), CHANNEL);
    EXPECT_FALSE(writer->is_open());
    static_cast<ChannelWriterTest *>(user_data)->ended++;
  }

  std::array<int, 2> pipe_ends;
  ChannelWriter writer;
  guint written = 0;
  guint ended = 0;
};

TEST_F(ChannelWriterTest, WritesAShortMessageAtOnce)
{
  writer.write("message");

  EXPECT_FALSE(writer.is_writing());
  EXPECT_EQ(read_some(), "message");
  EXPECT_EQ(written, 0U);
}

TEST_F(ChannelWriterTest, TheMainLoopWritesTheRestOfALongMessage)
{
  writer.write(LONG);

  EXPECT_TRUE(writer.is_writing());
  EXPECT_EQ(read_bytes(LONG.size()), LONG);
  EXPECT_FALSE(writer.is_writing());
  EXPECT_EQ(written, 1U);
  EXPECT_EQ(ended, 0U);
}

TEST_F(ChannelWriterTest, WritesNothingWhileTheReaderDoesNotRead)
{
  writer.write(LONG);

  EXPECT_FALSE(g_main_context_iteration(nullptr, FALSE));
  EXPECT_TRUE(writer.is_writing());
}

TEST_F(ChannelWriterTest, NoticesTheEndWithoutAMessage)
{
  close_reader();
  wait_for_end();

  EXPECT_FALSE(writer.is_open());
  EXPECT_EQ(ended, 1U);
}

TEST_F(ChannelWriterTest, NoticesTheEndWhileItWrites)
{
  writer.write(LONG);
  close_reader();
  wait_for_end();

  EXPECT_FALSE(writer.is_writing());
  EXPECT_EQ(ended, 1U);
  EXPECT_EQ(written, 0U);
}

TEST_F(ChannelWriterTest, NoticesTheEndWhenItBeginsToWrite)
{
  close_reader();
  writer.write("message");

  EXPECT_FALSE(writer.is_open());
  EXPECT_EQ(ended, 1U);
  EXPECT_FALSE(g_main_context_iteration(nullptr, FALSE));
}

TEST_F(ChannelWriterTest, CloseClosesTheDescriptor)
{
  writer.write(LONG);
  writer.close();

  EXPECT_FALSE(writer.is_open());
  EXPECT_FALSE(writer.is_writing());
  std::string bytes;
  for (std::string some = read_some(); !some.empty(); some = read_some()) {
    bytes += some;
  }
  EXPECT_LT(bytes.size(), LONG.size());
  EXPECT_EQ(ended, 0U);
}

TEST_F(ChannelWriterTest, CanBeOpenedAgain)
{
  close_reader();
  wait_for_end();
  ASSERT_EQ(pipe2(pipe_ends.data(), O_CLOEXEC), 0);
  writer.open(pipe_ends[1]);
  writer.write("message");

  EXPECT_EQ(read_some(), "message");
}

} // namespace
