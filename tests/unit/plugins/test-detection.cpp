/* SPDX-License-Identifier: MIT */
#include "detection.h"

#include <cmath>
#include <gst/video/gstvideometa.h>
#include <gtest/gtest.h>

#ifdef HAVE_ANALYTICS
#include <gst/analytics/analytics.h>
#endif

namespace
{

using plugins::Detection;
using plugins::detections_read;

GQuark
quark(const char *word)
{
  return g_quark_from_string(word);
}

class DetectionTest : public testing::Test
{
protected:
  static void SetUpTestSuite()
  {
    gst_init(nullptr, nullptr);
  }

  void TearDown() override
  {
    gst_buffer_unref(buffer_);
  }

  GstVideoRegionOfInterestMeta *add_region(const char *type = "person", gint id = 0)
  {
    GstVideoRegionOfInterestMeta *region =
        gst_buffer_add_video_region_of_interest_meta(buffer_, type, 10, 20, 30, 40);
    region->id = id;
    return region;
  }

  /* Adds a structure with one member to a region. */
  static void add_param(GstVideoRegionOfInterestMeta *region, const char *name, const char *member,
                        GType type, double value)
  {
    GstStructure *param = gst_structure_new_empty(name);
    GValue number = G_VALUE_INIT;
    GValue converted = G_VALUE_INIT;
    g_value_init(&number, G_TYPE_DOUBLE);
    g_value_set_double(&number, value);
    g_value_init(&converted, type);
    ASSERT_TRUE(g_value_transform(&number, &converted));
    gst_structure_take_value(param, member, &converted);
    gst_video_region_of_interest_meta_add_param(region, param);
  }

  Detection read_one()
  {
    std::vector<Detection> found = detections_read(buffer_);
    EXPECT_EQ(found.size(), 1U);
    return found.empty() ? Detection{} : found.front();
  }

  std::optional<double> read_likelihood(double confidence, GType type = G_TYPE_DOUBLE)
  {
    add_param(add_region(), "detection", "confidence", type, confidence);
    return read_one().likelihood;
  }

  GstBuffer *buffer_ = gst_buffer_new();
};

} // namespace

TEST_F(DetectionTest, BufferWithoutMetaHasNone)
{
  EXPECT_TRUE(detections_read(buffer_).empty());
}

TEST_F(DetectionTest, OtherMetasAreIgnored)
{
  gst_buffer_add_video_crop_meta(buffer_);
  gst_buffer_add_video_meta(buffer_, GST_VIDEO_FRAME_FLAG_NONE, GST_VIDEO_FORMAT_GRAY8, 2, 2);
  EXPECT_TRUE(detections_read(buffer_).empty());
}

TEST_F(DetectionTest, RegionOfInterestIsOne)
{
  add_region();
  Detection expected = {.box = {.x = 10, .y = 20, .width = 30, .height = 40},
                        .id = std::nullopt,
                        .type = quark("person"),
                        .likelihood = std::nullopt};
  EXPECT_EQ(read_one(), expected);
}

TEST_F(DetectionTest, AllRegionsAreReadInTheirOrder)
{
  for (gint id = 1; id <= 100; id++) {
    add_region("car", id);
  }
  std::vector<Detection> found = detections_read(buffer_);
  ASSERT_EQ(found.size(), 100U);
  for (guint64 i = 0; i < found.size(); i++) {
    EXPECT_EQ(found[i].id, std::optional(i + 1));
  }
}

TEST_F(DetectionTest, RegionWithoutTypeHasNone)
{
  gst_buffer_add_video_region_of_interest_meta_id(buffer_, 0, 1, 2, 3, 4);
  EXPECT_EQ(read_one().type, 0U);
}

TEST_F(DetectionTest, IdOfATrackerIsPositive)
{
  for (gint id : {0, -1, G_MININT}) {
    add_region("person", id);
  }
  for (const Detection &detection : detections_read(buffer_)) {
    EXPECT_EQ(detection.id, std::nullopt);
  }
  add_region("person", G_MAXINT);
  EXPECT_EQ(detections_read(buffer_).back().id, std::optional<guint64>(G_MAXINT));
}

TEST_F(DetectionTest, ConfidenceIsTheLikelihood)
{
  EXPECT_EQ(read_likelihood(0.75), std::optional(0.75));
}

TEST_F(DetectionTest, ConfidenceCanHaveAnyTypeOfNumber)
{
  EXPECT_EQ(read_likelihood(0.75, G_TYPE_FLOAT), std::optional(0.75));
}

TEST_F(DetectionTest, ConfidenceCanBeAnInteger)
{
  EXPECT_EQ(read_likelihood(1, G_TYPE_INT), std::optional(1.0));
}

TEST_F(DetectionTest, ConfidenceThatIsNoNumberIsIgnored)
{
  GstStructure *param = gst_structure_new("detection", "confidence", G_TYPE_STRING, "high", nullptr);
  gst_video_region_of_interest_meta_add_param(add_region(), param);
  EXPECT_EQ(read_one().likelihood, std::nullopt);
}

TEST_F(DetectionTest, ConfidenceBelowZeroIsIgnored)
{
  EXPECT_EQ(read_likelihood(-0.1), std::nullopt);
}

TEST_F(DetectionTest, ConfidenceAboveOneIsIgnored)
{
  EXPECT_EQ(read_likelihood(97), std::nullopt);
}

TEST_F(DetectionTest, ConfidenceThatIsNotANumberIsIgnored)
{
  EXPECT_EQ(read_likelihood(NAN), std::nullopt);
}

TEST_F(DetectionTest, OnlyTheDetectionHasTheConfidence)
{
  GstVideoRegionOfInterestMeta *region = add_region();
  add_param(region, "classification", "confidence", G_TYPE_DOUBLE, 0.5);
  add_param(region, "detection", "label_id", G_TYPE_DOUBLE, 1);
  EXPECT_EQ(read_one().likelihood, std::nullopt);
}

#ifdef HAVE_ANALYTICS

class AnalyticsTest : public DetectionTest
{
protected:
  void SetUp() override
  {
    meta_ = gst_buffer_add_analytics_relation_meta(buffer_);
  }

  GstAnalyticsODMtd add_object(const char *type = "person", gfloat likelihood = 0.5)
  {
    GstAnalyticsODMtd object;
    EXPECT_TRUE(
        gst_analytics_relation_meta_add_od_mtd(meta_, quark(type), -10, 20, 30, 40, likelihood, &object));
    return object;
  }

  void track(const GstAnalyticsODMtd &object, guint64 id)
  {
    GstAnalyticsTrackingMtd tracking;
    ASSERT_TRUE(gst_analytics_relation_meta_add_tracking_mtd(meta_, id, GST_SECOND, &tracking));
    ASSERT_TRUE(gst_analytics_relation_meta_set_relation(meta_, GST_ANALYTICS_REL_TYPE_RELATE_TO, object.id,
                                                         tracking.id));
  }

  GstAnalyticsRelationMeta *meta_ = nullptr;
};

TEST_F(AnalyticsTest, MetaWithoutObjectsHasNone)
{
  EXPECT_TRUE(detections_read(buffer_).empty());
}

TEST_F(AnalyticsTest, ObjectDetectionIsOne)
{
  add_object();
  Detection expected = {.box = {.x = -10, .y = 20, .width = 30, .height = 40},
                        .id = std::nullopt,
                        .type = quark("person"),
                        .likelihood = 0.5};
  EXPECT_EQ(read_one(), expected);
}

TEST_F(AnalyticsTest, LikelihoodBeyondOneIsIgnored)
{
  add_object("person", 2);
  EXPECT_EQ(read_one().likelihood, std::nullopt);
}

TEST_F(AnalyticsTest, EachObjectHasTheIdOfItsTracking)
{
  GstAnalyticsODMtd first = add_object("person");
  GstAnalyticsODMtd second = add_object("car");
  add_object("dog");
  track(second, 8);
  track(first, 0);
  std::vector<Detection> found = detections_read(buffer_);
  ASSERT_EQ(found.size(), 3U);
  EXPECT_EQ(found[0].id, std::optional<guint64>(0));
  EXPECT_EQ(found[1].id, std::optional<guint64>(8));
  EXPECT_EQ(found[2].id, std::nullopt);
}

TEST_F(AnalyticsTest, ClassificationIsNoObject)
{
  GstAnalyticsODMtd object = add_object();
  GstAnalyticsClsMtd classification;
  gfloat level = 0.9F;
  GQuark name = quark("red");
  ASSERT_TRUE(gst_analytics_relation_meta_add_cls_mtd(meta_, 1, &level, &name, &classification));
  ASSERT_TRUE(gst_analytics_relation_meta_set_relation(meta_, GST_ANALYTICS_REL_TYPE_RELATE_TO, object.id,
                                                       classification.id));
  EXPECT_EQ(read_one().id, std::nullopt);
}

TEST_F(AnalyticsTest, RegionsOfInterestAreFirst)
{
  add_object("car");
  add_region("person");
  std::vector<Detection> found = detections_read(buffer_);
  ASSERT_EQ(found.size(), 2U);
  EXPECT_EQ(found[0].type, quark("person"));
  EXPECT_EQ(found[1].type, quark("car"));
}

#endif
