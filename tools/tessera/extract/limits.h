// How much of this machine a document may take before it is given up.
#pragma once

#include <cstdint>

namespace tool {

struct Limits {
  uint32_t seconds = 120;              // from opening a document to its last member
  uint64_t total_bytes = 100'000'000;  // expanded, of all members together
  uint64_t member_bytes = 25'000'000;  // expanded, of one member
  uint32_t depth = 16;                 // containers inside each other
  uint32_t members = 10'000;           // of a document, at all depths together
  uint32_t ratio = 100;                // expanded bytes for a compressed one, beyond the first MiB
  uint64_t memory_bytes = 1 << 30;     // of an extractor process
};

// The first MiB is free: small and blank is no bomb.
constexpr bool beyondRatio(const Limits& limits, uint64_t expanded, uint64_t compressed) {
  constexpr uint64_t kFree = 1 << 20;
  return expanded > kFree &&
         (expanded - kFree) / (limits.ratio > 0 ? limits.ratio : 1) > compressed;
}

}  // namespace tool
