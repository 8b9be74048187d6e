/* SPDX-License-Identifier: MIT */
#include "headers.h"

#include "syncscanner.h"
#include "testhost.h"

namespace
{

class HeadersTest : public testhost::Fixture
{
};

} // namespace

TEST_F(HeadersTest, DeclareObjectsForC)
{
  EXPECT_TRUE(use_factory_from_c());
}

TEST_F(HeadersTest, DeclareStructuresForC)
{
  EXPECT_EQ(count_syncs_from_c("SYNC\nother\nSYNC\n"), 2U);
  EXPECT_EQ(size_of_scanner_in_c(), sizeof(SyncScanner));
}
