/* SPDX-License-Identifier: MIT */
#include "tessarditem.h"

#include "jsonlimits.h"
#include "metadatalimits.h"
#include "producerframe.h"
#include "testhost.h"

#include <cmath>
#include <limits>

namespace
{

constexpr gint64 ID = 12;
constexpr gint64 UTC = G_GINT64_CONSTANT(1704067200250000);
constexpr gdouble NOT_A_NUMBER = std::numeric_limits<gdouble>::quiet_NaN();

class ItemTest : public testhost::Fixture
{
protected:
  ~ItemTest() override
  {
    g_object_unref(item);
    g_clear_error(&error);
  }

  std::string json() const
  {
    g_autofree gchar *text = tessard_item_to_json(item);
    return text;
  }

  /* The item as the converter reads it, in the daemon's frame; fails the test if the converter drops
   * anything. */
  plugins::ProducerItem read() const
  {
    plugins::ProducerReader reader;
    plugins::ProducerFlaws flaws;
    const auto frame = reader.read(R"({"Source":"Mine","Data":{"Item":[)" + json() + "]}}", &flaws);

    EXPECT_EQ(flaws.fatal, nullptr) << flaws.fatal;
    EXPECT_EQ(flaws.partial, nullptr) << flaws.partial;
    return frame.has_value() && frame->items.size() == 1 ? frame->items[0] : plugins::ProducerItem();
  }

  void expect_error(gboolean result, TessardError code, const gchar *message)
  {
    EXPECT_FALSE(result);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->domain, TESSARD_ERROR);
    EXPECT_EQ(error->code, code);
    EXPECT_STREQ(error->message, message);
    g_clear_error(&error);
  }

  gboolean add(gint64 id)
  {
    return tessard_item_add_object(item, id, -0.5, 0.5, 0.5, -0.5, &error);
  }

  TessardItem *item = tessard_item_new();
  GError *error = nullptr;
};

} // namespace

TEST_F(ItemTest, IsEmptyAtFirst)
{
  EXPECT_EQ(json(), R"({"Objects":[]})");
  EXPECT_EQ(read(), plugins::ProducerItem());
}

TEST_F(ItemTest, HasWhatIsSet)
{
  const gdouble polygon[] = {-0.6, 0.6, -0.2, 0.6, -0.4, 0.2};

  EXPECT_TRUE(tessard_item_set_utc_time(item, UTC, &error));
  EXPECT_TRUE(tessard_item_add_object(item, ID, -0.6, 0.6, -0.2, 0.2, &error));
  EXPECT_TRUE(tessard_item_set_center(item, ID, -0.4, 0.25, &error));
  EXPECT_TRUE(tessard_item_set_polygon(item, ID, polygon, G_N_ELEMENTS(polygon), &error));
  EXPECT_TRUE(tessard_item_set_type(item, ID, R"(a "quoted\ type)", &error));
  EXPECT_TRUE(tessard_item_set_likelihood(item, ID, 0.96, &error));
  EXPECT_TRUE(tessard_item_add_object_without_box(item, G_MININT64, &error));
  EXPECT_TRUE(tessard_item_add_deleted(item, 11, &error));
  EXPECT_TRUE(tessard_item_add_deleted(item, G_MAXINT64, &error));

  const plugins::ProducerObject whole = {ID,
                                         onvif::Box{-0.6, 0.6, -0.2, 0.2},
                                         onvif::Point{-0.4, 0.25},
                                         {{-0.6, 0.6}, {-0.2, 0.6}, {-0.4, 0.2}},
                                         R"(a "quoted\ type)",
                                         0.96};
  const plugins::ProducerObject bare = {G_MININT64, {}, {}, {}, {}, {}};
  EXPECT_EQ(read(), (plugins::ProducerItem{UTC, {whole, bare}, {11, G_MAXINT64}}));
}

TEST_F(ItemTest, WritesNumbersShortly)
{
  EXPECT_TRUE(tessard_item_add_object(item, ID, -1.0 / 3, 1, 0.0000123456789, -0.0, &error));
  EXPECT_EQ(json(), R"({"Objects":[{"Id":12,"BoundingBox":{"Left":-0.333333,"Top":1,"Right":1.23457e-05,)"
                    R"("Bottom":0}}]})");
}

TEST_F(ItemTest, TimeIsFrom1970To2099)
{
  EXPECT_TRUE(tessard_item_set_utc_time(item, 0, &error));
  EXPECT_EQ(read().utc, 0);
  EXPECT_TRUE(tessard_item_set_utc_time(item, onvif::LATEST_UTC, &error));
  EXPECT_EQ(json(), R"({"UtcTime":"2099-12-31T23:59:59.000000Z","Objects":[]})");
  EXPECT_EQ(read().utc, onvif::LATEST_UTC);
  expect_error(tessard_item_set_utc_time(item, onvif::LATEST_UTC + 1, &error), TESSARD_ERROR_INVALID_TIME,
               R"("UtcTime" is not from 1970 to 2099: 4102444799000001 microseconds since 1970.)");
  expect_error(tessard_item_set_utc_time(item, -1, &error), TESSARD_ERROR_INVALID_TIME,
               R"("UtcTime" is not from 1970 to 2099: -1 microseconds since 1970.)");
  EXPECT_EQ(read().utc, onvif::LATEST_UTC);
}

TEST_F(ItemTest, BoxIsUprightAndInThePicture)
{
  expect_error(tessard_item_add_object(item, ID, -1.01, 0, 0, 0, &error), TESSARD_ERROR_INVALID_BOX,
               R"("Left" of the "BoundingBox" is -1.01, not from -1 to 1.)");
  expect_error(tessard_item_add_object(item, ID, 0, 1.5, 0, 0, &error), TESSARD_ERROR_INVALID_BOX,
               R"("Top" of the "BoundingBox" is 1.5, not from -1 to 1.)");
  expect_error(tessard_item_add_object(item, ID, 0, 0, 2, 0, &error), TESSARD_ERROR_INVALID_BOX,
               R"("Right" of the "BoundingBox" is 2, not from -1 to 1.)");
  expect_error(tessard_item_add_object(item, ID, 0, 0, 0, NOT_A_NUMBER, &error), TESSARD_ERROR_INVALID_BOX,
               R"("Bottom" of the "BoundingBox" is nan, not from -1 to 1.)");
  expect_error(tessard_item_add_object(item, ID, 0.5, 0, 0.4, 0, &error), TESSARD_ERROR_INVALID_BOX,
               R"("Left" of the "BoundingBox" is more than "Right".)");
  expect_error(tessard_item_add_object(item, ID, 0, -0.1, 0, 0, &error), TESSARD_ERROR_INVALID_BOX,
               R"("Bottom" of the "BoundingBox" is more than "Top".)");
  EXPECT_EQ(json(), R"({"Objects":[]})");
}

TEST_F(ItemTest, IdIsThereOnce)
{
  EXPECT_TRUE(add(ID));
  expect_error(add(ID), TESSARD_ERROR_DUPLICATE_ID, R"(The item has an object with the "Id" 12.)");
  expect_error(tessard_item_add_object_without_box(item, ID, &error), TESSARD_ERROR_DUPLICATE_ID,
               R"(The item has an object with the "Id" 12.)");
}

TEST_F(ItemTest, PartsNeedTheirObject)
{
  const gdouble polygon[] = {0, 0, 1, 0, 0, 1};
  const gchar *message = R"(The item has no object with the "Id" 12.)";

  expect_error(tessard_item_set_center(item, ID, 0, 0, &error), TESSARD_ERROR_UNKNOWN_OBJECT, message);
  expect_error(tessard_item_set_polygon(item, ID, polygon, 6, &error), TESSARD_ERROR_UNKNOWN_OBJECT, message);
  expect_error(tessard_item_set_type(item, ID, "Human", &error), TESSARD_ERROR_UNKNOWN_OBJECT, message);
  expect_error(tessard_item_set_likelihood(item, ID, 1, &error), TESSARD_ERROR_UNKNOWN_OBJECT, message);
}

TEST_F(ItemTest, CenterIsInThePicture)
{
  add(ID);
  expect_error(tessard_item_set_center(item, ID, 0, 1.5, &error), TESSARD_ERROR_INVALID_CENTER,
               R"("CenterOfGravity" is [0, 1.5], not from -1 to 1.)");
  expect_error(tessard_item_set_center(item, ID, NOT_A_NUMBER, 0, &error), TESSARD_ERROR_INVALID_CENTER,
               R"("CenterOfGravity" is [nan, 0], not from -1 to 1.)");
}

TEST_F(ItemTest, PolygonHasPointsInThePicture)
{
  const std::vector<gdouble> coordinates(2 * (TESSARD_ITEM_MAX_POINTS + 1), 0.25);
  const gdouble outside[] = {0, 0, 1, 0, 0, 1.5};

  add(ID);
  EXPECT_TRUE(tessard_item_set_polygon(item, ID, coordinates.data(), 2 * TESSARD_ITEM_MAX_POINTS, &error));
  EXPECT_TRUE(tessard_item_set_polygon(item, ID, coordinates.data(), 6, &error));
  expect_error(tessard_item_set_polygon(item, ID, nullptr, 0, &error), TESSARD_ERROR_INVALID_POLYGON,
               R"("Polygon" has 0 coordinates, not two for each of 3 to 128 points.)");
  expect_error(tessard_item_set_polygon(item, ID, coordinates.data(), 4, &error),
               TESSARD_ERROR_INVALID_POLYGON,
               R"("Polygon" has 4 coordinates, not two for each of 3 to 128 points.)");
  expect_error(tessard_item_set_polygon(item, ID, coordinates.data(), 7, &error),
               TESSARD_ERROR_INVALID_POLYGON,
               R"("Polygon" has 7 coordinates, not two for each of 3 to 128 points.)");
  expect_error(tessard_item_set_polygon(item, ID, coordinates.data(), coordinates.size(), &error),
               TESSARD_ERROR_INVALID_POLYGON,
               R"("Polygon" has 258 coordinates, not two for each of 3 to 128 points.)");
  expect_error(tessard_item_set_polygon(item, ID, outside, 6, &error), TESSARD_ERROR_INVALID_POLYGON,
               R"("Polygon" has a coordinate that is not from -1 to 1.)");
  EXPECT_EQ(read().objects[0].polygon.size(), 3U);
}

TEST_F(ItemTest, TypeIsAShortText)
{
  std::string type;

  add(ID);
  for (guint i = 0; i < TESSARD_ITEM_MAX_TYPE_CHARACTERS; i++) {
    type += "\U0001F697";
  }
  EXPECT_TRUE(tessard_item_set_type(item, ID, type.c_str(), &error));
  EXPECT_EQ(read().objects[0].type, type);
  expect_error(tessard_item_set_type(item, ID, (type + "x").c_str(), &error), TESSARD_ERROR_INVALID_TYPE,
               R"("Type" has more than 64 characters.)");
  expect_error(tessard_item_set_type(item, ID, "", &error), TESSARD_ERROR_INVALID_TYPE,
               R"("Type" is empty.)");
  expect_error(tessard_item_set_type(item, ID, "\xff", &error), TESSARD_ERROR_INVALID_TYPE,
               R"("Type" is not UTF-8.)");
  expect_error(tessard_item_set_type(item, ID, "a\nb", &error), TESSARD_ERROR_INVALID_TYPE,
               R"("Type" has control characters.)");
  EXPECT_EQ(read().objects[0].type, type);
}

TEST_F(ItemTest, LikelihoodIsFromZeroToOne)
{
  add(ID);
  EXPECT_TRUE(tessard_item_set_likelihood(item, ID, 1, &error));
  expect_error(tessard_item_set_likelihood(item, ID, 1.25, &error), TESSARD_ERROR_INVALID_LIKELIHOOD,
               R"("Likelihood" is 1.25, not from 0 to 1.)");
  expect_error(tessard_item_set_likelihood(item, ID, NOT_A_NUMBER, &error), TESSARD_ERROR_INVALID_LIKELIHOOD,
               R"("Likelihood" is nan, not from 0 to 1.)");
  EXPECT_EQ(read().objects[0].likelihood, 1);
}

TEST_F(ItemTest, HasTheLimitsOfTheConverter)
{
  EXPECT_EQ(TESSARD_ITEM_MAX_OBJECTS, plugins::PRODUCER_OBJECTS_MAX);
  EXPECT_EQ(TESSARD_ITEM_MAX_DELETED, plugins::PRODUCER_OBJECTS_MAX);
  EXPECT_EQ(TESSARD_ITEM_MAX_POINTS, plugins::PRODUCER_POINTS_MAX);
  EXPECT_EQ(TESSARD_ITEM_MAX_TYPE_CHARACTERS, plugins::PRODUCER_TYPE_MAX);
  EXPECT_EQ(TESSARD_ITEM_MAX_VALUES, plugins::JSON_VALUES_MAX);
}

/* Every part as long as it can be: the converter drops nothing of it. */
TEST_F(ItemTest, LongestItemIsConverted)
{
  const std::vector<gdouble> coordinates(2 * TESSARD_ITEM_MAX_POINTS, -1.23456e-05);
  std::string type;
  gint64 id = G_MININT64;

  for (guint i = 0; i < TESSARD_ITEM_MAX_TYPE_CHARACTERS; i++) {
    type += "\U0001F697";
  }
  tessard_item_set_utc_time(item, UTC, nullptr);
  for (guint i = 0; i < TESSARD_ITEM_MAX_DELETED; i++) {
    EXPECT_TRUE(tessard_item_add_deleted(item, G_MININT64 + i, &error));
  }
  for (guint i = 0; i < TESSARD_ITEM_MAX_OBJECTS; i++, id++) {
    EXPECT_TRUE(
        tessard_item_add_object(item, id, -1.23456e-05, 1.23456e-05, 1.23456e-05, -1.23456e-05, &error));
    EXPECT_TRUE(tessard_item_set_center(item, id, -1.23456e-05, -1.23456e-05, &error));
    EXPECT_TRUE(tessard_item_set_type(item, id, type.c_str(), &error));
    EXPECT_TRUE(tessard_item_set_likelihood(item, id, 1.23456e-05, &error));
  }
  expect_error(add(id), TESSARD_ERROR_TOO_MANY_OBJECTS, R"("Objects" of an item has at most 1024 elements.)");
  expect_error(tessard_item_add_deleted(item, 0, &error), TESSARD_ERROR_TOO_MANY_DELETED,
               R"("Deleted" of an item has at most 1024 elements.)");

  id = G_MININT64;
  while (tessard_item_set_polygon(item, id, coordinates.data(), coordinates.size(), &error)) {
    id++;
  }
  expect_error(FALSE, TESSARD_ERROR_TOO_MANY_VALUES,
               R"(An item has at most 65536 values; a point of a "Polygon" has 3.)");
  for (gsize size = coordinates.size(); size >= 6; size -= 2) {
    tessard_item_set_polygon(item, id, coordinates.data(), size, nullptr);
  }
  EXPECT_EQ(read().objects.size(), gsize{TESSARD_ITEM_MAX_OBJECTS});
}

/* Removing points makes room for others. */
TEST_F(ItemTest, CountsTheValuesThatItHas)
{
  const std::vector<gdouble> coordinates(2 * TESSARD_ITEM_MAX_POINTS, 0.5);
  gint64 id = 0;

  while (add(id) && tessard_item_set_polygon(item, id, coordinates.data(), coordinates.size(), &error)) {
    id++;
  }
  expect_error(FALSE, TESSARD_ERROR_TOO_MANY_VALUES,
               R"(An item has at most 65536 values; a point of a "Polygon" has 3.)");
  EXPECT_TRUE(tessard_item_set_polygon(item, 0, coordinates.data(), 6, &error));
  EXPECT_TRUE(tessard_item_set_polygon(item, id, coordinates.data(), coordinates.size(), &error));
  EXPECT_EQ(read().objects.size(), static_cast<gsize>(id + 1));
}
