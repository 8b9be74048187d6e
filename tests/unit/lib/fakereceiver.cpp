/* SPDX-License-Identifier: MIT */
#include "fakereceiver.h"

#include "testlibrary.h"

namespace testlibrary
{
namespace
{

constexpr const char *NAME = "com.quon.MetadataReceiver1";
constexpr const char *PATH = "/com/quon/MetadataReceiver1";

std::string
describe_call(GDBusMessage *call)
{
  const std::string interface = g_dbus_message_get_interface(call);
  GVariant *body = g_dbus_message_get_body(call);
  g_autofree gchar *arguments = body != nullptr ? g_variant_print(body, FALSE) : g_strdup("()");

  return interface.substr(interface.rfind('.') + 1) + "." + g_dbus_message_get_member(call) + " " + arguments;
}

} // namespace

FakeReceiver::FakeReceiver()
    : accepting_({{"RegisterProducer", testbus::reply("()")},
                  {"UnregisterProducer", testbus::reply("()")},
                  {"OpenChannel", [this](GDBusMessage *call) { return open_channel(call); }},
                  {"DeclareTopic", testbus::reply("()")},
                  {"Emit", testbus::reply("()")},
                  {"GetTopics", testbus::reply("(@a(sba(ss)a(ss)a{ss}) [],)")}}),
      answers_(accepting_)
{
  come_back();
}

void
FakeReceiver::leave()
{
  service_.reset();
}

void
FakeReceiver::come_back()
{
  service_.emplace(NAME, [this](GDBusMessage *call) { return answer(call); });
}

void
FakeReceiver::come_back_at_once()
{
  service_->take_name_again(NAME);
}

void
FakeReceiver::set_answer(const std::string &method, testbus::Answer answer)
{
  std::lock_guard guard(lock_);

  answers_[method] = std::move(answer);
}

void
FakeReceiver::accept(const std::string &method)
{
  set_answer(method, accepting_.at(method));
}

void
FakeReceiver::hold(const std::string &method)
{
  set_answer(method, held_.hold());
}

void
FakeReceiver::release(gsize count, const testbus::Answer &answer)
{
  wait_for_held(count);
  held_.release(&*service_, answer);
}

void
FakeReceiver::wait_for_held(gsize count)
{
  EXPECT_TRUE(testhost::spin_until([&] { return held_.size() == count; }));
}

void
FakeReceiver::send(GDBusMessage *message)
{
  service_->send(message);
}

void
FakeReceiver::expect_calls(const std::vector<std::string> &calls)
{
  EXPECT_TRUE(testhost::spin_until([&] { return calls_.size() >= calls.size(); }));
  EXPECT_EQ(calls_.take(), calls);
}

gsize
FakeReceiver::calls_size()
{
  return calls_.size();
}

void
FakeReceiver::forget_calls()
{
  calls_.take();
}

testpipes::Descriptor
FakeReceiver::take_channel()
{
  const auto is_there = [this] {
    std::lock_guard guard(lock_);
    return !channels_.empty();
  };

  EXPECT_TRUE(testhost::spin_until(is_there));
  std::lock_guard guard(lock_);
  testpipes::Descriptor channel = std::move(channels_.front());
  channels_.pop_front();
  return channel;
}

/* On the service's thread, as what follows. */
GDBusMessage *
FakeReceiver::answer(GDBusMessage *call)
{
  testbus::Answer answer;

  EXPECT_STREQ(g_dbus_message_get_path(call), PATH);
  {
    std::lock_guard guard(lock_);
    answer = answers_.at(g_dbus_message_get_member(call));
  }
  calls_.add(describe_call(call));
  return answer(call);
}

GDBusMessage *
FakeReceiver::open_channel(GDBusMessage *call)
{
  testpipes::Pipe pipe = testpipes::open_pipe();
  GDBusMessage *message = testbus::reply_with_fds("(handle 0,)", {pipe.write_end.fd()})(call);
  std::lock_guard guard(lock_);

  channels_.push_back(std::move(pipe.read_end));
  return message;
}

} // namespace testlibrary
