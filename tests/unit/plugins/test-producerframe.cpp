/* SPDX-License-Identifier: MIT */
#include "producerframe.h"

#include "hostiletext.h"

#include <gtest/gtest.h>

using plugins::ProducerFlaws;
using plugins::ProducerFrame;
using plugins::ProducerObject;

namespace
{

constexpr gint64 SECOND = G_USEC_PER_SEC;

GstBuffer *
new_buffer(const std::string &text)
{
  GstBuffer *buffer = gst_buffer_new_allocate(nullptr, text.size(), nullptr);
  gst_buffer_fill(buffer, 0, text.data(), text.size());
  return buffer;
}

/* One reader for all, as for the frames of a stream. It reads the same from a buffer and from bytes. */
std::optional<ProducerFrame>
read(const std::string &text, ProducerFlaws *flaws)
{
  static plugins::ProducerReader reader;
  g_autoptr(GstBuffer) buffer = new_buffer(text);
  std::optional<ProducerFrame> frame = reader.read(std::string_view(text), flaws);
  ProducerFlaws flaws_of_buffer;
  EXPECT_EQ(reader.read(buffer, &flaws_of_buffer), frame) << text;
  EXPECT_STREQ(flaws_of_buffer.fatal, flaws->fatal) << text;
  EXPECT_STREQ(flaws_of_buffer.partial, flaws->partial) << text;
  return frame;
}

std::string
frame_of(const std::string &items)
{
  return R"({"Source":"X","Data":{"Item":[)" + items + "]}}";
}

std::string
item_with(const std::string &members)
{
  return frame_of(R"({"Objects":[{"Id":1,)" + members + "}]}");
}

class ProducerFrames : public testing::Test
{
protected:
  static void SetUpTestSuite()
  {
    gst_init(nullptr, nullptr);
  }

  static ProducerFrame read_whole(const std::string &text)
  {
    ProducerFlaws flaws;
    std::optional<ProducerFrame> frame = read(text, &flaws);
    EXPECT_TRUE(frame.has_value()) << text << ": " << flaws.fatal;
    EXPECT_EQ(flaws.fatal, nullptr);
    EXPECT_EQ(flaws.partial, nullptr) << text << ": " << flaws.partial;
    return frame.value_or(ProducerFrame());
  }

  /* The result without the invalid part. */
  static ProducerFrame read_flawed(const std::string &text, const char *flaw)
  {
    ProducerFlaws flaws;
    std::optional<ProducerFrame> frame = read(text, &flaws);
    EXPECT_TRUE(frame.has_value()) << text << ": " << flaws.fatal;
    EXPECT_EQ(flaws.fatal, nullptr);
    EXPECT_STREQ(flaws.partial, flaw) << text;
    return frame.value_or(ProducerFrame());
  }

  static void expect_refused(const std::string &text, const char *flaw)
  {
    ProducerFlaws flaws;
    EXPECT_FALSE(read(text, &flaws).has_value()) << text;
    EXPECT_STREQ(flaws.fatal, flaw) << text;
  }
};

constexpr const char *NO_JSON = "it is no JSON, or beyond the limits";
constexpr const char *NOT_ONE = "it is not one frame with one source";
constexpr const char *NO_FRAME = "it has no \"Source\" or no \"Data\" with \"Item\"";
constexpr const char *ITEM_COUNT = "there is no item, or too many";
constexpr const char *BAD_LIST = "\"Objects\" or \"Deleted\" of an item is no array or too long";
constexpr const char *BAD_TIME = "a \"UtcTime\" is no ISO 8601 time with a zone from 1970 to 2099";
constexpr const char *BAD_ID = "an object's \"Id\" is missing or no whole number of 64 bits";
constexpr const char *SAME_ID = "an object's \"Id\" is there twice";
constexpr const char *BAD_DELETED = "one of \"Deleted\" is no whole number of 64 bits";
constexpr const char *BAD_BOX = "a \"BoundingBox\" is none, or not in the picture";
constexpr const char *BAD_CENTRE = "a \"CenterOfGravity\" is no point in the picture";
constexpr const char *BAD_POLYGON = "a \"Polygon\" is none, not in the picture or has too many points";
constexpr const char *BAD_TYPE = "a \"Type\" is no text, empty, too long or has control characters";
constexpr const char *BAD_LIKELIHOOD = "a \"Likelihood\" is not from 0 to 1";

TEST_F(ProducerFrames, EveryMemberIsRead)
{
  ProducerFrame frame = read_whole(
      frame_of(R"({"UtcTime": "2024-01-01T01:00:00.25+01:00", "Objects": [{"Id": 12,)"
               R"("BoundingBox": {"Left": -0.6, "Top": 0.6, "Right": -0.2, "Bottom": 0.2},)"
               R"("CenterOfGravity": [-0.3, 0.3], "Polygon": [[-0.6, 0.6], [-0.2, 0.6], [-0.2, 0.2]],)"
               R"("Type": "Human", "Likelihood": 0.96}], "Deleted": [11, -3]})"));
  EXPECT_EQ(frame.source, "X");
  ASSERT_EQ(frame.items.size(), 1u);
  EXPECT_EQ(frame.items[0].utc, 1704067200 * SECOND + SECOND / 4);
  EXPECT_EQ(frame.items[0].deleted, (std::vector<gint64>{11, -3}));
  ASSERT_EQ(frame.items[0].objects.size(), 1u);
  const ProducerObject &object = frame.items[0].objects[0];
  EXPECT_EQ(object.id, 12);
  EXPECT_EQ(object.box, (onvif::Box{.left = -0.6, .top = 0.6, .right = -0.2, .bottom = 0.2}));
  EXPECT_EQ(object.centre->x, -0.3);
  EXPECT_EQ(object.centre->y, 0.3);
  ASSERT_EQ(object.polygon.size(), 3u);
  EXPECT_EQ(object.polygon[2].x, -0.2);
  EXPECT_EQ(object.polygon[2].y, 0.2);
  EXPECT_EQ(object.type, "Human");
  EXPECT_EQ(object.likelihood, 0.96);
}

TEST_F(ProducerFrames, AllMembersOfAnItemAreOptional)
{
  ProducerFrame frame = read_whole(frame_of(R"({},{"Objects":[]},{"Deleted":[]},{"Objects":[{"Id":1}]})"));
  ASSERT_EQ(frame.items.size(), 4u);
  EXPECT_FALSE(frame.items[0].utc.has_value());
  const ProducerObject &object = frame.items[3].objects[0];
  EXPECT_FALSE(object.box.has_value() || object.centre.has_value() || object.type.has_value());
  EXPECT_FALSE(object.likelihood.has_value());
  EXPECT_TRUE(object.polygon.empty());
}

TEST_F(ProducerFrames, UnknownMembersAreIgnored)
{
  ProducerFrame frame = read_whole(frame_of(
      R"({"Blob":[{"Id":[]}],"id":1,"Objects":[{"Id":1,"Colour":null,"Box":[9]}],"TimestampMono":"1"})"));
  EXPECT_EQ(frame.items[0].objects.size(), 1u);
}

TEST_F(ProducerFrames, LastOfRepeatedMembersIsUsed)
{
  ProducerFrame frame = read_whole(frame_of(R"({"Objects":[{"Id":"one","Id":2}]})"));
  EXPECT_EQ(frame.items[0].objects[0].id, 2);
  frame = read_whole(item_with(
      R"("BoundingBox":1,"BoundingBox":{"Left":1,"Left":0,"Top":1,"Right":null,"Right":1,"Bottom":0})"));
  EXPECT_EQ(frame.items[0].objects[0].box, (onvif::Box{.left = 0, .top = 1, .right = 1, .bottom = 0}));
  frame = read_whole(frame_of(R"({"Objects":1,"Deleted":[1],"UtcTime":1,"Objects":[],"Deleted":[2],)"
                              R"("UtcTime":"1970-01-01T00:00:00Z"})"));
  EXPECT_EQ(frame.items[0].deleted, std::vector<gint64>{2});
  EXPECT_EQ(frame.items[0].utc, 0);
  read_flawed(frame_of(R"({"Objects":[{"Id":2,"Id":"one"}]})"), BAD_ID);
}

TEST_F(ProducerFrames, NumbersBeyondADoubleOr64BitsDropTheFrame)
{
  for (const char *number : {"1e999", "-1e999", "18446744073709551616", "-9223372036854775809"}) {
    expect_refused(frame_of(std::string(R"({"Objects":[{"Id":)") + number + "}]}"), NO_JSON);
    expect_refused(frame_of(std::string(R"({"Other":)") + number + "}"), NO_JSON);
  }
}

TEST_F(ProducerFrames, ReaderGoesOnAfterALongFrame)
{
  for (gsize size : {plugins::PRODUCER_FRAME_BYTES_KEPT, 2 * plugins::PRODUCER_FRAME_BYTES_KEPT}) {
    std::string filling = repeat("x", size);
    EXPECT_EQ(read_whole(frame_of(R"({"Filling":")" + filling + R"(","Deleted":[1]})")).items[0].deleted,
              std::vector<gint64>{1});
    EXPECT_EQ(read_whole(frame_of(R"({"Deleted":[2]})")).items[0].deleted, std::vector<gint64>{2});
    expect_refused(filling, NO_JSON);
  }
}

TEST_F(ProducerFrames, AcceptsATextInSeveralMemories)
{
  g_autoptr(GstBuffer) buffer = gst_buffer_new();
  for (const char *piece : {R"({"Source":"Y","Data":{"Item":[)", R"({"Deleted":[)", "7]}", "]}}"}) {
    gst_buffer_append(buffer, new_buffer(piece));
  }
  ASSERT_EQ(gst_buffer_n_memory(buffer), 4u);
  ProducerFlaws flaws;
  plugins::ProducerReader reader;
  std::optional<ProducerFrame> frame = reader.read(buffer, &flaws);
  ASSERT_TRUE(frame.has_value()) << flaws.fatal;
  EXPECT_EQ(frame->source, "Y");
  EXPECT_EQ(frame->items[0].deleted, std::vector<gint64>{7});
}

TEST_F(ProducerFrames, OtherTextsAreRefused)
{
  expect_refused("", NO_JSON);
  expect_refused("{", NO_JSON);
  expect_refused(frame_of("["), NO_JSON);
  expect_refused(frame_of("{},"), NO_JSON);
  expect_refused(frame_of("\"\xff\""), NO_JSON);
  expect_refused(frame_of(std::string("\"\0\"", 3)), NO_JSON);
  expect_refused(frame_of(repeat("[", 1000000)).substr(0, plugins::PRODUCER_FRAME_BYTES_MAX), NO_JSON);
  expect_refused(R"({"Source":"a"b","Data":{"Item":[{}]}})", NO_JSON);
  expect_refused("[]", NOT_ONE);
  expect_refused("1", NOT_ONE);
  expect_refused(R"({"Source":"X"})", NOT_ONE);
  expect_refused(R"({"Source":1,"Data":{"Item":[{}]}})", NO_FRAME);
  expect_refused(R"({"Source":["X"],"Data":{"Item":[{}]}})", NO_FRAME);
  expect_refused(R"({"Source":null,"Data":{"Item":[{}]}})", NO_FRAME);
  expect_refused(R"({"source":"X","Data":{"Item":[{}]}})", NO_FRAME);
  expect_refused(R"({"Source":"X","data":{"Item":[{}]}})", NO_FRAME);
  expect_refused(R"({"Source":"X","Data":{"item":[{}]}})", NO_FRAME);
  expect_refused(R"({"Source":"X","Data":{"Item":{}}})", NO_FRAME);
  expect_refused(R"({"Source":{"a":1},"Data":[{"Item":[]}]})", NOT_ONE);
  expect_refused(R"({"Source":"X","Data":[{"Item":[{}]}]})", NOT_ONE);
  expect_refused(frame_of(""), ITEM_COUNT);
  expect_refused(frame_of("  "), ITEM_COUNT);
  expect_refused(frame_of("1"), "an item is no object");
  expect_refused(frame_of("{},null"), "an item is no object");
  expect_refused(frame_of("[{}]"), "an item is no object");
}

/* The daemon inserts a producer's bytes and its name into the frame unchanged. */
TEST_F(ProducerFrames, ProducerCannotChangeTheSource)
{
  expect_refused(frame_of(R"({}]},"Source":"Y","Data":{"Item":[{})"), NOT_ONE);
  expect_refused(frame_of(R"({}],"Item":[{})"), NOT_ONE);
  expect_refused(frame_of(R"({}]}},{"Source":"Y","Data":{"Item":[{})"), NO_JSON);
  expect_refused(frame_of(R"({}]}}{"Source":"Y","Data":{"Item":[{})"), NO_JSON);
  expect_refused(R"({"Source":"X","Source":"Y","Data":{"Item":[{}]}})", NOT_ONE);
}

TEST_F(ProducerFrames, InvalidListsDropTheFrame)
{
  for (const char *list : {"null", "1", "\"\"", "{}", "true"}) {
    expect_refused(frame_of(std::string(R"({"Objects":)") + list + "}"), BAD_LIST);
    expect_refused(frame_of(std::string(R"({},{"Deleted":)") + list + "}"), BAD_LIST);
  }
}

TEST_F(ProducerFrames, InvalidObjectsAreDropped)
{
  for (const char *object : {"1", "null", "\"a\"", "[]", "[1]"}) {
    ProducerFrame frame = read_flawed(
        frame_of(std::string(R"({"Objects":[{"Id":1},)") + object + R"(,{"Id":2}]})"), "an object is none");
    EXPECT_EQ(frame.items[0].objects.size(), 2u);
  }
}

TEST_F(ProducerFrames, IdsAreIntegersOf64Bits)
{
  struct Id {
    const char *text;
    gint64 value;
  };
  for (const Id &id : {Id{"0", 0}, Id{"-0", 0}, Id{"-0.0", 0}, Id{"5.0", 5}, Id{"1e2", 100},
                       Id{"9223372036854775807", G_MAXINT64}, Id{"-9223372036854775808", G_MININT64},
                       Id{"-9223372036854775808.0", G_MININT64}}) {
    ProducerFrame frame = read_whole(
        frame_of(std::string(R"({"Objects":[{"Id":)") + id.text + R"(}],"Deleted":[)" + id.text + "]}"));
    ASSERT_EQ(frame.items[0].objects.size(), 1u) << id.text;
    EXPECT_EQ(frame.items[0].objects[0].id, id.value);
    EXPECT_EQ(frame.items[0].deleted, std::vector<gint64>{id.value});
  }
  for (const char *id : {"0.5", "1e99", "-1e99", "1e19", "9223372036854775808", "9223372036854775808.0",
                         "18446744073709551615", "18446744073709551616.0", "-9223372036854777856.0", "\"1\"",
                         "true", "null", "[]", "[1]", "{}"}) {
    ProducerFrame frame = read_flawed(frame_of(std::string(R"({"Objects":[{"Id":)") + id + "}]}"), BAD_ID);
    EXPECT_TRUE(frame.items[0].objects.empty()) << id;
    frame = read_flawed(frame_of(std::string(R"({"Deleted":[1,)") + id + ",2]}"), BAD_DELETED);
    EXPECT_EQ(frame.items[0].deleted, (std::vector<gint64>{1, 2})) << id;
  }
  read_flawed(frame_of(R"({"Objects":[{"Type":"Human"}]})"), BAD_ID);
}

TEST_F(ProducerFrames, SecondObjectWithTheSameIdIsDropped)
{
  ProducerFrame frame =
      read_flawed(frame_of(R"({"Objects":[{"Id":1,"Type":"a"},{"Id":1.0,"Type":"b"},{"Id":2}]})"), SAME_ID);
  ASSERT_EQ(frame.items[0].objects.size(), 2u);
  EXPECT_EQ(frame.items[0].objects[0].type, "a");
  read_whole(frame_of(R"({"Objects":[{"Id":1}]},{"Objects":[{"Id":1}]})"));
}

std::string
box_with(const char *left, const char *top, const char *right, const char *bottom)
{
  return item_with(std::string(R"("BoundingBox":{"Left":)") + left + R"(,"Top":)" + top + R"(,"Right":)" +
                   right + R"(,"Bottom":)" + bottom + "}");
}

TEST_F(ProducerFrames, BoxesAreInThePictureAndNotReversed)
{
  EXPECT_EQ(read_whole(box_with("-1", "1.0", "1e0", "-1")).items[0].objects[0].box,
            (onvif::Box{.left = -1, .top = 1, .right = 1, .bottom = -1}));
  read_whole(box_with("0", "0", "0", "0"));
  for (const std::string &text :
       {box_with("0.1", "1", "0", "-1"), box_with("-1", "0", "1", "0.1"), box_with("-1.0001", "1", "1", "-1"),
        box_with("-1", "1.0001", "1", "-1"), box_with("-1", "1", "1.0001", "-1"),
        box_with("-1", "1", "1", "-1.0001"), box_with("-1", "1", "1e308", "-1"),
        box_with("18446744073709551615", "1", "1", "-1"), box_with("-1", "-9223372036854775808", "1", "-1"),
        box_with("\"0\"", "1", "1", "-1"), box_with("null", "1", "1", "-1"), box_with("[0]", "1", "1", "-1"),
        box_with("true", "1", "1", "-1"), item_with(R"("BoundingBox":null)"),
        item_with(R"("BoundingBox":{})"), item_with(R"("BoundingBox":[0,1,1,0])"),
        item_with(R"("BoundingBox":{"Left":0,"Top":0,"Right":0})"),
        item_with(R"("BoundingBox":{"left":0,"top":0,"right":0,"bottom":0})")}) {
    EXPECT_TRUE(read_flawed(text, BAD_BOX).items[0].objects.empty()) << text;
  }
}

TEST_F(ProducerFrames, CentresAndPolygonsAreInThePicture)
{
  for (const char *point : {"[]", "[0]", "[0,0,0]", "[0,1.5]", "[-1.5,0]", "[0,1e99]", "[\"0\",0]",
                            "{\"x\":0,\"y\":0}", "0", "null", "\"\""}) {
    std::string centre = item_with(std::string(R"("CenterOfGravity":)") + point);
    EXPECT_TRUE(read_flawed(centre, BAD_CENTRE).items[0].objects.empty()) << point;
    std::string polygon = item_with(std::string(R"("Polygon":[[0,0],[0,1],)") + point + "]");
    EXPECT_TRUE(read_flawed(polygon, BAD_POLYGON).items[0].objects.empty()) << point;
  }
  for (const char *polygon : {"null", "{}", "0", "[]", "[[0,0]]", "[[0,0],[1,1]]"}) {
    EXPECT_TRUE(
        read_flawed(item_with(std::string(R"("Polygon":)") + polygon), BAD_POLYGON).items[0].objects.empty());
  }
}

TEST_F(ProducerFrames, TypesAndLikelihoodsAreBounded)
{
  EXPECT_EQ(read_whole(item_with(R"("Type":"<&\"","Likelihood":1)")).items[0].objects[0].type, "<&\"");
  EXPECT_EQ(read_whole(item_with(R"("Likelihood":0)")).items[0].objects[0].likelihood, 0);
  for (const char *type :
       {"null", "1", "true", "[]", "[\"a\"]", "{}", "\"\"", "\"a\\nb\"", "\"\\u0001\"", "\"\\u001f\""}) {
    read_flawed(item_with(std::string(R"("Type":)") + type), BAD_TYPE);
  }
  for (const char *likelihood : {"null", "\"1\"", "true", "[]", "{}", "-0.01", "1.01", "1e99", "-1e99"}) {
    read_flawed(item_with(std::string(R"("Likelihood":)") + likelihood), BAD_LIKELIHOOD);
  }
}

TEST_F(ProducerFrames, TimesAreIso8601WithAZone)
{
  struct Time {
    const char *text;
    gint64 utc;
  };
  for (const Time &time : {Time{"1970-01-01T00:00:00Z", 0}, Time{"1970-01-01T00:00:01.5Z", SECOND * 3 / 2},
                           Time{"1970-01-01T02:00:00+02:00", 0}, Time{"1970-01-01T02:00:00+02", 0},
                           Time{"1969-12-31T23:30:00-0030", 0}, Time{"1970-01-01T00:00:00,5Z", SECOND / 2},
                           Time{"1970-01-01T00:00:00.123456789Z", 123456},
                           Time{"2099-12-31T23:59:59Z", G_GINT64_CONSTANT(4102444799) * SECOND}}) {
    ProducerFrame frame = read_whole(frame_of(std::string(R"({"UtcTime":")") + time.text + "\"}"));
    EXPECT_EQ(frame.items[0].utc, time.utc) << time.text;
  }
  for (const char *time : {"null",
                           "1704067200",
                           "true",
                           "[]",
                           "{}",
                           "\"\"",
                           "\"now\"",
                           "\"2024-01-01\"",
                           "\"2024-01-01T00:00:00\"",
                           "\"2024-01-01 00:00:00Z\"",
                           "\"20240101T000000Z\"",
                           "\"2024-W01-1T00:00:00Z\"",
                           "\"2024-001T00:00:00Z\"",
                           "\"2024-02-30T00:00:00Z\"",
                           "\"2023-02-29T00:00:00Z\"",
                           "\"2024-13-01T00:00:00Z\"",
                           "\"2024-01-01T24:00:00Z\"",
                           "\"2024-01-01T00:00:60Z\"",
                           "\"2024-01-01T00:00Z\"",
                           "\"1969-12-31T23:59:59Z\"",
                           "\"2100-01-01T00:00:00Z\"",
                           "\"2099-12-31T23:59:59.1Z\"",
                           "\"1970-01-01T00:00:00+01:00\"",
                           "\"0001-01-01T00:00:00+14:00\"",
                           "\"2024-01-01T00:00:00Zz\"",
                           "\" 2024-01-01T00:00:00Z\"",
                           "\"2024-01-01T00:00:00+99:99\"",
                           "\"2024-01-01T00:00:00.1234567890Z\"",
                           "\"2024-01-01T00:00:00.Z\""}) {
    ProducerFrame frame =
        read_flawed(frame_of(std::string(R"({"UtcTime":)") + time + R"(,"Objects":[{"Id":1}]})"), BAD_TIME);
    EXPECT_FALSE(frame.items[0].utc.has_value()) << time;
    EXPECT_EQ(frame.items[0].objects.size(), 1u) << "the rest of the item stays";
  }
}

TEST_F(ProducerFrames, FirstFlawIsReported)
{
  read_flawed(frame_of(R"({"UtcTime":1,"Objects":[{"Id":0.5},{"Id":1,"Type":1}],"Deleted":[null]})"),
              BAD_TIME);
  read_flawed(frame_of(R"({"Objects":[{"Id":0.5},{"Id":1,"Type":1}],"Deleted":[null]})"), BAD_ID);
}

/* @count copies of @text, separated by commas. */
std::string
list_of(const std::string &text, gsize count)
{
  return count > 0 ? text + repeat(("," + text).c_str(), count - 1) : "";
}

std::string
objects_of(gsize count)
{
  std::string objects;
  for (gsize id = 0; id < count; id++) {
    objects += (id > 0 ? "," : "") + std::string("{\"Id\":") + std::to_string(id) + "}";
  }
  return frame_of("{\"Objects\":[" + objects + "]}");
}

TEST_F(ProducerFrames, LimitsAreAsDocumented)
{
  EXPECT_EQ(read_whole(frame_of(list_of("{}", plugins::PRODUCER_ITEMS_MAX))).items.size(),
            plugins::PRODUCER_ITEMS_MAX);
  expect_refused(frame_of(list_of("{}", plugins::PRODUCER_ITEMS_MAX + 1)), ITEM_COUNT);

  EXPECT_EQ(read_whole(objects_of(plugins::PRODUCER_OBJECTS_MAX)).items[0].objects.size(),
            plugins::PRODUCER_OBJECTS_MAX);
  expect_refused(objects_of(plugins::PRODUCER_OBJECTS_MAX + 1), BAD_LIST);
  read_whole(frame_of("{\"Deleted\":[" + list_of("1", plugins::PRODUCER_OBJECTS_MAX) + "]}"));
  expect_refused(frame_of("{\"Deleted\":[" + list_of("1", plugins::PRODUCER_OBJECTS_MAX + 1) + "]}"),
                 BAD_LIST);

  read_whole(item_with("\"Polygon\":[" + list_of("[0,0]", plugins::PRODUCER_POINTS_MAX) + "]"));
  read_flawed(item_with("\"Polygon\":[" + list_of("[0,0]", plugins::PRODUCER_POINTS_MAX + 1) + "]"),
              BAD_POLYGON);

  read_whole(item_with("\"Type\":\"" + repeat("\xc3\xa9", plugins::PRODUCER_TYPE_MAX) + "\""));
  read_flawed(item_with("\"Type\":\"" + repeat("\xc3\xa9", plugins::PRODUCER_TYPE_MAX + 1) + "\""), BAD_TYPE);

  std::string rest = frame_of("{\"a\":\"\"}");
  std::string filling = repeat("x", plugins::PRODUCER_FRAME_BYTES_MAX - rest.size());
  read_whole(frame_of("{\"a\":\"" + filling + "\"}"));
  expect_refused(frame_of("{\"a\":\"" + filling + "x\"}"), "it is too long");
}

} // namespace
