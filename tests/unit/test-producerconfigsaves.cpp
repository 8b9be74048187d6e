/* SPDX-License-Identifier: MIT */
#include "producerconfig.h"

#include "testproducerconfig.h"

#include <array>
#include <csignal>
#include <functional>
#include <memory>
#include <random>
#include <regex>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

using namespace testproducerconfig;

using testhost::SyslogLines;
using testhost::Texts;

using namespace std::string_literals;

namespace fs = std::filesystem;

namespace
{

/* No file grows beyond a few bytes while this object lives. */
class TinyFiles
{
public:
  TinyFiles() : handler_(signal(SIGXFSZ, SIG_IGN))
  {
    EXPECT_EQ(getrlimit(RLIMIT_FSIZE, &saved_), 0);
    rlimit limit = saved_;
    limit.rlim_cur = 10;
    EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
  }
  ~TinyFiles()
  {
    EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &saved_), 0);
    signal(SIGXFSZ, handler_);
  }
  TinyFiles(const TinyFiles &) = delete;
  TinyFiles &operator=(const TinyFiles &) = delete;

private:
  sighandler_t handler_;
  rlimit saved_ = {};
};

gboolean
count_to_three(gpointer count)
{
  return ++*static_cast<guint *>(count) < 3;
}

/* Another process that runs @body and ends. */
pid_t
fork_process(const std::function<void()> &body)
{
  const pid_t pid = fork();

  if (pid == 0) {
    body();
    _exit(testing::Test::HasFailure() ? EXIT_FAILURE : EXIT_SUCCESS);
  }
  return pid;
}

int
wait_for_end(pid_t pid)
{
  int status = -1;

  EXPECT_EQ(waitpid(pid, &status, 0), pid);
  return status;
}

/* Moves the process to a mount namespace of its own, with root's rights there. */
bool
enter_own_namespace()
{
  const uid_t user = geteuid();
  if (user == 0) {
    return unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
  }
  if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
    return false;
  }
  std::ofstream("/proc/self/uid_map") << "0 " << user << " 1";
  return geteuid() == 0;
}

constexpr const char *OLD = "[Producers.0.Any]\nName=old\n";

class ProducerConfigSavesTest : public Fixture
{
};

} // namespace

TEST_F(ProducerConfigSavesTest, WritesOnceForEveryChange)
{
  load("[Producers.0.Any]\nName=profile\n");
  const int fd = next_descriptor();
  faults::keep_file_calls();
  saves::set_name("Any", 1, "profile");

  EXPECT_EQ(faults::take_file_calls(), save_calls(fd));
}

TEST_F(ProducerConfigSavesTest, ReplacesTheFileAsAWhole)
{
  load("[Producers.0.Any]\nName=profile\n");
  std::ifstream reader(file_);
  saves::set_name("Any", 1, "changed");
  std::stringstream seen;
  seen << reader.rdbuf();

  EXPECT_EQ(seen.str(), "[Producers.0.Any]\nName=profile\n");
  EXPECT_EQ(content(), "[Producers.0.Any]\nName=changed\n");
}

/* As GLib's own functions do it. */
TEST_F(ProducerConfigSavesTest, CreatesTheFileWithTheModeOfTheUmask)
{
  load("");
  for (const mode_t mask : {0002, 0027, 0077}) {
    const mode_t before = umask(mask);
    saves::set_name("Any", 1, "profile");
    umask(before);
    EXPECT_EQ(fs::status(file_).permissions(), fs::perms(0666 & ~mask));
  }
}

TEST_F(ProducerConfigSavesTest, CreatesAFileThatWasRemoved)
{
  load("[Producers.0.Any]\nName=old\n[Producers.1.Any]\nName=other\n");
  fs::remove(file_);
  saves::set_name("Any", 1, "new");

  EXPECT_EQ(content(), "[Producers.0.Any]\nName=new\n\n[Producers.1.Any]\nName=other\n");
}

TEST_F(ProducerConfigSavesTest, ReplacesALinkAndKeepsItsTarget)
{
  std::ofstream(path("target")) << "[Producers.0.Any]\nName=old\n";
  fs::create_symlink(path("target"), file_);
  load();
  EXPECT_EQ(get_name("Any", 1), "old");
  saves::set_name("Any", 1, "new");

  EXPECT_FALSE(fs::is_symlink(file_));
  EXPECT_EQ(content(), "[Producers.0.Any]\nName=new\n");
  fs::rename(path("target"), file_);
  EXPECT_EQ(content(), "[Producers.0.Any]\nName=old\n");
}

/* Temporary files that a killed save left. */

TEST_F(ProducerConfigSavesTest, FollowsNoLinkInPlaceOfTheTemporaryFile)
{
  load("[Producers.0.Any]\nName=profile\n");
  touch("target");
  fs::create_symlink("target", temporary_);
  saves::set_name("Any", 1, "new");

  EXPECT_EQ(entries(), (std::set<std::string>{"producers.conf", "target"}));
  EXPECT_EQ(content(), "[Producers.0.Any]\nName=new\n");
  fs::rename(folder_ + "/target", file_);
  EXPECT_EQ(content(), "[Producers.0.Any]\nName=of a leftover\n");
}

/* It appeared while the daemon ran, or could not be removed at the start. */
TEST_F(ProducerConfigSavesTest, ReplacesATemporaryFile)
{
  load("[Producers.0.Any]\nName=old\n");
  std::ofstream(temporary_) << std::string(100'000, 'x');
  saves::set_name("Any", 1, "new");

  EXPECT_EQ(content(), "[Producers.0.Any]\nName=new\n");
  EXPECT_EQ(entries(), (std::set<std::string>{"producers.conf"}));
}

/* Saves that fail. */

namespace
{

struct SaveFailure {
  const char *name;
  const char *text;
  gsize calls;         /* how many calls of a complete save are made */
  const char *content; /* of the file after the failure */
  std::function<void(const std::string &file, int fd)> prepare;
};

class ProducerConfigSaveFailureTest : public ProducerConfigSavesTest,
                                      public testing::WithParamInterface<SaveFailure>
{
protected:
  /* The log lines, with DIR for the folder and FD for the descriptor. */
  SyslogLines take_log(int fd) const
  {
    SyslogLines lines = testhost::take_syslog();

    for (auto &[priority, text] : lines) {
      text = std::regex_replace(text, std::regex(folder_), "DIR");
      text = std::regex_replace(text, std::regex("\\(" + std::to_string(fd) + "\\)"), "(FD)");
    }
    return lines;
  }

  /* Makes the folder and the file usable again. */
  void repair() const
  {
    fs::create_directory(folder_);
    for (const std::string &name : {file_, temporary_}) {
      if (fs::is_directory(name)) {
        fs::remove(name);
      }
    }
  }
};

constexpr const char *CARRIED = "[Producers.0.Any]\nName=carried\n";

const std::vector<SaveFailure> SAVE_FAILURES = {
    {"MissingFolder", "Failed to create 'DIR/producers.conf.tessard-new': No such file or directory", 1, "",
     [](const std::string &file, int) { fs::remove_all(fs::path(file).parent_path()); }},
    {"FolderInPlaceOfTheTemporaryFile", "Failed to create 'DIR/producers.conf.tessard-new': File exists", 1,
     OLD,
     [](const std::string &file, int) { fs::create_directory(file + PRODUCER_CONFIG_TEMPORARY_SUFFIX); }},
    {"FolderInPlaceOfTheFile",
     "Failed to rename 'DIR/producers.conf.tessard-new' to 'DIR/producers.conf': Is a directory", 4, "",
     [](const std::string &file, int) { fs::remove(file) && fs::create_directory(file); }},
    {"FileNotSynced", "Failed to sync 'DIR/producers.conf.tessard-new': Input/output error", 3, OLD,
     [](const std::string &, int) { faults::fail_next(faults::Call::FSYNC); }},
    {"FileNotClosed", "Failed to close fd (FD) for DIR/producers.conf.tessard-new: Input/output error", 3,
     OLD, [](const std::string &, int fd) { faults::fail_close_of(fd); }},
    {"FolderNotOpened", "Failed to open 'DIR': Too many open files", 5, CARRIED,
     [](const std::string &, int) { faults::fail_next(faults::Call::OPEN, 1); }},
    {"FolderNotSynced", "Failed to sync 'DIR': Input/output error", 7, CARRIED,
     [](const std::string &, int) { faults::fail_next(faults::Call::FSYNC, 1); }},
    {"FolderNotClosed", "Failed to close fd (FD) for DIR: Input/output error", 7, CARRIED,
     [](const std::string &, int fd) { faults::fail_close_of(fd, 1); }},
    {"FolderNeitherSyncedNorClosed", "Failed to sync 'DIR': Input/output error", 7, CARRIED,
     [](const std::string &, int fd) {
       faults::fail_next(faults::Call::FSYNC, 1);
       faults::fail_close_of(fd, 1);
     }},
};

} // namespace

TEST_P(ProducerConfigSaveFailureTest, IsReportedAndTheNextSaveWritesTheChange)
{
  const SaveFailure &failure = GetParam();
  load(OLD);
  const int fd = next_descriptor();
  failure.prepare(file_, fd);
  faults::keep_file_calls();
  saves::set_name("Any", 1, "carried");

  EXPECT_EQ(faults::take_file_calls(), save_calls(fd, failure.calls));
  wait_for_syslog(1);
  EXPECT_EQ(take_log(fd), SyslogLines{warning("could not write name to producerconfig: "s + failure.text)});
  EXPECT_FALSE(fs::is_regular_file(temporary_));
  repair();
  expect_carried_by_the_next_save(failure.content);
}

INSTANTIATE_TEST_SUITE_P(Failures, ProducerConfigSaveFailureTest, testing::ValuesIn(SAVE_FAILURES),
                         [](const auto &example) { return std::string(example.param.name); });

TEST_F(ProducerConfigSavesTest, KeepsAChangeWhoseFolderIsReadOnly)
{
  load(OLD);
  fs::permissions(folder_, fs::perms(0555));
  {
    const Unprivileged unprivileged;
    saves::set_name("Any", 1, "carried");
  }

  expect_write_failure("Failed to create '" + temporary_ + "': Permission denied");
  fs::permissions(folder_, fs::perms(0755));
  expect_carried_by_the_next_save(OLD);
}

TEST_F(ProducerConfigSavesTest, KeepsAChangeThatIsTooLongForAFile)
{
  load(OLD);
  {
    const TinyFiles tiny;
    saves::set_name("Any", 1, "carried");
  }

  expect_write_failure("Failed to write '" + temporary_ + "': File too large");
  expect_carried_by_the_next_save(OLD);
}

TEST_F(ProducerConfigSavesTest, KeepsAChangeThatTheDiskHasNoRoomFor)
{
  constexpr int NO_NAMESPACE = 77;
  const int status = wait_for_end(fork_process([this] {
    if (!enter_own_namespace() || mount("tmpfs", folder_.c_str(), "tmpfs", 0, "size=16k") != 0) {
      _exit(NO_NAMESPACE);
    }
    load(OLD);
    const std::string too_long(32 * 1024, 'x');
    saves::set_name("Any", 2, too_long.c_str());
    expect_write_failure("Failed to write '" + temporary_ + "': No space left on device");
    EXPECT_EQ(get_name("Any", 2), too_long);
    EXPECT_EQ(content(), OLD);
    EXPECT_EQ(entries(), (std::set<std::string>{"producers.conf"}));

    saves::set_name("Any", 1, "carried");
    expect_write_failure("Failed to write '" + temporary_ + "': No space left on device");
    saves::set_name("Any", 2, "next");
    EXPECT_EQ(content(), "[Producers.0.Any]\nName=carried\n\n[Producers.1.Any]\nName=next\n");
    EXPECT_EQ(entries(), (std::set<std::string>{"producers.conf"}));
  }));

  if (WIFEXITED(status) && WEXITSTATUS(status) == NO_NAMESPACE) {
    GTEST_SKIP() << "no mounts of its own";
  }
  EXPECT_EQ(status, 0);
}

/* Saves that are retried. */

namespace
{

/* A second of a time-out takes a millisecond. */
class ProducerConfigRetryTest : public ProducerConfigSavesTest
{
protected:
  void SetUp() override
  {
    ProducerConfigSavesTest::SetUp();
    seconds_.emplace();
  }

  void TearDown() override
  {
    unload();
    seconds_.reset();
    ProducerConfigSavesTest::TearDown();
  }

  /* Changes a name without success. */
  void fail_to_save(guint32 channel = 1, const char *name = "carried") const
  {
    faults::fail_next(faults::Call::FSYNC);
    producer_config_set_name("Any", channel, name);
    expect_write_failure("Failed to sync '" + temporary_ + "': Input/output error");
  }

  std::optional<faults::ShortSeconds> seconds_;
};

} // namespace

TEST_F(ProducerConfigRetryTest, RetriesEveryMinuteUntilTheFileIsWritten)
{
  constexpr gsize TRIES = 3;
  load(OLD);
  fs::remove_all(folder_);
  producer_config_set_name("Any", 1, "carried");
  expect_write_failure("Failed to create '" + temporary_ + "': No such file or directory");
  EXPECT_EQ(seconds_->begun(), std::vector{60U});

  faults::keep_file_calls();
  EXPECT_TRUE(testhost::spin_until([] { return faults::file_calls_size() >= TRIES; }));
  EXPECT_EQ(testhost::take_syslog(), SyslogLines());
  for (const std::string &call : faults::take_file_calls()) {
    EXPECT_EQ(call, "open " + temporary_);
  }

  fs::create_directory(folder_);
  expect_retry_written();
  EXPECT_EQ(seconds_->count(), 0U);
  EXPECT_EQ(content(), "[Producers.0.Any]\nName=carried\n");
  EXPECT_EQ(entries(), (std::set<std::string>{"producers.conf"}));
  EXPECT_EQ(seconds_->begun().size(), 1U);
}

TEST_F(ProducerConfigRetryTest, RetriesAfterAFailureToSyncTheFolder)
{
  load(OLD);
  const int fd = next_descriptor();
  faults::fail_next(faults::Call::FSYNC, 1);
  producer_config_set_name("Any", 1, "carried");
  expect_write_failure("Failed to sync '" + folder_ + "': Input/output error");

  faults::keep_file_calls();
  expect_retry_written();
  EXPECT_EQ(seconds_->count(), 0U);
  EXPECT_EQ(faults::take_file_calls(), save_calls(fd));
}

TEST_F(ProducerConfigRetryTest, EndsRetriesWhenAnotherChangeIsWritten)
{
  load(OLD);
  fail_to_save();
  EXPECT_EQ(seconds_->count(), 1U);
  saves::set_name("Any", 2, "next");

  EXPECT_EQ(seconds_->count(), 0U);
  EXPECT_EQ(content(), "[Producers.0.Any]\nName=carried\n\n[Producers.1.Any]\nName=next\n");
}

TEST_F(ProducerConfigRetryTest, RetriesOnceForAllChanges)
{
  load("");
  for (const guint32 channel : {1, 2}) {
    fail_to_save(channel);
  }
  EXPECT_EQ(seconds_->begun().size(), 1U);

  expect_retry_written();
  EXPECT_EQ(seconds_->count(), 0U);
  EXPECT_EQ(content(), "[Producers.0.Any]\nName=carried\n\n[Producers.1.Any]\nName=carried\n");
}

TEST_F(ProducerConfigRetryTest, RetriesAfterEachFailure)
{
  load("");
  for (const char *name : {"first", "second"}) {
    fail_to_save(1, name);
    expect_retry_written();
    EXPECT_EQ(seconds_->count(), 0U);
    EXPECT_EQ(content(), "[Producers.0.Any]\nName="s + name + "\n");
  }
}

TEST_F(ProducerConfigRetryTest, DoesNotRetryARefusedChange)
{
  load("");
  producer_config_set_name("[", 1, "profile");
  producer_config_set_name("Any", 1, "\xff");

  EXPECT_EQ(testhost::take_syslog().size(), 2U);
  EXPECT_EQ(seconds_->begun().size(), 0U);
}

TEST_F(ProducerConfigRetryTest, RetriesAlsoAfterARefusedChange)
{
  load("");
  faults::fail_next(faults::Call::FSYNC);
  producer_config_set_name("Any", 1, "carried");
  producer_config_set_name("Any", 1, "\xff");
  wait_for_syslog(2);
  EXPECT_EQ(testhost::take_syslog().size(), 2U);

  expect_retry_written();
  EXPECT_EQ(seconds_->count(), 0U);
  EXPECT_EQ(content(), "[Producers.0.Any]\nName=carried\n");
}

TEST_F(ProducerConfigRetryTest, EndsRetriesWhenItIsFreed)
{
  load("");
  fail_to_save();
  EXPECT_EQ(seconds_->count(), 1U);
  unload();

  EXPECT_EQ(seconds_->count(), 0U);
  EXPECT_EQ(content(), "");
}

TEST_F(ProducerConfigRetryTest, RetriesOnTheMainContextForAnyThread)
{
  load("");
  faults::fail_next(faults::Call::FSYNC);
  std::thread([] { producer_config_set_name("Any", 1, "carried"); }).join();
  expect_write_failure("Failed to sync '" + temporary_ + "': Input/output error");

  expect_retry_written();
  EXPECT_EQ(seconds_->count(), 0U);
  EXPECT_EQ(content(), "[Producers.0.Any]\nName=carried\n");
}

TEST_F(ProducerConfigRetryTest, DoesNotRetryDuringAnotherSave)
{
  load("");
  fail_to_save();

  faults::keep_file_calls();
  faults::HeldSync sync;
  producer_config_set_name("Any", 2, "next");
  EXPECT_TRUE(sync.wait());
  guint turns = 0;
  g_timeout_add(seconds_->begun().at(0), count_to_three, &turns);
  EXPECT_TRUE(testhost::spin_until([&turns] { return turns == 3; })) << "the time-out ran as often";
  sync.release();
  saves::wait();
  EXPECT_EQ(faults::take_file_calls().size(), SAVE_CALLS) << "the other save";
  EXPECT_EQ(seconds_->count(), 0U);
}

/* A process that is killed while it changes names. */

namespace
{

constexpr int CHANGES = 500;
constexpr int CHANGED_CHANNELS = 7;
/* A group of no producer, several blocks long, so that an incomplete file is detected. */
const std::string FILLING = "[Filling]\nText=" + std::string(20000, 'x') + "\n";

/* The names of all channels after this number of changes. */
Texts
names_after(int changes)
{
  Texts names(CHANGED_CHANNELS);

  for (int i = 1; i <= changes; i++) {
    names[i % CHANGED_CHANNELS] = std::to_string(i);
  }
  return names;
}

/* Writes a byte to the descriptor after each change. */
void
change_names(const std::string &file, int acknowledge_fd)
{
  if (!producer_config_setup(file.c_str())) {
    return;
  }
  for (int i = 1; i <= CHANGES; i++) {
    saves::set_name("Any", i % CHANGED_CHANNELS + 1, std::to_string(i).c_str());
    if (write(acknowledge_fd, "", 1) != 1) {
      return;
    }
  }
}

/* Returns the number of acknowledgements before the end, at most @limit. */
int
read_acknowledgements(int fd, int limit)
{
  char byte = 0;
  int count = 0;

  while (count < limit && read(fd, &byte, 1) == 1) {
    count++;
  }
  return count;
}

void
spin_for(gint64 time_us)
{
  const gint64 end = g_get_monotonic_time() + time_us;

  while (g_get_monotonic_time() < end) {
  }
}

/* Starts a process that changes names, and kills it after @changes changes and @time_us more. Returns how
 * many changes it acknowledged. */
int
change_names_until_killed(const std::string &file, int changes, gint64 time_us)
{
  std::array<int, 2> ends = {};
  EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
  const pid_t pid = fork_process([&] { change_names(file, ends[1]); });
  close(ends[1]);

  int acknowledged = read_acknowledgements(ends[0], changes);
  spin_for(time_us);
  EXPECT_EQ(kill(pid, SIGKILL), 0);
  const int status = wait_for_end(pid);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
  acknowledged += read_acknowledgements(ends[0], CHANGES);
  close(ends[0]);
  return acknowledged;
}

} // namespace

TEST_F(ProducerConfigSavesTest, KeepsSavedChangesWhenItIsKilled)
{
  constexpr int ROUNDS = 200;
  constexpr int MAX_ROUNDS = 500;
  std::mt19937 random(std::random_device{}());
  int rounds_with_leftover = 0;

  for (int round = 0; round < ROUNDS || (rounds_with_leftover == 0 && round < MAX_ROUNDS); round++) {
    write(FILLING);
    const int done = change_names_until_killed(file_, static_cast<int>(random() % 20),
                                               static_cast<gint64>(random() % 3000));
    ASSERT_LT(done, CHANGES);
    rounds_with_leftover += entries().size() > 1 ? 1 : 0;

    load();
    Texts names;
    for (guint32 channel = 1; channel <= CHANGED_CHANNELS; channel++) {
      names.push_back(get_name("Any", channel).value_or(""));
    }
    EXPECT_TRUE(names == names_after(done) || names == names_after(done + 1))
        << testing::PrintToString(names) << " after " << done << " changes";
    EXPECT_TRUE(content().starts_with(FILLING));
    EXPECT_EQ(entries(), (std::set<std::string>{"producers.conf"}));
    unload();
  }
  EXPECT_GT(rounds_with_leftover, 0);
}

/* Threads. */

TEST_F(ProducerConfigSavesTest, ReadsAndChangesDuringASave)
{
  load(OLD);
  faults::HeldSync sync;
  producer_config_set_name("Any", 1, "new");
  ASSERT_TRUE(sync.wait());

  EXPECT_EQ(get_name("Any", 1), "new");
  EXPECT_EQ(supported_channels("Any"), (Channels{1}));
  producer_config_set_name("Any", 1, "newer");
  EXPECT_EQ(get_name("Any", 1), "newer");
  EXPECT_EQ(content(), OLD);
  sync.release();
  saves::wait();
  EXPECT_EQ(content(), "[Producers.0.Any]\nName=newer\n");
}

/* Each save writes the current content. The second sync of a save is that of the folder. */
TEST_F(ProducerConfigSavesTest, SavesOnceForEachChangeInTheirOrder)
{
  load("");
  faults::keep_file_calls();
  auto file_sync = std::make_unique<faults::HeldSync>();
  producer_config_set_name("Any", 1, "first");
  ASSERT_TRUE(file_sync->wait());
  for (const char *name : {"second", "third"}) {
    producer_config_set_name("Any", 1, name);
  }
  {
    const faults::HeldSync folder_sync;
    file_sync.reset();
    ASSERT_TRUE(folder_sync.wait());
    EXPECT_EQ(content(), "[Producers.0.Any]\nName=first\n");
  }
  saves::wait();

  EXPECT_EQ(content(), "[Producers.0.Any]\nName=third\n");
  EXPECT_EQ(faults::take_file_calls().size(), 3 * SAVE_CALLS) << "one save for each change";
}

TEST_F(ProducerConfigSavesTest, CallsBackWhenAChangeIsSaved)
{
  bool called = false;
  load("");
  faults::HeldSync sync;
  producer_config_set_name("Any", 1, "profile");
  EXPECT_GT(producer_config_call_when_saved(saves::set_saved, &called), 0U);
  ASSERT_TRUE(sync.wait());
  testhost::dispatch_ready();
  EXPECT_FALSE(called);

  sync.release();
  EXPECT_TRUE(testhost::spin_until([&called] { return called; }));
  EXPECT_EQ(content(), "[Producers.0.Any]\nName=profile\n");
}

TEST_F(ProducerConfigSavesTest, CallsBackWhenAChangeCannotBeSaved)
{
  bool called = false;
  load("");
  faults::fail_next(faults::Call::FSYNC);
  producer_config_set_name("Any", 1, "profile");
  producer_config_call_when_saved(saves::set_saved, &called);

  EXPECT_TRUE(testhost::spin_until([&called] { return called; }));
  expect_write_failure("Failed to sync '" + temporary_ + "': Input/output error");
}

TEST_F(ProducerConfigSavesTest, DoesNotCallBackAfterTheSourceIsRemoved)
{
  std::array<bool, 2> called = {};
  load("");
  faults::HeldSync sync;
  producer_config_set_name("Any", 1, "profile");
  std::array<guint, 2> ids = {};
  for (gsize i = 0; i < ids.size(); i++) {
    ids.at(i) = producer_config_call_when_saved(saves::set_saved, &called.at(i));
  }
  ASSERT_TRUE(sync.wait());
  EXPECT_TRUE(g_source_remove(ids[0]));
  sync.release();
  unload();
  EXPECT_TRUE(g_source_remove(ids[1])) << "also when it is ready";

  testhost::dispatch_ready();
  EXPECT_EQ(called, (std::array<bool, 2>{}));
}

TEST_F(ProducerConfigSavesTest, SavesEverythingBeforeItIsFreed)
{
  load("");
  producer_config_set_name("Any", 1, "one");
  producer_config_set_name("Any", 2, "two");
  unload();

  EXPECT_EQ(content(), "[Producers.0.Any]\nName=one\n\n[Producers.1.Any]\nName=two\n");
}

TEST_F(ProducerConfigSavesTest, ServesTwoThreadsAtOnce)
{
  constexpr guint32 CHANNELS = 100;
  const auto use = [](const char *producer) {
    for (guint32 channel = 1; channel <= CHANNELS; channel++) {
      producer_config_set_name(producer, channel, producer);
      if (get_name(producer, channel) != producer || supported_channels(producer).size() != channel) {
        return false;
      }
    }
    return true;
  };
  bool other_right = false;
  load("");

  std::thread other([&] { other_right = use("Other"); });
  EXPECT_TRUE(use("One"));
  other.join();
  EXPECT_TRUE(other_right);
  reload();
  EXPECT_EQ(supported_channels("One").size(), CHANNELS);
  EXPECT_EQ(supported_channels("Other").size(), CHANNELS);
}
