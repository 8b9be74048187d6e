/* SPDX-License-Identifier: MIT */
#include "producerconfig.h"

#include "testproducerconfig.h"

#include <functional>
#include <random>
#include <sys/stat.h>
#include <utility>

using namespace testproducerconfig;

using testhost::SyslogLine;
using testhost::SyslogLines;
using testhost::Texts;

using namespace std::string_literals;

namespace fs = std::filesystem;

namespace
{

SyslogLine
invalid_group(const std::string &group)
{
  return warning("invalid format of group in producers.conf: " + group);
}

SyslogLine
not_written(const std::string &text)
{
  return warning("could not write name to producerconfig: " + text);
}

SyslogLine
long_name(const std::string &group)
{
  return warning("configuration name longer than 256 bytes in producers.conf: " + group);
}

class ProducerConfigTest : public Fixture
{
};

} // namespace

/* Names of channels. */

TEST_F(ProducerConfigTest, ReadsTheNameOfAChannel)
{
  load("[Producers.1.VideoMotionTracker]\nName=profile1\n");

  EXPECT_EQ(get_name("VideoMotionTracker", 2), "profile1");
}

namespace
{

class ProducerConfigDisabledTest : public ProducerConfigTest,
                                   public testing::WithParamInterface<std::pair<const char *, const char *>>
{
};

} // namespace

TEST_P(ProducerConfigDisabledTest, ReadsNoName)
{
  load(GetParam().second);

  EXPECT_EQ(get_name("Any", 1), std::nullopt);
}

INSTANTIATE_TEST_SUITE_P(
    Contents, ProducerConfigDisabledTest,
    testing::Values(std::pair("EmptyName", "[Producers.0.Any]\nName=\n"),
                    std::pair("MissingKey", "[Producers.0.Any]\nOther=profile1\n"),
                    std::pair("MissingGroup", ""), std::pair("NotUtf8", "[Producers.0.Any]\nName=\xff\n"),
                    std::pair("Translation", "[Producers.0.Any]\nName[de]=translated\n")),
    [](const auto &example) { return std::string(example.param.first); });

TEST_F(ProducerConfigTest, ReplacesEscapes)
{
  load("[Producers.0.Any]\nName=\\stwo\\nlines\\\\\n");

  EXPECT_EQ(get_name("Any", 1), " two\nlines\\");
}

/* GLib 2.74 returns the text of the file, GLib 2.84 returns nothing. */
TEST_F(ProducerConfigTest, ReadsAnUnknownEscapeAsGLibDoes)
{
  const std::string text = "[Producers.1.Any]\nName=\\x\n";
  g_autoptr(GKeyFile) key_file = g_key_file_new();
  ASSERT_TRUE(g_key_file_load_from_data(key_file, text.c_str(), text.size(), G_KEY_FILE_NONE, nullptr));
  g_autofree gchar *name = g_key_file_get_string(key_file, "Producers.1.Any", "Name", nullptr);
  load(text);

  EXPECT_EQ(get_name("Any", 2), name != nullptr ? std::make_optional<std::string>(name) : std::nullopt);
}

TEST_F(ProducerConfigTest, WarnsOnceOfALongNameAndUsesIt)
{
  const std::string longest(PRODUCER_CONFIG_MAX_NAME_BYTES, 'x');
  /* Each leading blank takes two bytes in the file. */
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

TEST_F(ProducerConfigTest, LooksUpAnyChannelAndAnyProducer)
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

TEST_F(ProducerConfigTest, StoresANameInTheFile)
{
  load("# lost with the first change\n[Producers.0.VideoMotionTracker]\nName=\n");
  saves::set_name("VideoMotionTracker", 1, "profile1");

  EXPECT_EQ(get_name("VideoMotionTracker", 1), "profile1");
  EXPECT_EQ(content(), "[Producers.0.VideoMotionTracker]\nName=profile1\n");
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

TEST_F(ProducerConfigTest, StoresChannelZeroInAGroupOfItsOwn)
{
  load("[Producers.0.Any]\nName=profile\n");
  saves::set_name("Any", 0, "odd");

  EXPECT_EQ(get_name("Any", 0), "odd");
  EXPECT_EQ(get_name("Any", 1), "profile");
  EXPECT_EQ(supported_channels("Any"), (Channels{1}));
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{invalid_group("Producers.4294967295.Any")}));
}

/* Groups. */

TEST_F(ProducerConfigTest, ListsSupportedChannelsInTheOrderOfTheFile)
{
  load("[Producers.2.VideoMotionTracker]\n"
       "[Producers.5.RadarMotionTracker]\n"
       "[Producers.0.VideoMotionTracker]\n");

  EXPECT_EQ(supported_channels("VideoMotionTracker"), (Channels{3, 1}));
  EXPECT_EQ(supported_channels("RadarMotionTracker"), (Channels{6}));
  EXPECT_EQ(supported_channels("Other"), Channels());
}

TEST_F(ProducerConfigTest, ListsTheSameChannelAsOftenAsItHasGroups)
{
  load("[Producers.0.Any]\n[Other.0.Any]\n[Producers.0.Any]\n");

  EXPECT_EQ(supported_channels("Any"), (Channels{1, 1}));
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

namespace
{

/* The channel of a group: 0 for a malformed group with a warning, nothing for a group of another producer. */
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
    {"AfterLast", "Any", "Producers.2147483648.Any", 0},
    {"BeyondUnsigned", "Any", "Producers.4294967296.Any", 0},
    {"BeyondAll", "Any", "Producers.99999999999999999999999.Any", 0},
    {"Negative", "Any", "Producers.-1.Any", 0},
    {"NegativeBeyondAll", "Any", "Producers.-99999999999999999999999.Any", 0},
    {"NegativeZero", "Any", "Producers.-0.Any", 1},
    {"Plus", "Any", "Producers.+4.Any", 5},
    {"LeadingZeros", "Any", "Producers.0000000000000000000000004.Any", 5},
    {"BlankBefore", "Any", "Producers. 4.Any", 5},
    {"BlankAfter", "Any", "Producers.4 .Any", 0},
    {"BlankAlone", "Any", "Producers. .Any", 0},
    {"SignAlone", "Any", "Producers.-.Any", 0},
    {"Hexadecimal", "Any", "Producers.0x4.Any", 0},
    {"Letter", "Any", "Producers.x.Any", 0},
    {"LetterAfter", "Any", "Producers.4x.Any", 0},
    {"Fraction", "Any", "Producers.4.5.Any", 5},
    {"NoIndex", "Any", "Producers.Any", 0},
    {"EmptyIndex", "Any", "Producers..Any", 1},
    {"EmptyIndexOfName", "Name", "Producers..Name", 1},
    {"EmptyWordAndNoIndex", "Any", ".Any", 0},
    {"EmptyWord", "Any", ".4.Any", 5},
    {"EmptyWordAndIndex", "Any", "..Any", 1},
    {"AnyWord", "Any", "What ever.4.Any", 5},
    {"WordInBetween", "Any", "Producers.4.Other.Any", 5},
    {"IndexAfterAnotherDot", "Any", "Pro.ducers.4.Any", 0},
    {"ProducerWithDots", "A.n.y", "Producers.4.A.n.y", 5},
    {"EndOfAProducerWithDots", "n.y", "Producers.4.A.n.y", 5},
    {"ProducerWithoutName", "", "Producers.4.", 5},
    {"ProducerWithoutNameNorIndex", "", "Producers.", 0},
    {"NotUtf8", "Any", "\xff.4.Any", 5},
    {"NoDot", "Any", "Any", std::nullopt},
    {"OtherCase", "Any", "Producers.4.any", std::nullopt},
    {"LongerProducer", "Any", "Producers.4.ManyAny", std::nullopt},
    {"BlankAfterAll", "Any", "Producers.4.Any ", std::nullopt},
};

} // namespace

TEST_P(ProducerConfigGroupTest, HasAChannelOrAWarningOrNeither)
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

/* Names with characters of the file's syntax. */

namespace
{

class ProducerConfigNameTest : public ProducerConfigTest,
                               public testing::WithParamInterface<std::pair<const char *, std::string>>
{
};

} // namespace

TEST_P(ProducerConfigNameTest, SurvivesASaveAndALoad)
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

TEST_F(ProducerConfigTest, StoresAVeryLongName)
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

TEST_F(ProducerConfigTest, StoresAnyMixtureOfSpecialCharacters)
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
              (SyslogLines{not_written("Not the name of a group: \"Producers.0." + escaped + "\"")}));
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
    EXPECT_EQ(testhost::take_syslog(), (SyslogLines{not_written("Not UTF-8 text: \""s + escaped + "\"")}));
    EXPECT_EQ(get_name("Any", 1), "profile");
  }
  EXPECT_EQ(content(), "[Producers.0.Any]\nName=profile\n");
}

TEST_F(ProducerConfigTest, AcceptsAnyOtherProducer)
{
  const std::string producer = " odd.name;=#\u00e9 \\n";
  load("");
  saves::set_name(producer.c_str(), 1, "profile");
  reload();

  EXPECT_EQ(get_name(producer, 1), "profile");
  EXPECT_EQ(supported_channels(producer), (Channels{1}));
}

TEST_F(ProducerConfigTest, ChecksItsArguments)
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

namespace
{

struct LoadFailure {
  const char *name;
  std::function<void(const std::string &file)> prepare;
  const char *text;
  int error_number;
};

class ProducerConfigLoadFailureTest : public ProducerConfigTest,
                                      public testing::WithParamInterface<LoadFailure>
{
};

const std::vector<LoadFailure> LOAD_FAILURES = {
    {"MissingFile", [](const std::string &) {}, "No such file or directory", ENOENT},
    {"MissingFolder", [](const std::string &file) { fs::remove(fs::path(file).parent_path()); },
     "No such file or directory", ENOENT},
    {"LinkToNoFile", [](const std::string &file) { fs::create_symlink("nowhere", file); },
     "No such file or directory", ENOENT},
    {"LinkToItself", [](const std::string &file) { fs::create_symlink("producers.conf", file); },
     "Too many levels of symbolic links", ELOOP},
    {"NoPermission",
     [](const std::string &file) {
       std::ofstream(file) << "";
       fs::permissions(file, fs::perms::none);
     },
     "Permission denied", EACCES},
    {"Folder", [](const std::string &file) { fs::create_directory(file); }, "Not a regular file", EINVAL},
    {"NotAKeyFile", [](const std::string &file) { std::ofstream(file) << "[Producers.0.Any]\nwhat?\n"; },
     "Key file contains line \u201cwhat?\u201d which is not a key-value pair, group, or comment", EINVAL},
    {"NoGroup", [](const std::string &file) { std::ofstream(file) << "Name=profile\n"; },
     "Key file does not start with a group", EINVAL},
    {"InvalidGroup", [](const std::string &file) { std::ofstream(file) << "[Producers[0]\n"; },
     "Invalid group name: Producers[0", EINVAL},
};

} // namespace

TEST_P(ProducerConfigLoadFailureTest, IsReportedAndChangesNoFile)
{
  GetParam().prepare(file_);
  const fs::file_type before = fs::symlink_status(file_).type();
  const Unprivileged unprivileged;

  expect_not_loaded(GetParam().text, GetParam().error_number);
  EXPECT_EQ(fs::symlink_status(file_).type(), before);
}

INSTANTIATE_TEST_SUITE_P(Files, ProducerConfigLoadFailureTest, testing::ValuesIn(LOAD_FAILURES),
                         [](const auto &example) { return std::string(example.param.name); });

TEST_F(ProducerConfigTest, KeepsATemporaryFileWhenItCannotLoad)
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

/* Files beside the configuration. */

TEST_F(ProducerConfigTest, LoadsFromAFolderThatItMayNotList)
{
  write("[Producers.0.Any]\nName=profile\n");
  fs::permissions(folder_, fs::perms(0111));
  {
    const Unprivileged unprivileged;
    load();
  }
  fs::permissions(folder_, fs::perms(0755));

  EXPECT_EQ(get_name("Any", 1), "profile");
}

TEST_F(ProducerConfigTest, LoadsAFileOfTheWorkingFolder)
{
  const fs::path before = fs::current_path();
  write("[Producers.0.Any]\nName=old\n");
  touch("producers.conf.tessard-new");
  fs::current_path(folder_);
  file_ = "producers.conf";
  load();
  faults::keep_file_calls();
  saves::set_name("Any", 1, "new");
  const Texts calls = faults::take_file_calls();
  reload();
  EXPECT_EQ(get_name("Any", 1), "new");
  fs::current_path(before);

  EXPECT_EQ(calls.at(0), "open producers.conf.tessard-new");
  EXPECT_EQ(calls.at(3), "rename producers.conf");
  EXPECT_EQ(calls.at(4), "open .");
  EXPECT_EQ(entries(), (std::set<std::string>{"producers.conf"}));
}

TEST_F(ProducerConfigTest, RemovesATemporaryFileUnread)
{
  write("[Producers.0.Any]\nName=profile\n");
  touch("producers.conf.tessard-new");
  load();

  EXPECT_EQ(get_name("Any", 1), "profile");
  EXPECT_EQ(entries(), (std::set<std::string>{"producers.conf"}));
}

TEST_F(ProducerConfigTest, LeavesAllOtherFiles)
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

TEST_F(ProducerConfigTest, LoadsWhenATemporaryFileCannotBeRemoved)
{
  write("[Producers.0.Any]\nName=profile\n");
  touch("producers.conf.tessard-new");
  fs::permissions(folder_, fs::perms(0555));
  {
    const Unprivileged unprivileged;
    load();
  }
  fs::permissions(folder_, fs::perms(0755));

  EXPECT_EQ(get_name("Any", 1), "profile");
  EXPECT_EQ(entries(), (std::set<std::string>{"producers.conf", "producers.conf.tessard-new"}));
}
