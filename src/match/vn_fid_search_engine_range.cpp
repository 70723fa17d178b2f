// The range search: for every query signature the run of strong table elements
// that bear it.
//
// The prefix directory first tells which signatures are absent and how the
// others fall into batches, whose elements stand close together. A batch is
// resolved by a double bisection: the signature in the middle of the query is
// looked up, and its place splits the elements for the signatures before and
// after it. What is still to do lies on an explicit stack. While a stretch of
// elements is above the load limit the file is probed for single elements; from
// there on the stretch is loaded and the same goes on in memory.
//
// Positions come from the directory, that is from a file. The loading refuses
// entries that leave the table, and a stretch is held against its size once more
// before it is loaded. A probe beyond the table would fail to be read, or read
// some element; the load that ends every lookup then fails.
// Tests: tests/unit/match/vn_fid_search_engine_range_test.cpp and, against a
// linear search, tests/property/match_property_test.cpp.

#define LOG_TAG "fpe_sig_search"

#include <algorithm>

#include "growing_stack.h"
#include "log.h"
#include "platform.h"
#include "status.h"
#include "vn_fid_search_engine.h"
#include "vn_search_table_data.h"

namespace {

constexpr size_t kFileStackCapacity = 100;
constexpr size_t kMemoryStackCapacity = 300;
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

bool insideTable(const StrongTable& table, uint32_t low, uint32_t high) {
  return low <= high && high <= table.ele_num;
}

uint64_t elementOffset(uint32_t position) { return uint64_t{position} * sizeof(StrongElement); }

}  // namespace

int FidIndexSearchEngine::SearchSignatures(uint32_t sig_num, const Signature* signatures,
                                           uint32_t* sig_find_num, const QueryRanges& ranges,
                                           uint32_t* fid_num, MallocArray<FsidPair>* fid_info,
                                           MallocArray<uint32_t>* freq) const {
  *sig_find_num = 0;
  *fid_num = 0;
  fid_info->reset();
  freq->reset();
  int ret = SearchSignatures(sig_num, signatures, sig_find_num, ranges);
  if (ret != kOk) {
    LOG_ERROR("SearchSignatures (strong) fail");
    return ret;
  }
  if (*sig_find_num == 0) return kOk;
  ret = build_sig_fid_info_tbl(sig_num, ranges, fid_num, fid_info);
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
    ret = dbinary_find_signature_range(table, batch, low, high, &found_num, batch_ranges);
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

int FidIndexSearchEngine::dbinary_find_signature_range(const StrongTable& table,
                                                       const QuerySpan& query, uint32_t low,
                                                       uint32_t high, uint32_t* found_num,
                                                       const QueryRanges& ranges) const {
  *found_num = 0;
  if (query.n == 0) {
    LOG_ERROR("no sig to find (sig_num == 0)");
    return kOk;
  }
  const uint64_t load_limit = std::min(high - low, loadLimit());
  StretchStack stack(kFileStackCapacity, kStackStep);
  if (!stack.allocated()) {
    LOG_ERROR("no mem for ele_stack");
    return kErrMem;
  }
  bool pushed = stack.push({0, query.n - 1, low, high});
  while (pushed && !stack.empty()) {
    const Stretch at = stack.pop();

    if (at.low + load_limit >= at.high) {
      // What cannot be there is neither read nor given memory.
      const bool inside = insideTable(table, at.low, at.high);
      const uint32_t ele_num = inside ? at.high - at.low : 0;
      const auto elements = mallocArray<StrongElement>(ele_num);
      if (!elements) {
        LOG_ERROR("no mem for element");
        return kErrMem;
      }
      if (!table.file->seek(elementOffset(at.low))) {
        LOG_ERROR("fseek strong search table file fail");
        return kErrFile;
      }
      if (!inside || !readWhole(table.file, elements.get(), ele_num * sizeof(StrongElement))) {
        LOG_ERROR("load element from strong search table file fail");
        return kErrFile;
      }
      uint32_t found = 0;
      const int ret = dbinary_find_signature_range(ele_num, elements.get(), query, &found, ranges,
                                                   at.query_low, at.query_high);
      if (ret != kOk) {
        LOG_INFO("dbinary_find_signature_range fail");
        return ret;
      }
      *found_num += found;
      for (uint32_t i = at.query_low; i <= at.query_high; ++i) {
        ranges.st_pos[i] += at.low;
        ranges.en_pos[i] += at.low;
      }
      continue;
    }

    const uint32_t mid = at.query_low + (at.query_high - at.query_low) / 2;
    if (query.bOut[mid] != 0) {
      ranges.bFind[mid] = 0;
      pushed = pushAroundAbsent(at, mid, query.bOut, &stack);
      continue;
    }
    const int ret =
        binary_find_signature_range(table, query.signatures[mid], at.low, at.high,
                                    &ranges.bFind[mid], &ranges.st_pos[mid], &ranges.en_pos[mid]);
    if (ret != kOk) {
      LOG_ERROR("binary_find_signature_range fail for sig (idx = %u)", mid);
      LOG_ERROR("l = %u  r = %u", at.low, at.high);
      return ret;
    }
    if (ranges.bFind[mid] != 0) ++*found_num;
    // The right side begins with this signature's own run: it may be repeated.
    if (ranges.st_pos[mid] >= at.high) {
      LOG_INFO("dbinary_find_signature_range end right half after sig (idx = %u)", mid);
      LOG_INFO("l = %u  r = %u", at.low, at.high);
    } else if (mid < at.query_high) {
      pushed = stack.push({mid + 1, at.query_high, ranges.st_pos[mid], at.high});
    }
    if (ranges.en_pos[mid] == at.low) {
      LOG_INFO("dbinary_find_signature_range end left half after sig (idx = %u)", mid);
      LOG_INFO("l = %u  r = %u", at.low, at.high);
    } else if (pushed && at.query_low < mid) {
      pushed = stack.push({at.query_low, mid - 1, at.low, ranges.en_pos[mid]});
    }
  }
  if (!pushed) {
    LOG_ERROR("no mem for ele_stack to grow");
    return kErrMem;
  }
  return kOk;
}

int FidIndexSearchEngine::dbinary_find_signature_range(
    uint32_t ele_num, const StrongElement* elements, const QuerySpan& query, uint32_t* found_num,
    const QueryRanges& ranges, uint32_t query_low, uint32_t query_high) const {
  if (ele_num == 0 || query.n == 0) {
    LOG_ERROR("ele_num == 0 || sig_n == 0");
    return kErrState;
  }
  StretchStack stack(kMemoryStackCapacity, kStackStep);
  if (!stack.allocated()) {
    LOG_ERROR("no mem for ele_stack");
    return kErrMem;
  }
  *found_num = 0;
  std::fill(ranges.bFind + query_low, ranges.bFind + query_high + 1, 0);
  bool pushed = stack.push({query_low, query_high, 0, ele_num});
  while (pushed && !stack.empty()) {
    const Stretch at = stack.pop();
    const uint32_t mid = at.query_low + (at.query_high - at.query_low) / 2;
    if (query.bOut[mid] != 0) {
      pushed = pushAroundAbsent(at, mid, query.bOut, &stack);
      continue;
    }
    const int ret = binary_find_signature_range_tbl_mem(query.signatures[mid], at.high - at.low,
                                                        elements + at.low, &ranges.bFind[mid],
                                                        &ranges.st_pos[mid], &ranges.en_pos[mid]);
    if (ret != kOk) {
      LOG_ERROR("binary_find_signature_range fail for sig (idx = %u)", mid);
      LOG_ERROR("l = %u  r = %u", at.low, at.high);
      return ret;
    }
    if (ranges.bFind[mid] != 0) ++*found_num;
    ranges.st_pos[mid] += at.low;
    ranges.en_pos[mid] += at.low;
    if (ranges.st_pos[mid] < at.high && mid < at.query_high) {
      pushed = stack.push({mid + 1, at.query_high, ranges.st_pos[mid], at.high});
    }
    if (pushed && ranges.en_pos[mid] != at.low && at.query_low < mid) {
      pushed = stack.push({at.query_low, mid - 1, at.low, ranges.en_pos[mid]});
    }
  }
  if (!pushed) {
    LOG_ERROR("no mem for ele_stack to grow");
    return kErrMem;
  }
  return kOk;
}

int FidIndexSearchEngine::binary_find_signature_range(const StrongTable& table,
                                                      const Signature& signature, uint32_t low,
                                                      uint32_t high, uint32_t* found,
                                                      uint32_t* first, uint32_t* last) const {
  *found = 0;
  const uint32_t load_limit = std::min(high - low, loadLimit());
  if (high - low <= load_limit) {
    return binary_find_signature_range_mem(table, signature, low, high, found, first, last);
  }
  // Above the limit of two or more, both halves of a range hold elements.
  StrongElement element;
  uint32_t mid = 0;
  bool met = false;
  while (!met && high - low > load_limit) {
    mid = low + (high - low) / 2;
    if (get_sig_fid_ele(table.file, mid, &element) != kOk) {
      LOG_ERROR("get %uth element fail", mid);
      return kErrFile;
    }
    const int order = compareSignatures(signature, element.signature);
    if (order > 0) {
      low = mid + 1;
    } else if (order < 0) {
      high = mid;
    } else {
      met = true;
    }
  }
  if (!met) {
    const int ret =
        binary_find_signature_range_mem(table, signature, low, high, found, first, last);
    if (ret != kOk) LOG_ERROR("binary_find_signature_range_tbl_mem fail");
    return ret;
  }

  // The run holds `mid`. Its begin is in [low, first_equal], its end in
  // (mid, high]; what is left of both when it can be loaded is searched there.
  uint32_t first_equal = mid;
  while (first_equal - low > load_limit) {
    const uint32_t probe = low + (first_equal - low) / 2;
    if (get_sig_fid_ele(table.file, probe, &element) != kOk) {
      LOG_ERROR("get %uth element fail", probe);
      return kErrFile;
    }
    if (element.signature == signature) {
      first_equal = probe;
    } else {
      low = probe;
    }
  }
  uint32_t position;
  int ret =
      binary_find_signature_range_mem(table, signature, low, first_equal, found, first, &position);
  if (ret != kOk) return ret;
  while (high - mid > load_limit) {
    const uint32_t probe = mid + (high - mid) / 2;
    if (get_sig_fid_ele(table.file, probe, &element) != kOk) {
      LOG_ERROR("get %uth element fail", probe);
      return kErrFile;
    }
    if (element.signature == signature) {
      mid = probe;
    } else {
      high = probe;
    }
  }
  return binary_find_signature_range_mem(table, signature, mid, high, found, &position, last);
}

int FidIndexSearchEngine::binary_find_signature_range_mem(const StrongTable& table,
                                                          const Signature& signature, uint32_t low,
                                                          uint32_t high, uint32_t* found,
                                                          uint32_t* first, uint32_t* last) const {
  if (!table.file->seek(elementOffset(low))) {
    LOG_ERROR("fseek to %uth element fail", low);
    return kErrFile;
  }
  if (!insideTable(table, low, high)) {
    LOG_ERROR("fread signature fail");
    return kErrFile;
  }
  const auto elements = mallocArray<StrongElement>(high - low);
  if (!elements) {
    LOG_ERROR("no mem for signature_strong");
    return kErrMem;
  }
  if (!readWhole(table.file, elements.get(), (high - low) * sizeof(StrongElement))) {
    LOG_ERROR("fread signature fail");
    return kErrFile;
  }
  const int ret = binary_find_signature_range_tbl_mem(signature, high - low, elements.get(), found,
                                                      first, last);
  if (ret != kOk) {
    LOG_ERROR("binary_find_signature_range fail");
    return ret;
  }
  *first += low;
  *last += low;
  return kOk;
}

int FidIndexSearchEngine::binary_find_signature_range_tbl_mem(const Signature& signature,
                                                              uint32_t ele_num,
                                                              const StrongElement* elements,
                                                              uint32_t* found, uint32_t* first,
                                                              uint32_t* last) const {
  if (ele_num == 0) return kErrState;
  *found = 0;
  uint32_t low = 0;
  uint32_t high = ele_num;
  uint32_t mid = 0;
  while (*found == 0 && low < high) {
    mid = low + (high - low) / 2;
    const int order = compareSignatures(signature, elements[mid].signature);
    if (order > 0) {
      low = mid + 1;
    } else if (order < 0) {
      high = mid;
    } else {
      *found = 1;
    }
  }
  if (*found == 0) {
    *first = *last = low;
    return kOk;
  }
  for (uint32_t first_equal = mid; low < first_equal;) {
    const uint32_t probe = low + (first_equal - low) / 2;
    if (elements[probe].signature == signature) {
      first_equal = probe;
    } else {
      low = probe + 1;
    }
  }
  while (high - mid > 1) {
    const uint32_t probe = mid + (high - mid) / 2;
    if (elements[probe].signature == signature) {
      mid = probe;
    } else {
      high = probe;
    }
  }
  *first = low;
  *last = high;
  return kOk;
}
