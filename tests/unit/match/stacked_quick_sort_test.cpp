#include "stacked_quick_sort.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <string>
#include <vector>

#include "adversary.h"
#include "documents.h"
#include "fail_point.h"

namespace {

struct Sorted {
  QuickSortResult result;
  uint64_t comparisons;
};

Sorted sort(std::vector<int>* values) {
  uint64_t comparisons = 0;
  const QuickSortResult result = stackedQuickSort(
      static_cast<uint32_t>(values->size()),
      [&](uint32_t a, uint32_t b) {
        ++comparisons;
        const int left = (*values)[a];
        const int right = (*values)[b];
        return left < right ? -1 : left > right ? 1 : 0;
      },
      [&](uint32_t a, uint32_t b) { std::swap((*values)[a], (*values)[b]); });
  return {result, comparisons};
}

TEST(StackedQuickSort, NoneAndOneAreSortedWithoutMemory) {
  FailPoint point;
  point.fail(Call::kAllocate, 1, true);
  std::vector<int> none;
  std::vector<int> one = {7};
  EXPECT_EQ(QuickSortResult::kSorted, sort(&none).result);
  EXPECT_EQ(QuickSortResult::kSorted, sort(&one).result);
  EXPECT_EQ(0, point.count());
}

TEST(StackedQuickSort, EveryArrangementOfFewValuesIsSorted) {
  for (int n = 2; n <= 7; ++n) {
    std::vector<int> values(static_cast<size_t>(n));
    int arrangements = 1;
    for (int i = 0; i < n; ++i) arrangements *= 4;
    for (int arrangement = 0; arrangement < arrangements; ++arrangement) {
      for (int i = 0, rest = arrangement; i < n; ++i, rest /= 4) {
        values[static_cast<size_t>(i)] = rest % 4;
      }
      std::vector<int> expected = values;
      std::sort(expected.begin(), expected.end());
      ASSERT_EQ(QuickSortResult::kSorted, sort(&values).result);
      ASSERT_EQ(expected, values) << "arrangement " << arrangement;
    }
  }
}

TEST(StackedQuickSort, RandomValuesAreSorted) {
  const uint64_t seed = documents::seed(20240701);
  SCOPED_TRACE("TESSERA_SEED=" + std::to_string(seed));
  documents::Random random(seed);
  for (int round = 0; round < 300; ++round) {
    std::vector<int> values(random.below(400));
    const uint64_t spread = 1 + random.below(500);
    for (int& value : values) value = static_cast<int>(random.below(spread));
    std::vector<int> expected = values;
    std::sort(expected.begin(), expected.end());
    ASSERT_EQ(QuickSortResult::kSorted, sort(&values).result);
    ASSERT_EQ(expected, values);
  }
}

// What a hit list looks like in practice, none of it random. A quadratic sort
// takes thousands of comparisons per value here.
TEST(StackedQuickSort, HitListsOfEveryShapeStayFarFromQuadratic) {
  constexpr int kValues = 60000;
  const auto expectQuick = [](const char* shape, std::vector<int> values) {
    std::vector<int> expected = values;
    std::sort(expected.begin(), expected.end());
    const Sorted sorted = sort(&values);
    EXPECT_EQ(QuickSortResult::kSorted, sorted.result) << shape;
    EXPECT_EQ(expected, values) << shape;
    EXPECT_LT(sorted.comparisons, 60u * kValues) << shape;
  };
  std::vector<int> values(kValues, 5);
  expectQuick("all equal", values);
  std::iota(values.begin(), values.end(), 0);
  expectQuick("ascending", values);
  std::reverse(values.begin(), values.end());
  expectQuick("descending", values);
  for (const int runs : {2, 3, 4, 5, 16, 40, 1000}) {
    for (int i = 0; i < kValues; ++i) values[static_cast<size_t>(i)] = i % (kValues / runs);
    expectQuick("ascending runs", values);
  }
  for (int i = 0; i < kValues; ++i) values[static_cast<size_t>(i)] = std::min(i, kValues - i);
  expectQuick("up and down", values);
  for (int i = 0; i < kValues; ++i) values[static_cast<size_t>(i)] = i % 2;
  expectQuick("two values", values);
}

TEST(StackedQuickSort, EitherStackMissingAtTheStartIsTold) {
  for (const int n : {1, 2}) {
    FailPoint point;
    point.fail(Call::kAllocate, n);
    std::vector<int> values = {2, 1};
    EXPECT_EQ(QuickSortResult::kNoStack, sort(&values).result);
    EXPECT_EQ((std::vector<int>{2, 1}), values);
  }
}

// Three values for each pair of bounds that waits.
TEST(StackedQuickSort, TheStacksStartWith10000EntriesAndGrowBy1000) {
  const std::pair<uint32_t, int> sizes_and_allocations[] = {{29970, 2}, {33060, 6}};
  for (const auto& [size, allocations] : sizes_and_allocations) {
    std::vector<int> values = adversary::deepestSort(size);
    std::vector<int> expected = values;
    std::sort(expected.begin(), expected.end());
    FailPoint point;
    point.fail(Call::kAllocate, 0);
    EXPECT_EQ(QuickSortResult::kSorted, sort(&values).result);
    EXPECT_EQ(expected, values);
    EXPECT_EQ(allocations, point.count()) << size;
  }
}

}  // namespace
