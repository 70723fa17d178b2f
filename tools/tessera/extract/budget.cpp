#include "extract/budget.h"

#include <algorithm>
#include <string>

#include "extract/extraction.h"

namespace tool {

using std::chrono::steady_clock;

Budget::Budget(const Limits& limits)
    : limits_(limits), end_(steady_clock::now() + std::chrono::seconds(limits.seconds)) {}

void Budget::checkTime() const {
  if (steady_clock::now() < end_) return;
  throw NotInspected(Reason::kTimeLimit,
                     "took longer than " + std::to_string(limits_.seconds) + " s");
}

void Budget::checkDepth(uint32_t depth) const {
  if (depth <= limits_.depth) return;
  throw NotInspected(Reason::kDepthLimit,
                     "inside more than " + std::to_string(limits_.depth) + " containers");
}

void Budget::countMember() {
  if (members_ >= limits_.members) {
    throw NotInspected(Reason::kMemberLimit,
                       "more than " + std::to_string(limits_.members) + " members");
  }
  ++members_;
}

void Budget::checkExpansion(uint64_t bytes, uint64_t compressed) const {
  checkTime();
  if (bytes > limits_.member_bytes) {
    throw NotInspected(Reason::kSizeLimit,
                       "larger than " + std::to_string(limits_.member_bytes) + " bytes");
  }
  if (bytes > roomInAll()) {
    throw NotInspected(Reason::kSizeLimit, "all members together are larger than " +
                                               std::to_string(limits_.total_bytes) + " bytes");
  }
  if (compressed > 0 && beyondRatio(limits_, bytes, compressed)) {
    throw NotInspected(Reason::kRatioLimit,
                       "expands to more than " + std::to_string(limits_.ratio) + " times its size");
  }
}

void Budget::countExpanded(uint64_t bytes) {
  checkExpansion(bytes, 0);
  expanded_ += bytes;
}

uint64_t Budget::memberRoom() const { return std::min(limits_.member_bytes, roomInAll()); }

unsigned Budget::secondsLeft() const {
  const auto left = std::chrono::duration_cast<std::chrono::seconds>(end_ - steady_clock::now());
  return static_cast<unsigned>(std::max<std::chrono::seconds::rep>(left.count(), 0)) + 1;
}

}  // namespace tool
