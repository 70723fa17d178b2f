// An input on which the sort's stacks grow as deep as they can.
#pragma once

#include <cstdint>
#include <numeric>
#include <utility>
#include <vector>

#include "stacked_quick_sort.h"

namespace adversary {

// Values of which every pivot leaves two on its right and all the others on its
// left, so that one pair of bounds after the other waits on the stacks. Found by
// letting the sort run on values that are only decided when it asks for them.
inline std::vector<int> deepestSort(uint32_t n) {
  constexpr int kOpen = -1;
  std::vector<int> values(n, kOpen);
  std::vector<uint32_t> order(n);  // which value stands where by now
  std::iota(order.begin(), order.end(), 0);
  int next = static_cast<int>(n) - 1;  // the largest number not given yet
  uint32_t pivot = n;
  int larger = 0;  // than the pivot, decided so far
  const auto compare = [&](uint32_t a, uint32_t b) {
    const uint32_t left = order[a];
    const uint32_t right = order[b];
    if (values[left] == kOpen && values[right] == kOpen) {
      if (right != pivot) {
        pivot = right;
        larger = 0;
      }
      if (larger < 2) {
        ++larger;
        values[left] = next--;
      } else {
        values[right] = next--;
      }
    }
    return values[left] < values[right] ? -1 : values[left] > values[right] ? 1 : 0;
  };
  stackedQuickSort(n, compare, [&](uint32_t a, uint32_t b) { std::swap(order[a], order[b]); });
  for (int& value : values) {
    if (value == kOpen) value = next--;
  }
  return values;
}

}  // namespace adversary
