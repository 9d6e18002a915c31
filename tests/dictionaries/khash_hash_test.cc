#include "dictionaries/khash_hash.h"

#include "gtest/gtest.h"

namespace qopci {
namespace {

TEST(KhashHashTest, FirstInsertMakesFourBuckets) {
  KhashHash<int, int> table(false);
  EXPECT_TRUE(table.Insert(7, 1));
  EXPECT_EQ(table.BucketCount(), 4u);
  EXPECT_EQ(table.UpperBound(), 3u);
}

}  // namespace
}  // namespace qopci
