// Blocks of memory for plain values.
#include "scoped.h"

#include <gtest/gtest.h>

#include "fail_point.h"

namespace {

TEST(MallocArray, HasRoomForItsValues) {
  FailPoint point;
  const auto block = mallocArray<uint64_t>(3);
  ASSERT_TRUE(block);
  EXPECT_EQ(24u, point.bytesAllocated());
}

TEST(MallocArray, ASizeBeyondThatOfTheMemoryIsRefusedUnasked) {
  FailPoint point;
  EXPECT_FALSE(mallocArray<uint64_t>(SIZE_MAX / 8 + 1));  // 0 bytes, cut to a size
  EXPECT_FALSE(mallocArray<uint64_t>(SIZE_MAX));
  EXPECT_EQ(0u, point.bytesAllocated());
}

}  // namespace
