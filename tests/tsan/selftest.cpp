/* SPDX-License-Identifier: MIT */
// Tests that ThreadSanitizer reports races and accepts correct hand-overs. Each case runs in its own process,
// which exits with the sanitizer's status after a report.
#include "selftest.h"

#include <cstdlib>
#include <unistd.h>

namespace
{

constexpr int REPORTED = 66;
constexpr unsigned LIMIT_SECONDS = 30;

[[noreturn]] void
run_and_exit(const Case &c)
{
  alarm(LIMIT_SECONDS);
  c.run();
  exit(EXIT_SUCCESS);
}

} // namespace

TEST_P(SelfTest, Reports)
{
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  int status = *GetParam().report == '\0' ? EXIT_SUCCESS : REPORTED;
  EXPECT_EXIT(run_and_exit(GetParam()), testing::ExitedWithCode(status), GetParam().report);
}
