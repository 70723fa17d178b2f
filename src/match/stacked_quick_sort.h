// The sort behind both rankings: a quicksort with two explicit stacks, so that
// no number of hits can overflow the call stack.
//
// The stacks hold the left and the right bounds of what is still to be sorted.
// A hit list is rarely in random order. Resending one large document gives a
// list of equal entries, so those equal to the pivot are set aside with it. A
// passage that many documents share gives ascending runs, whose middle may
// well be their largest entry; after a partition as uneven as that the next
// pivots come from anywhere in their range.
// Tests: tests/unit/match/stacked_quick_sort_test.cpp.
#pragma once

#include <algorithm>
#include <cstdint>

#include "growing_stack.h"

enum class QuickSortResult {
  kSorted,
  kNoStack,      // no memory to start with
  kNoLeftRoom,   // none for more left bounds
  kNoRightRoom,  // none for more right bounds
};

// Sorts the entries 0 to n - 1 of whatever `compare` and `swap` know them as:
// compare(a, b) tells by its sign how entry a stands to entry b, swap(a, b)
// exchanges them. After a failure the entries are all there, in any order.
template <typename Compare, typename Swap>
QuickSortResult stackedQuickSort(uint32_t n, const Compare& compare, const Swap& swap) {
  constexpr size_t kCapacity = 10000;
  constexpr size_t kStep = 1000;
  constexpr uint32_t kUnevenFrom = 64;  // shorter ranges are quick in any order

  if (n < 2) return QuickSortResult::kSorted;
  GrowingStack<uint32_t> l(kCapacity, kStep);
  GrowingStack<uint32_t> r(kCapacity, kStep);
  if (!l.allocated() || !r.allocated()) return QuickSortResult::kNoStack;
  l.push(0);
  r.push(n - 1);

  bool uneven = false;
  uint32_t random = 1;
  while (!l.empty()) {
    const uint32_t lo = l.pop();
    const uint32_t hi = r.pop();
    const uint32_t distance = hi - lo;
    uint32_t pivot = lo + distance / 2;
    if (uneven) {
      random = random * 1664525 + 1013904223;
      pivot = lo + static_cast<uint32_t>(uint64_t{distance} * random >> 32);
    }

    swap(lo, pivot);
    uint32_t less_end = lo;  // the last entry that is less than the pivot
    bool equals = false;
    for (uint32_t k = lo + 1; k <= hi; ++k) {
      const int order = compare(k, lo);
      if (order < 0) swap(++less_end, k);
      equals = equals || order == 0;
    }
    swap(lo, less_end);
    uint32_t equal_end = less_end;  // the last one equal to it
    if (equals) {
      for (uint32_t k = less_end + 1; k <= hi; ++k) {
        if (compare(k, less_end) == 0) swap(++equal_end, k);
      }
    }

    const uint32_t longer = std::max(less_end - lo, hi - equal_end);
    uneven = uneven || (distance >= kUnevenFrom && longer > distance - distance / 16);
    if (equal_end + 1 < hi) {
      if (!l.push(equal_end + 1)) return QuickSortResult::kNoLeftRoom;
      if (!r.push(hi)) return QuickSortResult::kNoRightRoom;
    }
    if (less_end > 0 && lo < less_end - 1) {
      if (!l.push(lo)) return QuickSortResult::kNoLeftRoom;
      if (!r.push(less_end - 1)) return QuickSortResult::kNoRightRoom;
    }
  }
  return QuickSortResult::kSorted;
}
