// The ranking: from the found ranges to the files that matter.
//
// Every hit is a (file, source) pair. Those that the range search has not kept are
// read back, the ranges of neighbouring signatures together while they lie close.
// The pairs are sorted and counted by file; a file is taken once, with its smallest
// source, and of every source the five files with the most hits stay.
// Tests: tests/unit/match/vn_fid_search_engine_rank_test.cpp and, against a
// linear count, tests/property/match_property_test.cpp.

#define LOG_TAG "fpe_sig_search"

#include <algorithm>

#include "log.h"
#include "platform.h"
#include "stacked_quick_sort.h"
#include "status.h"
#include "vn_fid_search_engine.h"
#include "vn_search_table_data.h"

namespace {

constexpr uint32_t kFilesPerSource = 5;

// A group's position has to fit into a signed 32-bit offset, so what begins from
// 2 GiB on cannot be reached.
bool canBeReached(uint32_t position) {
  return position * static_cast<uint32_t>(sizeof(StrongElement)) <= INT32_MAX;
}

// One past the last signature that goes together with `i`: their ranges span less
// than `limit` elements and are less than `gap` apart. Ranges ascend like their
// signatures; one that does not stands by itself.
uint32_t groupEnd(uint32_t i, uint32_t sig_num, const QueryRanges& ranges, uint32_t limit,
                  uint32_t gap) {
  const uint32_t start = ranges.st_pos[i];
  uint32_t read_end = ranges.en_pos[i];
  uint32_t end = i + 1;
  for (uint32_t k = i + 1; k < sig_num; ++k) {
    if (ranges.bFind[k] == 0) continue;
    if (ranges.en_pos[k] - start >= limit) break;
    if (ranges.st_pos[k] < start || ranges.en_pos[k] < read_end) break;
    if (ranges.st_pos[k] > read_end && ranges.st_pos[k] - read_end >= gap) break;
    read_end = ranges.en_pos[k];
    end = k + 1;
  }
  return end;
}

// Appends at *out the pairs of the signatures [i, end), whose ranges ascend: those
// that were kept, and the others from the file. The buffer has room for
// `buffer_size` elements.
ReadResult readPairs(platform::File* file, uint32_t i, uint32_t end, const QueryRanges& ranges,
                     KeptPairs* kept, StrongElement* buffer, uint32_t buffer_size, FsidPair** out) {
  const auto appendKept = [&](uint32_t k) {
    const uint32_t count = ranges.en_pos[k] - ranges.st_pos[k];
    const FsidPair* const pairs =
        kept != nullptr ? kept->take(ranges.st_pos[k], ranges.en_pos[k]) : nullptr;
    if (pairs != nullptr) *out = std::copy_n(pairs, count, *out);
    return pairs != nullptr;
  };
  const auto append = [buffer, out](uint32_t from, uint32_t to) {
    *out = std::transform(buffer + from, buffer + to, *out, [](const StrongElement& element) {
      return FsidPair{element.fid, element.source};
    });
  };
  for (uint32_t part_end; i < end; i = part_end) {
    part_end = i + 1;
    if (ranges.bFind[i] == 0 || appendKept(i)) continue;
    part_end = groupEnd(i, end, ranges, buffer_size, kReadGap);
    const uint32_t start = ranges.st_pos[i];
    const uint32_t count = ranges.en_pos[part_end - 1] - start;
    if (count > buffer_size) {  // one range
      for (uint32_t done = 0; done < count;) {
        const uint32_t piece = std::min(count - done, buffer_size);
        const ReadResult result = readElements(file, start + done, piece, buffer);
        if (result != ReadResult::kDone) return result;
        append(0, piece);
        done += piece;
      }
      continue;
    }
    const ReadResult result = readElements(file, start, count, buffer);
    if (result != ReadResult::kDone) return result;
    for (uint32_t k = i; k < part_end; ++k) {
      if (ranges.bFind[k] == 0 || (k > i && appendKept(k))) continue;
      append(ranges.st_pos[k] - start, ranges.en_pos[k] - start);
    }
  }
  return ReadResult::kDone;
}

int compareNumbers(int64_t left, int64_t right) { return left < right ? -1 : left > right ? 1 : 0; }

}  // namespace

int FidIndexSearchEngine::build_sig_fid_info_tbl(uint32_t sig_num, const QueryRanges& ranges,
                                                 uint32_t* fsid_num,
                                                 MallocArray<FsidPair>* fsid) const {
  return build_sig_fid_info_tbl(sig_num, ranges, nullptr, fsid_num, fsid);
}

int FidIndexSearchEngine::build_sig_fid_info_tbl(uint32_t sig_num, const QueryRanges& ranges,
                                                 KeptPairs* kept, uint32_t* fsid_num,
                                                 MallocArray<FsidPair>* fsid) const {
  fsid->reset();
  const auto file = platform::current().open(stbl_path_, platform::OpenMode::kRead);
  if (!file) {
    LOG_ERROR("open file %s fail", stbl_path_);
    return kErrFile;
  }
  uint32_t ele_num = 0;
  int ret = countElements(file.get(), &ele_num);
  if (ret != kOk) {
    LOG_ERROR("get size of file %s fail", stbl_path_);
    return ret;
  }

  // A repeated signature's range counts every time, so the sum may outgrow the
  // 32 bits of the count. What is not in the table is neither counted nor read.
  uint64_t hits = 0;
  for (uint32_t i = 0; i < sig_num; ++i) {
    if (ranges.bFind[i] == 0) continue;
    if (ranges.st_pos[i] > ranges.en_pos[i] || ranges.en_pos[i] > ele_num) {
      LOG_ERROR("read strong search table file fail");
      return kErrFile;
    }
    hits += ranges.en_pos[i] - ranges.st_pos[i];
  }
  *fsid_num = static_cast<uint32_t>(hits);
  if (hits == 0) {
    LOG_ERROR("no fid to extract. (fsid_num == 0)");
    return kErrState;
  }
  MallocArray<FsidPair> pairs;
  if (hits <= UINT32_MAX) pairs = mallocArray<FsidPair>(hits);
  if (!pairs) {
    LOG_ERROR("no mem for fsid");
    return kErrMem;
  }
  const uint32_t group_size = std::min(loadLimit(), ele_num);
  const uint32_t buffer_size = std::min(group_size, kMostReadElements);
  const auto buffer = mallocArray<StrongElement>(buffer_size);
  if (!buffer) {
    LOG_ERROR("no mem for signature_strong");
    return kErrMem;
  }

  FsidPair* out = pairs.get();
  for (uint32_t i = 0, end; i < sig_num; i = end) {
    end = i + 1;
    if (ranges.bFind[i] == 0) continue;
    if (!canBeReached(ranges.st_pos[i])) {
      LOG_ERROR("fseek strong search table file fail");
      return kErrFile;
    }
    end = groupEnd(i, sig_num, ranges, group_size, UINT32_MAX);
    switch (readPairs(file.get(), i, end, ranges, kept, buffer.get(), buffer_size, &out)) {
      case ReadResult::kDone:
        break;
      case ReadResult::kSeekFailed:
        LOG_ERROR("fseek strong search table file fail");
        return kErrFile;
      case ReadResult::kReadFailed:
        LOG_ERROR("read strong search table file fail");
        return kErrFile;
    }
  }
  // A table rewritten meanwhile may have been read in two states.
  ret = countElements(file.get(), &ele_num);
  if (ret != kOk) {
    LOG_ERROR("get size of file %s fail", stbl_path_);
    return ret;
  }
  *fsid = std::move(pairs);
  return kOk;
}

int FidIndexSearchEngine::process_fid_info(uint32_t* fid_num, MallocArray<FsidPair>* fsid,
                                           MallocArray<uint32_t>* freq) const {
  freq->reset();
  FsidPair* const pairs = fsid->get();
  int ret = quick_sort_fsid_pair(*fid_num, pairs);
  if (ret != kOk) {
    LOG_ERROR("quick_sort_fsid_pair fsid fail");
    return ret;
  }
  uint32_t distinct = 1;
  for (uint32_t i = 1; i < *fid_num; ++i) {
    if (pairs[i].fid != pairs[i - 1].fid) ++distinct;
  }
  *freq = mallocArray<uint32_t>(distinct);
  if (!*freq) {
    LOG_ERROR("no mem for freq");
    return kErrMem;
  }

  // The first pair of a file is the one with its smallest source.
  uint32_t last = 0;
  freq->get()[0] = 1;
  for (uint32_t i = 1; i < *fid_num; ++i) {
    if (pairs[i].fid == pairs[last].fid) {
      ++freq->get()[last];
    } else {
      pairs[++last] = pairs[i];
      freq->get()[last] = 1;
    }
  }
  *fid_num = distinct;
  ret = select_relevant_fid(fid_num, fsid, freq);
  if (ret != kOk) {
    LOG_ERROR("quick_sort_fid_by_descend_freq fail");
    freq->reset();
  }
  return ret;
}

// Both sorts tell their failures themselves, since a message bears the name of
// the function that logs it.

int FidIndexSearchEngine::quick_sort_fsid_pair(uint32_t n, FsidPair* fsid) const {
  if (n == 0) return kErrState;
  const auto compare = [fsid](uint32_t a, uint32_t b) {
    const int order = compareNumbers(fsid[a].fid, fsid[b].fid);
    return order != 0 ? order : compareNumbers(fsid[a].source, fsid[b].source);
  };
  const auto swap = [fsid](uint32_t a, uint32_t b) { std::swap(fsid[a], fsid[b]); };
  switch (stackedQuickSort(n, compare, swap)) {
    case QuickSortResult::kSorted:
      return kOk;
    case QuickSortResult::kNoStack:
      LOG_ERROR("no mem for stack");
      return kErrMem;
    case QuickSortResult::kNoLeftRoom:
      LOG_ERROR("no mem for stack l to expand");
      return kErrMem;
    case QuickSortResult::kNoRightRoom:
      LOG_ERROR("no mem for stack r to expand");
      return kErrMem;
  }
  return kOk;
}

int FidIndexSearchEngine::quick_sort_fsid_freq_pair(uint32_t n, FsidPair* fsid,
                                                    uint32_t* freq) const {
  if (n == 0) return kErrState;
  const auto compare = [fsid, freq](uint32_t a, uint32_t b) {
    if (fsid[a].source != fsid[b].source) return compareNumbers(fsid[a].source, fsid[b].source);
    if (freq[a] != freq[b]) return compareNumbers(freq[b], freq[a]);
    return compareNumbers(fsid[a].fid, fsid[b].fid);
  };
  const auto swap = [fsid, freq](uint32_t a, uint32_t b) {
    std::swap(fsid[a], fsid[b]);
    std::swap(freq[a], freq[b]);
  };
  switch (stackedQuickSort(n, compare, swap)) {
    case QuickSortResult::kSorted:
      return kOk;
    case QuickSortResult::kNoStack:
      LOG_ERROR("no mem for stack");
      return kErrMem;
    case QuickSortResult::kNoLeftRoom:
      LOG_ERROR("no mem for stack l to expand");
      return kErrMem;
    case QuickSortResult::kNoRightRoom:
      LOG_ERROR("no mem for stack r to expand");
      return kErrMem;
  }
  return kOk;
}

int FidIndexSearchEngine::select_relevant_fid(uint32_t* n, MallocArray<FsidPair>* fsid,
                                              MallocArray<uint32_t>* freq) const {
  if (*n == 0) {
    LOG_ERROR("fid_num == 0");
    return kErrState;
  }
  const int ret = quick_sort_fsid_freq_pair(*n, fsid->get(), freq->get());
  if (ret != kOk) {
    LOG_ERROR("quick_sort_fsid_freq_pair fail");
    return ret;
  }

  const FsidPair* const pairs = fsid->get();
  const auto isKept = [pairs](uint32_t i) {
    return i < kFilesPerSource || pairs[i].source != pairs[i - kFilesPerSource].source;
  };
  uint32_t kept = 0;
  for (uint32_t i = 0; i < *n; ++i) kept += isKept(i) ? 1 : 0;
  auto fsid_rel = mallocArray<FsidPair>(kept);
  if (!fsid_rel) {
    LOG_ERROR("no mem for fsid_rel");
    return kErrMem;
  }
  auto freq_rel = mallocArray<uint32_t>(kept);
  if (!freq_rel) {
    LOG_ERROR("no mem for freq_rel");
    return kErrMem;
  }
  uint32_t out = 0;
  for (uint32_t i = 0; i < *n; ++i) {
    if (!isKept(i)) continue;
    fsid_rel[out] = pairs[i];
    freq_rel[out] = freq->get()[i];
    ++out;
  }
  *fsid = std::move(fsid_rel);
  *freq = std::move(freq_rel);
  *n = kept;
  return kOk;
}
