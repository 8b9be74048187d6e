/* SPDX-License-Identifier: MIT */
#include "usersfile.h"

#include "rtsplimits.h"
#include "testhost.h"

#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <thread>

namespace
{

using std::string_literals::operator""s;

const std::string HASH = "0123456789abcdef0123456789abcdef";
const std::string ANNA = "anna:tessard:" + HASH;

struct Malformed {
  const char *name;
  std::string text;
  const char *reason;
};

std::ostream &
operator<<(std::ostream &stream, const Malformed &malformed)
{
  return stream << malformed.name;
}

class UsersFileTest : public testhost::Fixture
{
protected:
  void write(const std::string &text)
  {
    std::ofstream(path("users"), std::ios::binary) << text;
  }

  /* The message of the error; empty without one. */
  std::string read()
  {
    g_autoptr(GstRTSPAuth) auth = gst_rtsp_auth_new();
    g_autoptr(GstRTSPToken) token = gst_rtsp_token_new_empty();
    g_autoptr(GError) error = nullptr;
    const bool is_read = rtsp::add_users(auth, path("users").c_str(), token, &error);
    EXPECT_EQ(is_read, error == nullptr);
    EXPECT_EQ(gst_rtsp_auth_get_supported_methods(auth), GST_RTSP_AUTH_DIGEST);
    return error != nullptr ? error->message : "";
  }

  std::string message(const std::string &reason)
  {
    return "Could not read the users of '" + path("users") + "': " + reason + ".";
  }
};

class UsersFileMalformedTest : public UsersFileTest, public testing::WithParamInterface<Malformed>
{
};

} // namespace

TEST_F(UsersFileTest, TakesUsers)
{
  for (const std::string &text :
       {ANNA, ANNA + "\n", ANNA + "\nben:tessard:" + HASH + "\n", "Ann \u00c4 \"x\":tessard:" + HASH,
        std::string(1000, 'a') + ":tessard:" + HASH}) {
    write(text);
    EXPECT_EQ(read(), "") << text;
  }
}

TEST_F(UsersFileTest, TakesAPipe)
{
  ASSERT_EQ(mkfifo(path("users").c_str(), 0600), 0);
  std::thread writer([this] { write(ANNA + "\n"); });
  EXPECT_EQ(read(), "");
  writer.join();
}

TEST_P(UsersFileMalformedTest, IsRefused)
{
  write(GetParam().text);
  EXPECT_EQ(read(), message(GetParam().reason));
}

constexpr const char *FIRST = "line 1 is not USER:tessard:HASH";
constexpr const char *SECOND = "line 2 is not USER:tessard:HASH";

INSTANTIATE_TEST_SUITE_P(
    , UsersFileMalformedTest,
    testing::Values(
        Malformed{"empty", "", "the file is empty"}, Malformed{"empty_line", "\n", FIRST},
        Malformed{"empty_second_line", ANNA + "\n\n", SECOND}, Malformed{"no_fields", "anna\n", FIRST},
        Malformed{"two_fields", "anna:tessard\n", FIRST},
        Malformed{"two_fields_with_hash", "tessard:" + HASH, FIRST},
        Malformed{"four_fields", ANNA + ":x", FIRST}, Malformed{"no_name", ":tessard:" + HASH, FIRST},
        Malformed{"colon_in_name", "an:na:tessard:" + HASH, FIRST},
        Malformed{"other_realm", "anna:other:" + HASH, FIRST}, Malformed{"no_realm", "anna::" + HASH, FIRST},
        Malformed{"realm_in_capitals", "anna:TESSARD:" + HASH, FIRST},
        Malformed{"no_hash", "anna:tessard:", FIRST},
        Malformed{"password_as_hash", "anna:tessard:secret", FIRST},
        Malformed{"short_hash", "anna:tessard:" + HASH.substr(1), FIRST},
        Malformed{"long_hash", ANNA + "0", FIRST},
        Malformed{"hash_in_capitals", "anna:tessard:0123456789ABCDEF0123456789ABCDEF", FIRST},
        Malformed{"letter_in_hash", "anna:tessard:g" + HASH.substr(1), FIRST},
        Malformed{"carriage_return", ANNA + "\r\n", FIRST},
        Malformed{"control_character", "an\x01na:tessard:" + HASH, FIRST},
        Malformed{"nul_in_name", "an\0na:tessard:"s + HASH, FIRST},
        Malformed{"nul_in_hash", "anna:tessard:\0"s + HASH.substr(1), FIRST},
        Malformed{"comment", "# users\n" + ANNA, FIRST}, Malformed{"second_line", ANNA + "\nben\n", SECOND}),
    [](const auto &test) { return test.param.name; });

TEST_F(UsersFileTest, HasABound)
{
  const std::string line = ANNA + "\n";
  std::string text;
  while (text.size() + line.size() <= RTSP_USERS_BYTES_MAX)
    text += line;
  text.insert(0, std::string(RTSP_USERS_BYTES_MAX - text.size(), 'a'));
  ASSERT_EQ(text.size(), gsize(RTSP_USERS_BYTES_MAX));
  write(text);
  EXPECT_EQ(read(), "");

  write("a" + text);
  EXPECT_EQ(read(), message("the file is too long"));
}

TEST_F(UsersFileTest, HasABoundForADevice)
{
  std::filesystem::create_symlink("/dev/zero", path("users"));
  EXPECT_EQ(read(), message("the file is too long"));
}

TEST_F(UsersFileTest, MustBeReadable)
{
  EXPECT_EQ(read(), message("No such file or directory"));
  std::filesystem::create_directory(path("users"));
  EXPECT_EQ(read(), message("Error reading from file descriptor: Is a directory"));
}
