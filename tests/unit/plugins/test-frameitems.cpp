/* SPDX-License-Identifier: MIT */
#include "frameitems.h"

#include <gst/video/gstvideometa.h>
#include <gtest/gtest.h>

namespace
{

using plugins::FrameInfo;
using plugins::FrameItems;
using plugins::FrameSettings;
using plugins::LeftOutBoxes;
using plugins::Tracking;

constexpr guint WIDTH = 200;
constexpr guint HEIGHT = 100;

/* 2024-01-01T00:00:00Z */
constexpr gint64 NEW_YEAR = G_GINT64_CONSTANT(1704067200) * G_USEC_PER_SEC;

constexpr GstClockTime FRAME = GST_SECOND / 10;

struct Region {
  const char *type = "person";
  gint id = 0;
  guint x = 0;
  guint y = 0;
  guint width = 20;
  guint height = 10;
  std::optional<double> confidence = std::nullopt;
};

std::string
to_json(TessardItem *item)
{
  if (item == nullptr) {
    return "none";
  }
  g_autofree gchar *text = tessard_item_to_json(item);
  return text;
}

/* The item of the frame with this number. */
std::string
item(guint frame, const std::string &objects, const std::string &rest = "")
{
  return "{\"UtcTime\":\"2024-01-01T00:00:00." + std::to_string(frame) + "00000Z\",\"Objects\":[" + objects +
         "]" + rest + "}";
}

std::string
object(gint64 id, const std::string &rest)
{
  return "{\"Id\":" + std::to_string(id) +
         ",\"BoundingBox\":{\"Left\":-1,\"Top\":1,\"Right\":-0.8,\"Bottom\":0.8}" + rest + "}";
}

std::string
person(gint64 id)
{
  return object(id, R"(,"Type":"person")");
}

class FrameItemsTest : public testing::Test
{
protected:
  static void SetUpTestSuite()
  {
    gst_init(nullptr, nullptr);
  }

  static void add(GstBuffer *buffer, const Region &region)
  {
    GstVideoRegionOfInterestMeta *meta = gst_buffer_add_video_region_of_interest_meta(
        buffer, region.type, region.x, region.y, region.width, region.height);
    meta->id = region.id;
    if (region.confidence.has_value()) {
      gst_video_region_of_interest_meta_add_param(
          meta, gst_structure_new("detection", "confidence", G_TYPE_DOUBLE, *region.confidence, nullptr));
    }
  }

  /* The next frame. */
  std::string make(const std::vector<Region> &regions, double min_likelihood = 0)
  {
    g_autoptr(GstBuffer) buffer = gst_buffer_new();
    for (const Region &region : regions) {
      add(buffer, region);
    }
    FrameInfo info = {.width = WIDTH,
                      .height = HEIGHT,
                      .running = frame_ * FRAME,
                      .utc = NEW_YEAR + frame_ * static_cast<gint64>(FRAME / GST_USECOND)};
    frame_++;
    g_autoptr(TessardItem) made = items_.make(buffer, info, min_likelihood);
    return to_json(made);
  }

  std::string make_last()
  {
    g_autoptr(TessardItem) made = items_.make_last();
    return to_json(made);
  }

  void set(const FrameSettings &settings)
  {
    items_ = FrameItems(settings, &left_out_);
  }

  guint frame_ = 0;
  LeftOutBoxes left_out_ = {};
  FrameItems items_{FrameSettings(), &left_out_};
};

} // namespace

TEST_F(FrameItemsTest, FrameWithoutDetectionsIsAnEmptyItem)
{
  EXPECT_EQ(make({}), item(0, ""));
}

TEST_F(FrameItemsTest, DetectionIsAnObject)
{
  EXPECT_EQ(make({{.id = 7, .x = 50, .y = 20, .width = 100, .height = 40, .confidence = 0.75}}),
            item(0, R"({"Id":7,"BoundingBox":{"Left":-0.5,"Top":0.6,"Right":0.5,"Bottom":-0.2},)"
                    R"("Type":"person","Likelihood":0.75})"));
}

TEST_F(FrameItemsTest, EveryFrameHasItsTimeAndItsObjects)
{
  EXPECT_EQ(make({{.id = 7}}), item(0, person(7)));
  EXPECT_EQ(make({{.id = 8}, {.id = 7}}), item(1, person(8) + "," + person(7)));
  EXPECT_EQ(make({}), item(2, ""));
}

TEST_F(FrameItemsTest, TypesAreThoseOfTheMap)
{
  FrameSettings settings;
  settings.types.parse("person=Human");
  set(settings);
  EXPECT_EQ(make({{.type = "person", .id = 1}, {.type = "car", .id = 2}}),
            item(0, object(1, R"(,"Type":"Human")") + "," + object(2, R"(,"Type":"car")")));
}

TEST_F(FrameItemsTest, TypeThatIsNoneIsLeftOutWithItsLikelihood)
{
  const std::string too_long(TESSARD_ITEM_MAX_TYPE_CHARACTERS + 1, 'x');
  EXPECT_EQ(make({{.type = too_long.c_str(), .id = 1, .confidence = 0.5}}), item(0, object(1, "")));
  EXPECT_EQ(make({{.type = "a\nb", .id = 2, .confidence = 0.5}}), item(1, object(2, "")));
}

TEST_F(FrameItemsTest, DetectionsAreIgnoredBelowTheLeastLikelihood)
{
  EXPECT_EQ(make({{.id = 1, .confidence = 0.49}, {.id = 2, .confidence = 0.5}, {.id = 3}}, 0.5),
            item(0, object(2, R"(,"Type":"person","Likelihood":0.5)") + "," + person(3)));
}

TEST_F(FrameItemsTest, BoxOutsideOfThePictureIsCounted)
{
  EXPECT_EQ(make({{.id = 1, .x = WIDTH}, {.id = 2}, {.id = 3, .y = HEIGHT}}), item(0, person(2)));
  EXPECT_EQ(left_out_.outside, 2U);
  EXPECT_EQ(left_out_.excess, 0U);
}

TEST_F(FrameItemsTest, BoxesBeyondTheLimitAreCounted)
{
  std::vector<Region> regions;
  std::string objects;
  for (gint id = 1; id <= TESSARD_ITEM_MAX_OBJECTS + 5; id++) {
    regions.push_back({.id = id});
    objects += id > TESSARD_ITEM_MAX_OBJECTS ? "" : (id > 1 ? "," : "") + person(id);
  }
  EXPECT_EQ(make(regions), item(0, objects));
  EXPECT_EQ(left_out_.excess, 5U);
  EXPECT_EQ(left_out_.outside, 0U);
}

TEST_F(FrameItemsTest, BoxesWithoutIdAreFollowed)
{
  constexpr gint64 FIRST = plugins::OBJECT_TRACKER_FIRST_ID;
  EXPECT_EQ(make({{}}), item(0, person(FIRST)));
  EXPECT_EQ(make({{}}), item(1, person(FIRST)));
  FrameSettings settings;
  settings.tracking = Tracking::OFF;
  set(settings);
  EXPECT_EQ(make({{}}), item(2, person(FIRST)));
  EXPECT_EQ(make({{}}), item(3, person(FIRST + 1), ",\"Deleted\":[1000000000]"));
}

TEST_F(FrameItemsTest, ItemsOfAStreamWithALimitAreTheNewest)
{
  FrameSettings settings;
  settings.max_rate = 5;
  set(settings);
  EXPECT_EQ(make({{.id = 1}}), item(0, person(1)));
  EXPECT_EQ(make({{.id = 2}}), "none");
  EXPECT_EQ(make({{.id = 3}}), item(2, person(3)));
}

TEST_F(FrameItemsTest, FramesWithoutAnItemAreFollowed)
{
  FrameSettings settings;
  settings.max_rate = 5;
  set(settings);
  EXPECT_NE(make({{.x = 0}}), "none");
  EXPECT_EQ(make({{.x = 10}}), "none");
  EXPECT_EQ(make({{.x = 20}}),
            item(2, R"({"Id":1000000000,"BoundingBox":{"Left":-0.8,"Top":1,"Right":-0.6,"Bottom":0.8},)"
                    R"("Type":"person"})"));
}

TEST_F(FrameItemsTest, DeletedObjectsWaitForTheNextItem)
{
  FrameSettings settings;
  settings.max_rate = 0.1;
  set(settings);
  EXPECT_EQ(make({{.id = 7}}), item(0, person(7)));
  while (frame_ < 100) {
    ASSERT_EQ(make({{.id = 8}}), "none");
  }
  const std::string expected =
      "{\"UtcTime\":\"2024-01-01T00:00:10.000000Z\",\"Objects\":[" + person(8) + "],\"Deleted\":[7]}";
  EXPECT_EQ(make({{.id = 8}}), expected);
}

TEST_F(FrameItemsTest, LastItemDeletesAllObjects)
{
  make({{.id = 1}, {.id = 2}});
  make({{.id = 2}, {.id = 3}});
  EXPECT_EQ(make_last(), item(1, "", ",\"Deleted\":[1,2,3]"));
  EXPECT_EQ(make_last(), "none");
  EXPECT_EQ(make({{.id = 3}}), item(2, person(3)));
}

TEST_F(FrameItemsTest, StreamWithoutItemsHasNoLastOne)
{
  EXPECT_EQ(make_last(), "none");
}

TEST_F(FrameItemsTest, TimeThatAnItemCannotHaveIsLeftOut)
{
  g_autoptr(GstBuffer) buffer = gst_buffer_new();
  g_autoptr(TessardItem) made =
      items_.make(buffer, {.width = WIDTH, .height = HEIGHT, .running = 0, .utc = -1}, 0);
  EXPECT_EQ(to_json(made), "{\"Objects\":[]}");
}
