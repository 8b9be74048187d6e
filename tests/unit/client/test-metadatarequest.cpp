/* SPDX-License-Identifier: MIT */
#include "metadatarequest.h"

#include "testhost.h"

namespace
{

class MetadataRequestTest : public testhost::Fixture
{
};

std::string
finish(GString *request)
{
  g_autofree gchar *text = metadata_request_finish(request);
  return text;
}

struct Text {
  const char *text;
  const char *sent;
};

class MetadataRequestTextTest : public MetadataRequestTest, public testing::WithParamInterface<Text>
{
};

} // namespace

TEST_F(MetadataRequestTest, HasTheKeysInTheirOrder)
{
  GString *request = metadata_request_new();
  metadata_request_add(request, "event", "1");
  metadata_request_add_text(request, "event_topic", "tns1:VideoSource//.");
  metadata_request_add(request, "analytics", "2");
  EXPECT_EQ(finish(request), "OPEN\nevent=1\nevent_topic=tns1:VideoSource//.\nanalytics=2\n\n");
}

TEST_F(MetadataRequestTest, CanHaveNoKey)
{
  EXPECT_EQ(finish(metadata_request_new()), "OPEN\n\n");
}

TEST_P(MetadataRequestTextTest, ArrivesUnchanged)
{
  GString *request = metadata_request_new();
  metadata_request_add_text(request, "event_content", GetParam().text);
  EXPECT_EQ(finish(request), std::string("OPEN\nevent_content=") + GetParam().sent + "\n\n");

  g_autofree gchar *received = g_strcompress(GetParam().sent);
  EXPECT_STREQ(received, GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(All, MetadataRequestTextTest,
                         testing::Values(Text{"", ""}, Text{"a=b", "a=b"}, Text{"a\\b", "a\\\\b"},
                                         Text{"a\nb", "a\\nb"}, Text{"a\r", "a\\r"}, Text{"\"", "\\\""},
                                         Text{" a ", " a\\040"}, Text{"   ", "\\040\\040\\040"},
                                         Text{"\xe2\x80\xa9", "\\342\\200\\251"}, Text{"\x01", "\\001"},
                                         Text{"\xff", "\\377"}));
