/* SPDX-License-Identifier: MIT */
#include "captureservice.h"

#include "systembus.h"
#include "testbus.h"
#include "testhost.h"

#include <array>
#include <future>
#include <optional>
#include <ostream>
#include <thread>

using testbus::Service;
using testhost::Texts;

namespace
{

constexpr const char *CAPTURE = "com.quon.Capt1";
constexpr const char *ROTATION_180 = "(<{'rotation': <uint32 180>}>,)";

struct Result {
  gboolean ok;
  guint32 rotation;

  bool operator==(const Result &) const = default;
};

std::ostream &
operator<<(std::ostream &stream, const Result &result)
{
  return stream << (result.ok ? "" : "no ") << "answer, rotation " << result.rotation;
}

constexpr Result FAILURE = {FALSE, 0};

Result
query(gint32 channel = 1)
{
  Result result = {FALSE, 4711};
  g_autoptr(GError) error = nullptr;

  result.ok = capture_service_query_rotation(channel, &result.rotation, nullptr, &error);
  EXPECT_EQ(error, nullptr);
  return result;
}

class CaptureServiceTest : public testbus::Fixture
{
};

void
expect_results(const Texts &bodies, const Result &result)
{
  Service capture(CAPTURE, testbus::refuse());

  for (const std::string &body : bodies) {
    capture.set_answer(testbus::reply(body));
    EXPECT_EQ(query(), result) << body;
  }
  EXPECT_EQ(capture.take_calls().size(), bodies.size());
}

} // namespace

TEST_F(CaptureServiceTest, RequestsTheSettingsOfTheChannel)
{
  Service capture(CAPTURE, testbus::reply(ROTATION_180));

  EXPECT_EQ(query(7), (Result{TRUE, 180}));
  EXPECT_EQ(query(0), (Result{TRUE, 180}));
  EXPECT_EQ(query(G_MAXINT32), (Result{TRUE, 180}));
  EXPECT_EQ(
      capture.take_calls(),
      (Texts{"/com/quon/Capt1/Channels/7 org.freedesktop.DBus.Properties.Get ('com.quon.Capt1.Channel', "
             "'settings')",
             "/com/quon/Capt1/Channels/0 org.freedesktop.DBus.Properties.Get ('com.quon.Capt1.Channel', "
             "'settings')",
             "/com/quon/Capt1/Channels/2147483647 org.freedesktop.DBus.Properties.Get "
             "('com.quon.Capt1.Channel', "
             "'settings')"}));
}

TEST_F(CaptureServiceTest, FindsTheRotationAmongOtherSettings)
{
  expect_results({"(<{'width': <uint32 1920>, 'rotation': <uint32 270>, 'name': <'door'>}>,)"}, {TRUE, 270});
  expect_results({"(<{'rotation': <uint32 4294967295>}>,)"}, {TRUE, G_MAXUINT32});
}

TEST_F(CaptureServiceTest, TakesNoRotationForZero)
{
  expect_results({"(<@a{sv} {}>,)", "(<{'Rotation': <uint32 90>}>,)", "(<{'': <uint32 90>}>,)"}, {TRUE, 0});
}

TEST_F(CaptureServiceTest, TakesARotationOfAnotherTypeForZero)
{
  expect_results({"(<{'rotation': <90>}>,)", "(<{'rotation': <'90'>}>,)", "(<{'rotation': <uint64 90>}>,)",
                  "(<{'rotation': <90.0>}>,)", "(<{'rotation': <true>}>,)",
                  "(<{'rotation': <(uint32 90,)>}>,)", "(<{'rotation': <[uint32 90]>}>,)",
                  "(<{'rotation': <@a{sv} {}>}>,)", "(<{'rotation': <<uint32 90>>}>,)"},
                 {TRUE, 0});
}

TEST_F(CaptureServiceTest, FailsForAReplyThatIsNotOneVariant)
{
  expect_results({"()", "(uint32 90,)", "('rotation',)", "({'rotation': <uint32 90>},)",
                  "(<{'rotation': <uint32 90>}>, 'more')", "('more', <{'rotation': <uint32 90>}>)",
                  "((<{'rotation': <uint32 90>}>,),)", "([<{'rotation': <uint32 90>}>],)",
                  "(objectpath '/',)"},
                 FAILURE);
}

TEST_F(CaptureServiceTest, FailsForSettingsOfAnotherType)
{
  expect_results({"(<uint32 90>,)", "(<'rotation'>,)", "(<('rotation', <uint32 90>)>,)",
                  "(<[('rotation', <uint32 90>)]>,)", "(<{'rotation': uint32 90}>,)",
                  "(<@a{ss} {'rotation': '90'}>,)", "(<{uint32 1: <uint32 90>}>,)",
                  "(<<{'rotation': <uint32 90>}>>,)", "(<<<<<<<<'deep'>>>>>>>>,)", "(<@av []>,)"},
                 FAILURE);
}

TEST_F(CaptureServiceTest, FailsWhenTheServiceRefuses)
{
  Service capture(CAPTURE, testbus::refuse());

  EXPECT_EQ(query(), FAILURE);
  EXPECT_EQ(capture.take_calls().size(), 1U);
}

TEST_F(CaptureServiceTest, FailsWithoutTheService)
{
  EXPECT_EQ(query(), FAILURE);
}

TEST_F(CaptureServiceTest, FailsWithoutABus)
{
  bus_.reset();

  EXPECT_EQ(query(), FAILURE);
}

TEST_F(CaptureServiceTest, FailsWithAnErrorWhenTooFewDescriptorsAreFree)
{
  constexpr guint ENOUGH = DESCRIPTOR_RESERVE_SIZE + SYSTEM_BUS_CALL_DESCRIPTORS;

  for (guint count = 0; count < ENOUGH; count++) {
    const testhost::FreeDescriptors free(count);
    g_autoptr(GError) error = nullptr;
    guint32 rotation = 4711;

    EXPECT_FALSE(capture_service_query_rotation(1, &rotation, nullptr, &error)) << count;
    EXPECT_EQ(rotation, 0U);
    EXPECT_TRUE(g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TOO_MANY_OPEN_FILES)) << count;
  }
  const testhost::FreeDescriptors free(ENOUGH);
  EXPECT_EQ(query(), FAILURE);
}

TEST_F(CaptureServiceTest, FailsWithAnErrorWhenItIsCancelled)
{
  Service capture(CAPTURE, testbus::reply(ROTATION_180));
  capture.set_slow(true);
  g_autoptr(GCancellable) cancellable = g_cancellable_new();
  g_autoptr(GError) error = nullptr;
  guint32 rotation = 4711;
  auto result = std::async(std::launch::async,
                           [&] { return capture_service_query_rotation(1, &rotation, cancellable, &error); });

  ASSERT_TRUE(testhost::spin_until([&] { return capture.calls_size() == 1; }));
  g_cancellable_cancel(cancellable);
  EXPECT_FALSE(result.get());
  EXPECT_EQ(rotation, 0U);
  EXPECT_TRUE(g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED));
}

TEST_F(CaptureServiceTest, UsesABusThatStartsLater)
{
  bus_.reset();
  EXPECT_EQ(query(), FAILURE);

  bus_.emplace();
  Service capture(CAPTURE, testbus::reply(ROTATION_180));
  EXPECT_EQ(query(), (Result{TRUE, 180}));
}

TEST_F(CaptureServiceTest, WaitsForASlowReply)
{
  Service capture(CAPTURE, testbus::reply(ROTATION_180));
  capture.set_slow(true);
  auto result = std::async(std::launch::async, [] { return query(); });

  ASSERT_TRUE(testhost::spin_until([&] { return capture.calls_size() == 1; }));
  EXPECT_EQ(result.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  capture.set_slow(false);
  EXPECT_EQ(result.get(), (Result{TRUE, 180}));
}

TEST_F(CaptureServiceTest, FailsWhenTheServiceLeavesWithoutAReply)
{
  std::optional<Service> capture;
  capture.emplace(CAPTURE, testbus::reply(ROTATION_180));
  capture->set_slow(true);
  auto result = std::async(std::launch::async, [] { return query(); });

  ASSERT_TRUE(testhost::spin_until([&] { return capture->calls_size() == 1; }));
  capture.reset();
  EXPECT_EQ(result.get(), FAILURE);
}

/* The test holds a connection too, like the daemon; GLib shares it with the query. */
TEST_F(CaptureServiceTest, SurvivesTheEndOfTheBus)
{
  Service capture(CAPTURE, testbus::reply(ROTATION_180));
  g_autoptr(GDBusConnection) shared = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
  ASSERT_TRUE(g_dbus_connection_get_exit_on_close(shared));
  bool closed = false;
  g_signal_connect(shared, "closed",
                   G_CALLBACK(+[](GDBusConnection *, gboolean, GError *, bool *flag) { *flag = true; }),
                   &closed);

  EXPECT_EQ(query(), (Result{TRUE, 180}));
  EXPECT_FALSE(g_dbus_connection_get_exit_on_close(shared));
  bus_.reset();
  EXPECT_TRUE(testhost::spin_until([&] { return closed; }));
  EXPECT_EQ(query(), FAILURE);
}

TEST_F(CaptureServiceTest, ServesTwoThreadsAtOnce)
{
  Service capture(CAPTURE, [](GDBusMessage *call) {
    const bool first = g_str_has_suffix(g_dbus_message_get_path(call), "/1");
    return testbus::reply(first ? "(<{'rotation': <uint32 90>}>,)" : ROTATION_180)(call);
  });
  const auto query_often = [](gint32 channel, guint32 rotation) {
    int right = 0;
    for (int i = 0; i < 50; i++) {
      right += query(channel) == Result{TRUE, rotation} ? 1 : 0;
    }
    return right;
  };

  auto other = std::async(std::launch::async, query_often, 2, 180);
  EXPECT_EQ(query_often(1, 90), 50);
  EXPECT_EQ(other.get(), 50);
}
