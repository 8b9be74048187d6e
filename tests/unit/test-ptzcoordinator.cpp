/* SPDX-License-Identifier: MIT */
#include "ptzcoordinator.h"

#include "testbus.h"
#include "testhost.h"

#include <syslog.h>

using testbus::Service;
using testhost::SyslogLines;
using testhost::Texts;

namespace
{

constexpr const char *COORDINATOR = "com.quon.PTZ.Coordinator";

SyslogLines
failure(const std::string &reason)
{
  return {{LOG_INFO, "could not get property DriverMoveCapabilities from /com/quon/PTZ/Coordinator/1: " +
                         reason + " "}};
}

class PTZCoordinatorTest : public testbus::Fixture
{
protected:
  /* The capabilities are 0, and one line has the reason. */
  static void expect_failure(const std::string &reason)
  {
    EXPECT_EQ(ptz_coordinator_query_move_capabilities(), 0);
    EXPECT_EQ(testhost::take_syslog(), failure(reason));
  }
};

} // namespace

TEST_F(PTZCoordinatorTest, RequestsTheMoveCapabilities)
{
  Service coordinator(COORDINATOR, testbus::reply("(<7>,)"));

  EXPECT_EQ(ptz_coordinator_query_move_capabilities(), 7);
  EXPECT_EQ(coordinator.take_calls(),
            (Texts{"/com/quon/PTZ/Coordinator/1 org.freedesktop.DBus.Properties.Get "
                   "('com.quon.PTZ.Coordinator', 'DriverMoveCapabilities')"}));
}

TEST_F(PTZCoordinatorTest, AcceptsAnyNumber)
{
  Service coordinator(COORDINATOR, testbus::reply("(<-2147483648>,)"));

  EXPECT_EQ(ptz_coordinator_query_move_capabilities(), G_MININT32);
  coordinator.set_answer(testbus::reply("(<2147483647>, 'more')"));
  EXPECT_EQ(ptz_coordinator_query_move_capabilities(), G_MAXINT32);
}

TEST_F(PTZCoordinatorTest, LogsAReplyOfAnotherType)
{
  Service coordinator(COORDINATOR, testbus::refuse());

  for (const char *body :
       {"()", "(7,)", "(<uint32 7>,)", "(<'7'>,)", "(<<7>>,)", "(<@ai []>,)", "('more', <7>)"}) {
    coordinator.set_answer(testbus::reply(body));
    expect_failure("Failed to unpack variant");
  }
}

TEST_F(PTZCoordinatorTest, LogsAnAbsentCoordinator)
{
  expect_failure(
      "GDBus.Error:org.freedesktop.DBus.Error.ServiceUnknown: The name com.quon.PTZ.Coordinator was "
      "not provided by any .service files");
}

TEST_F(PTZCoordinatorTest, LogsAnAbsentBus)
{
  bus_.reset();
  EXPECT_EQ(ptz_coordinator_query_move_capabilities(), 0);
  EXPECT_EQ(testhost::take_syslog().size(), 1U);
}
