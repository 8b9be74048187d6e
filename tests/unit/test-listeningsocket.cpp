/* SPDX-License-Identifier: MIT */
#include "listeningsocket.h"

#include "faults.h"
#include "testclient.h"
#include "testhost.h"
#include "testsockets.h"

#include <fcntl.h>
#include <glib/gstdio.h>
#include <optional>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

using testhost::SyslogLine;
using testhost::SyslogLines;
using testsockets::is_open;
using testsockets::listen_high;
using testsockets::PassedDescriptors;

namespace
{

/* The longest path that is not cut (docs/compatibility.md, "socket path length"). */
constexpr gsize MAX_PATH_LENGTH = 106;

class ListeningSocketTest : public testhost::Fixture
{
protected:
  void SetUp() override
  {
    Fixture::SetUp();
    socket_path_ = path("metadata");
  }

  void TearDown() override
  {
    if (fd_ >= 0) {
      close(fd_);
    }
    passed_.reset();
    g_unlink(socket_path_.c_str());
    Fixture::TearDown();
  }

  bool open_socket()
  {
    fd_ = listening_socket_open(socket_path_.c_str());
    return fd_ >= 0;
  }

  void pass(const std::vector<int> &fds)
  {
    passed_.emplace(fds);
  }

  void expect_failure(const SyslogLines &lines)
  {
    EXPECT_FALSE(open_socket());
    EXPECT_EQ(testhost::take_syslog(), lines);
  }

  struct stat status() const
  {
    struct stat status = {};

    EXPECT_EQ(stat(socket_path_.c_str(), &status), 0);
    return status;
  }

  /* Whether a client that connects to the path can be accepted. */
  bool accepts() const
  {
    const Client client = Client::connect_to(socket_path_);
    pollfd listening = {fd_, POLLIN, 0};
    if (poll(&listening, 1, static_cast<int>(testhost::SPIN_LIMIT_US / 1000)) != 1) {
      return false;
    }
    const int accepted = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);

    return accepted >= 0 && close(accepted) == 0;
  }

  std::string socket_path_;
  int fd_ = -1;
  std::optional<PassedDescriptors> passed_;
};

/* How many more sockets than one have the path. */
class SeveralSocketsTest : public ListeningSocketTest, public testing::WithParamInterface<int>
{
};

} // namespace

/* A new socket. */

TEST_F(ListeningSocketTest, MakesASocketForOwnerAndGroup)
{
  const mode_t mask = umask(0);
  ASSERT_TRUE(open_socket());
  umask(mask);

  EXPECT_TRUE(S_ISSOCK(status().st_mode));
  EXPECT_EQ(status().st_mode & 07777, 0660U);
  EXPECT_EQ(fcntl(fd_, F_GETFD), FD_CLOEXEC);
  EXPECT_TRUE(accepts());
}

TEST_F(ListeningSocketTest, MakesTheSameSocketUnderAStrictMask)
{
  const mode_t mask = umask(0777);
  ASSERT_TRUE(open_socket());
  umask(mask);

  EXPECT_EQ(status().st_mode & 07777, 0660U);
}

TEST_F(ListeningSocketTest, ReplacesAFile)
{
  ASSERT_TRUE(g_file_set_contents(socket_path_.c_str(), "x", 1, nullptr));

  EXPECT_TRUE(open_socket());
  EXPECT_TRUE(accepts());
}

TEST_F(ListeningSocketTest, FailsWhenADirectoryHasItsPath)
{
  ASSERT_EQ(mkdir(socket_path_.c_str(), 0700), 0);

  expect_failure({{LOG_ERR, "Could not unlink '" + socket_path_ + "': Is a directory"}});
  EXPECT_EQ(rmdir(socket_path_.c_str()), 0);
}

TEST_F(ListeningSocketTest, FailsWithoutADescriptor)
{
  {
    const testhost::FreeDescriptors none(0);
    expect_failure({{LOG_ERR, "Failed to create metadata server socket: Too many open files"}});
  }
  EXPECT_TRUE(open_socket());
}

TEST_F(ListeningSocketTest, FailsWhenItCannotListen)
{
  faults::fail_next(faults::Call::LISTEN);

  expect_failure({{LOG_ERR, "Failed to listen on metadata server socket: Address already in use"}});
  EXPECT_TRUE(open_socket());
}

TEST_F(ListeningSocketTest, LogsAFailureToCloseTheSocket)
{
  faults::fail_next(faults::Call::LISTEN);
  faults::fail_close_of(testsockets::lowest_free_descriptor());

  expect_failure({{LOG_ERR, "Failed to listen on metadata server socket: Address already in use"},
                  {LOG_ERR, "Could not close metadata server socket: Input/output error"}});
}

TEST_F(ListeningSocketTest, AcceptsTheLongestPath)
{
  socket_path_ = path(std::string(MAX_PATH_LENGTH - path("").size(), 'x'));
  ASSERT_EQ(socket_path_.size(), MAX_PATH_LENGTH);

  ASSERT_TRUE(open_socket());
  EXPECT_TRUE(g_file_test(socket_path_.c_str(), G_FILE_TEST_EXISTS));
}

TEST_F(ListeningSocketTest, FailsWithAPathOneByteTooLong)
{
  socket_path_ = path(std::string(MAX_PATH_LENGTH + 1 - path("").size(), 'x'));

  expect_failure(
      {{LOG_ERR, "Could not set permissions on metadata server socket: No such file or directory"}});
  EXPECT_EQ(g_unlink(socket_path_.substr(0, MAX_PATH_LENGTH).c_str()), 0);
}

/* Socket activation. */

TEST_F(ListeningSocketTest, FindsThePassedSocketAmongOthers)
{
  pass({testsockets::move_away(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)), listen_high(path("other")),
        listen_high(socket_path_), listen_high(path("third"))});

  ASSERT_TRUE(open_socket());
  EXPECT_EQ(fd_, SD_LISTEN_FDS_START + 2);
  EXPECT_TRUE(accepts());
}

TEST_F(ListeningSocketTest, KeepsAPassedSocketUnchanged)
{
  pass({listen_high(socket_path_)});
  ASSERT_EQ(chmod(socket_path_.c_str(), 0600), 0);
  const struct stat before = status();

  ASSERT_TRUE(open_socket());
  EXPECT_EQ(status().st_ino, before.st_ino);
  EXPECT_EQ(status().st_mode, before.st_mode);
}

TEST_F(ListeningSocketTest, KeepsTheEnvironment)
{
  pass({listen_high(socket_path_)});

  ASSERT_TRUE(open_socket());
  EXPECT_STREQ(g_getenv("LISTEN_FDS"), "1");
  EXPECT_EQ(g_getenv("LISTEN_PID"), std::to_string(getpid()));
}

TEST_F(ListeningSocketTest, MakesASocketWhenNoPassedSocketHasItsPath)
{
  pass({listen_high(path("other"))});

  ASSERT_TRUE(open_socket());
  EXPECT_NE(fd_, SD_LISTEN_FDS_START);
  EXPECT_TRUE(is_open(SD_LISTEN_FDS_START));
  EXPECT_TRUE(accepts());
}

TEST_F(ListeningSocketTest, IgnoresSocketsPassedToAnotherProcess)
{
  pass({listen_high(socket_path_)});
  setenv("LISTEN_PID", "1", TRUE);

  ASSERT_TRUE(open_socket());
  EXPECT_NE(fd_, SD_LISTEN_FDS_START);
  EXPECT_EQ(status().st_mode & 07777, 0660U);
  EXPECT_TRUE(is_open(SD_LISTEN_FDS_START));
}

/* docs/compatibility.md, "several activated sockets". */
TEST_P(SeveralSocketsTest, FailsAndLogsEachFurtherCloseOfTheFirstSocket)
{
  const int fd = listen_high(socket_path_);
  std::vector<int> fds = {listen_high(path("other")), fd};
  for (int i = 0; i < GetParam(); i++) {
    fds.push_back(fcntl(fd, F_DUPFD_CLOEXEC, 100));
  }
  pass(fds);

  EXPECT_FALSE(open_socket());
  const SyslogLines lines = testhost::take_syslog();
  ASSERT_EQ(lines.size(), 1U + GetParam());
  EXPECT_EQ(lines[0].priority, LOG_ERR);
  EXPECT_TRUE(
      lines[0].text.starts_with("More than one file descriptor received for '" + socket_path_ + "': "))
      << lines[0].text;
  for (gsize i = 1; i < lines.size(); i++) {
    EXPECT_EQ(lines[i], (SyslogLine{LOG_ERR, "Could not close metadata server socket: Bad file descriptor"}));
  }
  for (gsize i = 0; i < fds.size(); i++) {
    EXPECT_EQ(is_open(SD_LISTEN_FDS_START + static_cast<int>(i)), i != 1) << i;
  }
  EXPECT_TRUE(g_file_test(socket_path_.c_str(), G_FILE_TEST_EXISTS));
}

INSTANTIATE_TEST_SUITE_P(Counts, SeveralSocketsTest, testing::Values(1, 2));
