#include "signature_locator.h"

#include <algorithm>

namespace {

constexpr uint32_t kReadWhole = 256;  // elements: shorter ranges are not probed
constexpr uint32_t kProbe = 192;      // elements of a probe

// Where between its ends the bracket's keys would have `key`, were they spread
// evenly.
uint32_t evenPlace(uint64_t key, uint32_t low, uint32_t high, uint64_t least, uint64_t most) {
  if (key <= least) return low;
  if (key >= most) return high;
  const double share = static_cast<double>(key - least) / static_cast<double>(most - least);
  return low + static_cast<uint32_t>(share * (high - low));
}

}  // namespace

SignatureLocator::SignatureLocator(const StrongTable& table, const PrefixRange* directory,
                                   uint32_t load_limit)
    : table_(table), directory_(directory), capacity_(std::min(load_limit, kMostReadElements)) {}

bool SignatureLocator::allocate() {
  if (!window_) window_ = mallocArray<StrongElement>(capacity_);
  return window_ != nullptr;
}

ReadResult SignatureLocator::locate(const QuerySpan& query, uint32_t low, uint32_t high,
                                    uint32_t* first, uint32_t* last) {
  if (low > high || high > table_.ele_num) return ReadResult::kReadFailed;
  query_ = query;
  bounds_ = {low, high};
  for (uint32_t i = 0; i < query.n; ++i) {
    if (query.bOut[i] != 0) continue;
    const Bounds bounds = boundsOf(query.signatures[i]);
    const uint64_t key = signatureKey(query.signatures[i]);
    const uint64_t least = key >> 48 << 48;
    const uint64_t most = least | (UINT64_MAX >> 16);
    ReadResult result = lowerBound(key, {bounds.low, bounds.high, least, most}, i + 1, &first[i]);
    if (result != ReadResult::kDone) return result;
    if (key == UINT64_MAX) {
      last[i] = bounds.high;
      continue;
    }
    result = lowerBound(key + 1, {first[i], bounds.high, key, most}, i + 1, &last[i]);
    if (result != ReadResult::kDone) return result;
  }
  return ReadResult::kDone;
}

// The part of [bounds_.low, bounds_.high) that has the signature's prefix.
SignatureLocator::Bounds SignatureLocator::boundsOf(const Signature& signature) const {
  const PrefixRange& range = directory_[signaturePrefix(signature)];
  const uint32_t low = std::clamp(range.start, bounds_.low, bounds_.high);
  return {low, std::clamp(range.end, low, bounds_.high)};
}

// The first of the elements [from, to) with the key or more; `to` if there is none.
uint32_t SignatureLocator::placeInWindow(uint64_t key, uint32_t from, uint32_t to) const {
  while (from < to) {
    const uint32_t mid = from + (to - from) / 2;
    if (keyAt(mid) < key) {
      from = mid + 1;
    } else {
      to = mid;
    }
  }
  return from;
}

// `next` is the query's next signature.
ReadResult SignatureLocator::lowerBound(uint64_t key, Bracket bracket, uint32_t next,
                                        uint32_t* position) {
  bool guess = true;
  while (bracket.low < bracket.high) {
    if (end_ <= bracket.low || bracket.high <= begin_) {
      const ReadResult result = readWindow(key, bracket, next, guess);
      if (result != ReadResult::kDone) return result;
      guess = !guess;
    }
    const uint32_t from = std::max(bracket.low, begin_);
    const uint32_t to = std::min(bracket.high, end_);
    const uint32_t place = placeInWindow(key, from, to);
    if (place == from && from > bracket.low) {
      bracket.high = from;
      bracket.most = keyAt(from);
    } else if (place == to && to < bracket.high) {
      bracket.low = to;
      bracket.least = keyAt(to - 1);
    } else {
      *position = place;
      return ReadResult::kDone;
    }
  }
  *position = bracket.low;
  return ReadResult::kDone;
}

ReadResult SignatureLocator::readWindow(uint64_t key, const Bracket& bracket, uint32_t next,
                                        bool guess) {
  const uint32_t count = bracket.high - bracket.low;
  uint32_t from = bracket.low;
  uint32_t to = 0;
  if (count <= std::min(kReadWhole, capacity_)) {
    to = joinedEnd(bracket, next);
  } else {
    const uint32_t width = std::min(kProbe, capacity_);
    const uint32_t middle =
        guess ? evenPlace(key, bracket.low, bracket.high, bracket.least, bracket.most)
              : bracket.low + count / 2;
    from = std::min(middle - std::min(middle - bracket.low, width / 2), bracket.high - width);
    to = from + width;
  }
  begin_ = end_ = 0;
  const ReadResult result = readElements(table_.file, from, to - from, window_.get());
  if (result != ReadResult::kDone) return result;
  begin_ = from;
  end_ = to;
  return result;
}

// The end of a read that begins with the bracket and takes in the ranges of the
// next signatures as far as they ascend, lie close and fit.
uint32_t SignatureLocator::joinedEnd(const Bracket& bracket, uint32_t next) const {
  uint32_t end = bracket.high;
  for (; next < query_.n; ++next) {
    if (query_.bOut[next] != 0) continue;
    const Bounds bounds = boundsOf(query_.signatures[next]);
    if (bounds.low < bracket.low || bounds.high < end) break;
    if (bounds.high - end > kReadGap || bounds.high - bracket.low > capacity_) break;
    end = bounds.high;
  }
  return end;
}
