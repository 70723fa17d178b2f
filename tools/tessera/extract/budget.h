// What a document has left of its limits. Each limit is enforced here and nowhere else,
// but for the memory, which belongs to the process.
// Tests: tests/tool/extraction_test.cpp.
#pragma once

#include <chrono>

#include "extract/limits.h"

namespace tool {

class Budget {
 public:
  explicit Budget(const Limits& limits);  // the time begins to run

  const Limits& limits() const { return limits_; }

  void addTime(std::chrono::steady_clock::duration time) { end_ += time; }

  // All of them throw NotInspected when the limit is reached.
  void checkTime() const;
  void checkDepth(uint32_t depth) const;  // of a member: 1 in the document itself
  void countMember();
  void checkExpansion(uint64_t bytes, uint64_t compressed) const;  // of one member
  void countExpanded(uint64_t bytes);

  uint64_t memberRoom() const;
  unsigned secondsLeft() const;

 private:
  uint64_t roomInAll() const { return limits_.total_bytes - expanded_; }

  const Limits limits_;
  std::chrono::steady_clock::time_point end_;
  uint64_t expanded_ = 0;  // never above the limit
  uint32_t members_ = 0;
};

}  // namespace tool
