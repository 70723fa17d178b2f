// The range search: for every query signature the run of strong table elements
// that bear it.
//
// The prefix directory first tells which signatures are absent and how the
// others fall into batches, whose elements stand close together. The locator
// finds where the signatures of a batch stand; a double bisection then answers
// them: the signature in the middle of the query comes first, and its place
// splits the elements for the signatures before and after it. What is still to
// do lies on an explicit stack. All positions are known by then, so the bisection
// reads nothing; it sees to it that an answer keeps the order of the query, and
// tells which of its halves have no elements left.
//
// Positions come from the directory, that is from a file. The loading refuses
// entries that leave the table, and the locator holds a batch against the size of
// the table once more.
// Tests: tests/unit/match/vn_fid_search_engine_range_test.cpp and, against slower
// searches, tests/property/match_property_test.cpp.

#define LOG_TAG "fpe_sig_search"

#include <algorithm>

#include "growing_stack.h"
#include "log.h"
#include "platform.h"
#include "status.h"
#include "vn_fid_search_engine.h"

namespace {

constexpr size_t kStackCapacity = 100;
constexpr size_t kStackStep = 100;

// Still to be resolved: the signatures query_low to query_high, both included,
// which can only stand in the elements [low, high).
struct Stretch {
  uint32_t query_low;
  uint32_t query_high;
  uint32_t low;
  uint32_t high;
};
using StretchStack = GrowingStack<Stretch>;

// The signature in the middle is known to be absent and splits nothing: the ones
// on its two sides are both left with all the elements. False when the stack
// cannot grow.
bool pushAroundAbsent(const Stretch& whole, uint32_t mid, const uint32_t* bOut,
                      StretchStack* stack) {
  uint32_t after = mid + 1;
  while (after <= whole.query_high && bOut[after] != 0) ++after;
  if (after <= whole.query_high && !stack->push({after, whole.query_high, whole.low, whole.high})) {
    return false;
  }
  uint32_t before = mid;
  while (before > whole.query_low && bOut[before] != 0) --before;
  return bOut[before] != 0 || stack->push({whole.query_low, before, whole.low, whole.high});
}

}  // namespace

int FidIndexSearchEngine::SearchSignatures(uint32_t sig_num, const Signature* signatures,
                                           uint32_t* sig_find_num, const QueryRanges& ranges,
                                           uint32_t* fid_num, MallocArray<FsidPair>* fid_info,
                                           MallocArray<uint32_t>* freq) const {
  *sig_find_num = 0;
  *fid_num = 0;
  fid_info->reset();
  freq->reset();
  KeptPairs kept(sig_num);
  int ret = SearchSignatures(sig_num, signatures, sig_find_num, ranges, &kept);
  if (ret != kOk) {
    LOG_ERROR("SearchSignatures (strong) fail");
    return ret;
  }
  if (*sig_find_num == 0) return kOk;
  ret = build_sig_fid_info_tbl(sig_num, ranges, &kept, fid_num, fid_info);
  if (ret != kOk) {
    LOG_ERROR("build_sig_fid_info_tbl fail");
    return ret;
  }
  ret = process_fid_info(fid_num, fid_info, freq);
  if (ret != kOk) {
    LOG_ERROR("process_fid_info fail");
    fid_info->reset();
    return ret;
  }
  return kOk;
}

int FidIndexSearchEngine::SearchSignatures(uint32_t sig_num, const Signature* signatures,
                                           uint32_t* sig_find_num,
                                           const QueryRanges& ranges) const {
  return SearchSignatures(sig_num, signatures, sig_find_num, ranges, nullptr);
}

int FidIndexSearchEngine::SearchSignatures(uint32_t sig_num, const Signature* signatures,
                                           uint32_t* sig_find_num, const QueryRanges& ranges,
                                           KeptPairs* kept) const {
  *sig_find_num = 0;
  if (sig_num == 0) {
    LOG_ERROR("no sig to find (sig_num == 0)");
    return kOk;
  }
  const auto file = platform::current().open(stbl_path_, platform::OpenMode::kRead);
  if (!file) {
    LOG_ERROR("open file %s fail", stbl_path_);
    return kErrFile;
  }
  StrongTable table = {file.get(), 0};
  int ret = countElements(file.get(), &table.ele_num);
  if (ret != kOk) {
    LOG_ERROR("get size of file %s fail", stbl_path_);
    return ret;
  }
  if (table.ele_num == 0) {
    LOG_ERROR("file %s is empty", stbl_path_);
    return kOk;
  }
  const uint32_t load_limit = std::min(table.ele_num, loadLimit());
  SignatureLocator locator(table, tables_->strong_sig_block.get(), tables_->spread, load_limit,
                           kept);
  const auto bOut = mallocArray<uint32_t>(sig_num);
  if (!bOut) {
    LOG_ERROR("no mem for bOut");
    return kErrMem;
  }
  std::fill_n(ranges.bFind, sig_num, 0);
  std::fill_n(ranges.st_pos, sig_num, 0);
  std::fill_n(ranges.en_pos, sig_num, 0);

  const PrefixRange* const directory = tables_->strong_sig_block.get();
  for (uint32_t i = 0; i < sig_num; ++i) {
    bOut[i] = directory[signaturePrefix(signatures[i])].end == 0 ? 1 : 0;
  }
  // A batch goes from `begin` to `batch_end`; the search for it ends at `next`,
  // behind absent signatures that need not be part of it.
  for (uint32_t begin = 0, next; begin < sig_num; begin = next) {
    next = begin + 1;
    if (bOut[begin] != 0) continue;
    const uint32_t prefix = signaturePrefix(signatures[begin]);
    const uint32_t low = directory[prefix].start;
    while (next < sig_num && signaturePrefix(signatures[next]) == prefix) ++next;
    uint32_t batch_end = next;
    for (; next < sig_num; ++next) {
      if (bOut[next] != 0) continue;
      if (directory[signaturePrefix(signatures[next])].end - low >= load_limit) break;
      batch_end = next + 1;
    }
    const uint32_t high = directory[signaturePrefix(signatures[batch_end - 1])].end;
    const QuerySpan batch = {batch_end - begin, signatures + begin, bOut.get() + begin};
    const QueryRanges batch_ranges = {ranges.bFind + begin, ranges.st_pos + begin,
                                      ranges.en_pos + begin};
    uint32_t found_num = 0;
    ret = dbinary_find_signature_range(&locator, batch, low, high, &found_num, batch_ranges);
    if (ret != kOk) {
      LOG_ERROR("dbinary_find_signature_range fail on sig (%u -- %u)", begin, batch_end);
      return ret;
    }
    *sig_find_num += found_num;
  }
  // A table rewritten meanwhile may have been read in two states.
  ret = countElements(file.get(), &table.ele_num);
  if (ret != kOk) LOG_ERROR("get size of file %s fail", stbl_path_);
  return ret;
}

int FidIndexSearchEngine::dbinary_find_signature_range(SignatureLocator* locator,
                                                       const QuerySpan& query, uint32_t low,
                                                       uint32_t high, uint32_t* found_num,
                                                       const QueryRanges& ranges) const {
  *found_num = 0;
  if (query.n == 0) {
    LOG_ERROR("no sig to find (sig_num == 0)");
    return kOk;
  }
  StretchStack stack(kStackCapacity, kStackStep);
  if (!stack.allocated()) {
    LOG_ERROR("no mem for ele_stack");
    return kErrMem;
  }
  if (!locator->allocate()) {
    LOG_ERROR("no mem for element");
    return kErrMem;
  }
  switch (locator->locate(query, low, high, ranges.st_pos, ranges.en_pos)) {
    case ReadResult::kDone:
      break;
    case ReadResult::kSeekFailed:
      LOG_ERROR("fseek strong search table file fail");
      return kErrFile;
    case ReadResult::kReadFailed:
      LOG_ERROR("load element from strong search table file fail");
      return kErrFile;
  }
  if (low == high) {
    LOG_ERROR("ele_num == 0 || sig_n == 0");
    LOG_INFO("dbinary_find_signature_range fail");
    return kErrState;
  }

  std::fill_n(ranges.bFind, query.n, 0);
  // Only the ends of long stretches are told.
  const uint32_t told_above = std::min(high - low, loadLimit());
  bool pushed = stack.push({0, query.n - 1, low, high});
  while (pushed && !stack.empty()) {
    const Stretch at = stack.pop();
    const uint32_t mid = at.query_low + (at.query_high - at.query_low) / 2;
    if (query.bOut[mid] != 0) {
      pushed = pushAroundAbsent(at, mid, query.bOut, &stack);
      continue;
    }
    const uint32_t first = ranges.st_pos[mid] = std::clamp(ranges.st_pos[mid], at.low, at.high);
    const uint32_t last = ranges.en_pos[mid] = std::clamp(ranges.en_pos[mid], at.low, at.high);
    if (first < last) {
      ranges.bFind[mid] = 1;
      ++*found_num;
    }
    const bool told = at.high - at.low > told_above;
    // The right side begins with this signature's own run: it may be repeated.
    if (first < at.high) {
      if (mid < at.query_high) pushed = stack.push({mid + 1, at.query_high, first, at.high});
    } else if (told) {
      LOG_INFO("dbinary_find_signature_range end right half after sig (idx = %u)", mid);
      LOG_INFO("l = %u  r = %u", at.low, at.high);
    }
    if (last > at.low) {
      if (pushed && at.query_low < mid) {
        pushed = stack.push({at.query_low, mid - 1, at.low, last});
      }
    } else if (told) {
      LOG_INFO("dbinary_find_signature_range end left half after sig (idx = %u)", mid);
      LOG_INFO("l = %u  r = %u", at.low, at.high);
    }
  }
  if (!pushed) {
    LOG_ERROR("no mem for ele_stack to grow");
    return kErrMem;
  }
  return kOk;
}
