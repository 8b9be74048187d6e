#include "ratelimitedlog.h"

#include "testhost.h"

#include <string>
#include <syslog.h>
#include <thread>
#include <vector>

using testhost::SyslogLines;

namespace
{

constexpr gint64 LONGER_THAN_A_TEST_US = G_TIME_SPAN_DAY;
constexpr gint64 SHORT_US = 20 * G_TIME_SPAN_MILLISECOND;

class RateLimitedLogTest : public testhost::Fixture
{
};

std::string
line_with_count(guint64 count)
{
  return "refused (" + std::to_string(count) + " more since the last such line)";
}

} // namespace

TEST_F(RateLimitedLogTest, LogsTheFirstLineWithItsPriority)
{
  RateLimitedLog log = RATE_LIMITED_LOG_INIT(LONGER_THAN_A_TEST_US);

  rate_limited_log(&log, LOG_ERR, "refused %s for the %dth time: 100%%", "somebody", 7);
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_ERR, "refused somebody for the 7th time: 100%"}}));
}

TEST_F(RateLimitedLogTest, LeavesLinesOutAndTellsTheCountOnce)
{
  RateLimitedLog log = RATE_LIMITED_LOG_INIT(LONGER_THAN_A_TEST_US);

  for (int i = 0; i < 4; i++) {
    rate_limited_log(&log, LOG_WARNING, "refused");
  }
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_WARNING, "refused"}}));
  log.interval_us = 0;
  rate_limited_log(&log, LOG_WARNING, "refused");
  rate_limited_log(&log, LOG_WARNING, "refused");
  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{{LOG_WARNING, line_with_count(3)}, {LOG_WARNING, "refused"}}));
}

TEST_F(RateLimitedLogTest, NeverTakesTheTextForAFormat)
{
  RateLimitedLog log = RATE_LIMITED_LOG_INIT(0);

  rate_limited_log(&log, LOG_INFO, "refused %s", "%s%n");
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_INFO, "refused %s%n"}}));
}

TEST_F(RateLimitedLogTest, LogsAgainAfterItsInterval)
{
  RateLimitedLog log = RATE_LIMITED_LOG_INIT(SHORT_US);
  const gint64 begin_us = g_get_monotonic_time();
  guint64 calls = 0;

  while (testhost::syslog_size() < 2 && g_get_monotonic_time() < begin_us + testhost::SPIN_LIMIT_US) {
    rate_limited_log(&log, LOG_WARNING, "refused");
    calls++;
  }
  EXPECT_GE(g_get_monotonic_time() - begin_us, SHORT_US);
  const std::string last = calls > 2 ? line_with_count(calls - 2) : "refused";
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_WARNING, "refused"}, {LOG_WARNING, last}}));
}

TEST_F(RateLimitedLogTest, KeepsItsCountPerLine)
{
  RateLimitedLog log = RATE_LIMITED_LOG_INIT(LONGER_THAN_A_TEST_US);
  RateLimitedLog other = RATE_LIMITED_LOG_INIT(LONGER_THAN_A_TEST_US);

  rate_limited_log(&log, LOG_WARNING, "refused");
  rate_limited_log(&log, LOG_WARNING, "refused");
  rate_limited_log(&other, LOG_WARNING, "other");
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_WARNING, "refused"}, {LOG_WARNING, "other"}}));
}

TEST_F(RateLimitedLogTest, CountsTheLinesOfAllThreads)
{
  constexpr int THREADS = 4;
  constexpr int LINES = 5000;
  RateLimitedLog log = RATE_LIMITED_LOG_INIT(LONGER_THAN_A_TEST_US);
  std::vector<std::thread> threads;

  threads.reserve(THREADS);
  for (int i = 0; i < THREADS; i++) {
    threads.emplace_back([&log] {
      for (int line = 0; line < LINES; line++) {
        rate_limited_log(&log, LOG_WARNING, "refused");
      }
    });
  }
  for (std::thread &thread : threads) {
    thread.join();
  }
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_WARNING, "refused"}}));
  log.interval_us = 0;
  rate_limited_log(&log, LOG_WARNING, "refused");
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_WARNING, line_with_count(THREADS * LINES - 1)}}));
}

TEST_F(RateLimitedLogTest, ChecksItsArguments)
{
  RateLimitedLog log = RATE_LIMITED_LOG_INIT(0);

  rate_limited_log(nullptr, LOG_WARNING, "refused");
  rate_limited_log(&log, LOG_WARNING, nullptr);
  EXPECT_EQ(testhost::take_failed_preconditions(), (testhost::Texts{"log != NULL", "format != NULL"}));
}
