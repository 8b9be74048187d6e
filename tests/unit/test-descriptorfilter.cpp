/* SPDX-License-Identifier: MIT */
#include "descriptorfilter.h"

#include "ratelimitedlog.h"
#include "testbus.h"
#include "testhost.h"

#include <array>
#include <fcntl.h>
#include <gio/gunixfdlist.h>
#include <memory>
#include <poll.h>
#include <syslog.h>
#include <unistd.h>

using testbus::Bus;
using testbus::Peer;
using testbus::Service;
using testhost::SyslogLines;

namespace
{

constexpr const char *RECEIVER = "com.quon.MetadataReceiver1";
constexpr const char *PRODUCER_INTERFACE = "com.quon.MetadataReceiver1.Producer";
constexpr const char *PATH = "/com/quon/MetadataReceiver1/Producers/Persons";
constexpr const char *PEER = ":1.7";
constexpr const char *REFUSED = "org.freedesktop.DBus.Error.NotSupported";
constexpr gint TIMEOUT_MS = 10000;
constexpr guint32 SERIAL = 42;

using Message = std::unique_ptr<GDBusMessage, decltype(&g_object_unref)>;

Message
own(GDBusMessage *message)
{
  return {message, g_object_unref};
}

/* The descriptors of a message: ends of pipes, whose other ends detect that they are closed. */
class Attached
{
public:
  explicit Attached(gint count = 1)
  {
    for (gint i = 0; i < count; i++) {
      std::array<int, 2> ends = {};
      EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
      EXPECT_EQ(g_unix_fd_list_append(list_.get(), ends[1], nullptr), i);
      close(ends[1]);
      watched_.push_back(ends[0]);
    }
  }

  ~Attached()
  {
    for (const int fd : watched_) {
      close(fd);
    }
  }

  Attached(const Attached &) = delete;
  Attached &operator=(const Attached &) = delete;

  GUnixFDList *list() const
  {
    return list_.get();
  }

  /* Closes them here, so that only messages have them. */
  void let_go()
  {
    list_.reset();
  }

  bool closed() const
  {
    for (const int fd : watched_) {
      pollfd state = {fd, POLLIN, 0};
      if (poll(&state, 1, 0) != 1 || (state.revents & POLLHUP) == 0) {
        return false;
      }
    }
    return true;
  }

private:
  std::unique_ptr<GUnixFDList, decltype(&g_object_unref)> list_{g_unix_fd_list_new(), g_object_unref};
  std::vector<int> watched_;
};

GDBusMessage *
attach(GDBusMessage *message, const Attached &attached)
{
  g_dbus_message_set_unix_fd_list(message, attached.list());
  return message;
}

/* A message in the form in which the bus forwards it. */
GDBusMessage *
received(GDBusMessage *message, guint32 serial = SERIAL, const char *sender = PEER)
{
  /* A new message has the serial 0, which cannot be set. */
  if (serial != 0) {
    g_dbus_message_set_serial(message, serial);
  }
  g_dbus_message_set_sender(message, sender);
  g_dbus_message_lock(message);
  return message;
}

GDBusMessage *
new_call()
{
  return g_dbus_message_new_method_call(":1.2", "/", "com.quon.Test", "Look");
}

GDBusMessage *
new_signal()
{
  return g_dbus_message_new_signal("/", "com.quon.Test", "Looked");
}

GDBusMessage *
new_return(guint32 reply_serial)
{
  GDBusMessage *message = g_dbus_message_new();

  g_dbus_message_set_message_type(message, G_DBUS_MESSAGE_TYPE_METHOD_RETURN);
  g_dbus_message_set_reply_serial(message, reply_serial);
  return message;
}

GDBusMessage *
new_error(guint32 reply_serial)
{
  GDBusMessage *message = new_return(reply_serial);

  g_dbus_message_set_message_type(message, G_DBUS_MESSAGE_TYPE_ERROR);
  g_dbus_message_set_error_name(message, "com.quon.Test.Error");
  return message;
}

GDBusMessage *
new_stream_call()
{
  return g_dbus_message_new_method_call(RECEIVER, PATH, PRODUCER_INTERFACE, "GetStreamFd");
}

std::string
error_text(GDBusMessage *message)
{
  const gchar *text = "";

  g_variant_get(g_dbus_message_get_body(message), "(&s)", &text);
  return text;
}

class DescriptorFilterTest : public testhost::Fixture
{
protected:
  static void SetUpTestSuite()
  {
    testbus::install();
  }

  /* Takes the message over. Returns the message that passes and puts the reply into answer_. */
  Message receive(GDBusMessage *message)
  {
    GDBusMessage *answer = nullptr;
    Message passed = own(descriptor_filter_pass(filter_.get(), message, TRUE, &answer));

    answer_ = own(answer);
    return passed;
  }

  bool passes(GDBusMessage *message)
  {
    const Message passed = receive(message);

    EXPECT_EQ(answer_, nullptr);
    return passed.get() == message;
  }

  /* The message does not pass and gets no reply. */
  void expect_dropped(GDBusMessage *message)
  {
    const Message passed = receive(message);

    EXPECT_EQ(passed, nullptr);
    EXPECT_EQ(answer_, nullptr);
  }

  void expect_replaced(GDBusMessage *message, guint32 reply_serial)
  {
    const Message passed = receive(message);

    ASSERT_NE(passed, nullptr);
    EXPECT_EQ(answer_, nullptr);
    EXPECT_EQ(g_dbus_message_get_message_type(passed.get()), G_DBUS_MESSAGE_TYPE_ERROR);
    EXPECT_EQ(g_dbus_message_get_serial(passed.get()), SERIAL);
    EXPECT_EQ(g_dbus_message_get_reply_serial(passed.get()), reply_serial);
    EXPECT_STREQ(g_dbus_message_get_sender(passed.get()), PEER);
    EXPECT_STREQ(g_dbus_message_get_error_name(passed.get()), REFUSED);
    EXPECT_EQ(error_text(passed.get()), "The reply has file descriptors that were not requested");
    EXPECT_EQ(g_dbus_message_get_unix_fd_list(passed.get()), nullptr);
    EXPECT_EQ(g_dbus_message_get_num_unix_fds(passed.get()), 0U);
  }

  void send(GDBusMessage *message, guint32 serial)
  {
    GDBusMessage *answer = nullptr;

    g_dbus_message_set_serial(message, serial);
    g_dbus_message_lock(message);
    EXPECT_EQ(own(descriptor_filter_pass(filter_.get(), message, FALSE, &answer)).get(), message);
    EXPECT_EQ(answer, nullptr);
  }

  Message answer_ = own(nullptr);

private:
  std::unique_ptr<DescriptorFilter, decltype(&descriptor_filter_free)> filter_{descriptor_filter_new(),
                                                                               descriptor_filter_free};
};

void
on_look(GDBusConnection *, const gchar *, const gchar *, const gchar *, const gchar *, GVariant *,
        GDBusMethodInvocation *invocation, gpointer)
{
  g_dbus_method_invocation_return_value(invocation, nullptr);
}

/* Exports com.quon.Test at "/" in the default main context. */
void
serve(const Peer &peer)
{
  const GDBusInterfaceVTable vtable = {on_look, nullptr, nullptr, {}};
  g_autoptr(GError) error = nullptr;
  g_autoptr(GDBusNodeInfo) node = g_dbus_node_info_new_for_xml(
      "<node><interface name='com.quon.Test'><method name='Look'/></interface></node>", &error);
  ASSERT_NE(node, nullptr) << error->message;

  EXPECT_NE(g_dbus_connection_register_object(peer.connection(), "/", node->interfaces[0], &vtable, nullptr,
                                              nullptr, &error),
            0U)
      << error->message;
}

/* A call of a peer is sent unchanged, and its reply awaited without the default main context. */
Message
call_and_wait(const Peer &peer, GDBusMessage *call)
{
  const Message sent = own(call);
  g_autoptr(GError) error = nullptr;
  Message reply = own(g_dbus_connection_send_message_with_reply_sync(
      peer.connection(), call, G_DBUS_SEND_MESSAGE_FLAGS_NONE, TIMEOUT_MS, nullptr, nullptr, &error));

  EXPECT_EQ(error, nullptr) << error->message;
  return reply;
}

} // namespace

TEST_F(DescriptorFilterTest, PassesMessagesWithoutDescriptors)
{
  EXPECT_TRUE(passes(received(new_call())));
  EXPECT_TRUE(passes(received(new_signal())));
  EXPECT_TRUE(passes(received(new_return(1))));
  EXPECT_TRUE(passes(received(new_error(1))));
  EXPECT_TRUE(passes(received(attach(new_call(), Attached(0)))));
}

TEST_F(DescriptorFilterTest, PassesOutgoingMessages)
{
  const Attached attached(3);

  send(attach(new_call(), attached), 1);
  send(attach(new_signal(), attached), 2);
  send(attach(new_return(7), attached), 3);
}

TEST_F(DescriptorFilterTest, RepliesToACallWithDescriptors)
{
  Attached attached(16);
  GDBusMessage *call = received(attach(new_call(), attached));
  attached.let_go();

  EXPECT_EQ(receive(call), nullptr);
  EXPECT_TRUE(attached.closed());
  ASSERT_NE(answer_, nullptr);
  EXPECT_EQ(g_dbus_message_get_message_type(answer_.get()), G_DBUS_MESSAGE_TYPE_ERROR);
  EXPECT_EQ(g_dbus_message_get_flags(answer_.get()), G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED);
  EXPECT_EQ(g_dbus_message_get_reply_serial(answer_.get()), SERIAL);
  EXPECT_STREQ(g_dbus_message_get_destination(answer_.get()), PEER);
  EXPECT_STREQ(g_dbus_message_get_error_name(answer_.get()), REFUSED);
  EXPECT_EQ(error_text(answer_.get()), "No call here takes file descriptors");
  EXPECT_FALSE(g_dbus_message_get_locked(answer_.get()));
}

TEST_F(DescriptorFilterTest, RepliesOnlyToCallsThatExpectAReply)
{
  const Attached attached;
  GDBusMessage *quiet = attach(new_call(), attached);
  g_dbus_message_set_flags(quiet, G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED);

  expect_dropped(received(quiet));
  expect_dropped(received(attach(new_call(), attached), 0));
  expect_dropped(received(attach(new_call(), attached), SERIAL, nullptr));
  expect_dropped(received(attach(new_call(), attached), SERIAL, "com.quon.Test"));
  GDBusMessage *odd = attach(new_call(), attached);
  g_dbus_message_set_header(odd, G_DBUS_MESSAGE_HEADER_FIELD_SENDER, g_variant_new_string("no name"));
  g_dbus_message_set_serial(odd, SERIAL);
  expect_dropped(odd);
}

TEST_F(DescriptorFilterTest, DropsSignalsAndUnknownTypesWithDescriptors)
{
  Attached attached;
  GDBusMessage *unknown = attach(new_call(), attached);
  g_dbus_message_set_message_type(unknown, static_cast<GDBusMessageType>(7));

  expect_dropped(received(attach(new_signal(), attached)));
  expect_dropped(received(unknown));
  attached.let_go();
  EXPECT_TRUE(attached.closed());
}

TEST_F(DescriptorFilterTest, CountsDescriptorsThatCouldNotBeInstalled)
{
  GDBusMessage *signal = new_signal();

  g_dbus_message_set_num_unix_fds(signal, 1);
  expect_dropped(received(signal));
}

TEST_F(DescriptorFilterTest, PassesTheReplyToARequestForAStreamOnce)
{
  const Attached attached;

  send(new_stream_call(), 5);
  EXPECT_TRUE(passes(received(attach(new_return(5), attached))));
  expect_replaced(received(attach(new_return(5), attached)), 5);
}

TEST_F(DescriptorFilterTest, ReplacesRepliesToOtherCalls)
{
  Attached attached;
  GDBusMessage *signal = new_stream_call();
  g_dbus_message_set_message_type(signal, G_DBUS_MESSAGE_TYPE_SIGNAL);

  send(g_dbus_message_new_method_call("com.quon.Capt1", PATH, PRODUCER_INTERFACE, "GetStreamFd"), 5);
  send(g_dbus_message_new_method_call(RECEIVER, PATH, "com.quon.Test", "GetStreamFd"), 6);
  send(g_dbus_message_new_method_call(RECEIVER, PATH, nullptr, "GetStreamFd"), 7);
  send(g_dbus_message_new_method_call(RECEIVER, PATH, PRODUCER_INTERFACE, "GetSampleFrame"), 8);
  send(signal, 9);
  for (guint32 serial = 4; serial <= 10; serial++) {
    expect_replaced(received(attach(new_return(serial), attached)), serial);
    expect_replaced(received(attach(new_error(serial), attached)), serial);
  }
  attached.let_go();
  EXPECT_TRUE(attached.closed());
}

TEST_F(DescriptorFilterTest, ReplacesErrorsWithDescriptors)
{
  const Attached attached;

  send(new_stream_call(), 5);
  expect_replaced(received(attach(new_error(5), attached)), 5);
  expect_replaced(received(attach(new_return(5), attached)), 5);
}

TEST_F(DescriptorFilterTest, ForgetsACallAfterItsReply)
{
  const Attached attached;

  send(new_stream_call(), 5);
  send(new_stream_call(), 6);
  EXPECT_TRUE(passes(received(new_error(5))));
  EXPECT_TRUE(passes(received(new_return(6))));
  expect_replaced(received(attach(new_return(5), attached)), 5);
  expect_replaced(received(attach(new_return(6), attached)), 6);
}

TEST_F(DescriptorFilterTest, ForgetsTheOldestOfTooManyCalls)
{
  constexpr guint32 FIRST = 100;
  constexpr guint32 END = FIRST + DESCRIPTOR_FILTER_MAX_CALLS + 2;
  const Attached attached;

  for (guint32 serial = FIRST; serial < END; serial++) {
    send(new_stream_call(), serial);
  }
  expect_replaced(received(attach(new_return(FIRST), attached)), FIRST);
  expect_replaced(received(attach(new_return(FIRST + 1), attached)), FIRST + 1);
  for (guint32 serial = FIRST + 2; serial < END; serial++) {
    EXPECT_TRUE(passes(received(attach(new_return(serial), attached)))) << serial;
  }
}

TEST_F(DescriptorFilterTest, KeepsAnOldCallWhileManyOthersGetReplies)
{
  const Attached attached;

  send(new_stream_call(), 1);
  for (guint32 serial = 2; serial < 3 * DESCRIPTOR_FILTER_MAX_CALLS; serial++) {
    send(new_stream_call(), serial);
    EXPECT_TRUE(passes(received(attach(new_return(serial), attached)))) << serial;
  }
  EXPECT_TRUE(passes(received(attach(new_return(1), attached))));
}

TEST_F(DescriptorFilterTest, RefusesDescriptorsOnTheBusWithoutTheMainLoop)
{
  constexpr int CALLS = 200;
  const Bus bus;
  const Peer daemon;
  const Peer stranger;
  descriptor_filter_add(daemon.connection());
  serve(daemon);
  Attached attached(16);
  const std::string name = daemon.name();
  const gint64 begin_us = g_get_monotonic_time();

  for (int i = 0; i < CALLS; i++) {
    const Message reply = call_and_wait(
        stranger,
        attach(g_dbus_message_new_method_call(name.c_str(), "/", "com.quon.Test", "Look"), attached));
    ASSERT_NE(reply, nullptr);
    EXPECT_STREQ(g_dbus_message_get_error_name(reply.get()), REFUSED);
  }
  attached.let_go();
  EXPECT_TRUE(testhost::spin_until([&attached] { return attached.closed(); }));

  const auto seconds = static_cast<gsize>((g_get_monotonic_time() - begin_us) / G_TIME_SPAN_SECOND);
  const SyslogLines lines = testhost::take_syslog();
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.front().priority, LOG_WARNING);
  EXPECT_EQ(lines.front().text,
            "refused file descriptors from " + stranger.name() + ": the daemon did not request them");
  EXPECT_LE(lines.size(), seconds + 1);
  rate_limited_log_flush();
  EXPECT_LE(testhost::take_syslog().size(), 1U);
}

TEST_F(DescriptorFilterTest, PassesAStreamOnTheBus)
{
  const Bus bus;
  const Attached attached;
  Service receiver(RECEIVER, [&attached](GDBusMessage *call) {
    GDBusMessage *reply = g_dbus_message_new_method_reply(call);
    g_dbus_message_set_body(reply, g_variant_new("(h)", 0));
    return attach(reply, attached);
  });
  const Peer daemon;
  descriptor_filter_add(daemon.connection());

  const Message reply = call_and_wait(daemon, new_stream_call());
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(g_dbus_message_get_message_type(reply.get()), G_DBUS_MESSAGE_TYPE_METHOD_RETURN);
  ASSERT_NE(g_dbus_message_get_unix_fd_list(reply.get()), nullptr);
  EXPECT_EQ(g_unix_fd_list_get_length(g_dbus_message_get_unix_fd_list(reply.get())), 1);
}

TEST_F(DescriptorFilterTest, FailsAnotherReplyWithDescriptorsImmediately)
{
  const Bus bus;
  const Attached attached;
  Service receiver(RECEIVER, [&attached](GDBusMessage *call) {
    return attach(g_dbus_message_new_method_reply(call), attached);
  });
  const Peer daemon;
  descriptor_filter_add(daemon.connection());

  const Message reply = call_and_wait(
      daemon, g_dbus_message_new_method_call(RECEIVER, PATH, PRODUCER_INTERFACE, "GetSampleFrame"));
  ASSERT_NE(reply, nullptr);
  EXPECT_STREQ(g_dbus_message_get_error_name(reply.get()), REFUSED);
  EXPECT_EQ(testhost::take_syslog().size(), 1U);
}

/* The caller's time-out has ended, but the call is still pending on the bus. */
TEST_F(DescriptorFilterTest, ClosesTheDescriptorsOfALateReply)
{
  const Bus bus;
  Attached attached;
  Service receiver(RECEIVER, [&attached](GDBusMessage *call) {
    GDBusMessage *reply = attach(g_dbus_message_new_method_reply(call), attached);
    attached.let_go();
    return reply;
  });
  receiver.set_slow(true);
  const Peer daemon;
  descriptor_filter_add(daemon.connection());
  const Message call = own(new_stream_call());
  g_autoptr(GError) error = nullptr;

  EXPECT_EQ(g_dbus_connection_send_message_with_reply_sync(
                daemon.connection(), call.get(), G_DBUS_SEND_MESSAGE_FLAGS_NONE, 1, nullptr, nullptr, &error),
            nullptr);
  EXPECT_TRUE(g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT));
  receiver.set_slow(false);
  EXPECT_TRUE(testhost::spin_until([&attached] { return attached.closed(); }));
}

TEST_F(DescriptorFilterTest, IsReleasedWithItsConnection)
{
  const Bus bus;
  auto daemon = std::make_unique<Peer>();
  descriptor_filter_add(daemon->connection());
  testhost::Observed connection(daemon->connection());

  daemon.reset();
  EXPECT_TRUE(testhost::spin_until([&connection] { return !connection.alive(); }));
}
