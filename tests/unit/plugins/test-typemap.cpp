/* SPDX-License-Identifier: MIT */
#include "typemap.h"

#include <gtest/gtest.h>

namespace
{

class TypeMapTest : public testing::Test
{
protected:
  std::string find(const std::string &word) const
  {
    const gchar *type = g_quark_to_string(map_.find(g_quark_from_string(word.c_str())));
    return type != nullptr ? type : "";
  }

  plugins::TypeMap map_;
};

const std::string LONGEST(64, 'x');

} // namespace

TEST_F(TypeMapTest, WithoutPairsAWordIsTheType)
{
  EXPECT_EQ(map_.parse(nullptr), "");
  EXPECT_EQ(find("person"), "person");
  EXPECT_EQ(map_.parse(""), "");
  EXPECT_EQ(find("person"), "person");
}

TEST_F(TypeMapTest, NoWordIsNoType)
{
  map_.parse("person=Human");
  EXPECT_EQ(map_.find(0), 0U);
}

TEST_F(TypeMapTest, WordIsReplacedByItsType)
{
  EXPECT_EQ(map_.parse("person=Human,car=Vehicle,a dog=Animal"), "");
  EXPECT_EQ(find("person"), "Human");
  EXPECT_EQ(find("car"), "Vehicle");
  EXPECT_EQ(find("a dog"), "Animal");
  EXPECT_EQ(find("Human"), "Human");
  EXPECT_EQ(find("Person"), "Person");
  EXPECT_EQ(find("bird"), "bird");
}

TEST_F(TypeMapTest, BlanksAroundWordsAndTypesAreIgnored)
{
  EXPECT_EQ(map_.parse("  person = Human ,\tcar =\nMotor vehicle "), "");
  EXPECT_EQ(find("person"), "Human");
  EXPECT_EQ(find("car"), "Motor vehicle");
}

TEST_F(TypeMapTest, LastPairOfAWordCounts)
{
  EXPECT_EQ(map_.parse("person=Face,person=Human"), "");
  EXPECT_EQ(find("person"), "Human");
}

TEST_F(TypeMapTest, TypeCanHave64Characters)
{
  EXPECT_EQ(map_.parse(("person=" + LONGEST).c_str()), "");
  EXPECT_EQ(find("person"), LONGEST);
}

TEST_F(TypeMapTest, MalformedPairIsReturnedAndLeftOut)
{
  for (const std::string &malformed :
       {std::string("person"), std::string("person="), std::string("=Human"), std::string("="),
        std::string("person=Human=Face"), "person=" + LONGEST + "x", std::string("person=A\tB"),
        std::string("person=\xff")}) {
    EXPECT_EQ(map_.parse(("car=Vehicle, " + malformed + " ,dog=Animal").c_str()), malformed);
    EXPECT_EQ(find("car"), "Vehicle");
    EXPECT_EQ(find("person"), "person");
    EXPECT_EQ(find("dog"), "Animal");
  }
}

TEST_F(TypeMapTest, FirstMalformedPairIsReturned)
{
  EXPECT_EQ(map_.parse("person,car"), "person");
}

TEST_F(TypeMapTest, CommaAtTheEndIsIgnored)
{
  EXPECT_EQ(map_.parse("person=Human,"), "");
  EXPECT_EQ(map_.parse(" , person=Human"), "");
  EXPECT_EQ(find("person"), "Human");
}

TEST_F(TypeMapTest, PairsAreReplacedTogether)
{
  map_.parse("person=Human");
  map_.parse("car=Vehicle");
  EXPECT_EQ(find("person"), "person");
}
