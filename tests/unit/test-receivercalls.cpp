/* SPDX-License-Identifier: MIT */
#include "receivercalls.h"

#include "descriptorreserve.h"
#include "testbus.h"
#include "testhost.h"
#include "testreceiver.h"

#include <algorithm>
#include <functional>
#include <string>
#include <syslog.h>
#include <utility>
#include <vector>

using testhost::spin_until;
using testhost::SyslogLines;
using testhost::Texts;

namespace
{

constexpr const char *ROOT = "/com/quon/MetadataReceiver1/Producers/";
constexpr guint LONG_MS = 60000;

/* The user data of a call. */
struct Caller {
  GCancellable *cancellable = g_cancellable_new();
  unsigned ends = 0;
  unsigned frees = 0;
  std::string end; /* the reply's body, or the error's text */

  Caller() = default;
  Caller(const Caller &) = delete;
  Caller &operator=(const Caller &) = delete;

  ~Caller()
  {
    g_object_unref(cancellable);
  }

  bool wait_until_freed() const
  {
    return spin_until([this] { return frees > 0; });
  }

  static void on_end(GVariant *reply, GUnixFDList *, const GError *error, gpointer user_data)
  {
    auto *self = static_cast<Caller *>(user_data);
    g_autofree gchar *body = reply != nullptr ? g_variant_print(reply, FALSE) : nullptr;

    EXPECT_EQ(self->frees, 0);
    EXPECT_NE(reply == nullptr, error == nullptr);
    self->ends++;
    self->end = body != nullptr ? body : error->message;
  }

  static void on_free(gpointer user_data)
  {
    static_cast<Caller *>(user_data)->frees++;
  }
};

struct Terms {
  guint timeout_ms = LONG_MS;
  guint descriptors = 0;
  const char *method = "GetStreamFd";
};

class ReceiverCallsTest : public testreceiver::Fixture
{
protected:
  void call(Caller *caller, const std::string &name, GVariant *parameters = nullptr,
            const Terms &terms = {}) const
  {
    const std::string path = ROOT + name;
    const ReceiverCall call = {connection_,       path.c_str(),     terms.method,       parameters,
                               terms.descriptors, terms.timeout_ms, caller->cancellable};

    receiver_call(&call, Caller::on_end, caller, Caller::on_free);
  }

  bool wait_until_held(gsize count)
  {
    return spin_until([&] { return receiver_->held() == count; });
  }

  static bool wait_until_freed(const std::vector<Caller> &callers)
  {
    return std::ranges::all_of(callers, [](const Caller &caller) { return caller.wait_until_freed(); });
  }
};

testbus::Answer
refuse_as_beyond_limits()
{
  return [](GDBusMessage *call) {
    return g_dbus_message_new_method_error_literal(call, "org.freedesktop.DBus.Error.LimitsExceeded",
                                                   "No more.");
  };
}

} // namespace

TEST_F(ReceiverCallsTest, DeliversAReply)
{
  Caller caller;
  add("Faces", testbus::reply("('text', 1)"));

  call(&caller, "Faces", g_variant_new("(i)", 3));
  EXPECT_EQ(caller.ends, 0);
  ASSERT_TRUE(caller.wait_until_freed());
  EXPECT_EQ(caller.end, "('text', 1)");
  EXPECT_EQ(receiver_->take_calls(), Texts({"Faces GetStreamFd (3,)"}));
  testhost::dispatch_ready();
  EXPECT_EQ(caller.ends, 1);
  EXPECT_EQ(caller.frees, 1);
}

TEST_F(ReceiverCallsTest, DeliversAnError)
{
  Caller caller;
  add("Faces", testbus::refuse());

  call(&caller, "Faces");
  ASSERT_TRUE(caller.wait_until_freed());
  EXPECT_EQ(caller.end, "GDBus.Error:com.quon.Test.Error: No.");
}

TEST_F(ReceiverCallsTest, NeedsNoCancellableAndNoReleaseFunction)
{
  Caller caller;
  const std::string path = ROOT + std::string("Faces");
  const ReceiverCall call = {connection_, path.c_str(), "GetStreamFd", nullptr, 0, LONG_MS, nullptr};
  add("Faces", testbus::reply("()"));

  receiver_call(&call, Caller::on_end, &caller, nullptr);
  ASSERT_TRUE(spin_until([&caller] { return caller.ends > 0; }));
  EXPECT_EQ(caller.end, "()");
}

TEST_F(ReceiverCallsTest, LimitsConcurrentCallsAndKeepsTheirOrder)
{
  constexpr gint COUNT = 2 * RECEIVER_CALLS_MAX_UNDER_WAY;
  std::vector<Caller> callers(COUNT);
  Texts calls;
  add("Faces", receiver_->hold());
  for (gint i = 0; i < COUNT; i++) {
    call(&callers[i], "Faces", g_variant_new("(i)", i));
    calls.push_back("Faces GetStreamFd (" + std::to_string(i) + ",)");
  }

  ASSERT_TRUE(wait_until_held(RECEIVER_CALLS_MAX_UNDER_WAY));
  testhost::dispatch_ready();
  EXPECT_EQ(receiver_->held(), RECEIVER_CALLS_MAX_UNDER_WAY);
  receiver_->release_held(testbus::reply("()"));
  ASSERT_TRUE(wait_until_held(RECEIVER_CALLS_MAX_UNDER_WAY));
  receiver_->release_held(testbus::reply("()"));
  ASSERT_TRUE(callers.back().wait_until_freed());
  EXPECT_EQ(receiver_->take_calls(), calls);
}

TEST_F(ReceiverCallsTest, TimesOutACallWithoutReply)
{
  constexpr guint SHORT_MS = 10;
  Caller slow;
  add("Faces", receiver_->hold());
  call(&slow, "Faces", nullptr, {.timeout_ms = SHORT_MS});

  ASSERT_TRUE(slow.wait_until_freed());
  EXPECT_EQ(slow.end, "Timeout was reached");
  ASSERT_TRUE(wait_until_held(1));
  receiver_->release_held(testbus::reply("()"));
  Caller next;
  add("Plates", testbus::reply("('next',)"));
  call(&next, "Plates");
  ASSERT_TRUE(next.wait_until_freed());
  EXPECT_EQ(slow.ends, 1);
  EXPECT_EQ(slow.frees, 1);
}

TEST_F(ReceiverCallsTest, EndsSilentlyWhenCancelled)
{
  std::vector<Caller> callers(RECEIVER_CALLS_MAX_UNDER_WAY + 2);
  add("Faces", receiver_->hold());
  for (Caller &caller : callers) {
    call(&caller, "Faces");
  }
  ASSERT_TRUE(wait_until_held(RECEIVER_CALLS_MAX_UNDER_WAY));

  for (Caller &caller : callers) {
    g_cancellable_cancel(caller.cancellable);
  }
  testhost::dispatch_ready();
  for (const Caller &caller : callers) {
    EXPECT_EQ(caller.frees, 1);
  }
  receiver_->release_held(testbus::reply("()"));
  Caller next;
  add("Plates", testbus::reply("()"));
  call(&next, "Plates");
  ASSERT_TRUE(next.wait_until_freed());
  for (const Caller &caller : callers) {
    EXPECT_EQ(caller.ends, 0);
    EXPECT_EQ(caller.frees, 1);
  }
  EXPECT_EQ(receiver_->calls_size(), RECEIVER_CALLS_MAX_UNDER_WAY + 1);
}

/* The bus counts a cancelled call until its reply. */
TEST_F(ReceiverCallsTest, StopsCallingAReceiverThatNeverReplies)
{
  constexpr gsize WAVES = RECEIVER_CALLS_MAX_UNANSWERED / RECEIVER_CALLS_MAX_UNDER_WAY;
  add("Faces", receiver_->hold());
  for (gsize wave = 1; wave <= WAVES; wave++) {
    std::vector<Caller> callers(RECEIVER_CALLS_MAX_UNDER_WAY);
    for (Caller &caller : callers) {
      call(&caller, "Faces");
    }
    ASSERT_TRUE(wait_until_held(wave * RECEIVER_CALLS_MAX_UNDER_WAY));
    for (Caller &caller : callers) {
      g_cancellable_cancel(caller.cancellable);
    }
    ASSERT_TRUE(wait_until_freed(callers));
  }
  EXPECT_EQ(testhost::take_syslog(), SyslogLines());

  std::vector<Caller> others(3);
  for (Caller &caller : others) {
    call(&caller, "Faces");
  }
  testhost::dispatch_ready();
  EXPECT_EQ(testhost::take_syslog(),
            SyslogLines({{LOG_WARNING, "calls of the metadata receiver wait: it leaves 96 unanswered"}}));
  g_cancellable_cancel(others.front().cancellable);
  testhost::dispatch_ready();
  EXPECT_EQ(others.front().frees, 1);
  EXPECT_EQ(receiver_->held(), RECEIVER_CALLS_MAX_UNANSWERED);
  add("Faces", testbus::reply("()"));
  receiver_->release_held(testbus::reply("()"));
  ASSERT_TRUE(others.back().wait_until_freed());
  EXPECT_EQ(others.back().end, "()");
}

TEST_F(ReceiverCallsTest, CallsAReturningReceiverThatLeftCallsUnanswered)
{
  constexpr guint SHORT_MS = 10;
  std::vector<Caller> callers(RECEIVER_CALLS_MAX_UNANSWERED);
  add("Faces", receiver_->hold());
  for (Caller &caller : callers) {
    call(&caller, "Faces", nullptr, {.timeout_ms = SHORT_MS});
  }
  ASSERT_TRUE(wait_until_freed(callers));
  Caller next;
  call(&next, "Plates", nullptr, {});
  EXPECT_EQ(testhost::take_syslog().size(), 1);
  EXPECT_EQ(next.frees, 0);
  ASSERT_TRUE(wait_until_held(RECEIVER_CALLS_MAX_UNANSWERED));

  receiver_->leave();
  add("Plates", testbus::reply("()"));
  ASSERT_TRUE(next.wait_until_freed());
  receiver_->come_back();
  Caller last;
  call(&last, "Plates");
  ASSERT_TRUE(last.wait_until_freed());
  EXPECT_EQ(last.end, "()");
}

/* Refused calls are repeated behind the others. */
TEST_F(ReceiverCallsTest, CallsOtherProducersWhileOneAlwaysRefuses)
{
  std::vector<Caller> refused(2 * RECEIVER_CALLS_MAX_UNDER_WAY);
  Caller other;
  add("Faces", refuse_as_beyond_limits());
  add("Plates", testbus::reply("()"));
  for (Caller &caller : refused) {
    call(&caller, "Faces");
  }
  call(&other, "Plates");

  ASSERT_TRUE(other.wait_until_freed());
  for (Caller &caller : refused) {
    EXPECT_EQ(caller.ends, 0);
    g_cancellable_cancel(caller.cancellable);
  }
  ASSERT_TRUE(refused.back().wait_until_freed());
  /* Is made when the back-off is over. */
  Caller last;
  call(&last, "Plates");
  ASSERT_TRUE(last.wait_until_freed());
}

TEST_F(ReceiverCallsTest, HoldsItsReservationUntilTheReply)
{
  Caller first;
  Caller second;
  add("Faces", receiver_->hold());
  call(&first, "Faces", nullptr, {.descriptors = 1});
  ASSERT_TRUE(wait_until_held(1));
  const testhost::FreeDescriptors one(DESCRIPTOR_RESERVE_SIZE + 1);

  g_cancellable_cancel(first.cancellable);
  ASSERT_TRUE(first.wait_until_freed());
  call(&second, "Faces", nullptr, {.descriptors = 1});
  EXPECT_EQ(
      testhost::take_syslog(),
      SyslogLines({{LOG_WARNING, "streams of external producers wait: too few free file descriptors"}}));
  add("Faces", testbus::reply("()"));
  receiver_->release_held(testbus::reply("()"));
  ASSERT_TRUE(second.wait_until_freed());
  EXPECT_EQ(second.end, "()");
}

TEST_F(ReceiverCallsTest, CanBeMadeFromACallback)
{
  Caller next;
  std::function<void()> on_end = [&] { call(&next, "Faces"); };
  const std::string path = ROOT + std::string("Faces");
  const ReceiverCall first = {connection_, path.c_str(), "GetStreamFd", nullptr, 0, LONG_MS, nullptr};
  add("Faces", testbus::reply("()"));

  receiver_call(
      &first,
      [](GVariant *, GUnixFDList *, const GError *, gpointer user_data) {
        (*static_cast<std::function<void()> *>(user_data))();
      },
      &on_end, nullptr);
  ASSERT_TRUE(next.wait_until_freed());
  EXPECT_EQ(next.end, "()");
}

TEST_F(ReceiverCallsTest, FailsWithItsConnection)
{
  std::vector<Caller> callers(RECEIVER_CALLS_MAX_UNDER_WAY + 1);
  add("Faces", receiver_->hold());
  for (Caller &caller : callers) {
    call(&caller, "Faces");
  }
  ASSERT_TRUE(wait_until_held(RECEIVER_CALLS_MAX_UNDER_WAY));

  bus_.reset();
  ASSERT_TRUE(wait_until_freed(callers));
  for (const Caller &caller : callers) {
    EXPECT_EQ(caller.ends, 1);
  }
}
