// The search with large loads: every batch of signatures reads the elements from
// its first prefix to its last into memory, as far as max_ele_num_load allows,
// probes single elements while there are more, and goes on in memory from there;
// the hits are read back through one buffer of max_ele_num_load elements. The
// plain form of what the engine does with few and small reads, for tests that
// compare the two on large tables and for benchmarks.
//
// What cannot be read ends the program: the tables here are sound.
#pragma once

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "meta_data.h"
#include "platform.h"
#include "scoped.h"
#include "table_format.h"
#include "vn_fid_search_engine.h"

namespace plain_search {

// One entry for each query signature, which the elements [first, last) bear when
// it is found.
struct Ranges {
  explicit Ranges(size_t n) : found(n), first(n), last(n) {}
  std::vector<uint32_t> found;
  std::vector<uint32_t> first;
  std::vector<uint32_t> last;
};

class Search {
 public:
  // Loads the prefix directory of sig_index_DB/search_table.
  explicit Search(uint32_t max_ele_num_load)
      : limit_(std::max<uint32_t>(max_ele_num_load, 2)), directory_(kPrefixCount) {
    const auto file = open("sig_index_DB/search_table.smeta");
    check(file->seek(kMetaDataBytes));
    check(file->read(directory_.data(), kPrefixDirectoryBytes) ==
          static_cast<int64_t>(kPrefixDirectoryBytes));
  }

  // What the double bisection tells on its way, since the last clear().
  std::vector<std::string> messages;

  // The run of each signature; returns how many are found.
  uint32_t ranges(uint32_t n, const Signature* signatures, Ranges* out) {
    openTable();
    std::fill(out->found.begin(), out->found.end(), 0);
    const uint32_t load_limit = std::min(ele_num_, limit_);
    std::vector<uint32_t> absent(n);
    for (uint32_t i = 0; i < n; ++i) {
      absent[i] = directory_[signaturePrefix(signatures[i])].end == 0 ? 1 : 0;
    }
    uint32_t found = 0;
    for (uint32_t begin = 0, next; begin < n; begin = next) {
      next = begin + 1;
      if (absent[begin] != 0) continue;
      const uint32_t prefix = signaturePrefix(signatures[begin]);
      const uint32_t low = directory_[prefix].start;
      while (next < n && signaturePrefix(signatures[next]) == prefix) ++next;
      uint32_t batch_end = next;
      for (; next < n; ++next) {
        if (absent[next] != 0) continue;
        if (directory_[signaturePrefix(signatures[next])].end - low >= load_limit) break;
        batch_end = next + 1;
      }
      const uint32_t high = directory_[signaturePrefix(signatures[batch_end - 1])].end;
      const Batch batch = {batch_end - begin,         signatures + begin,
                           absent.data() + begin,     out->found.data() + begin,
                           out->first.data() + begin, out->last.data() + begin};
      found += searchFile(batch, low, high);
    }
    return found;
  }

  // The pairs of all found ranges, in the order of the query.
  MallocArray<FsidPair> pairs(uint32_t n, const Ranges& ranges, uint32_t* count) {
    openTable();
    uint64_t hits = 0;
    for (uint32_t i = 0; i < n; ++i) {
      if (ranges.found[i] != 0) hits += ranges.last[i] - ranges.first[i];
    }
    auto pairs = mallocArray<FsidPair>(hits);
    const uint32_t buffer_size = std::min(limit_, ele_num_);
    const auto buffer = mallocArray<StrongElement>(buffer_size);
    check(pairs && buffer && hits <= UINT32_MAX);
    FsidPair* out = pairs.get();
    const auto append = [&](uint32_t from, uint32_t to) {
      for (; from < to; ++from) *out++ = {buffer[from].fid, buffer[from].source};
    };
    for (uint32_t i = 0, end; i < n; i = end) {
      end = i + 1;
      if (ranges.found[i] == 0) continue;
      const uint32_t start = ranges.first[i];
      for (uint32_t k = i + 1; k < n; ++k) {
        if (ranges.found[k] == 0) continue;
        if (ranges.last[k] - start >= buffer_size) break;
        end = k + 1;
      }
      check(table_->seek(uint64_t{start} * sizeof(StrongElement)));
      uint32_t remaining = ranges.last[end - 1] - start;
      if (remaining > buffer_size) {
        while (remaining > 0) {
          const uint32_t piece = std::min(remaining, buffer_size);
          read(piece, buffer.get());
          append(0, piece);
          remaining -= piece;
        }
        continue;
      }
      read(remaining, buffer.get());
      for (uint32_t k = i; k < end; ++k) {
        if (ranges.found[k] != 0) append(ranges.first[k] - start, ranges.last[k] - start);
      }
    }
    *count = static_cast<uint32_t>(hits);
    return pairs;
  }

 private:
  struct Batch {
    uint32_t n;
    const Signature* signatures;
    const uint32_t* absent;
    uint32_t* found;
    uint32_t* first;
    uint32_t* last;
  };

  // The signatures query_low to query_high, which can only stand in the elements
  // [low, high).
  struct Stretch {
    uint32_t query_low;
    uint32_t query_high;
    uint32_t low;
    uint32_t high;
  };

  struct Run {
    bool found;
    uint32_t first;
    uint32_t last;
  };

  static void check(bool holds) {
    if (!holds) std::abort();
  }

  static std::unique_ptr<platform::File> open(const char* path) {
    auto file = platform::current().open(path, platform::OpenMode::kRead);
    check(file != nullptr);
    return file;
  }

  void openTable() {
    table_ = open("sig_index_DB/search_table.stbl");
    ele_num_ = static_cast<uint32_t>(table_->size() / static_cast<int64_t>(sizeof(StrongElement)));
  }

  void read(uint32_t count, StrongElement* elements) const {
    const size_t bytes = count * sizeof(StrongElement);
    check(table_->read(elements, bytes) == static_cast<int64_t>(bytes));
  }

  MallocArray<StrongElement> load(uint32_t low, uint32_t high) const {
    auto elements = mallocArray<StrongElement>(high - low);
    check(elements && table_->seek(uint64_t{low} * sizeof(StrongElement)));
    read(high - low, elements.get());
    return elements;
  }

  Signature probe(uint32_t position) const {
    StrongElement element;
    check(table_->seek(uint64_t{position} * sizeof(StrongElement)));
    read(1, &element);
    return element.signature;
  }

  static void pushAroundAbsent(const Stretch& whole, uint32_t mid, const uint32_t* absent,
                               std::vector<Stretch>* stack) {
    uint32_t after = mid + 1;
    while (after <= whole.query_high && absent[after] != 0) ++after;
    if (after <= whole.query_high)
      stack->push_back({after, whole.query_high, whole.low, whole.high});
    uint32_t before = mid;
    while (before > whole.query_low && absent[before] != 0) --before;
    if (absent[before] == 0) stack->push_back({whole.query_low, before, whole.low, whole.high});
  }

  void tellEnd(const char* side, uint32_t mid, const Stretch& at) {
    char text[120];
    std::snprintf(text, sizeof text,
                  "dbinary_find_signature_range end %s half after sig (idx = %u)", side, mid);
    messages.emplace_back(text);
    std::snprintf(text, sizeof text, "l = %u  r = %u", at.low, at.high);
    messages.emplace_back(text);
  }

  uint32_t searchFile(const Batch& batch, uint32_t low, uint32_t high) {
    const uint32_t load_limit = std::min(high - low, limit_);
    std::vector<Stretch> stack = {{0, batch.n - 1, low, high}};
    uint32_t found = 0;
    while (!stack.empty()) {
      const Stretch at = stack.back();
      stack.pop_back();
      if (at.high - at.low <= load_limit) {
        const auto elements = load(at.low, at.high);
        found += searchMemory(batch, elements.get(), at);
        continue;
      }
      const uint32_t mid = at.query_low + (at.query_high - at.query_low) / 2;
      if (batch.absent[mid] != 0) {
        pushAroundAbsent(at, mid, batch.absent, &stack);
        continue;
      }
      const Run run = findInFile(batch.signatures[mid], at.low, at.high);
      found += store(batch, mid, run);
      if (run.first >= at.high) {
        tellEnd("right", mid, at);
      } else if (mid < at.query_high) {
        stack.push_back({mid + 1, at.query_high, run.first, at.high});
      }
      if (run.last == at.low) {
        tellEnd("left", mid, at);
      } else if (at.query_low < mid) {
        stack.push_back({at.query_low, mid - 1, at.low, run.last});
      }
    }
    return found;
  }

  // `elements` begins with the element whole.low.
  static uint32_t searchMemory(const Batch& batch, const StrongElement* elements,
                               const Stretch& whole) {
    std::vector<Stretch> stack = {whole};
    uint32_t found = 0;
    while (!stack.empty()) {
      const Stretch at = stack.back();
      stack.pop_back();
      const uint32_t mid = at.query_low + (at.query_high - at.query_low) / 2;
      if (batch.absent[mid] != 0) {
        pushAroundAbsent(at, mid, batch.absent, &stack);
        continue;
      }
      const Run run = findInMemory(batch.signatures[mid], elements, whole.low, at.low, at.high);
      found += store(batch, mid, run);
      if (run.first < at.high && mid < at.query_high) {
        stack.push_back({mid + 1, at.query_high, run.first, at.high});
      }
      if (run.last != at.low && at.query_low < mid) {
        stack.push_back({at.query_low, mid - 1, at.low, run.last});
      }
    }
    return found;
  }

  static uint32_t store(const Batch& batch, uint32_t i, const Run& run) {
    batch.found[i] = run.found ? 1 : 0;
    batch.first[i] = run.first;
    batch.last[i] = run.last;
    return batch.found[i];
  }

  Run findInFile(const Signature& signature, uint32_t low, uint32_t high) const {
    uint32_t mid = 0;
    bool met = false;
    while (!met && high - low > limit_) {
      mid = low + (high - low) / 2;
      const int order = compareSignatures(signature, probe(mid));
      if (order > 0) {
        low = mid + 1;
      } else if (order < 0) {
        high = mid;
      } else {
        met = true;
      }
    }
    if (!met) return loadAndFind(signature, low, high);
    uint32_t first_equal = mid;
    while (first_equal - low > limit_) {
      const uint32_t at = low + (first_equal - low) / 2;
      (probe(at) == signature ? first_equal : low) = at;
    }
    // The run itself may begin with first_equal, which is not loaded.
    const uint32_t first = loadAndFind(signature, low, first_equal).first;
    while (high - mid > limit_) {
      const uint32_t at = mid + (high - mid) / 2;
      (probe(at) == signature ? mid : high) = at;
    }
    return {true, first, loadAndFind(signature, mid, high).last};
  }

  Run loadAndFind(const Signature& signature, uint32_t low, uint32_t high) const {
    if (low == high) return {false, low, low};
    const auto elements = load(low, high);
    return findInMemory(signature, elements.get(), low, low, high);
  }

  // The signature in the elements [low, high), of which `elements` holds those from
  // `base` on.
  static Run findInMemory(const Signature& signature, const StrongElement* elements, uint32_t base,
                          uint32_t low, uint32_t high) {
    uint32_t mid = 0;
    bool met = false;
    while (!met && low < high) {
      mid = low + (high - low) / 2;
      const int order = compareSignatures(signature, elements[mid - base].signature);
      if (order > 0) {
        low = mid + 1;
      } else if (order < 0) {
        high = mid;
      } else {
        met = true;
      }
    }
    if (!met) return {false, low, low};
    for (uint32_t first_equal = mid; low < first_equal;) {
      const uint32_t at = low + (first_equal - low) / 2;
      if (elements[at - base].signature == signature) {
        first_equal = at;
      } else {
        low = at + 1;
      }
    }
    while (high - mid > 1) {
      const uint32_t at = mid + (high - mid) / 2;
      (elements[at - base].signature == signature ? mid : high) = at;
    }
    return {true, low, high};
  }

  const uint32_t limit_;
  std::vector<PrefixRange> directory_;
  std::unique_ptr<platform::File> table_;
  uint32_t ele_num_ = 0;
};

}  // namespace plain_search
