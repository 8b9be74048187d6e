// Whether the thread build sees what it is for. Each case runs in a process of its own, which the sanitizer
// ends with a status of its own when it has reported something.
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
