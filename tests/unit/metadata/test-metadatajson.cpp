/* SPDX-License-Identifier: MIT */
#include "metadatajson.h"

#include <glib.h>
#include <gtest/gtest.h>

using onvif::metadata_to_json;
using onvif::MetadataKind;
using onvif::MetadataText;
using onvif::MetadataTexts;
using onvif::PropertyOperation;

namespace
{

constexpr const char *NAMESPACES = R"( xmlns:tt="http://www.onvif.org/ver10/schema")"
                                   R"( xmlns:fc="http://www.onvif.org/ver20/analytics/humanface")"
                                   R"( xmlns:bd="http://www.onvif.org/ver20/analytics/humanbody")"
                                   R"( xmlns:wsnt="http://docs.oasis-open.org/wsn/b-2")"
                                   R"( xmlns:tns1="http://www.onvif.org/ver10/topics")"
                                   R"( xmlns:acme="http://acme.example/schema")";

std::string
stream(const std::string &content)
{
  return std::string("<tt:MetadataStream") + NAMESPACES + ">" + content + "</tt:MetadataStream>";
}

std::string
frame(const std::string &content)
{
  return stream("<tt:VideoAnalytics><tt:Frame>" + content + "</tt:Frame></tt:VideoAnalytics>");
}

std::string
notification(const std::string &topic, const std::string &message)
{
  return "<wsnt:NotificationMessage><wsnt:Topic>" + topic + "</wsnt:Topic><wsnt:Message>" + message +
         "</wsnt:Message></wsnt:NotificationMessage>";
}

std::string
event(const std::string &topic, const std::string &message)
{
  return stream("<tt:Event>" + notification(topic, message) + "</tt:Event>");
}

std::vector<MetadataText>
convert(const std::string &document)
{
  g_autoptr(GError) error = nullptr;
  std::optional<MetadataTexts> texts = metadata_to_json(document, &error);
  EXPECT_TRUE(texts.has_value()) << error->message;
  EXPECT_EQ(error, nullptr);
  return texts.has_value() ? texts->texts : std::vector<MetadataText>();
}

MetadataText
convert_one(const std::string &document)
{
  std::vector<MetadataText> texts = convert(document);
  EXPECT_EQ(texts.size(), 1u);
  return texts.empty() ? MetadataText() : texts.front();
}

/* The content of a frame's object. */
std::string
frame_json(const std::string &content)
{
  std::string json = convert_one(frame(content)).json;
  EXPECT_EQ(json.substr(0, 11), R"({"Frame":[{)");
  EXPECT_EQ(json.substr(json.size() - 3), "}]}");
  return json.substr(11, json.size() - 14);
}

void
expect_refused(const std::string &document, const char *message)
{
  g_autoptr(GError) error = nullptr;
  EXPECT_FALSE(metadata_to_json(document, &error).has_value());
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain, G_MARKUP_ERROR);
  EXPECT_STREQ(error->message, message);
}

TEST(MetadataJson, AFrameOfAClassifier)
{
  MetadataText text = convert_one(stream(R"(
    <tt:VideoAnalytics>
      <tt:Frame UtcTime="2021-10-05T15:13:27.321" Source="MyClassifier">
        <tt:Transformation>
          <tt:Translate x="-1.0" y="-1.0"/>
          <tt:Scale x="0.003125" y="0.00416667"/>
        </tt:Transformation>
        <tt:Object ObjectId="15">
          <tt:Appearance>
            <tt:Shape>
              <tt:BoundingBox left="20.0" top="80.0" right="100.0" bottom="30.0"/>
              <tt:CenterOfGravity x="60.0" y="50.0"/>
              <tt:Polygon>
                <tt:Point x="20.0" y="30.0"/>
                <tt:Point x="100.0" y="30.0"/>
                <tt:Point x="100.0" y="80.0"/>
              </tt:Polygon>
            </tt:Shape>
            <tt:Color>
              <tt:ColorCluster>
                <tt:Color X="213" Y="135" Z="126"/>
                <tt:Weight>0.9</tt:Weight>
                <acme:ColorName>White</acme:ColorName>
              </tt:ColorCluster>
            </tt:Color>
            <tt:Class><tt:Type Likelihood="0.8">Human</tt:Type></tt:Class>
            <tt:HumanFace>
              <fc:Gender>Male</fc:Gender>
              <fc:Age><tt:Min>20</tt:Min><tt:Max>30</tt:Max></fc:Age>
              <fc:Accessory><fc:Hat><fc:Wear>True</fc:Wear></fc:Hat></fc:Accessory>
            </tt:HumanFace>
            <tt:HumanBody>
              <bd:Clothing><bd:Tops><bd:Category>LongSleeve</bd:Category></bd:Tops></bd:Clothing>
            </tt:HumanBody>
          </tt:Appearance>
        </tt:Object>
      </tt:Frame>
    </tt:VideoAnalytics>)"));
  EXPECT_EQ(text.kind, MetadataKind::FRAME);
  EXPECT_EQ(text.source, "MyClassifier");
  EXPECT_EQ(text.json,
            R"({"Frame":[{"@UtcTime":"2021-10-05T15:13:27.321","@Source":"MyClassifier",)"
            R"("@context":{"acme":"http://acme.example/schema"},)"
            R"("Transformation":{"Translate":{"@x":-1.0,"@y":-1.0},"Scale":{"@x":0.003125,"@y":0.00416667}},)"
            R"("Object":[{"@ObjectId":15,"Appearance":{"Shape":{)"
            R"("BoundingBox":{"@left":20.0,"@top":80.0,"@right":100.0,"@bottom":30.0},)"
            R"("CenterOfGravity":{"@x":60.0,"@y":50.0},)"
            R"("Polygon":{"Point":[{"@x":20.0,"@y":30.0},{"@x":100.0,"@y":30.0},{"@x":100.0,"@y":80.0}]}},)"
            R"("Color":{"ColorCluster":[{"Color":{"@X":213,"@Y":135,"@Z":126},"Weight":0.9,)"
            R"("acme:ColorName":"White"}]},"Class":{"Type":[{"@Likelihood":0.8,"#text":"Human"}]},)"
            R"("HumanFace":{"Gender":"Male","Age":{"Min":20,"Max":30},"Accessory":{"Hat":{"Wear":true}}},)"
            R"("HumanBody":{"Clothing":{"Tops":{"Category":"LongSleeve"}}}}}]}]})");
}

TEST(MetadataJson, AStatusOfAPtzHead)
{
  MetadataText text = convert_one(stream(
      R"(<tt:PTZ><tt:PTZStatus><tt:Position><tt:PanTilt x="0.5" y="-0.25" space="urn:a"/><tt:Zoom x="1"/>)"
      R"(</tt:Position><tt:MoveStatus><tt:PanTilt>IDLE</tt:PanTilt><tt:Zoom>MOVING</tt:Zoom></tt:MoveStatus>)"
      R"(<tt:UtcTime>2026-01-02T03:04:05Z</tt:UtcTime></tt:PTZStatus></tt:PTZ>)"));
  EXPECT_EQ(text.kind, MetadataKind::PTZ_STATUS);
  EXPECT_EQ(text.json, R"({"PTZStatus":[{"Position":{"PanTilt":{"@x":0.5,"@y":-0.25,"@space":"urn:a"},)"
                       R"("Zoom":{"@x":1}},"MoveStatus":{"PanTilt":"IDLE","Zoom":"MOVING"},)"
                       R"("UtcTime":"2026-01-02T03:04:05Z"}]})");
}

TEST(MetadataJson, EachFormOfAnElement)
{
  EXPECT_EQ(frame_json("<tt:a/>"), R"("a":null)");
  EXPECT_EQ(frame_json("<tt:a> \n </tt:a>"), R"("a":null)");
  EXPECT_EQ(frame_json("<tt:a>text</tt:a>"), R"("a":"text")");
  EXPECT_EQ(frame_json("<tt:a>12</tt:a>"), R"("a":"12")");
  EXPECT_EQ(frame_json(R"(<tt:a name="value"/>)"), R"("a":{"@name":"value"})");
  EXPECT_EQ(frame_json(R"(<tt:a name="value">text</tt:a>)"), R"("a":{"@name":"value","#text":"text"})");
  EXPECT_EQ(frame_json("<tt:a><tt:b>t</tt:b><tt:c>t</tt:c></tt:a>"), R"("a":{"b":"t","c":"t"})");
  EXPECT_EQ(frame_json("<tt:a><tt:b>t</tt:b><tt:c/><tt:b>u</tt:b></tt:a>"),
            R"("a":{"b":["t","u"],"c":null})");
  EXPECT_EQ(frame_json("<tt:a>x<tt:b/>y</tt:a>"), R"("a":{"#text":"xy","b":null})");
  EXPECT_EQ(frame_json("<tt:a><![CDATA[<&]]>&lt;<!-- no --><?no no?></tt:a>"), R"("a":"<&<")");
  EXPECT_EQ(frame_json(""), "");
}

TEST(MetadataJson, RepeatedElementsAreArrays)
{
  EXPECT_EQ(frame_json("<tt:Object/>"), R"("Object":[null])");
  EXPECT_EQ(frame_json(R"(<tt:ObjectTree><tt:Delete ObjectId="1"/></tt:ObjectTree>)"),
            R"("ObjectTree":{"Delete":[{"@ObjectId":1}]})");
  EXPECT_EQ(frame_json("<acme:Object/>"),
            R"("@context":{"acme":"http://acme.example/schema"},"acme:Object":null)");
}

TEST(MetadataJson, Numbers)
{
  const std::pair<const char *, const char *> cases[] = {
      {"0", "0"},
      {"-0.0", "-0.0"},
      {" 1.50 ", "1.50"},
      {"+.5", "0.5"},
      {"-.5", "-0.5"},
      {"5.", "5"},
      {"007", "7"},
      {"00.1", "0.1"},
      {"1E-5", "1E-5"},
      {"1e+5", "1e+5"},
      {"1e-400", "1e-400"},
      {"9007199254740991", "9007199254740991"},
      {"9007199254740992", R"("9007199254740992")"},
      {"1e400", R"("1e400")"},
      {"NaN", R"("NaN")"},
      {"-INF", R"("-INF")"},
      {"0x10", R"("0x10")"},
      {"1e", R"("1e")"},
      {".", R"(".")"},
      {"", R"("")"},
      {"--1", R"("--1")"},
      {"1 2", R"("1 2")"},
  };
  for (const auto &[text, expected] : cases) {
    EXPECT_EQ(frame_json("<tt:a x=\"" + std::string(text) + "\"/>"),
              "\"a\":{\"@x\":" + std::string(expected) + "}");
  }
  std::string longest(onvif::METADATA_JSON_NUMBER_MAX - 2, '0');
  EXPECT_EQ(frame_json("<tt:Speed>0." + longest + "</tt:Speed>"), "\"Speed\":0." + longest);
  EXPECT_EQ(frame_json("<tt:Speed>0." + longest + "0</tt:Speed>"), "\"Speed\":\"0." + longest + "0\"");
}

TEST(MetadataJson, TypesAreThoseOfOnvifsOwnNames)
{
  EXPECT_EQ(frame_json("<fc:Wear>1</fc:Wear><fc:Open>0</fc:Open><fc:Scar>maybe</fc:Scar>"),
            R"("Wear":true,"Open":false,"Scar":"maybe")");
  EXPECT_EQ(frame_json(R"(<acme:Speed x="1">2</acme:Speed>)"),
            R"("@context":{"acme":"http://acme.example/schema"},"acme:Speed":{"@x":"1","#text":"2"})");
  EXPECT_EQ(frame_json(R"(<tt:a acme:x="1"/>)"),
            R"("@context":{"acme":"http://acme.example/schema"},"a":{"@acme:x":"1"})");
}

TEST(MetadataJson, StringsAreEscaped)
{
  EXPECT_EQ(frame_json("<tt:a>\"\\/&#9;&#10;&#13;\x7fé🎥</tt:a>"), "\"a\":\"\\\"\\\\/\\t\\n\\r\x7fé🎥\"");
}

TEST(MetadataJson, EachNamespaceHasOnePrefix)
{
  EXPECT_EQ(frame_json(R"(<p:a xmlns:p="urn:1"><p:b xmlns:p="urn:2"/><c xmlns="urn:3"/><d xmlns="urn:4"/>)"
                       R"(<q:e xmlns:q="urn:1"/></p:a><f xmlns=""/>)"),
            R"("@context":{"p":"urn:1","p2":"urn:2","ns":"urn:3","ns2":"urn:4"},)"
            R"("p:a":{"p2:b":null,"ns:c":null,"ns2:d":null,"p:e":null},"f":null)");
}

TEST(MetadataJson, NamesOfAttributesAreUnique)
{
  EXPECT_EQ(frame_json(R"(<tt:a b="1" tt:b="2" context="3"/>)"), R"("a":{"@b":"1"})");
}

TEST(MetadataJson, AnEvent)
{
  MetadataText text = convert_one(event(
      "tns1:RuleEngine/LineDetector/Crossed",
      R"(<tt:Message UtcTime="2008-10-10T12:24:57.321Z"><tt:Source>)"
      R"(<tt:SimpleItem Name="VideoSource" Value="1"/><tt:SimpleItem Name="AnalyticsConfiguration" Value="2"/>)"
      R"(<tt:SimpleItem Name="Rule" Value="MyImportantFence1"/></tt:Source>)"
      R"(<tt:Data><tt:SimpleItem Name="ObjectId" Value="15"/></tt:Data></tt:Message>)"));
  EXPECT_EQ(text.kind, MetadataKind::EVENT);
  EXPECT_EQ(text.topic, "RuleEngine/LineDetector/Crossed");
  EXPECT_EQ(text.source_values, (std::vector<std::string>{"1", "2", "MyImportantFence1"}));
  EXPECT_EQ(text.operation, PropertyOperation::NONE);
  EXPECT_EQ(text.json,
            R"({"UtcTime":"2008-10-10T12:24:57.321Z",)"
            R"("Source":{"VideoSource":"1","AnalyticsConfiguration":"2","Rule":"MyImportantFence1"},)"
            R"("Data":{"ObjectId":"15"}})");
}

TEST(MetadataJson, AnEventWithAnElement)
{
  MetadataText text = convert_one(
      event("tns1:A", R"(<tt:Message UtcTime="t"><tt:Data><tt:ElementItem Name="Segments"><tt:Polyline>)"
                      R"(<tt:Point x="0.10" y="0.50"/><tt:Point x="1.0" y="0.50"/></tt:Polyline>)"
                      R"(<acme:b/></tt:ElementItem></tt:Data></tt:Message>)"));
  EXPECT_EQ(text.json,
            R"({"UtcTime":"t","@context":{"acme":"http://acme.example/schema"},"Source":{},)"
            R"("Data":{"Segments":{"Polyline":{"Point":[{"@x":0.10,"@y":0.50},{"@x":1.0,"@y":0.50}]},)"
            R"("acme:b":null}}})");
}

TEST(MetadataJson, OperationsAreNotInTheText)
{
  const std::pair<const char *, PropertyOperation> cases[] = {
      {"Initialized", PropertyOperation::INITIALIZED},
      {"Changed", PropertyOperation::CHANGED},
      {"Deleted", PropertyOperation::DELETED},
      {"Other", PropertyOperation::NONE},
  };
  for (const auto &[name, operation] : cases) {
    MetadataText text = convert_one(
        event("tns1:A", std::string(R"(<tt:Message UtcTime="t" PropertyOperation=")") + name + R"("/>)"));
    EXPECT_EQ(text.operation, operation);
    EXPECT_EQ(text.json, R"({"UtcTime":"t","Source":{}})");
  }
}

TEST(MetadataJson, TopicsLoseThePrefixOfOnvifsTopics)
{
  const std::string message = R"(<tt:Message UtcTime="t"/>)";
  EXPECT_EQ(convert_one(event(" tns1:Device/HardwareFailure/acme:LensFailure\n", message)).topic,
            "Device/HardwareFailure/acme:LensFailure");
  EXPECT_EQ(convert_one(event("acme:A/tns1:B", message)).topic, "acme:A/B");
  EXPECT_EQ(convert_one(event("unknown:A", message)).topic, "unknown:A");
}

TEST(MetadataJson, NotificationsWithoutTopicOrMessageAreSkipped)
{
  g_autoptr(GError) error = nullptr;
  std::optional<MetadataTexts> texts = metadata_to_json(
      stream("<tt:Event>" + notification(" ", R"(<tt:Message UtcTime="t"/>)") + notification("tns1:A", "") +
             notification("tns1:B", R"(<tt:Message UtcTime="t"/>)") + "</tt:Event>"),
      &error);
  ASSERT_TRUE(texts.has_value());
  EXPECT_EQ(texts->skipped, 2u);
  ASSERT_EQ(texts->texts.size(), 1u);
  EXPECT_EQ(texts->texts[0].topic, "B");
}

TEST(MetadataJson, TextsAreInTheOrderOfTheDocument)
{
  std::vector<MetadataText> texts = convert(stream(
      R"(<tt:PTZ><tt:PTZStatus/></tt:PTZ><tt:Other/><acme:VideoAnalytics><tt:Frame/></acme:VideoAnalytics>)"
      R"(<tt:VideoAnalytics><acme:Frame/><tt:Frame Source="1"/><tt:Frame Source="2"/></tt:VideoAnalytics>)"));
  ASSERT_EQ(texts.size(), 3u);
  EXPECT_EQ(texts[0].json, R"({"PTZStatus":[{}]})");
  EXPECT_EQ(texts[1].json, R"({"Frame":[{"@Source":"1"}]})");
  EXPECT_EQ(texts[2].json, R"({"Frame":[{"@Source":"2"}]})");
}

TEST(MetadataJson, OtherDocumentsAreRefused)
{
  expect_refused("", "The document cannot be read");
  expect_refused("<a", "The document cannot be read");
  expect_refused(frame("<tt:a>&unknown;</tt:a>"), "The document cannot be read");
  expect_refused("<!DOCTYPE a>" + frame(""), "The document cannot be read");
  expect_refused("<!DOCTYPE a [<!ENTITY b \"c\">]>" + frame("<tt:a>&b;</tt:a>"),
                 "The document cannot be read");
  expect_refused("<a/>", "The document is no stream of metadata");
  expect_refused("<MetadataStream xmlns='urn:a'/>", "The document is no stream of metadata");
}

/* libxml2 has a way of its own to report an error of the encoding. */
TEST(MetadataJson, NothingOfADocumentIsPrinted)
{
  const std::string half_a_surrogate("\xff\xfe<\0a\0>\0\0\xda:\0", 12);
  testing::internal::CaptureStderr();

  expect_refused(half_a_surrogate, "The document cannot be read");

  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(MetadataJson, DocumentsAreBounded)
{
  /* libxml2 has limits of its own for the length of one text or comment. */
  const std::string comment = "<!--" + std::string(1024 * 1024 - 7, 'c') + "-->";
  std::string longest = stream("");
  while (longest.size() + comment.size() <= onvif::METADATA_JSON_DOCUMENT_MAX) {
    longest += comment;
  }
  longest += std::string(onvif::METADATA_JSON_DOCUMENT_MAX - longest.size(), ' ');
  EXPECT_TRUE(convert(longest).empty());
  expect_refused(longest + " ", "The document is too long");
}

std::string
nested(guint depth)
{
  std::string content;
  for (guint i = 0; i < depth; i++) {
    content = "<tt:a>" + content + "</tt:a>";
  }
  return frame(content);
}

TEST(MetadataJson, TheDepthIsBounded)
{
  EXPECT_EQ(convert(nested(onvif::METADATA_JSON_DEPTH_MAX)).size(), 1u);
  expect_refused(nested(onvif::METADATA_JSON_DEPTH_MAX + 1), "The document has too much for its JSON texts");
}

std::string
with_namespaces(gsize count)
{
  std::string content;
  for (gsize i = 0; i < count; i++) {
    content += "<a xmlns='urn:" + std::to_string(i) + "'/>";
  }
  return frame(content);
}

TEST(MetadataJson, NamespacesAreBounded)
{
  EXPECT_EQ(convert(with_namespaces(onvif::METADATA_JSON_NAMESPACES_MAX)).size(), 1u);
  expect_refused(with_namespaces(onvif::METADATA_JSON_NAMESPACES_MAX + 1),
                 "The document has too much for its JSON texts");
}

TEST(MetadataJson, TextsAreBoundedTogether)
{
  /* Each frame repeats the long name of the namespace. */
  std::string uri(1024 * 1024, 'u');
  gsize count = onvif::METADATA_JSON_TEXTS_MAX / uri.size();
  std::string content;
  for (gsize i = 0; i < count - 1; i++) {
    content += "<tt:Frame><n:a/></tt:Frame>";
  }
  std::string begin = "<tt:VideoAnalytics xmlns:n='" + uri + "'>";
  EXPECT_EQ(convert(stream(begin + content + "</tt:VideoAnalytics>")).size(), count - 1);
  expect_refused(stream(begin + content + "<tt:Frame><n:a/></tt:Frame></tt:VideoAnalytics>"),
                 "The document has too much for its JSON texts");
}

} // namespace
