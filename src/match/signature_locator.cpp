#include "signature_locator.h"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace {

constexpr uint32_t kReadWhole = 96;   // elements: shorter ranges are not probed
constexpr uint32_t kMostProbe = 512;  // elements of a window

// Elements to read around the place where one of `count` is expected: three standard
// deviations to either side, were they random, and some more for the runs.
uint32_t probeWidth(uint32_t count) {
  return std::min(16 + static_cast<uint32_t>(3 * std::sqrt(count)), kMostProbe);
}

unsigned byteOf(uint64_t key, int number) {
  return static_cast<unsigned>(key >> (56 - 8 * number) & 255);
}

}  // namespace

Spread::Spread(const PrefixRange* directory) {
  std::array<uint64_t, 257> before = {};
  for (uint32_t prefix = 0; prefix < kPrefixCount; ++prefix) {
    before[prefix % 256 + 1] += directory[prefix].end - directory[prefix].start;
  }
  std::partial_sum(before.begin(), before.end(), before.begin());
  if (before[256] == 0) return;
  std::transform(before.begin(), before.end(), below_.begin(), [&](uint64_t count) {
    return static_cast<double>(count) / static_cast<double>(before[256]);
  });
}

double Spread::below(uint64_t key) const {
  double share = byteOf(key, 5) / 256.0;
  for (int number = 4; number >= 2; --number) {
    const unsigned byte = byteOf(key, number);
    share = below_[byte] + share * (below_[byte + 1] - below_[byte]);
  }
  return share;
}

bool KeptPairs::allocate() {
  if (!pairs_) pairs_ = mallocArray<FsidPair>(capacity_);
  if (!runs_) runs_ = mallocArray<Run>(sig_num_);
  return pairs_ && runs_;
}

void KeptPairs::keep(uint32_t first, uint32_t last, const StrongElement* elements) {
  if (last - first > capacity_ - pair_num_) return;
  runs_[run_num_++] = {first, last};
  for (const StrongElement* end = elements + (last - first); elements < end; ++elements) {
    pairs_[pair_num_++] = {elements->fid, elements->source};
  }
}

const FsidPair* KeptPairs::take(uint32_t first, uint32_t last) {
  if (runs_taken_ == run_num_) return nullptr;
  const Run& next = runs_[runs_taken_];
  if (next.first != first || next.last != last) return nullptr;
  ++runs_taken_;
  const FsidPair* const pairs = pairs_.get() + pairs_taken_;
  pairs_taken_ += last - first;
  return pairs;
}

SignatureLocator::SignatureLocator(const StrongTable& table, const PrefixRange* directory,
                                   const Spread& spread, uint32_t load_limit, KeptPairs* kept)
    : table_(table),
      directory_(directory),
      spread_(spread),
      kept_(kept),
      capacity_(std::min(load_limit, kMostReadElements)) {}

bool SignatureLocator::allocate() {
  if (!window_) window_ = mallocArray<StrongElement>(capacity_);
  return window_ && (kept_ == nullptr || kept_->allocate());
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
    ReadResult result = lowerBound(key, {bounds.low, bounds.high, 0, 1}, i + 1, &first[i]);
    if (result != ReadResult::kDone) return result;
    last[i] = bounds.high;
    if (key != UINT64_MAX) {
      result = lowerBound(key + 1, {first[i], bounds.high, 0, 1}, i + 1, &last[i]);
      if (result != ReadResult::kDone) return result;
    }
    if (kept_ != nullptr && begin_ <= first[i] && first[i] < last[i] && last[i] <= end_) {
      kept_->keep(first[i], last[i], &window_[first[i] - begin_]);
    }
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
      bracket.below_high = spread_.below(keyAt(from));
    } else if (place == to && to < bracket.high) {
      bracket.low = to;
      bracket.below_low = spread_.below(keyAt(to - 1));
    } else {
      *position = place;
      return ReadResult::kDone;
    }
  }
  *position = bracket.low;
  return ReadResult::kDone;
}

uint32_t SignatureLocator::expectedPlace(uint64_t key, const Bracket& bracket) const {
  const double span = bracket.below_high - bracket.below_low;
  const double share = spread_.below(key) - bracket.below_low;
  if (share <= 0) return bracket.low;
  if (share >= span) return bracket.high;
  return bracket.low + static_cast<uint32_t>(share / span * (bracket.high - bracket.low));
}

ReadResult SignatureLocator::readWindow(uint64_t key, const Bracket& bracket, uint32_t next,
                                        bool guess) {
  const uint32_t count = bracket.high - bracket.low;
  uint32_t from = bracket.low;
  uint32_t to = 0;
  if (count <= std::min(kReadWhole, capacity_)) {
    to = joinedEnd(bracket, next);
  } else {
    const uint32_t width = std::min(probeWidth(count), capacity_);
    const uint32_t middle = guess ? expectedPlace(key, bracket) : bracket.low + count / 2;
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
