/* SPDX-License-Identifier: MIT */
#include "picturebox.h"

#include <array>
#include <gtest/gtest.h>

namespace
{

using plugins::picture_box_to_onvif;
using plugins::PixelBox;

constexpr guint WIDTH = 640;
constexpr guint HEIGHT = 480;

std::optional<onvif::Box>
convert(const PixelBox &box)
{
  return picture_box_to_onvif(box, WIDTH, HEIGHT);
}

onvif::Box
box_of(double left, double top, double right, double bottom)
{
  return {.left = left, .top = top, .right = right, .bottom = bottom};
}

constexpr onvif::Box PICTURE = {.left = -1, .top = 1, .right = 1, .bottom = -1};

} // namespace

TEST(PictureBoxTest, EdgesOfThePictureAreOne)
{
  EXPECT_EQ(convert({0, 0, WIDTH, HEIGHT}), PICTURE);
}

TEST(PictureBoxTest, RightAndUpArePositive)
{
  EXPECT_EQ(convert({0, 0, 320, 240}), box_of(-1, 1, 0, 0));
  EXPECT_EQ(convert({320, 240, 320, 240}), box_of(0, 0, 1, -1));
  EXPECT_EQ(convert({160, 120, 80, 60}), box_of(-0.5, 0.5, -0.25, 0.25));
}

TEST(PictureBoxTest, EveryPixelIsAtItsPlace)
{
  for (gint64 column = 0; column < WIDTH; column++) {
    std::optional<onvif::Box> box = convert({column, 0, 1, 1});
    ASSERT_TRUE(box.has_value());
    EXPECT_DOUBLE_EQ(box->left, 2.0 * static_cast<double>(column) / WIDTH - 1);
    EXPECT_DOUBLE_EQ(box->right, 2.0 * static_cast<double>(column + 1) / WIDTH - 1);
  }
  for (gint64 row = 0; row < HEIGHT; row++) {
    std::optional<onvif::Box> box = convert({0, row, 1, 1});
    ASSERT_TRUE(box.has_value());
    EXPECT_DOUBLE_EQ(box->top, 1 - 2.0 * static_cast<double>(row) / HEIGHT);
    EXPECT_DOUBLE_EQ(box->bottom, 1 - 2.0 * static_cast<double>(row + 1) / HEIGHT);
  }
}

TEST(PictureBoxTest, BoxIsClippedToThePicture)
{
  EXPECT_EQ(convert({-100, -100, 420, 340}), box_of(-1, 1, 0, 0));
  EXPECT_EQ(convert({320, 240, 10000, 10000}), box_of(0, 0, 1, -1));
  EXPECT_EQ(convert({-5, -5, 10000, 10000}), PICTURE);
  EXPECT_EQ(convert({0, 0, G_MAXUINT, G_MAXUINT}), PICTURE);
}

TEST(PictureBoxTest, NothingInThePictureIsNoBox)
{
  const std::array<PixelBox, 8> outside = {{
      {-10, 0, 10, 10},
      {0, -10, 10, 10},
      {WIDTH, 0, 10, 10},
      {0, HEIGHT, 10, 10},
      {10, 10, 0, 10},
      {10, 10, 10, 0},
      {10, 10, -5, -5},
      {G_MAXUINT, G_MAXUINT, G_MAXUINT, G_MAXUINT},
  }};
  for (const PixelBox &box : outside) {
    EXPECT_EQ(convert(box), std::nullopt) << box.x << " " << box.y << " " << box.width << " " << box.height;
  }
}
