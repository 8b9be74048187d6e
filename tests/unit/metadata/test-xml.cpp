/* SPDX-License-Identifier: MIT */
#include "xml.h"

#include "hostiletext.h"
#include "metadatareader.h"

#include <gtest/gtest.h>

using onvif::TT;
using onvif::XmlWriter;

namespace
{

std::string
with_attribute(const std::string &value)
{
  XmlWriter writer;
  writer.start(TT, "A");
  writer.declare(TT);
  writer.attribute("b", value);
  writer.end();
  return std::string(writer.written());
}

std::string
with_text(const std::string &text)
{
  XmlWriter writer;
  writer.start(TT, "A");
  writer.declare(TT);
  writer.text(text);
  writer.end();
  return std::string(writer.written());
}

std::string
number(double value, int decimals)
{
  XmlWriter writer;
  writer.start(TT, "A");
  writer.declare(TT);
  writer.attribute_number("b", value, decimals);
  writer.end();
  return evaluate(std::string(writer.written()), "string(/tt:A/@b)");
}

TEST(Xml, ElementsAreNested)
{
  XmlWriter writer;
  writer.start(TT, "A");
  writer.declare(TT);
  writer.attribute_integer("least", G_MININT64);
  writer.attribute_integer("most", G_MAXINT64);
  writer.start(TT, "B");
  writer.attribute("c", "d");
  writer.end();
  writer.element(TT, "E", "f");
  writer.element_number(TT, "G", 0.5, 2);
  writer.end();
  EXPECT_EQ(writer.written(), "<tt:A xmlns:tt=\"http://www.onvif.org/ver10/schema\" "
                              "least=\"-9223372036854775808\" most=\"9223372036854775807\">"
                              "<tt:B c=\"d\"/><tt:E>f</tt:E><tt:G>0.50</tt:G></tt:A>");
}

TEST(Xml, WrittenTextIsHandedOver)
{
  XmlWriter writer;
  writer.start(TT, "A");
  writer.end();
  gsize size = 0;
  g_autofree char *text = writer.take(&size);
  EXPECT_EQ(std::string(text, size), "<tt:A/>");
}

TEST(Xml, LongTextsAreWritten)
{
  std::string text = repeat("<a>", 100000);
  EXPECT_EQ(evaluate(with_text(text), "string(/tt:A)"), text);
  EXPECT_EQ(evaluate(with_attribute(text), "string(/tt:A/@b)"), text);
}

struct Written {
  HostileText bytes;
  std::string read;
};

TEST(Xml, AnyBytesAreWritten)
{
  for (const Written &text :
       {Written{"", ""}, Written{"a b", "a b"}, Written{"&<>\"'", "&<>\"'"}, Written{"]]>", "]]>"},
        Written{"&amp;&#10;", "&amp;&#10;"}, Written{"a\nb\rc\td\r\n", "a\nb\rc\td\r\n"},
        Written{"\x01\x1f\x7f", "\xef\xbf\xbd\xef\xbf\xbd\x7f"},
        Written{std::string("a\0b", 3), "a\xef\xbf\xbd"
                                        "b"},
        Written{"\xc3\xa9", "\xc3\xa9"}, Written{"\xf0\x9f\x8e\xa5", "\xf0\x9f\x8e\xa5"},
        Written{"\xef\xbf\xbe", "\xef\xbf\xbd"}, Written{"\xc3", "\xef\xbf\xbd"},
        Written{"\xff<", "\xef\xbf\xbd<"}, Written{"\xed\xa0\x80", "\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd"}}) {
    EXPECT_EQ(evaluate(with_text(text.bytes.text), "string(/tt:A)"), text.read);
    EXPECT_EQ(evaluate(with_attribute(text.bytes.text), "string(/tt:A/@b)"), text.read);
    EXPECT_EQ(with_text(text.bytes.text).find_first_of("\n\r\t"), std::string::npos);
    EXPECT_EQ(with_attribute(text.bytes.text).find_first_of("\n\r\t"), std::string::npos);
  }
}

struct Number {
  double value;
  int decimals;
  const char *text;
};

TEST(Xml, NumbersAreRounded)
{
  for (const Number &expected :
       {Number{0, 4, "0.0000"}, Number{-0.0, 4, "0.0000"}, Number{-0.00004, 4, "0.0000"},
        Number{-0.00006, 4, "-0.0001"}, Number{0.6, 4, "0.6000"}, Number{-1, 4, "-1.0000"},
        Number{0.99994, 4, "0.9999"}, Number{0.99996, 4, "1.0000"}, Number{0.125, 2, "0.12"},
        Number{0.375, 2, "0.38"}, Number{-0.125, 2, "-0.12"}, Number{2.5, 0, "2"}, Number{3.5, 0, "4"},
        Number{0.96, 2, "0.96"}, Number{123456.789, 2, "123456.79"}, Number{8.123456789, 9, "8.123456789"},
        Number{1e15, 1, "1000000000000000.0"}, Number{-4e9, 0, "-4000000000"}, Number{1e-300, 2, "0.00"}}) {
    EXPECT_EQ(number(expected.value, expected.decimals), expected.text) << expected.value;
  }
  EXPECT_EQ(number(-G_MAXDOUBLE, 9).size(), 1 + 309 + 1 + 9u);
}

TEST(Xml, BeginningsHaveWholeCharacters)
{
  EXPECT_EQ(onvif::xml_beginning("abc", 3), "abc");
  EXPECT_EQ(onvif::xml_beginning("abc", 2), "ab");
  EXPECT_EQ(onvif::xml_beginning("abc", 0), "");
  EXPECT_EQ(onvif::xml_beginning("\xc3\xa9\xc3\xa9", 1), "\xc3\xa9");
  EXPECT_EQ(onvif::xml_beginning("\xff\xff\xff", 2), "\xff\xff") << "each invalid byte counts";
  EXPECT_EQ(onvif::xml_beginning(repeat("\x80", 1000), 10).size(), 10u);
  EXPECT_EQ(onvif::xml_beginning("\xe2\x82", 1), "\xe2");
}

TEST(Xml, TimesAreUtc)
{
  EXPECT_EQ(onvif::xml_date_time(0), "1970-01-01T00:00:00.000000Z");
  EXPECT_EQ(onvif::xml_date_time(G_GINT64_CONSTANT(1709251199999999)), "2024-02-29T23:59:59.999999Z");
  EXPECT_EQ(onvif::xml_date_time(G_GINT64_CONSTANT(4102444799000001)), "2099-12-31T23:59:59.000001Z");
  EXPECT_EQ(onvif::xml_date_time(-1), "1969-12-31T23:59:59.999999Z");
}

} // namespace
