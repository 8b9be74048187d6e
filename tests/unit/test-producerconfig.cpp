#include "producerconfig.h"

#include "testhost.h"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

using testhost::SyslogLine;
using testhost::SyslogLines;
using testhost::Texts;

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
    folder_ = path("etc");
    std::filesystem::create_directory(folder_);
    file_ = folder_ + "/producers.conf";
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

  std::set<std::string> entries() const
  {
    std::set<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(folder_)) {
      names.insert(entry.path().filename());
    }
    return names;
  }

  std::string folder_;
  std::string file_;

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
  producer_config_set_name("VideoMotionTracker", 1, "profile1");

  EXPECT_EQ(get_name("VideoMotionTracker", 1), "profile1");
  EXPECT_EQ(content(), "[Producers.0.VideoMotionTracker]\nName=profile1\n");
}

TEST_F(ProducerConfigTest, RefusesAMissingFile)
{
  expect_not_loaded("No such file or directory", ENOENT);
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
  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{invalid_group("Producers.x.VideoMotionTracker"),
                         invalid_group("Other.VideoMotionTracker"),
                         invalid_group("Producers.-1.VideoMotionTracker"),
                         invalid_group("Producers.2147483648.VideoMotionTracker")}));
}

TEST_F(ProducerConfigTest, RefusesAProducerThatCannotBePartOfAGroup)
{
  load("");
  producer_config_set_name("a[b", 1, "profile");

  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{write_failure("Not the name of a group: \"Producers.0.a[b\"")}));
  EXPECT_EQ(content(), "");
}
