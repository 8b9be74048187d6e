/* SPDX-License-Identifier: MIT */
#include "rtpdocument.h"

#include "gziptexts.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace
{

using plugins::RtpDocumentCollector;
using Documents = std::vector<std::string>;

constexpr bool LAST = true;

constexpr const char *A = "<?xml version=\"1.0\"?><tt:MetadataStream>a</tt:MetadataStream>";
constexpr const char *B = "<tt:MetadataStream>b</tt:MetadataStream>";

class RtpDocumentTest : public testing::Test
{
protected:
  void take(const std::string &payload, std::uint32_t time, bool is_last = false)
  {
    g_autoptr(GBytes) document = collector_.take(payload, time, is_last);
    if (document != nullptr) {
      documents_.push_back(text_of(document));
    }
  }

  void expect(const Documents &documents, std::uint64_t dropped)
  {
    EXPECT_EQ(documents_, documents);
    EXPECT_EQ(collector_.dropped(), dropped);
  }

  RtpDocumentCollector collector_;
  Documents documents_;
};

/* Whether a document begins with a packet, where this is not known. */
struct Begin {
  const char *name;
  std::string payload;
  bool is_gzip;
  bool begins;
};

std::ostream &
operator<<(std::ostream &stream, const Begin &begin)
{
  return stream << begin.name;
}

class RtpDocumentBeginTest : public RtpDocumentTest, public testing::WithParamInterface<Begin>
{
};

} // namespace

/* Documents */

TEST_F(RtpDocumentTest, EndsWithTheLastPacket)
{
  take(A, 1, LAST);
  take("<tt:Metadata", 2);
  take("Stream>", 2);
  take("</tt:MetadataStream>", 2, LAST);
  take(B, 3, LAST);
  expect({A, "<tt:MetadataStream></tt:MetadataStream>", B}, 0);
}

TEST_F(RtpDocumentTest, BeginsInAnyFormBehindALastPacket)
{
  take(A, 1, LAST);
  take("<!-- of any form -->", 2);
  take(B, 2, LAST);
  expect({A, std::string("<!-- of any form -->") + B}, 0);
}

TEST_F(RtpDocumentTest, CanHaveEmptyPackets)
{
  take("", 1, LAST);
  take("", 2);
  take(A, 2);
  take("", 2, LAST);
  expect({A}, 0);
}

TEST_F(RtpDocumentTest, WithoutContentIsNone)
{
  take(A, 1, LAST);
  take("", 2);
  take("", 2, LAST);
  expect({A}, 0);
}

TEST_F(RtpDocumentTest, CanHaveARTPTimeForEachPacket)
{
  take("<tt:MetadataStream>", 1);
  take("</tt:MetadataStream>", 2, LAST);
  expect({"<tt:MetadataStream></tt:MetadataStream>"}, 0);
}

/* Loss */

TEST_F(RtpDocumentTest, ThatBeganBeforeTheStreamIsSkipped)
{
  take("<tt:Frame/>", 1);
  take("</tt:MetadataStream>", 1, LAST);
  take(A, 2, LAST);
  expect({A}, 0);
}

TEST_F(RtpDocumentTest, WithoutItsLastPacketIsDropped)
{
  take("<tt:MetadataStream>", 1);
  collector_.lose();
  take(A, 2, LAST);
  expect({A}, 1);
}

TEST_F(RtpDocumentTest, WithoutItsFirstPacketIsDropped)
{
  take(A, 1, LAST);
  collector_.lose();
  take("<tt:Frame/>", 2);
  take("</tt:MetadataStream>", 2, LAST);
  take(B, 3, LAST);
  expect({A, B}, 1);
}

TEST_F(RtpDocumentTest, WithoutAMiddlePacketIsDroppedOnce)
{
  take("<tt:MetadataStream>", 1);
  collector_.lose();
  take("<tt:Frame/>", 1);
  collector_.lose();
  take("</tt:MetadataStream>", 1, LAST);
  take(A, 2, LAST);
  expect({A}, 1);
}

TEST_F(RtpDocumentTest, AreCountedEachWhereALossTouchesTwo)
{
  take("<tt:MetadataStream>", 1);
  collector_.lose();
  take("</tt:MetadataStream>", 2, LAST);
  expect({}, 2);
}

TEST_F(RtpDocumentTest, OfOneTimeAreCountedEachBehindALastPacket)
{
  take("<tt:MetadataStream>", 1);
  collector_.lose();
  take("</tt:MetadataStream>", 1, LAST);
  take("<tt:MetadataStream>", 1);
  collector_.lose();
  take("</tt:MetadataStream>", 1, LAST);
  expect({}, 2);
}

TEST_F(RtpDocumentTest, OfWhichNoPacketArrivesIsNotCounted)
{
  take(A, 1, LAST);
  collector_.lose();
  take(B, 3, LAST);
  expect({A, B}, 0);
}

TEST_F(RtpDocumentTest, IsForgottenWithItsStream)
{
  take("<tt:MetadataStream>", 1);
  collector_.begin(false);
  take("</tt:MetadataStream>", 1, LAST);
  take(A, 2, LAST);
  expect({A}, 0);
}

TEST_P(RtpDocumentBeginTest, IsSeenInItsFirstPacket)
{
  const std::string &payload = GetParam().payload;
  collector_.begin(GetParam().is_gzip);
  take("?", 0, LAST);
  collector_.lose();
  take(payload, 1, LAST);
  EXPECT_EQ(documents_.size(), GetParam().begins ? 1U : 0U);
}

INSTANTIATE_TEST_SUITE_P(
    All, RtpDocumentBeginTest,
    testing::Values(
        Begin{"declaration", A, false, true}, Begin{"root", B, false, true},
        Begin{"root_without_prefix", "<MetadataStream xmlns='urn:x'>", false, true},
        Begin{"root_alone", "<tt:MetadataStream/>", false, true},
        Begin{"white_space", "\r\n\t <tt:MetadataStream>", false, true},
        Begin{"byte_order_mark", "\xef\xbb\xbf<?xml", false, true},
        Begin{"another_element", "<tt:Frame>", false, false}, Begin{"end_tag", B + 20, false, false},
        Begin{"longer_name", "<tt:MetadataStreams>", false, false},
        Begin{"attribute", "MetadataStream>", false, false}, Begin{"prefix_alone", "<tt:", false, false},
        Begin{"tag_alone", "<", false, false}, Begin{"white_space_alone", "  ", false, false},
        Begin{"gzip_in_text", compress(A), false, false}, Begin{"gzip", compress(A), true, true},
        Begin{"text_in_gzip", A, true, false}, Begin{"end_of_gzip", compress(A).substr(10), true, false}),
    testing::PrintToStringParamName());

/* Limits */

TEST_F(RtpDocumentTest, IsAsLongAsTheLimit)
{
  const std::string half(plugins::RTP_DOCUMENT_BYTES_MAX / 2, 'a');
  take(A, 1, LAST);
  take(half, 2);
  take(half, 2, LAST);
  take(half, 3);
  take(half, 3);
  take("b", 3);
  take("c", 3, LAST);
  take(B, 4, LAST);
  ASSERT_EQ(documents_.size(), 3U);
  EXPECT_EQ(documents_[1].size(), plugins::RTP_DOCUMENT_BYTES_MAX);
  EXPECT_EQ(documents_[2], B);
  EXPECT_EQ(collector_.dropped(), 1U);
}

/* Compressed documents */

TEST_F(RtpDocumentTest, IsExpandedWhenItIsComplete)
{
  const std::string packed = compress(A);
  collector_.begin(true);
  take(packed, 1, LAST);
  take(packed.substr(0, 20), 2);
  take(packed.substr(20), 2, LAST);
  expect({A, A}, 0);
}

TEST_F(RtpDocumentTest, ThatDoesNotExpandIsDropped)
{
  const std::string packed = compress(A);
  collector_.begin(true);
  for (int i = 0; i < 2; i++) {
    take(packed.substr(0, packed.size() - 1), 1, LAST);
    take(packed + "!", 1, LAST);
    take(A, 1, LAST);
  }
  take(packed, 1, LAST);
  expect({A}, 6);
}

TEST_F(RtpDocumentTest, ThatExpandsToNothingIsNone)
{
  collector_.begin(true);
  take(compress(""), 1, LAST);
  expect({}, 0);
}

TEST_F(RtpDocumentTest, ThatExpandsBeyondTheLimitIsDropped)
{
  collector_.begin(true);
  take(compress(std::string(plugins::RTP_DOCUMENT_BYTES_MAX + 1, 'a')), 1, LAST);
  take(compress(std::string(plugins::RTP_DOCUMENT_BYTES_MAX, 'a')), 2, LAST);
  ASSERT_EQ(documents_.size(), 1U);
  EXPECT_EQ(documents_[0].size(), plugins::RTP_DOCUMENT_BYTES_MAX);
  EXPECT_EQ(collector_.dropped(), 1U);
}
