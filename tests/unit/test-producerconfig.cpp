#include "producerconfig.h"

#include "faults.h"
#include "saves.h"
#include "testhost.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <optional>
#include <random>
#include <sched.h>
#include <sstream>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <thread>
#include <unistd.h>

using testhost::SyslogLine;
using testhost::SyslogLines;
using testhost::Texts;

using namespace std::chrono_literals;
using namespace std::string_literals;

namespace
{

using Channels = std::vector<guint32>;

SyslogLine
warning(const std::string &text)
{
  return {LOG_WARNING, text};
}

SyslogLine
write_failure(const std::string &text)
{
  return warning("could not write name to producerconfig: " + text);
}

SyslogLine
load_failure(const std::string &path, const std::string &text)
{
  return warning("could not load producer config from '" + path + "': " + text);
}

SyslogLine
invalid_group(const std::string &group)
{
  return warning("invalid format of group in producers.conf: " + group);
}

constexpr uid_t NOBODY = 65534;

/* Without root's rights, which would be above a file's mode, while this object lives. */
class Unprivileged
{
public:
  Unprivileged() : user_(geteuid())
  {
    if (user_ == 0) {
      EXPECT_EQ(seteuid(NOBODY), 0);
    }
  }
  ~Unprivileged()
  {
    EXPECT_EQ(seteuid(user_), 0);
  }
  Unprivileged(const Unprivileged &) = delete;
  Unprivileged &operator=(const Unprivileged &) = delete;

private:
  uid_t user_;
};

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

SyslogLine
long_name(const std::string &group)
{
  return warning("configuration name longer than 256 bytes in producers.conf: " + group);
}

gboolean
count_to_three(gpointer count)
{
  return ++*static_cast<guint *>(count) < 3;
}

const SyslogLine WRITTEN = {LOG_INFO, "wrote to producerconfig what could not be written before"};

/* The number that the next descriptor gets. */
int
next_descriptor()
{
  const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);

  EXPECT_EQ(close(fd), 0);
  return fd;
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

/* Gives the process mounts of its own, and root's rights over them. */
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

std::optional<std::string>
get_name(const std::string &producer, guint32 channel)
{
  g_autofree gchar *name = producer_config_get_name(producer.c_str(), channel);

  return name != nullptr ? std::optional<std::string>(name) : std::nullopt;
}

Channels
supported_channels(const std::string &producer)
{
  g_autoptr(GArray) array = producer_config_get_supported_channels(producer.c_str());
  const auto *first = reinterpret_cast<const guint32 *>(array->data);

  EXPECT_EQ(g_array_get_element_size(array), sizeof(guint32));
  EXPECT_EQ(first[array->len], 0U) << "behind the last channel stands a zero";
  return {first, first + array->len};
}

class ProducerConfigTest : public testhost::Fixture
{
protected:
  void SetUp() override
  {
    Fixture::SetUp();
    std::filesystem::permissions(dir(), std::filesystem::perms(0755));
    folder_ = path("etc");
    std::filesystem::create_directory(folder_);
    file_ = folder_ + "/producers.conf";
    temporary_ = file_ + PRODUCER_CONFIG_TEMPORARY_SUFFIX;
  }

  void TearDown() override
  {
    unload();
    Fixture::TearDown();
  }

  void write(const std::string &content) const
  {
    std::ofstream(file_) << content;
  }

  void touch(const std::string &name) const
  {
    std::ofstream(folder_ + "/" + name) << "[Producers.0.Any]\nName=of a leftover\n";
  }

  std::string content() const
  {
    std::stringstream text;
    text << std::ifstream(file_).rdbuf();
    return text.str();
  }

  void load()
  {
    ASSERT_TRUE(producer_config_setup(file_.c_str()));
    loaded_ = true;
  }

  void load(const std::string &content)
  {
    write(content);
    load();
  }

  void unload()
  {
    if (loaded_) {
      producer_config_free();
      loaded_ = false;
    }
  }

  /* As the next start sees it. */
  void reload()
  {
    unload();
    load();
  }

  void expect_not_loaded(const std::string &text, int error_number) const
  {
    errno = ERANGE;
    EXPECT_FALSE(producer_config_setup(file_.c_str()));
    EXPECT_EQ(errno, error_number);
    EXPECT_EQ(testhost::take_syslog(), (SyslogLines{load_failure(file_, text)}));
  }

  /* Dispatches nothing. */
  static void wait_for_syslog(gsize lines)
  {
    const gint64 end = g_get_monotonic_time() + testhost::SPIN_LIMIT_US;

    while (testhost::syslog_size() < lines && g_get_monotonic_time() < end) {
      std::this_thread::yield();
    }
  }

  static void expect_write_failure(const std::string &text)
  {
    wait_for_syslog(1);
    EXPECT_EQ(testhost::take_syslog(), SyslogLines{write_failure(text)});
  }

  /* A save that was tried again has succeeded. */
  static void expect_written_later()
  {
    EXPECT_TRUE(testhost::spin_until([] { return testhost::syslog_size() > 0; }));
    EXPECT_EQ(testhost::take_syslog(), SyslogLines{WRITTEN});
  }

  /* What a save calls when descriptors get this number: all, or the first so many. */
  Texts save_calls(int fd, gsize count = SAVE_CALLS) const
  {
    const std::string number = std::to_string(fd);
    const Texts all = {"open " + temporary_, "fsync " + number, "close " + number, "rename " + file_,
                       "open " + folder_,    "fsync " + number, "close " + number};

    EXPECT_EQ(all.size(), SAVE_CALLS);
    return {all.begin(), all.begin() + static_cast<Texts::difference_type>(count)};
  }

  /* After a save that failed: all as it was but in memory, and the next save brings the change too. */
  void expect_carried_by_the_next_save(const std::string &old_content)
  {
    EXPECT_EQ(content(), old_content);
    EXPECT_EQ(get_name("Any", 1), "carried");
    saves::set_name("Any", 2, "next");
    reload();
    EXPECT_EQ(get_name("Any", 1), "carried");
    EXPECT_EQ(get_name("Any", 2), "next");
    EXPECT_EQ(entries(), (std::set<std::string>{"producers.conf"}));
  }

  std::set<std::string> entries() const
  {
    std::set<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(folder_)) {
      names.insert(entry.path().filename());
    }
    return names;
  }

  static constexpr gsize SAVE_CALLS = 7;

  std::string folder_;
  std::string file_;
  std::string temporary_;

private:
  bool loaded_ = false;
};

} // namespace

TEST_F(ProducerConfigTest, ReadsTheNameOfAChannel)
{
  load("[Producers.1.VideoMotionTracker]\nName=profile1\n");

  EXPECT_EQ(get_name("VideoMotionTracker", 2), "profile1");
}

TEST_F(ProducerConfigTest, ReadsAnEmptyNameAsDisabled)
{
  load("[Producers.0.VideoMotionTracker]\nName=\n");

  EXPECT_EQ(get_name("VideoMotionTracker", 1), std::nullopt);
}

TEST_F(ProducerConfigTest, ReadsAMissingKeyAsDisabled)
{
  load("[Producers.0.RadarMotionTracker]\nOther=profile1\n");

  EXPECT_EQ(get_name("RadarMotionTracker", 1), std::nullopt);
}

TEST_F(ProducerConfigTest, ReadsAMissingGroupAsDisabled)
{
  load("");

  EXPECT_EQ(get_name("RadarMotionTracker", 1), std::nullopt);
}

TEST_F(ProducerConfigTest, ListsSupportedChannelsInTheOrderOfTheFile)
{
  load("[Producers.2.VideoMotionTracker]\n"
       "[Producers.5.RadarMotionTracker]\n"
       "[Producers.0.VideoMotionTracker]\n");

  EXPECT_EQ(supported_channels("VideoMotionTracker"), (Channels{3, 1}));
  EXPECT_EQ(supported_channels("RadarMotionTracker"), (Channels{6}));
  EXPECT_EQ(supported_channels("Other"), Channels());
}

TEST_F(ProducerConfigTest, StoresANameInTheFile)
{
  load("# gone with the first change\n[Producers.0.VideoMotionTracker]\nName=\n");
  saves::set_name("VideoMotionTracker", 1, "profile1");

  EXPECT_EQ(get_name("VideoMotionTracker", 1), "profile1");
  EXPECT_EQ(content(), "[Producers.0.VideoMotionTracker]\nName=profile1\n");
}

TEST_F(ProducerConfigTest, WarnsOfAMalformedIndex)
{
  load("[Producers.x.VideoMotionTracker]\n"
       "[Other.VideoMotionTracker]\n"
       "[Producers.-1.VideoMotionTracker]\n"
       "[Producers.2147483648.VideoMotionTracker]\n"
       "[VideoMotionTracker]\n"
       "[Producers.3.VideoMotionTracker]\n");

  EXPECT_EQ(supported_channels("VideoMotionTracker"), (Channels{4}));
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{invalid_group("Producers.x.VideoMotionTracker"),
                                                  invalid_group("Other.VideoMotionTracker"),
                                                  invalid_group("Producers.-1.VideoMotionTracker"),
                                                  invalid_group("Producers.2147483648.VideoMotionTracker")}));
}

TEST_F(ProducerConfigTest, ReadsATextThatIsNotUtf8AsDisabled)
{
  load("[Producers.0.Any]\nName=\xff\n");

  EXPECT_EQ(get_name("Any", 1), std::nullopt);
}

TEST_F(ProducerConfigTest, ReadsATranslationAsDisabled)
{
  load("[Producers.0.Any]\nName[de]=translated\n");

  EXPECT_EQ(get_name("Any", 1), std::nullopt);
}

TEST_F(ProducerConfigTest, WarnsOnceOfALongNameAndUsesIt)
{
  const std::string longest(PRODUCER_CONFIG_MAX_NAME_BYTES, 'x');
  /* In the file blanks at the beginning take two bytes each. */
  const std::string longest_escaped = "\\s" + longest.substr(1);
  const std::string too_long = longest + "x";
  load("[Producers.0.Any]\nName=" + too_long + "\n[Producers.1.Any]\nName=" + longest +
       "\n[Producers.2.Any]\nName=" + longest_escaped + "\n[Producers.3.Any]\nOther=" + too_long +
       "\n[Other.0.Any]\nName=" + too_long + "\n[Producers.x.Any]\nName=" + longest.substr(1) +
       "\u00fc\n[Producers.0.Any]\nName=" + too_long + "\n");

  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{long_name("Producers.0.Any"), long_name("Producers.x.Any")}));
  EXPECT_EQ(get_name("Any", 1), too_long);
  EXPECT_EQ(get_name("Any", 1), too_long);
  EXPECT_EQ(get_name("Any", 2), longest);
  saves::set_name("Any", 5, "profile");
  EXPECT_EQ(testhost::take_syslog(), SyslogLines());

  reload();
  EXPECT_EQ(get_name("Any", 1), too_long);
  EXPECT_EQ(testhost::take_syslog().size(), 2U);
}

TEST_F(ProducerConfigTest, UndoesEscapes)
{
  load("[Producers.0.Any]\nName=\\stwo\\nlines\\\\\n");

  EXPECT_EQ(get_name("Any", 1), " two\nlines\\");
}

/* GLib 2.74 returns the text as it stands in the file, GLib 2.84 returns nothing. */
TEST_F(ProducerConfigTest, ReadsAnUnknownEscapeAsGLibDoes)
{
  const std::string text = "[Producers.1.Any]\nName=\\x\n";
  g_autoptr(GKeyFile) key_file = g_key_file_new();
  ASSERT_TRUE(g_key_file_load_from_data(key_file, text.c_str(), text.size(), G_KEY_FILE_NONE, nullptr));
  g_autofree gchar *name = g_key_file_get_string(key_file, "Producers.1.Any", "Name", nullptr);
  load(text);

  EXPECT_EQ(get_name("Any", 2), name != nullptr ? std::make_optional<std::string>(name) : std::nullopt);
}

TEST_F(ProducerConfigTest, AsksForAnyChannelAndAnyProducer)
{
  load("[Producers.4294967295.Any]\nName=zero\n[Producers.4294967294.Any]\nName=last\n[Producers.0.]\nName="
       "x\n");

  EXPECT_EQ(get_name("Any", 0), "zero");
  EXPECT_EQ(get_name("Any", G_MAXUINT32), "last");
  EXPECT_EQ(get_name("Any", G_MAXINT32), std::nullopt);
  EXPECT_EQ(get_name("", 1), "x");
  EXPECT_EQ(get_name("[\n]\xff", 1), std::nullopt);
  EXPECT_EQ(get_name(std::string(100000, 'x'), 1), std::nullopt);
}

TEST_F(ProducerConfigTest, CreatesTheGroupOfAChannel)
{
  load("[Other]\nKey=value\n");
  saves::set_name("Any", 12, "profile");

  EXPECT_EQ(content(), "[Other]\nKey=value\n\n[Producers.11.Any]\nName=profile\n");
}

TEST_F(ProducerConfigTest, KeepsTheGroupOfADisabledChannel)
{
  load("[Producers.3.Any]\nName=profile\n[Producers.0.Any]\nName=profile\n");
  saves::set_name("Any", 4, nullptr);

  EXPECT_EQ(content(), "[Producers.3.Any]\nName=\n\n[Producers.0.Any]\nName=profile\n");
  EXPECT_EQ(get_name("Any", 4), std::nullopt);
  reload();
  EXPECT_EQ(get_name("Any", 4), std::nullopt);
  EXPECT_EQ(get_name("Any", 1), "profile");
  EXPECT_EQ(supported_channels("Any"), (Channels{4, 1}));
}

TEST_F(ProducerConfigTest, StoresAnEmptyNameLikeNone)
{
  load("[Producers.0.Any]\nName=profile\n");
  saves::set_name("Any", 1, "");

  EXPECT_EQ(get_name("Any", 1), std::nullopt);
  EXPECT_EQ(content(), "[Producers.0.Any]\nName=\n");
}

TEST_F(ProducerConfigTest, StoresChannelZeroOutOfTheWay)
{
  load("[Producers.0.Any]\nName=profile\n");
  saves::set_name("Any", 0, "odd");

  EXPECT_EQ(get_name("Any", 0), "odd");
  EXPECT_EQ(get_name("Any", 1), "profile");
  EXPECT_EQ(supported_channels("Any"), (Channels{1}));
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{invalid_group("Producers.4294967295.Any")}));
}

TEST_F(ProducerConfigTest, WritesOnceForEveryChange)
{
  load("[Producers.0.Any]\nName=profile\n");
  const int fd = next_descriptor();
  faults::keep_file_calls();
  saves::set_name("Any", 1, "profile");

  EXPECT_EQ(faults::take_file_calls(), save_calls(fd));
}

TEST_F(ProducerConfigTest, ReplacesTheFileAsAWhole)
{
  load("[Producers.0.Any]\nName=profile\n");
  std::ifstream reader(file_);
  saves::set_name("Any", 1, "changed");
  std::stringstream seen;
  seen << reader.rdbuf();

  EXPECT_EQ(seen.str(), "[Producers.0.Any]\nName=profile\n");
  EXPECT_EQ(content(), "[Producers.0.Any]\nName=changed\n");
}

namespace
{

/* Groups and the channel that each yields, or 0 when it is warned of, or nothing when it is another's. */

struct Group {
  const char *name;
  const char *producer;
  const char *group;
  std::optional<guint32> channel;
};

std::ostream &
operator<<(std::ostream &stream, const Group &group)
{
  return stream << group.name;
}

class ProducerConfigGroupTest : public ProducerConfigTest, public testing::WithParamInterface<Group>
{
};

const std::vector<Group> GROUPS = {
    {"First", "Any", "Producers.0.Any", 1},
    {"Last", "Any", "Producers.2147483647.Any", 2147483648},
    {"BehindLast", "Any", "Producers.2147483648.Any", 0},
    {"BeyondUnsigned", "Any", "Producers.4294967296.Any", 0},
    {"BeyondAll", "Any", "Producers.99999999999999999999999.Any", 0},
    {"Negative", "Any", "Producers.-1.Any", 0},
    {"NegativeBeyondAll", "Any", "Producers.-99999999999999999999999.Any", 0},
    {"NegativeZero", "Any", "Producers.-0.Any", 1},
    {"Plus", "Any", "Producers.+4.Any", 5},
    {"LeadingZeros", "Any", "Producers.0000000000000000000000004.Any", 5},
    {"BlankBefore", "Any", "Producers. 4.Any", 5},
    {"BlankBehind", "Any", "Producers.4 .Any", 0},
    {"BlankAlone", "Any", "Producers. .Any", 0},
    {"SignAlone", "Any", "Producers.-.Any", 0},
    {"Hexadecimal", "Any", "Producers.0x4.Any", 0},
    {"Letter", "Any", "Producers.x.Any", 0},
    {"LetterBehind", "Any", "Producers.4x.Any", 0},
    {"Fraction", "Any", "Producers.4.5.Any", 5},
    {"NoIndex", "Any", "Producers.Any", 0},
    {"EmptyIndex", "Any", "Producers..Any", 1},
    {"EmptyIndexOfName", "Name", "Producers..Name", 1},
    {"EmptyWordAndNoIndex", "Any", ".Any", 0},
    {"EmptyWord", "Any", ".4.Any", 5},
    {"EmptyWordAndIndex", "Any", "..Any", 1},
    {"AnyWord", "Any", "What ever.4.Any", 5},
    {"WordInBetween", "Any", "Producers.4.Other.Any", 5},
    {"IndexBehindAnotherDot", "Any", "Pro.ducers.4.Any", 0},
    {"ProducerWithDots", "A.n.y", "Producers.4.A.n.y", 5},
    {"EndOfAProducerWithDots", "n.y", "Producers.4.A.n.y", 5},
    {"ProducerWithoutName", "", "Producers.4.", 5},
    {"ProducerWithoutNameNorIndex", "", "Producers.", 0},
    {"NotUtf8", "Any", "\xff.4.Any", 5},
    {"NoDot", "Any", "Any", std::nullopt},
    {"OtherCase", "Any", "Producers.4.any", std::nullopt},
    {"LongerProducer", "Any", "Producers.4.ManyAny", std::nullopt},
    {"BlankBehindAll", "Any", "Producers.4.Any ", std::nullopt},
};

} // namespace

TEST_P(ProducerConfigGroupTest, YieldsAChannelOrAWarningOrNothing)
{
  const Group &example = GetParam();
  load("["s + example.group + "]\nName=profile\n");

  const guint32 channel = example.channel.value_or(0);
  EXPECT_EQ(supported_channels(example.producer), channel > 0 ? Channels{channel} : Channels());
  EXPECT_EQ(testhost::take_syslog(),
            example.channel == 0U ? SyslogLines{invalid_group(example.group)} : SyslogLines());
}

INSTANTIATE_TEST_SUITE_P(Groups, ProducerConfigGroupTest, testing::ValuesIn(GROUPS),
                         [](const auto &example) { return std::string(example.param.name); });

TEST_F(ProducerConfigTest, ListsTheSameChannelAsOftenAsItHasGroups)
{
  load("[Producers.0.Any]\n[Other.0.Any]\n[Producers.0.Any]\n");

  EXPECT_EQ(supported_channels("Any"), (Channels{1, 1}));
}

/* Configuration names that the file's syntax has to carry. */

namespace
{

class ProducerConfigNameTest : public ProducerConfigTest,
                               public testing::WithParamInterface<std::pair<const char *, std::string>>
{
};

} // namespace

TEST_P(ProducerConfigNameTest, SurvivesTheFile)
{
  load("[Producers.0.Any]\n[Producers.2.Any]\nName=next\n");
  saves::set_name("Any", 1, GetParam().second.c_str());
  EXPECT_EQ(get_name("Any", 1), GetParam().second);
  reload();

  EXPECT_EQ(get_name("Any", 1), GetParam().second);
  EXPECT_EQ(get_name("Any", 3), "next");
  EXPECT_EQ(supported_channels("Any"), (Channels{1, 3}));
}

INSTANTIATE_TEST_SUITE_P(
    Names, ProducerConfigNameTest,
    testing::Values(std::pair("LineBreak", "two\nlines"s), std::pair("LineBreaksAlone", "\n\r\n"s),
                    std::pair("LeadingBlanks", "   name"s), std::pair("TrailingBlanks", "name   "s),
                    std::pair("Blank", " "s), std::pair("Tabs", "\ta\tb\t"s),
                    std::pair("CarriageReturn", "name\r"s), std::pair("Backslashes", R"(\n\s\\\x\)"s),
                    std::pair("Semicolons", ";a;;b;"s), std::pair("EqualsSigns", "=Name=x="s),
                    std::pair("Comment", "# name"s), std::pair("Group", "[Producers.5.Any]"s),
                    std::pair("GroupOnItsOwnLine", "x\n[Producers.5.Any]\nName=y"s),
                    std::pair("Quotes", "\"'`"s), std::pair("Percent", "%s%n%"s),
                    std::pair("NonAscii", "Gr\u00fc\u00dfe \u20ac \U0001f4f7"s),
                    std::pair("ControlCharacters", "a\x01\x1b\x7f\v\f"s),
                    std::pair("LineSeparators", "a\u2028b\u2029c\u0085"s),
                    std::pair("ByteOrderMark", "\ufeffx"s)),
    [](const auto &example) { return std::string(example.param.first); });

TEST_F(ProducerConfigTest, CarriesAVeryLongName)
{
  const std::string name(1024 * 1024, 'x');
  load("");
  saves::set_name("Any", 1, name.c_str());
  reload();

  EXPECT_EQ(testhost::take_syslog(), SyslogLines{long_name("Producers.0.Any")});
  EXPECT_EQ(get_name("Any", 1), name);
}

TEST_F(ProducerConfigTest, LosesFormFeedsAtTheBeginningOfAName)
{
  load("");
  saves::set_name("Any", 1, "\f\fname\f");
  EXPECT_EQ(get_name("Any", 1), "\f\fname\f");
  reload();

  EXPECT_EQ(get_name("Any", 1), "name\f");
}

TEST_F(ProducerConfigTest, CarriesAnyMixtureOfOddCharacters)
{
  const std::vector<std::string> pieces = {" ", "\t", "\n", "\r", "\\",     ";",      "=",
                                           "#", "[",  "]",  "a",  "\u00e9", "\u20ac", "s"};
  std::mt19937 random(20261121);
  std::vector<std::string> names(200);
  load("");

  for (gsize i = 0; i < names.size(); i++) {
    for (auto left = 1 + random() % 9; left > 0; left--) {
      names[i] += pieces[random() % pieces.size()];
    }
    saves::set_name("Any", i + 1, names[i].c_str());
  }
  reload();
  for (gsize i = 0; i < names.size(); i++) {
    ASSERT_EQ(get_name("Any", i + 1), names[i]);
  }
}

/* Names that the file cannot hold. */

TEST_F(ProducerConfigTest, RefusesAProducerThatCannotBePartOfAGroup)
{
  const std::vector<std::pair<std::string, std::string>> producers = {
      {"a[b", "a[b"},        {"]", "]"},          {"a\nb", R"(a\nb)"},
      {"a\x01", R"(a\001)"}, {"\x7f", R"(\177)"}, {"a\xff", R"(a\377)"},
      {"\t", R"(\t)"},       {"\"\n", R"(\"\n)"}, {"\xc0\xaf", R"(\300\257)"},
  };
  load("[Producers.0.Any]\nName=profile\n");

  for (const auto &[producer, escaped] : producers) {
    faults::keep_file_calls();
    saves::set_name(producer.c_str(), 1, "profile");
    EXPECT_EQ(faults::take_file_calls(), Texts());
    EXPECT_EQ(testhost::take_syslog(),
              (SyslogLines{write_failure("Not the name of a group: \"Producers.0." + escaped + "\"")}));
    EXPECT_EQ(get_name(producer, 1), std::nullopt);
  }
  EXPECT_EQ(content(), "[Producers.0.Any]\nName=profile\n");
}

TEST_F(ProducerConfigTest, RefusesAConfigurationNameThatIsNotUtf8)
{
  load("[Producers.0.Any]\nName=profile\n");

  for (const std::string name : {"\xff", "a\xc3", "\xed\xa0\x80"}) {
    g_autofree gchar *escaped = g_strescape(name.c_str(), nullptr);
    saves::set_name("Any", 1, name.c_str());
    EXPECT_EQ(testhost::take_syslog(), (SyslogLines{write_failure("Not UTF-8 text: \""s + escaped + "\"")}));
    EXPECT_EQ(get_name("Any", 1), "profile");
  }
  EXPECT_EQ(content(), "[Producers.0.Any]\nName=profile\n");
}

TEST_F(ProducerConfigTest, TakesAnyOtherProducer)
{
  const std::string producer = " odd.name;=#\u00e9 \\n";
  load("");
  saves::set_name(producer.c_str(), 1, "profile");
  reload();

  EXPECT_EQ(get_name(producer, 1), "profile");
  EXPECT_EQ(supported_channels(producer), (Channels{1}));
}

TEST_F(ProducerConfigTest, NeedsAProducer)
{
  load("");

  EXPECT_EQ(producer_config_get_name(nullptr, 1), nullptr);
  producer_config_set_name(nullptr, 1, "profile");
  EXPECT_EQ(producer_config_get_supported_channels(nullptr), nullptr);
  EXPECT_EQ(testhost::take_failed_preconditions(), Texts(3, "producer != NULL"));
  EXPECT_EQ(producer_config_call_when_saved(nullptr, nullptr), 0U);
  EXPECT_EQ(testhost::take_failed_preconditions(), Texts{"function != NULL"});
}

/* Files that cannot be loaded. */

TEST_F(ProducerConfigTest, RefusesAMissingFile)
{
  expect_not_loaded("No such file or directory", ENOENT);
  EXPECT_EQ(entries(), std::set<std::string>()) << "it is never created";
}

TEST_F(ProducerConfigTest, RefusesAMissingFolder)
{
  std::filesystem::remove(folder_);
  expect_not_loaded("No such file or directory", ENOENT);
}

TEST_F(ProducerConfigTest, RefusesALinkThatLeadsNowhere)
{
  std::filesystem::create_symlink("nowhere", file_);
  expect_not_loaded("No such file or directory", ENOENT);
}

TEST_F(ProducerConfigTest, RefusesALinkToItself)
{
  std::filesystem::create_symlink("producers.conf", file_);
  expect_not_loaded("Too many levels of symbolic links", ELOOP);
}

TEST_F(ProducerConfigTest, RefusesAFileThatItMayNotRead)
{
  write("");
  std::filesystem::permissions(file_, std::filesystem::perms::none);
  const Unprivileged unprivileged;
  expect_not_loaded("Permission denied", EACCES);
}

TEST_F(ProducerConfigTest, RefusesAFolderInPlaceOfTheFile)
{
  std::filesystem::create_directory(file_);
  expect_not_loaded("Not a regular file", EINVAL);
}

TEST_F(ProducerConfigTest, RefusesAMalformedFile)
{
  write("[Producers.0.Any]\nwhat?\n");
  expect_not_loaded(
      "Key file contains line \u201cwhat?\u201d which is not a key-value pair, group, or comment", EINVAL);
  write("Name=profile\n");
  expect_not_loaded("Key file does not start with a group", EINVAL);
  write("[Producers[0]\n");
  expect_not_loaded("Invalid group name: Producers[0", EINVAL);
}

TEST_F(ProducerConfigTest, LeavesEverythingAloneWhenItCannotLoad)
{
  write("malformed");
  touch("producers.conf.tessard-new");
  expect_not_loaded(
      "Key file contains line \u201cmalformed\u201d which is not a key-value pair, group, or comment",
      EINVAL);

  EXPECT_EQ(entries(), (std::set<std::string>{"producers.conf", "producers.conf.tessard-new"}));
}

TEST_F(ProducerConfigTest, LoadsAfterAFailure)
{
  expect_not_loaded("No such file or directory", ENOENT);
  load("[Producers.0.Any]\nName=profile\n");

  EXPECT_EQ(get_name("Any", 1), "profile");
}

TEST_F(ProducerConfigTest, RefusesToLoadWithoutAThread)
{
  write("[Producers.0.Any]\nName=profile\n");
  faults::fail_next(faults::Call::THREAD_NEW);
  errno = ERANGE;
  EXPECT_FALSE(producer_config_setup(file_.c_str()));

  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(
      testhost::take_syslog(),
      (SyslogLines{warning("could not start the thread that writes producer config: No more threads")}));
  load();
  EXPECT_EQ(get_name("Any", 1), "profile");
}

TEST_F(ProducerConfigTest, LoadsAnEmptyFile)
{
  load("");

  EXPECT_EQ(supported_channels("Any"), Channels());
}

/* Saves that fail. */

TEST_F(ProducerConfigTest, KeepsAChangeWhoseFolderIsMissing)
{
  load("[Producers.0.Any]\nName=old\n");
  std::filesystem::remove_all(folder_);
  faults::keep_file_calls();
  saves::set_name("Any", 1, "carried");

  EXPECT_EQ(faults::take_file_calls(), save_calls(-1, 1));
  expect_write_failure("Failed to create '" + temporary_ + "': No such file or directory");
  std::filesystem::create_directory(folder_);
  expect_carried_by_the_next_save("");
}

TEST_F(ProducerConfigTest, KeepsAChangeWhoseFolderIsReadOnly)
{
  load("[Producers.0.Any]\nName=old\n");
  std::filesystem::permissions(folder_, std::filesystem::perms(0555));
  {
    const Unprivileged unprivileged;
    saves::set_name("Any", 1, "carried");
  }

  expect_write_failure("Failed to create '" + temporary_ + "': Permission denied");
  std::filesystem::permissions(folder_, std::filesystem::perms(0755));
  expect_carried_by_the_next_save("[Producers.0.Any]\nName=old\n");
}

TEST_F(ProducerConfigTest, KeepsAChangeWhenAFolderTookTheFilesPlace)
{
  load("[Producers.0.Any]\nName=old\n");
  std::filesystem::remove(file_);
  std::filesystem::create_directory(file_);
  saves::set_name("Any", 1, "carried");

  expect_write_failure("Failed to rename '" + temporary_ + "' to '" + file_ + "': Is a directory");
  EXPECT_EQ(entries(), (std::set<std::string>{"producers.conf"}));
  std::filesystem::remove(file_);
  expect_carried_by_the_next_save("");
}

TEST_F(ProducerConfigTest, KeepsAChangeThatIsTooLongForAFile)
{
  load("[Producers.0.Any]\nName=old\n");
  {
    const TinyFiles tiny;
    saves::set_name("Any", 1, "carried");
  }

  expect_write_failure("Failed to write '" + temporary_ + "': File too large");
  expect_carried_by_the_next_save("[Producers.0.Any]\nName=old\n");
}

TEST_F(ProducerConfigTest, KeepsAChangeThatTheDiskHasNoRoomFor)
{
  constexpr int NO_NAMESPACE = 77;
  const int status = wait_for_end(fork_process([this] {
    if (!enter_own_namespace() || mount("tmpfs", folder_.c_str(), "tmpfs", 0, "size=16k") != 0) {
      _exit(NO_NAMESPACE);
    }
    load("[Producers.0.Any]\nName=old\n");
    const std::string too_long(32 * 1024, 'x');
    saves::set_name("Any", 2, too_long.c_str());
    expect_write_failure("Failed to write '" + temporary_ + "': No space left on device");
    EXPECT_EQ(get_name("Any", 2), too_long);
    EXPECT_EQ(content(), "[Producers.0.Any]\nName=old\n");
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

TEST_F(ProducerConfigTest, KeepsAChangeWhoseContentCannotBeSynced)
{
  load("[Producers.0.Any]\nName=old\n");
  faults::fail_next(faults::Call::FSYNC);
  saves::set_name("Any", 1, "carried");

  expect_write_failure("Failed to sync '" + temporary_ + "': Input/output error");
  EXPECT_EQ(entries(), (std::set<std::string>{"producers.conf"}));
  expect_carried_by_the_next_save("[Producers.0.Any]\nName=old\n");
}

TEST_F(ProducerConfigTest, KeepsAChangeWhoseContentCannotBeClosed)
{
  load("[Producers.0.Any]\nName=old\n");
  const int fd = next_descriptor();
  faults::fail_close_of(fd);
  saves::set_name("Any", 1, "carried");

  expect_write_failure("Failed to close fd (" + std::to_string(fd) + ") for " + temporary_ +
                       ": Input/output error");
  EXPECT_EQ(entries(), (std::set<std::string>{"producers.conf"}));
  expect_carried_by_the_next_save("[Producers.0.Any]\nName=old\n");
}

TEST_F(ProducerConfigTest, TellsOfAFolderThatCannotBeOpened)
{
  load("[Producers.0.Any]\nName=old\n");
  const int fd = next_descriptor();
  faults::fail_next(faults::Call::OPEN, 1);
  faults::keep_file_calls();
  saves::set_name("Any", 1, "carried");

  EXPECT_EQ(faults::take_file_calls(), save_calls(fd, SAVE_CALLS - 2));
  expect_write_failure("Failed to open '" + folder_ + "': Too many open files");
  expect_carried_by_the_next_save("[Producers.0.Any]\nName=carried\n");
}

TEST_F(ProducerConfigTest, TellsOfAFolderThatCannotBeSynced)
{
  load("[Producers.0.Any]\nName=old\n");
  const int fd = next_descriptor();
  faults::fail_next(faults::Call::FSYNC, 1);
  faults::keep_file_calls();
  saves::set_name("Any", 1, "carried");

  EXPECT_EQ(faults::take_file_calls(), save_calls(fd));
  expect_write_failure("Failed to sync '" + folder_ + "': Input/output error");
  expect_carried_by_the_next_save("[Producers.0.Any]\nName=carried\n");
}

TEST_F(ProducerConfigTest, TellsTheFirstOfTwoFailures)
{
  load("[Producers.0.Any]\nName=old\n");
  faults::fail_next(faults::Call::FSYNC, 1);
  faults::fail_close_of(next_descriptor(), 1);
  saves::set_name("Any", 1, "carried");

  expect_write_failure("Failed to sync '" + folder_ + "': Input/output error");
}

TEST_F(ProducerConfigTest, TellsOfAFolderThatCannotBeClosed)
{
  load("[Producers.0.Any]\nName=old\n");
  const int fd = next_descriptor();
  faults::fail_close_of(fd, 1);
  saves::set_name("Any", 1, "carried");

  expect_write_failure("Failed to close fd (" + std::to_string(fd) + ") for " + folder_ +
                       ": Input/output error");
  expect_carried_by_the_next_save("[Producers.0.Any]\nName=carried\n");
}

/* Saves that are tried again. */

TEST_F(ProducerConfigTest, TriesAgainEveryMinuteUntilTheFileIsWritten)
{
  constexpr gsize TRIES = 3;
  const faults::ShortSeconds seconds;
  load("[Producers.0.Any]\nName=old\n");
  std::filesystem::remove_all(folder_);
  producer_config_set_name("Any", 1, "carried");
  expect_write_failure("Failed to create '" + temporary_ + "': No such file or directory");
  EXPECT_EQ(seconds.begun(), std::vector{60U});

  faults::keep_file_calls();
  EXPECT_TRUE(testhost::spin_until([] { return faults::file_calls_size() >= TRIES; }));
  EXPECT_EQ(testhost::take_syslog(), SyslogLines());
  for (const std::string &call : faults::take_file_calls()) {
    EXPECT_EQ(call, "open " + temporary_);
  }

  std::filesystem::create_directory(folder_);
  expect_written_later();
  EXPECT_EQ(seconds.count(), 0U);
  EXPECT_EQ(content(), "[Producers.0.Any]\nName=carried\n");
  EXPECT_EQ(entries(), (std::set<std::string>{"producers.conf"}));
  EXPECT_EQ(seconds.begun().size(), 1U);
}

TEST_F(ProducerConfigTest, TriesAgainWhatMayNotBeDurable)
{
  const faults::ShortSeconds seconds;
  load("[Producers.0.Any]\nName=old\n");
  const int fd = next_descriptor();
  faults::fail_next(faults::Call::FSYNC, 1);
  producer_config_set_name("Any", 1, "carried");
  expect_write_failure("Failed to sync '" + folder_ + "': Input/output error");

  faults::keep_file_calls();
  expect_written_later();
  EXPECT_EQ(seconds.count(), 0U);
  EXPECT_EQ(faults::take_file_calls(), save_calls(fd));
}

TEST_F(ProducerConfigTest, EndsTryingWithAChangeThatIsWritten)
{
  const faults::ShortSeconds seconds;
  load("[Producers.0.Any]\nName=old\n");
  faults::fail_next(faults::Call::FSYNC);
  producer_config_set_name("Any", 1, "carried");
  expect_write_failure("Failed to sync '" + temporary_ + "': Input/output error");
  EXPECT_EQ(seconds.count(), 1U);
  saves::set_name("Any", 2, "next");

  EXPECT_EQ(seconds.count(), 0U);
  EXPECT_EQ(content(), "[Producers.0.Any]\nName=carried\n\n[Producers.1.Any]\nName=next\n");
}

TEST_F(ProducerConfigTest, TriesOnceForAllChanges)
{
  const faults::ShortSeconds seconds;
  load("");
  for (const guint32 channel : {1, 2}) {
    faults::fail_next(faults::Call::FSYNC);
    producer_config_set_name("Any", channel, "carried");
    expect_write_failure("Failed to sync '" + temporary_ + "': Input/output error");
  }
  EXPECT_EQ(seconds.begun().size(), 1U);

  expect_written_later();
  EXPECT_EQ(seconds.count(), 0U);
  EXPECT_EQ(content(), "[Producers.0.Any]\nName=carried\n\n[Producers.1.Any]\nName=carried\n");
}

TEST_F(ProducerConfigTest, TriesAgainAfterEachFailure)
{
  const faults::ShortSeconds seconds;
  load("");
  for (const char *name : {"first", "second"}) {
    faults::fail_next(faults::Call::FSYNC);
    producer_config_set_name("Any", 1, name);
    expect_write_failure("Failed to sync '" + temporary_ + "': Input/output error");
    expect_written_later();
    EXPECT_EQ(seconds.count(), 0U);
    EXPECT_EQ(content(), "[Producers.0.Any]\nName="s + name + "\n");
  }
}

TEST_F(ProducerConfigTest, DoesNotTryAgainWhatItRefuses)
{
  const faults::ShortSeconds seconds;
  load("");
  producer_config_set_name("[", 1, "profile");
  producer_config_set_name("Any", 1, "\xff");

  EXPECT_EQ(testhost::take_syslog().size(), 2U);
  EXPECT_EQ(seconds.begun().size(), 0U);
}

TEST_F(ProducerConfigTest, TriesAgainWhateverItRefusesMeanwhile)
{
  const faults::ShortSeconds seconds;
  load("");
  faults::fail_next(faults::Call::FSYNC);
  producer_config_set_name("Any", 1, "carried");
  producer_config_set_name("Any", 1, "\xff");
  wait_for_syslog(2);
  EXPECT_EQ(testhost::take_syslog().size(), 2U);

  expect_written_later();
  EXPECT_EQ(seconds.count(), 0U);
  EXPECT_EQ(content(), "[Producers.0.Any]\nName=carried\n");
}

TEST_F(ProducerConfigTest, EndsTryingWhenItIsFreed)
{
  const faults::ShortSeconds seconds;
  load("");
  faults::fail_next(faults::Call::FSYNC);
  producer_config_set_name("Any", 1, "carried");
  expect_write_failure("Failed to sync '" + temporary_ + "': Input/output error");
  EXPECT_EQ(seconds.count(), 1U);
  unload();

  EXPECT_EQ(seconds.count(), 0U);
  EXPECT_EQ(content(), "");
}

TEST_F(ProducerConfigTest, TriesAgainOnTheMainContextForAnyThread)
{
  const faults::ShortSeconds seconds;
  load("");
  faults::fail_next(faults::Call::FSYNC);
  std::thread([] { producer_config_set_name("Any", 1, "carried"); }).join();
  expect_write_failure("Failed to sync '" + temporary_ + "': Input/output error");

  expect_written_later();
  EXPECT_EQ(seconds.count(), 0U);
  EXPECT_EQ(content(), "[Producers.0.Any]\nName=carried\n");
}

TEST_F(ProducerConfigTest, DoesNotTryAgainWhatAnotherSaveWillBring)
{
  const faults::ShortSeconds seconds;
  load("");
  faults::fail_next(faults::Call::FSYNC);
  producer_config_set_name("Any", 1, "carried");
  expect_write_failure("Failed to sync '" + temporary_ + "': Input/output error");

  faults::keep_file_calls();
  faults::HeldSync sync;
  producer_config_set_name("Any", 2, "next");
  EXPECT_TRUE(sync.wait());
  guint turns = 0;
  g_timeout_add(seconds.begun().at(0), count_to_three, &turns);
  EXPECT_TRUE(testhost::spin_until([&turns] { return turns == 3; })) << "the time-out had its turns too";
  sync.release();
  saves::wait();
  EXPECT_EQ(faults::take_file_calls().size(), SAVE_CALLS) << "of the other save";
  EXPECT_EQ(seconds.count(), 0U);
}

TEST_F(ProducerConfigTest, WritesAFileThatSomebodyRemoved)
{
  load("[Producers.0.Any]\nName=old\n[Producers.1.Any]\nName=other\n");
  std::filesystem::remove(file_);
  saves::set_name("Any", 1, "new");

  EXPECT_EQ(content(), "[Producers.0.Any]\nName=new\n\n[Producers.1.Any]\nName=other\n");
}

TEST_F(ProducerConfigTest, ReplacesALinkAndLeavesItsTargetAlone)
{
  std::ofstream(path("target")) << "[Producers.0.Any]\nName=old\n";
  std::filesystem::create_symlink(path("target"), file_);
  load();
  EXPECT_EQ(get_name("Any", 1), "old");
  saves::set_name("Any", 1, "new");

  EXPECT_FALSE(std::filesystem::is_symlink(file_));
  EXPECT_EQ(content(), "[Producers.0.Any]\nName=new\n");
  std::filesystem::rename(path("target"), file_);
  EXPECT_EQ(content(), "[Producers.0.Any]\nName=old\n");
}

TEST_F(ProducerConfigTest, FindsAFileInTheWorkingFolder)
{
  const std::filesystem::path before = std::filesystem::current_path();
  write("[Producers.0.Any]\nName=old\n");
  touch("producers.conf.tessard-new");
  std::filesystem::current_path(folder_);
  file_ = "producers.conf";
  load();
  faults::keep_file_calls();
  saves::set_name("Any", 1, "new");
  const Texts calls = faults::take_file_calls();
  reload();
  EXPECT_EQ(get_name("Any", 1), "new");
  std::filesystem::current_path(before);

  EXPECT_EQ(calls.at(0), "open producers.conf.tessard-new");
  EXPECT_EQ(calls.at(3), "rename producers.conf");
  EXPECT_EQ(calls.at(4), "open .");
  EXPECT_EQ(entries(), (std::set<std::string>{"producers.conf"}));
}

/* What a killed save leaves behind. */

TEST_F(ProducerConfigTest, RemovesALeftoverAndNeverReadsIt)
{
  write("[Producers.0.Any]\nName=profile\n");
  touch("producers.conf.tessard-new");
  load();

  EXPECT_EQ(get_name("Any", 1), "profile");
  EXPECT_EQ(entries(), (std::set<std::string>{"producers.conf"}));
}

TEST_F(ProducerConfigTest, LeavesEverythingElseBesideTheFile)
{
  std::set<std::string> others = {
      "producers.conf.backup",      "producers.conf.BACKUP",       "producers.conf.261121",
      "producers.conf.A1B2C3",      "producers.conf.dpkg-new",     "producers.conf.new",
      "producers.conf.tessard",     "producers.conf.tessard-new~", "producers.conf.tessard-new.bak",
      "producers.conftessard-new",  ".producers.conf.tessard-new", "other.conf.tessard-new",
      "Producers.conf.tessard-new", "producers.conf.TESSARD-NEW",
  };
  for (const std::string &name : others) {
    touch(name);
  }
  others.insert("producers.conf");
  load("");
  saves::set_name("Any", 1, "profile");

  EXPECT_EQ(entries(), others);
}

TEST_F(ProducerConfigTest, FollowsNoLinkInPlaceOfALeftover)
{
  load("[Producers.0.Any]\nName=profile\n");
  touch("target");
  std::filesystem::create_symlink("target", temporary_);
  saves::set_name("Any", 1, "new");

  EXPECT_EQ(entries(), (std::set<std::string>{"producers.conf", "target"}));
  EXPECT_EQ(content(), "[Producers.0.Any]\nName=new\n");
  std::filesystem::rename(folder_ + "/target", file_);
  EXPECT_EQ(content(), "[Producers.0.Any]\nName=of a leftover\n");
}

/* One that came while the daemon ran, or that could not be removed at its start. */
TEST_F(ProducerConfigTest, WritesOverALeftover)
{
  load("[Producers.0.Any]\nName=old\n");
  std::ofstream(temporary_) << std::string(100'000, 'x');
  saves::set_name("Any", 1, "new");

  EXPECT_EQ(content(), "[Producers.0.Any]\nName=new\n");
  EXPECT_EQ(entries(), (std::set<std::string>{"producers.conf"}));
}

TEST_F(ProducerConfigTest, KeepsAChangeWhenAFolderTookTheTemporaryFilesPlace)
{
  std::filesystem::create_directory(temporary_);
  load("[Producers.0.Any]\nName=old\n");
  saves::set_name("Any", 1, "carried");

  expect_write_failure("Failed to create '" + temporary_ + "': File exists");
  std::filesystem::remove(temporary_);
  expect_carried_by_the_next_save("[Producers.0.Any]\nName=old\n");
}

TEST_F(ProducerConfigTest, LoadsBesideALeftoverThatCannotBeRemoved)
{
  write("[Producers.0.Any]\nName=profile\n");
  touch("producers.conf.tessard-new");
  std::filesystem::permissions(folder_, std::filesystem::perms(0555));
  {
    const Unprivileged unprivileged;
    load();
  }
  std::filesystem::permissions(folder_, std::filesystem::perms(0755));

  EXPECT_EQ(get_name("Any", 1), "profile");
  EXPECT_EQ(entries(), (std::set<std::string>{"producers.conf", "producers.conf.tessard-new"}));
}

/* As GLib's own functions do it. */
TEST_F(ProducerConfigTest, LeavesTheModeOfTheFileToTheUmask)
{
  load("");
  for (const mode_t mask : {0002, 0027, 0077}) {
    const mode_t before = umask(mask);
    saves::set_name("Any", 1, "profile");
    umask(before);
    EXPECT_EQ(std::filesystem::status(file_).permissions(), std::filesystem::perms(0666 & ~mask));
  }
}

TEST_F(ProducerConfigTest, LoadsFromAFolderThatItMayNotList)
{
  write("[Producers.0.Any]\nName=profile\n");
  std::filesystem::permissions(folder_, std::filesystem::perms(0111));
  {
    const Unprivileged unprivileged;
    load();
  }
  std::filesystem::permissions(folder_, std::filesystem::perms(0755));

  EXPECT_EQ(get_name("Any", 1), "profile");
}

/* A process that is killed while it changes names. */

namespace
{

constexpr int CHANGES = 500;
constexpr int CHANGED_CHANNELS = 7;
/* Several blocks, so that half a file would be noticed. It is nobody's name. */
const std::string FILLING = "[Filling]\nText=" + std::string(20000, 'x') + "\n";

/* The names of all channels after so many changes. */
Texts
names_after(int changes)
{
  Texts names(CHANGED_CHANNELS);

  for (int i = 1; i <= changes; i++) {
    names[i % CHANGED_CHANNELS] = std::to_string(i);
  }
  return names;
}

/* Tells of each change that has been made. */
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

/* Reads up to so many acknowledgements, and returns how many came before the end. */
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

/* Lets a process change names until it is killed after so many changes and so much time. Returns how many it
 * acknowledged. */
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

TEST_F(ProducerConfigTest, LosesNothingThatIsDoneWhenItIsKilled)
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

/* Saves beside everything else. */

TEST_F(ProducerConfigTest, WaitsForNoDiskToReadAndChange)
{
  load("[Producers.0.Any]\nName=old\n");
  faults::HeldSync sync;
  producer_config_set_name("Any", 1, "new");
  ASSERT_TRUE(sync.wait());

  EXPECT_EQ(get_name("Any", 1), "new");
  EXPECT_EQ(supported_channels("Any"), (Channels{1}));
  producer_config_set_name("Any", 1, "newer");
  EXPECT_EQ(get_name("Any", 1), "newer");
  EXPECT_EQ(content(), "[Producers.0.Any]\nName=old\n");
  sync.release();
  saves::wait();
  EXPECT_EQ(content(), "[Producers.0.Any]\nName=newer\n");
}

/* What is in memory when the save begins. The second sync of a save is the folder's. */
TEST_F(ProducerConfigTest, WritesWhatIsInMemoryInTheOrderOfTheChanges)
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

TEST_F(ProducerConfigTest, TellsWhenAChangeIsSaved)
{
  bool told = false;
  load("");
  faults::HeldSync sync;
  producer_config_set_name("Any", 1, "profile");
  EXPECT_GT(producer_config_call_when_saved(saves::set_saved, &told), 0U);
  ASSERT_TRUE(sync.wait());
  testhost::dispatch_ready();
  EXPECT_FALSE(told);

  sync.release();
  EXPECT_TRUE(testhost::spin_until([&told] { return told; }));
  EXPECT_EQ(content(), "[Producers.0.Any]\nName=profile\n");
}

TEST_F(ProducerConfigTest, TellsOfAChangeThatCannotBeSaved)
{
  bool told = false;
  load("");
  faults::fail_next(faults::Call::FSYNC);
  producer_config_set_name("Any", 1, "profile");
  producer_config_call_when_saved(saves::set_saved, &told);

  EXPECT_TRUE(testhost::spin_until([&told] { return told; }));
  expect_write_failure("Failed to sync '" + temporary_ + "': Input/output error");
}

TEST_F(ProducerConfigTest, TellsNobodyWhoNoLongerWaits)
{
  std::array<bool, 2> told = {};
  load("");
  faults::HeldSync sync;
  producer_config_set_name("Any", 1, "profile");
  std::array<guint, 2> ids = {};
  for (gsize i = 0; i < ids.size(); i++) {
    ids.at(i) = producer_config_call_when_saved(saves::set_saved, &told.at(i));
  }
  ASSERT_TRUE(sync.wait());
  EXPECT_TRUE(g_source_remove(ids[0]));
  sync.release();
  unload();
  EXPECT_TRUE(g_source_remove(ids[1])) << "also when the time to tell has come";

  testhost::dispatch_ready();
  EXPECT_EQ(told, (std::array<bool, 2>{}));
}

TEST_F(ProducerConfigTest, SavesEverythingBeforeItIsFreed)
{
  load("");
  producer_config_set_name("Any", 1, "one");
  producer_config_set_name("Any", 2, "two");
  unload();

  EXPECT_EQ(content(), "[Producers.0.Any]\nName=one\n\n[Producers.1.Any]\nName=two\n");
}

TEST_F(ProducerConfigTest, ServesThreadsAtOnce)
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
