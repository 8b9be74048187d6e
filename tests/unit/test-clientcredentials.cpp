/* SPDX-License-Identifier: MIT */
#include "clientcredentials.h"

#include "ratelimitedlog.h"
#include "testclient.h"
#include "testhost.h"

#include <memory>
#include <string>
#include <unistd.h>

namespace
{

/* The beginning of each line about a client of this process. */
std::string
own_line(const std::string &text)
{
  return "process " + std::to_string(getpid()) + " of user " + std::to_string(getuid()) + ": " + text;
}

class ClientCredentialsTest : public testhost::Fixture
{
protected:
  void SetUp() override
  {
    Fixture::SetUp();
    client_ = std::make_unique<Client>(Client::connect_pair(&fd_));
  }

  void TearDown() override
  {
    close(fd_);
    client_.reset();
    Fixture::TearDown();
  }

  int fd_ = -1;
  std::unique_ptr<Client> client_;
};

} // namespace

TEST_F(ClientCredentialsTest, TellsProcessAndUserInALineOfDebugPriority)
{
  client_credentials_log(fd_, "request refused: %s", "for a reason.");

  EXPECT_EQ(testhost::take_debug_lines(), testhost::Texts{own_line("request refused: for a reason.")});
}

TEST_F(ClientCredentialsTest, TellsTheClientAlsoAfterItHasHungUp)
{
  client_->hang_up();
  client_credentials_log(fd_, "stream failed");

  EXPECT_EQ(testhost::take_debug_lines(), testhost::Texts{own_line("stream failed")});
}

TEST_F(ClientCredentialsTest, KeepsTheTextOfAPeerInOneLine)
{
  client_credentials_log(fd_, "request refused: %s", "a\nb\xff");

  EXPECT_EQ(testhost::take_debug_lines(), testhost::Texts{own_line("request refused: a\\x0ab\\xff")});
}

TEST_F(ClientCredentialsTest, LogsNothingAboutOtherDescriptors)
{
  int pipe_fds[2];
  ASSERT_EQ(pipe(pipe_fds), 0);

  client_credentials_log(pipe_fds[0], "request refused");
  client_credentials_log(-1, "request refused");
  EXPECT_EQ(testhost::take_debug_lines(), testhost::Texts());
  EXPECT_EQ(client_credentials_get(-1).pid, -1);
  EXPECT_EQ(client_credentials_get(-1).uid, 0U);
  close(pipe_fds[0]);
  close(pipe_fds[1]);
}

TEST_F(ClientCredentialsTest, WritesALimitedNumberOfLines)
{
  for (int i = 0; i < 3 * RATE_LIMITED_LOG_BURST; i++) {
    client_credentials_log(fd_, "request refused");
  }

  EXPECT_EQ(testhost::take_debug_lines(),
            testhost::Texts(RATE_LIMITED_LOG_BURST, own_line("request refused")));
}

TEST_F(ClientCredentialsTest, GetsProcessAndUser)
{
  EXPECT_EQ(client_credentials_get(fd_).pid, getpid());
  EXPECT_EQ(client_credentials_get(fd_).uid, getuid());
}
