/* SPDX-License-Identifier: MIT */
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
constexpr gint64 SHORT_US = 100 * G_TIME_SPAN_MILLISECOND;

class RateLimitedLogTest : public testhost::Fixture
{
protected:
  /* The fixture flushes them after the test. */
  RateLimitedLog log_ = RATE_LIMITED_LOG_INIT(LONGER_THAN_A_TEST_US);
  RateLimitedLog other_ = RATE_LIMITED_LOG_INIT(LONGER_THAN_A_TEST_US);
};

std::string
with_count(const std::string &text, guint64 count)
{
  return text + " (" + std::to_string(count) + " more since the last such line)";
}

std::string
line_with_count(guint64 count)
{
  return with_count("refused", count);
}

bool
wait_for_lines(gsize count)
{
  return testhost::spin_until([count] { return testhost::syslog_size() >= count; });
}

} // namespace

TEST_F(RateLimitedLogTest, LogsTheFirstLineWithItsPriority)
{
  rate_limited_log(&log_, LOG_ERR, "refused %s for the %dth time: 100%%", "a client", 7);
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_ERR, "refused a client for the 7th time: 100%"}}));
}

TEST_F(RateLimitedLogTest, SuppressesLinesAndReportsTheCountOnce)
{
  for (int i = 0; i < 4; i++) {
    rate_limited_log(&log_, LOG_WARNING, "refused");
  }
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_WARNING, "refused"}}));
  log_.interval_us = 0;
  rate_limited_log(&log_, LOG_WARNING, "refused");
  rate_limited_log(&log_, LOG_WARNING, "refused");
  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{{LOG_WARNING, line_with_count(3)}, {LOG_WARNING, "refused"}}));
}

TEST_F(RateLimitedLogTest, NeverUsesTheTextAsAFormat)
{
  rate_limited_log(&log_, LOG_INFO, "refused %s", "%s%n");
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_INFO, "refused %s%n"}}));
}

TEST_F(RateLimitedLogTest, LogsAgainAfterItsInterval)
{
  log_.interval_us = SHORT_US;
  const gint64 begin_us = g_get_monotonic_time();
  guint64 calls = 0;

  while (testhost::syslog_size() < 2 && g_get_monotonic_time() < begin_us + testhost::SPIN_LIMIT_US) {
    rate_limited_log(&log_, LOG_WARNING, "refused");
    calls++;
  }
  EXPECT_GE(g_get_monotonic_time() - begin_us, SHORT_US);
  const std::string last = calls > 2 ? line_with_count(calls - 2) : "refused";
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_WARNING, "refused"}, {LOG_WARNING, last}}));
}

TEST_F(RateLimitedLogTest, CountsEachLineSeparately)
{
  rate_limited_log(&log_, LOG_WARNING, "refused");
  rate_limited_log(&log_, LOG_WARNING, "refused");
  rate_limited_log(&other_, LOG_WARNING, "other");
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_WARNING, "refused"}, {LOG_WARNING, "other"}}));
  rate_limited_log_flush();
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_WARNING, "refused"}}));
}

TEST_F(RateLimitedLogTest, CountsTheLinesOfAllThreads)
{
  constexpr int THREADS = 4;
  constexpr int LINES = 5000;
  std::vector<std::thread> threads;

  threads.reserve(THREADS);
  for (int i = 0; i < THREADS; i++) {
    threads.emplace_back([this] {
      for (int line = 0; line < LINES; line++) {
        rate_limited_log(&log_, LOG_WARNING, "refused");
      }
    });
  }
  for (std::thread &thread : threads) {
    thread.join();
  }
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_WARNING, "refused"}}));
  log_.interval_us = 0;
  rate_limited_log(&log_, LOG_WARNING, "refused");
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_WARNING, line_with_count(THREADS * LINES - 1)}}));
}

TEST_F(RateLimitedLogTest, WritesABurst)
{
  RateLimitedLog log = RATE_LIMITED_LOG_INIT_BURST(LONGER_THAN_A_TEST_US, 3);
  log_ = log;

  for (int i = 0; i < 5; i++) {
    rate_limited_log(&log_, LOG_WARNING, "refused %d", i);
  }
  EXPECT_EQ(
      testhost::take_syslog(),
      (SyslogLines{{LOG_WARNING, "refused 0"}, {LOG_WARNING, "refused 1"}, {LOG_WARNING, "refused 2"}}));
  rate_limited_log_flush();
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_WARNING, with_count("refused 4", 1)}}));
}

TEST_F(RateLimitedLogTest, WritesTheLastLineAtTheEndOfTheIntervalWithoutAnother)
{
  log_.interval_us = SHORT_US;
  const gint64 begin_us = g_get_monotonic_time();

  for (int i = 0; i < 4; i++) {
    rate_limited_log(&log_, i < 3 ? LOG_WARNING : LOG_INFO, "refused %d", i);
  }
  ASSERT_TRUE(wait_for_lines(2));
  EXPECT_GE(g_get_monotonic_time() - begin_us, SHORT_US);
  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{{LOG_WARNING, "refused 0"}, {LOG_INFO, with_count("refused 3", 2)}}));
}

TEST_F(RateLimitedLogTest, WritesASingleSuppressedLineUnchanged)
{
  log_.interval_us = SHORT_US;

  rate_limited_log(&log_, LOG_WARNING, "refused 1");
  rate_limited_log(&log_, LOG_WARNING, "refused 2");
  ASSERT_TRUE(wait_for_lines(2));
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_WARNING, "refused 1"}, {LOG_WARNING, "refused 2"}}));
}

/* A line that repeats forever is written once in each interval. */
TEST_F(RateLimitedLogTest, BeginsAnIntervalWithTheLineAtTheEndOfTheLast)
{
  constexpr gsize LINES = 4;
  log_.interval_us = SHORT_US;
  const gint64 begin_us = g_get_monotonic_time();

  ASSERT_TRUE(testhost::spin_until([this] {
    rate_limited_log(&log_, LOG_WARNING, "refused");
    return testhost::syslog_size() >= LINES;
  }));
  EXPECT_GE(g_get_monotonic_time() - begin_us, (LINES - 1) * SHORT_US);
  testhost::take_syslog();
  rate_limited_log_flush();
  testhost::take_syslog();
}

/* The time-out of the previous interval does not repeat the count. */
TEST_F(RateLimitedLogTest, KeepsTheIntervalThatALineBegins)
{
  log_.interval_us = SHORT_US;

  rate_limited_log(&log_, LOG_WARNING, "refused");
  rate_limited_log(&log_, LOG_WARNING, "refused");
  while (g_get_monotonic_time() < log_.begin_us + SHORT_US) {
  }
  rate_limited_log(&log_, LOG_WARNING, "refused");
  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{{LOG_WARNING, "refused"}, {LOG_WARNING, line_with_count(1)}}));

  log_.interval_us = LONGER_THAN_A_TEST_US;
  rate_limited_log(&log_, LOG_WARNING, "refused again");
  const guint first_timeout_id = log_.timeout_id;
  ASSERT_TRUE(testhost::spin_until([&] { return log_.timeout_id != first_timeout_id; }));
  EXPECT_EQ(testhost::take_syslog(), SyslogLines());
  rate_limited_log_flush();
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_WARNING, "refused again"}}));
}

TEST_F(RateLimitedLogTest, FlushWritesEveryLineAndResetsTheIntervals)
{
  for (RateLimitedLog *log : {&log_, &other_}) {
    for (int i = 0; i < 3; i++) {
      rate_limited_log(log, LOG_WARNING, "refused");
    }
  }
  testhost::take_syslog();

  rate_limited_log_flush();
  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{{LOG_WARNING, line_with_count(1)}, {LOG_WARNING, line_with_count(1)}}));
  rate_limited_log_flush();
  EXPECT_EQ(testhost::take_syslog(), SyslogLines());
  rate_limited_log(&log_, LOG_WARNING, "refused");
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_WARNING, "refused"}}));
}

TEST_F(RateLimitedLogTest, IsIdleAfterItsIntervalWithoutSuppressedLines)
{
  EXPECT_TRUE(rate_limited_log_is_idle(&log_));
  rate_limited_log(&log_, LOG_WARNING, "refused");
  EXPECT_FALSE(rate_limited_log_is_idle(&log_)) << "in its interval";
  rate_limited_log(&log_, LOG_WARNING, "refused");
  log_.interval_us = 0;
  EXPECT_FALSE(rate_limited_log_is_idle(&log_)) << "with a suppressed line";
  testhost::take_syslog();

  rate_limited_log(&log_, LOG_WARNING, "refused");
  EXPECT_TRUE(rate_limited_log_is_idle(&log_));
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_WARNING, line_with_count(1)}}));
}

TEST_F(RateLimitedLogTest, ChecksItsArguments)
{
  EXPECT_FALSE(rate_limited_log_is_idle(nullptr));
  rate_limited_log(nullptr, LOG_WARNING, "refused");
  rate_limited_log(&log_, LOG_WARNING, nullptr);
  EXPECT_EQ(testhost::take_failed_preconditions(),
            (testhost::Texts{"log != NULL", "log != NULL", "format != NULL"}));
}
