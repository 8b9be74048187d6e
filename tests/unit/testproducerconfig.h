/* SPDX-License-Identifier: MIT */
/* The fixture of the tests of the producer configuration: a file in a folder of its own, its content, and the
 * log lines and calls of its saves.
 */
#pragma once

#include "producerconfig.h"

#include "faults.h"
#include "saves.h"
#include "testhost.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <syslog.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace testproducerconfig
{

using Channels = std::vector<guint32>;

constexpr uid_t UNPRIVILEGED_USER = 65534;

inline testhost::SyslogLine
warning(const std::string &text)
{
  return {LOG_WARNING, text};
}

/* Drops root's rights, which ignore the modes of files, while this object lives. */
class Unprivileged
{
public:
  Unprivileged() : user_(geteuid())
  {
    if (user_ == 0) {
      EXPECT_EQ(seteuid(UNPRIVILEGED_USER), 0);
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

/* The number that the next descriptor gets. */
inline int
next_descriptor()
{
  const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);

  EXPECT_EQ(close(fd), 0);
  return fd;
}

inline std::optional<std::string>
get_name(const std::string &producer, guint32 channel)
{
  g_autofree gchar *name = producer_config_get_name(producer.c_str(), channel);

  return name != nullptr ? std::optional<std::string>(name) : std::nullopt;
}

inline Channels
supported_channels(const std::string &producer)
{
  g_autoptr(GArray) array = producer_config_get_supported_channels(producer.c_str());
  const auto *first = reinterpret_cast<const guint32 *>(array->data);

  EXPECT_EQ(g_array_get_element_size(array), sizeof(guint32));
  EXPECT_EQ(first[array->len], 0U) << "the array is zero-terminated";
  return {first, first + array->len};
}

class Fixture : public testhost::Fixture
{
protected:
  void SetUp() override
  {
    testhost::Fixture::SetUp();
    std::filesystem::permissions(dir(), std::filesystem::perms(0755));
    folder_ = path("etc");
    std::filesystem::create_directory(folder_);
    file_ = folder_ + "/producers.conf";
    temporary_ = file_ + PRODUCER_CONFIG_TEMPORARY_SUFFIX;
  }

  void TearDown() override
  {
    unload();
    testhost::Fixture::TearDown();
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

  /* Like a restart of the daemon. */
  void reload()
  {
    unload();
    load();
  }

  void expect_not_loaded(const std::string &text, int error_number) const
  {
    const std::string line = "could not load producer config from '" + file_ + "': " + text;

    errno = ERANGE;
    EXPECT_FALSE(producer_config_setup(file_.c_str()));
    EXPECT_EQ(errno, error_number);
    EXPECT_EQ(testhost::take_syslog(), (testhost::SyslogLines{warning(line)}));
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
    EXPECT_EQ(testhost::take_syslog(),
              testhost::SyslogLines{warning("could not write name to producerconfig: " + text)});
  }

  /* A retry of a save succeeds. */
  static void expect_retry_written()
  {
    EXPECT_TRUE(testhost::spin_until([] { return testhost::syslog_size() > 0; }));
    EXPECT_EQ(
        testhost::take_syslog(),
        (testhost::SyslogLines{{LOG_INFO, "wrote to producerconfig what could not be written before"}}));
  }

  /* The first @count calls of a save whose descriptors have this number. */
  testhost::Texts save_calls(int fd, gsize count = SAVE_CALLS) const
  {
    const std::string number = std::to_string(fd);
    const testhost::Texts all = {"open " + temporary_, "fsync " + number, "close " + number,
                                 "rename " + file_,    "open " + folder_, "fsync " + number,
                                 "close " + number};

    EXPECT_EQ(all.size(), SAVE_CALLS);
    return {all.begin(), all.begin() + static_cast<testhost::Texts::difference_type>(count)};
  }

  /* After a save that failed: the file has its old content, and the next save writes the change too. */
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

} // namespace testproducerconfig
