#include "growing_stack.h"

#include <gtest/gtest.h>

#include "fail_point.h"

namespace {

TEST(GrowingStack, TheLastPushedIsPoppedFirst) {
  GrowingStack<int> stack(4, 2);
  ASSERT_TRUE(stack.allocated());
  EXPECT_TRUE(stack.empty());
  EXPECT_TRUE(stack.push(1));
  EXPECT_TRUE(stack.push(2));
  EXPECT_EQ(2, stack.pop());
  EXPECT_TRUE(stack.push(3));
  EXPECT_EQ(3, stack.pop());
  EXPECT_EQ(1, stack.pop());
  EXPECT_TRUE(stack.empty());
}

TEST(GrowingStack, AFullStackGrowsByItsStepAndKeepsItsEntries) {
  FailPoint point;
  point.fail(Call::kAllocate, 0);
  GrowingStack<int> stack(4, 2);
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(stack.push(i));
  EXPECT_EQ(1, point.count());
  EXPECT_TRUE(stack.push(3));  // full: now there are 6
  EXPECT_EQ(2, point.count());
  EXPECT_TRUE(stack.push(4));
  EXPECT_EQ(2, point.count());
  EXPECT_TRUE(stack.push(5));  // 8
  EXPECT_EQ(3, point.count());
  for (int i = 6; i < 1000; ++i) ASSERT_TRUE(stack.push(i));
  for (int i = 1000; i-- > 0;) ASSERT_EQ(i, stack.pop());
}

TEST(GrowingStack, AStackThatCannotGrowSaysSoWhenItIsFull) {
  FailPoint point;
  point.fail(Call::kAllocate, 2);
  GrowingStack<int> stack(2, 2);
  EXPECT_TRUE(stack.push(1));
  EXPECT_FALSE(stack.push(2));
  EXPECT_EQ(2, stack.pop());
  EXPECT_EQ(1, stack.pop());
}

TEST(GrowingStack, AStackWithoutItsFirstBlockIsNotAllocated) {
  FailPoint point;
  point.fail(Call::kAllocate, 1);
  EXPECT_FALSE(GrowingStack<int>(2, 2).allocated());
}

}  // namespace
