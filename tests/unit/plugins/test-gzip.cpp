/* SPDX-License-Identifier: MIT */
#include "gzip.h"

#include "gziptexts.h"

#include <gtest/gtest.h>
#include <optional>
#include <random>
#include <string>

namespace
{

using std::string_literals::operator""s;

constexpr gsize LIMIT = 64 * 1024;

/* "<a/>", compressed by another implementation at its highest level. */
const std::string FOREIGN = "\x1f\x8b\x08\x00\x00\x00\x00\x00\x02\x03"
                            "\xb3\x49\xd4\xb7\x03\x00\xd4\x1c\xd1\x01\x04\x00\x00\x00"s;

constexpr gsize TRAILER_BYTES = 8;

std::optional<std::string>
expand(const std::string &packed, gsize limit = LIMIT)
{
  g_autoptr(GBytes) bytes = plugins::gzip_expand(packed.data(), packed.size(), limit);
  return bytes != nullptr ? std::optional(text_of(bytes)) : std::nullopt;
}

std::string
random_text(gsize size)
{
  std::minstd_rand random(static_cast<unsigned>(size));
  std::string text(size, '\0');
  for (char &byte : text) {
    byte = static_cast<char>(random() >> 8);
  }
  return text;
}

} // namespace

TEST(Gzip, ExpandsWhatItCompresses)
{
  for (gsize size : {0, 1, 4, 16383, 16384, 16385, 65535, 65536}) {
    EXPECT_EQ(expand(compress(random_text(size))), random_text(size)) << size;
    EXPECT_EQ(expand(compress(std::string(size, 'a'))), std::string(size, 'a')) << size;
  }
}

TEST(Gzip, CompressesWithoutNameAndTime)
{
  const std::string packed = compress(std::string(LIMIT, 'a'));
  EXPECT_EQ(packed.substr(0, 8), "\x1f\x8b\x08\0\0\0\0\0"s);
  EXPECT_LT(packed.size(), 200U);
}

TEST(Gzip, ExpandsWhatAnotherImplementationCompresses)
{
  EXPECT_EQ(expand(FOREIGN), "<a/>");
}

TEST(Gzip, RefusesEveryBeginOfAMember)
{
  const std::string packed = compress(random_text(100));
  for (gsize size = 0; size < packed.size(); size++) {
    EXPECT_EQ(expand(packed.substr(0, size)), std::nullopt) << size;
  }
}

TEST(Gzip, RefusesAWrongChecksumAndLength)
{
  for (gsize i = FOREIGN.size() - TRAILER_BYTES; i < FOREIGN.size(); i++) {
    std::string packed = FOREIGN;
    packed[i] = static_cast<char>(packed[i] ^ 1);
    EXPECT_EQ(expand(packed), std::nullopt) << i;
  }
}

TEST(Gzip, RefusesAnythingBehindAMember)
{
  EXPECT_EQ(expand(FOREIGN + "\0"s), std::nullopt);
  EXPECT_EQ(expand(FOREIGN + FOREIGN), std::nullopt);
}

TEST(Gzip, RefusesOtherFormats)
{
  EXPECT_EQ(expand("<?xml version=\"1.0\"?>"), std::nullopt);
  EXPECT_EQ(expand("\x78\x9c\xb3\x49\xd4\xb7\x03\x00\x02\xb3\x01\x0b"s), std::nullopt);
}

TEST(Gzip, ExpandsUpToTheLimit)
{
  EXPECT_EQ(expand(compress(std::string(LIMIT, 'a'))), std::string(LIMIT, 'a'));
  EXPECT_EQ(expand(compress(std::string(LIMIT + 1, 'a'))), std::nullopt);
  EXPECT_EQ(expand(compress("a"), 0), std::nullopt);
  EXPECT_EQ(expand(compress(""), 0), "");
}

TEST(Gzip, StopsAtTheLimitOfABomb)
{
  const std::string packed = compress(std::string(1024 * LIMIT, 'a'));
  EXPECT_LT(packed.size(), 2 * LIMIT);
  EXPECT_EQ(expand(packed), std::nullopt);
}
