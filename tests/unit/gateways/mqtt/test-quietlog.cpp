/* SPDX-License-Identifier: MIT */
#include "quietlog.h"

#include "mqttlimits.h"
#include "testclock.h"
#include "testhost.h"

#include <syslog.h>

namespace
{

using testhost::SyslogLines;

class QuietLogTest : public testhost::Fixture
{
protected:
  void TearDown() override
  {
    testclock::reset();
    testhost::Fixture::TearDown();
  }

  mqtt::QuietLog log_;
};

TEST_F(QuietLogTest, LogsTheFirstLine)
{
  log_.warn("one");
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_WARNING, "one"}}));
}

TEST_F(QuietLogTest, CountsTheLinesOfAMinute)
{
  log_.warn("one");
  testhost::take_syslog();
  testclock::stop();
  testclock::advance_ms(MQTT_LOG_SECONDS * 1000 - 1000);
  log_.warn("two");
  log_.warn("three");
  EXPECT_EQ(testhost::take_syslog(), SyslogLines());
  testclock::advance_ms(2000);
  log_.warn("four");
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_WARNING, "four (and 2 more of these)"}}));
  testclock::advance_ms(MQTT_LOG_SECONDS * 1000);
  log_.warn("five");
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_WARNING, "five"}}));
}

} // namespace
