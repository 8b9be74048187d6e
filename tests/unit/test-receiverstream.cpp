/* SPDX-License-Identifier: MIT */
#include "receiverstream.h"

#include "testreceiver.h"

#include <array>
#include <fcntl.h>
#include <string>
#include <syslog.h>
#include <thread>
#include <unistd.h>

using testhost::spin_until;
using testhost::SyslogLines;
using testhost::Texts;

namespace
{

constexpr const char *FACES = "/com/quon/MetadataReceiver1/Producers/Faces";

/* A request's callbacks, in order, and its descriptor. */
struct Stream {
  Texts calls;
  gint fd = -2;
  std::thread::id thread;

  Stream() = default;
  Stream(const Stream &) = delete;
  Stream &operator=(const Stream &) = delete;

  ~Stream()
  {
    if (fd >= 0) {
      close(fd);
    }
  }

  bool has_ended() const
  {
    return !calls.empty() && calls.back() == "free";
  }

  static void on_fd(gint fd, const gchar *source_name, gpointer user_data)
  {
    auto *self = static_cast<Stream *>(user_data);

    self->fd = fd;
    self->thread = std::this_thread::get_id();
    self->calls.push_back(std::string("on_fd ") + source_name);
  }

  static void on_free(gpointer user_data)
  {
    static_cast<Stream *>(user_data)->calls.emplace_back("free");
  }
};

class ReceiverStreamTest : public testreceiver::Fixture
{
protected:
  /* The strings live only as long as the call. */
  void request(Stream *stream, GCancellable *cancellable = nullptr,
               GDestroyNotify free_func = Stream::on_free) const
  {
    const std::string path = FACES;
    const std::string source_name = "front door";
    const ReceiverStreamRequest request = {.connection = connection_,
                                           .path = path.c_str(),
                                           .channel = 3,
                                           .source_name = source_name.c_str(),
                                           .cancellable = cancellable,
                                           .on_fd = Stream::on_fd};

    receiver_stream_request(&request, stream, free_func);
  }
};

} // namespace

TEST_F(ReceiverStreamTest, PassesTheDescriptorOnTheMainThread)
{
  std::array<int, 2> pipe = {-1, -1};
  ASSERT_EQ(pipe2(pipe.data(), O_CLOEXEC), 0);
  add("Faces", testbus::reply_with_fds("(handle 0,)", {pipe[0]}));
  Stream stream;

  std::thread([&] { request(&stream); }).join();
  EXPECT_EQ(stream.calls, Texts());
  ASSERT_TRUE(spin_until([&stream] { return stream.has_ended(); }));
  EXPECT_EQ(stream.calls, Texts({"on_fd front door", "free"}));
  EXPECT_EQ(stream.thread, std::this_thread::get_id());
  EXPECT_EQ(receiver_->take_calls(), Texts({"Faces GetStreamFd (3,)"}));
  char byte = '\0';
  EXPECT_EQ(write(pipe[1], "x", 1), 1);
  EXPECT_EQ(read(stream.fd, &byte, 1), 1);
  EXPECT_EQ(byte, 'x');
  close(pipe[0]);
  close(pipe[1]);
}

TEST_F(ReceiverStreamTest, PassesNoDescriptorWhenTheReplyHasNone)
{
  add("Faces", testbus::reply("(handle 0,)"));
  Stream stream;

  request(&stream, nullptr, nullptr);
  ASSERT_TRUE(spin_until([&stream] { return !stream.calls.empty(); }));
  EXPECT_EQ(stream.calls, Texts({"on_fd front door"}));
  EXPECT_EQ(stream.fd, -1);
  /* docs/compatibility.md, "line feed in a line". */
  EXPECT_EQ(
      testhost::take_syslog(),
      (SyslogLines{{LOG_WARNING, "Failed to parse fd from variant: the reply holds no such descriptor\n"}}));
}

TEST_F(ReceiverStreamTest, ReleasesTheUserDataOfAFailedCall)
{
  add("Faces", testbus::refuse());
  Stream stream;

  request(&stream);
  ASSERT_TRUE(spin_until([&stream] { return stream.has_ended(); }));
  EXPECT_EQ(stream.calls, Texts({"free"}));
  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{{LOG_INFO, "handle_get_stream_fd failed: GDBus.Error:com.quon.Test.Error: No."}}));
}

TEST_F(ReceiverStreamTest, MakesNoCallForACancelledRequest)
{
  g_autoptr(GCancellable) cancellable = g_cancellable_new();
  Stream stream;

  request(&stream, cancellable);
  g_cancellable_cancel(cancellable);
  ASSERT_TRUE(spin_until([&stream] { return stream.has_ended(); }));
  EXPECT_EQ(stream.calls, Texts({"free"}));
  EXPECT_EQ(receiver_->take_calls(), Texts());
}
