/* SPDX-License-Identifier: MIT */
#include "mount.h"

#include "rtppay.h"
#include "testhost.h"

namespace
{

class MountTest : public testhost::Fixture
{
protected:
  void SetUp() override
  {
    testhost::Fixture::SetUp();
    gst_element_register(nullptr, "tessardrtppay", GST_RANK_NONE, TESSARD_TYPE_RTP_PAY);
    options_.event = TRUE;
    request_ = {&options_, path("metadata")};
    mount_ = GST_RTSP_MEDIA_FACTORY(rtsp::new_mount({&request_, 1, "", false}));
    threads_ = gst_rtsp_thread_pool_new();
    first_ = gst_rtsp_client_new();
    second_ = gst_rtsp_client_new();
    gst_rtsp_url_parse("rtsp://127.0.0.1/1", &url_);
  }

  void TearDown() override
  {
    gst_rtsp_url_free(url_);
    g_clear_object(&first_);
    g_clear_object(&second_);
    g_object_unref(threads_);
    g_object_unref(mount_);
    testhost::Fixture::TearDown();
  }

  /* The media that a client's request chooses. */
  GstRTSPMedia *choose(GstRTSPClient *client)
  {
    GstRTSPContext context = {};
    context.client = client;
    gst_rtsp_context_push_current(&context);
    GstRTSPMedia *media = gst_rtsp_media_factory_construct(mount_, url_);
    gst_rtsp_context_pop_current(&context);
    return media;
  }

  bool prepare(GstRTSPMedia *media)
  {
    GstRTSPThread *thread = gst_rtsp_thread_pool_get_thread(threads_, GST_RTSP_THREAD_TYPE_MEDIA, nullptr);
    return gst_rtsp_media_prepare(media, thread) != FALSE;
  }

  RequestOptions options_;
  gateway::MetadataRequest request_ = {};
  GstRTSPMediaFactory *mount_ = nullptr;
  GstRTSPThreadPool *threads_ = nullptr;
  GstRTSPClient *first_ = nullptr;
  GstRTSPClient *second_ = nullptr;
  GstRTSPUrl *url_ = nullptr;
};

} // namespace

TEST_F(MountTest, ClientsShareAMedia)
{
  g_autoptr(GstRTSPMedia) media = choose(first_);
  g_autoptr(GstRTSPMedia) other = choose(second_);
  EXPECT_EQ(other, media);
  ASSERT_TRUE(prepare(media));
  ASSERT_TRUE(prepare(media));
  rtsp::end_request(first_);
  rtsp::end_request(second_);
  EXPECT_TRUE(gst_rtsp_media_unprepare(media));
  EXPECT_EQ(gst_rtsp_media_get_status(media), GST_RTSP_MEDIA_STATUS_PREPARED);
  EXPECT_TRUE(gst_rtsp_media_unprepare(media));
  EXPECT_EQ(gst_rtsp_media_get_status(media), GST_RTSP_MEDIA_STATUS_UNPREPARED);
}

TEST_F(MountTest, ClientThatComesAfterTheLastOneHasANewMedia)
{
  g_autoptr(GstRTSPMedia) media = choose(first_);
  ASSERT_TRUE(prepare(media));
  rtsp::end_request(first_);
  EXPECT_TRUE(gst_rtsp_media_unprepare(media));
  g_autoptr(GstRTSPMedia) next = choose(second_);
  EXPECT_NE(next, media);
  ASSERT_TRUE(prepare(next));
  rtsp::end_request(second_);
  EXPECT_TRUE(gst_rtsp_media_unprepare(next));
}

TEST_F(MountTest, ClientThatComesWhileTheLastOneLeavesHasItsMedia)
{
  g_autoptr(GstRTSPMedia) media = choose(first_);
  ASSERT_TRUE(prepare(media));
  rtsp::end_request(first_);
  g_autoptr(GstRTSPMedia) chosen = choose(second_);
  EXPECT_EQ(chosen, media);
  EXPECT_TRUE(gst_rtsp_media_unprepare(media));
  EXPECT_TRUE(prepare(chosen));
  rtsp::end_request(second_);
  EXPECT_EQ(gst_rtsp_media_get_status(media), GST_RTSP_MEDIA_STATUS_PREPARED);

  EXPECT_TRUE(gst_rtsp_media_unprepare(media));
  EXPECT_EQ(gst_rtsp_media_get_status(media), GST_RTSP_MEDIA_STATUS_UNPREPARED);
}

TEST_F(MountTest, MediaEndsWithARequestThatDoesNotUseIt)
{
  g_autoptr(GstRTSPMedia) media = choose(first_);
  ASSERT_TRUE(prepare(media));
  rtsp::end_request(first_);
  g_autoptr(GstRTSPMedia) chosen = choose(second_);
  EXPECT_TRUE(gst_rtsp_media_unprepare(media));
  EXPECT_EQ(gst_rtsp_media_get_status(media), GST_RTSP_MEDIA_STATUS_PREPARED);
  rtsp::end_request(second_);
  EXPECT_EQ(gst_rtsp_media_get_status(media), GST_RTSP_MEDIA_STATUS_UNPREPARED);
}

TEST_F(MountTest, MediaEndsWithTheLastOfSeveralRequests)
{
  g_autoptr(GstRTSPMedia) media = choose(first_);
  ASSERT_TRUE(prepare(media));
  g_autoptr(GstRTSPMedia) chosen = choose(second_);
  EXPECT_TRUE(gst_rtsp_media_unprepare(media));
  rtsp::end_request(first_);
  EXPECT_EQ(gst_rtsp_media_get_status(media), GST_RTSP_MEDIA_STATUS_PREPARED);
  g_clear_object(&second_); /* the connection closes before the reply */
  EXPECT_EQ(gst_rtsp_media_get_status(media), GST_RTSP_MEDIA_STATUS_UNPREPARED);
}
