// A matcher that looks at every element for every signature: what the search has
// to answer, found in the slowest and plainest way. Walk also tells in which
// order the search goes through a query, since its messages show that.
#pragma once

#include <algorithm>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "table_format.h"

namespace match_twin {

struct Range {
  bool found;
  uint32_t first;  // when not found, both are where the signature would stand
  uint32_t last;
};

struct Pair {
  int32_t fid;
  int32_t source;
};
inline bool operator==(const Pair& left, const Pair& right) {
  return left.fid == right.fid && left.source == right.source;
}

struct Candidate {
  int32_t fid;
  int32_t source;
  uint32_t hits;
};
inline bool operator==(const Candidate& left, const Candidate& right) {
  return left.fid == right.fid && left.source == right.source && left.hits == right.hits;
}

inline Range findRange(const std::vector<StrongElement>& elements, const Signature& signature) {
  uint32_t smaller = 0;
  uint32_t equal = 0;
  for (const StrongElement& element : elements) {
    const int order = std::memcmp(element.signature.bytes, signature.bytes, 8);
    if (order < 0) ++smaller;
    if (order == 0) ++equal;
  }
  return {equal > 0, smaller, smaller + equal};
}

// Every element of every query signature, a repeated one's again and again.
inline std::vector<Pair> pairs(const std::vector<StrongElement>& elements,
                               const std::vector<Signature>& query) {
  std::vector<Pair> all;
  for (const Signature& signature : query) {
    for (const StrongElement& element : elements) {
      if (std::memcmp(element.signature.bytes, signature.bytes, 8) == 0) {
        all.push_back({element.fid, element.source});
      }
    }
  }
  return all;
}

// A file counts all its pairs and belongs to the smallest of their sources. Per
// source the five files with the most hits stay, the smaller file ID first among
// equals; the sources ascend.
inline std::vector<Candidate> candidates(const std::vector<Pair>& hits) {
  std::map<int32_t, Candidate> files;
  for (const Pair& hit : hits) {
    auto [file, is_new] = files.try_emplace(hit.fid, Candidate{hit.fid, hit.source, 0});
    file->second.source = std::min(file->second.source, hit.source);
    ++file->second.hits;
  }
  std::map<int32_t, std::vector<Candidate>> sources;
  for (const auto& [fid, file] : files) sources[file.source].push_back(file);
  std::vector<Candidate> kept;
  for (auto& [source, of_source] : sources) {
    std::stable_sort(of_source.begin(), of_source.end(),
                     [](const Candidate& a, const Candidate& b) { return a.hits > b.hits; });
    if (of_source.size() > 5) of_source.resize(5);
    kept.insert(kept.end(), of_source.begin(), of_source.end());
  }
  return kept;
}

// The products are 32-bit numbers.
inline uint32_t level(uint32_t sig_num, int fsz, uint32_t hits) {
  if (fsz == 0) return 2;
  const uint64_t tenfold = (uint64_t{10} * hits) & 0xffffffff;
  const uint64_t twentyfold = (uint64_t{20} * hits) & 0xffffffff;
  if (hits >= 9) return 2;
  if (tenfold >= sig_num) return 2;
  if (hits >= 3) return 1;
  return twentyfold >= sig_num ? 1 : 0;
}

// The search of a sorted query in a sorted table by double bisection, every
// lookup a linear one.
class Walk {
 public:
  Walk(const std::vector<StrongElement>& elements, const std::vector<Signature>& query,
       uint32_t max_ele_num_load)
      : elements_(elements), query_(query), limit_(std::max<uint32_t>(max_ele_num_load, 2)) {
    for (uint32_t i = 0; i < elements.size(); ++i) {
      auto [range, is_new] = directory_.try_emplace(prefix(elements[i].signature), Span{i, i});
      range->second.high = i + 1;
    }
    ranges.assign(query.size(), {false, 0, 0});
    looked_up.assign(query.size(), false);
    searchBatches();
  }

  std::vector<Range> ranges;
  std::vector<bool> looked_up;  // not absent by prefix, and not beyond the end of a side
  std::vector<std::string> messages;

 private:
  struct Span {
    uint32_t low;
    uint32_t high;
  };
  struct Task {
    uint32_t query_low, query_high, low, high;
  };

  static uint32_t prefix(const Signature& s) { return s.bytes[0] * 256u + s.bytes[1]; }
  bool absent(uint32_t i) const { return !directory_.contains(prefix(query_[i])); }

  void searchBatches() {
    const auto limit = std::min<uint32_t>(limit_, static_cast<uint32_t>(elements_.size()));
    for (uint32_t i = 0; i < query_.size();) {
      if (absent(i)) {
        ++i;
        continue;
      }
      const Span first = directory_.at(prefix(query_[i]));
      uint32_t k = i;
      uint32_t high = first.high;
      uint32_t last = i;
      for (; k < query_.size(); ++k) {
        if (absent(k)) continue;
        const Span span = directory_.at(prefix(query_[k]));
        if (prefix(query_[k]) != prefix(query_[i]) && span.high - first.low >= limit) break;
        last = k;
        high = span.high;
      }
      searchBatch(i, last, first.low, high);
      i = k;
    }
  }

  void searchBatch(uint32_t base, uint32_t last, uint32_t low, uint32_t high) {
    const uint32_t loadable = std::min(high - low, limit_);
    std::vector<Task> tasks = {{base, last, low, high}};
    while (!tasks.empty()) {
      const Task task = tasks.back();
      tasks.pop_back();
      const bool in_memory = task.high - task.low <= loadable;
      // The middle is counted within the batch.
      const uint32_t mid = base + (task.query_low - base + task.query_high - base) / 2;
      if (absent(mid)) {
        uint32_t after = mid + 1;
        while (after <= task.query_high && absent(after)) ++after;
        if (after <= task.query_high) {
          tasks.push_back({after, task.query_high, task.low, task.high});
        }
        for (uint32_t before = mid; before-- > task.query_low;) {
          if (absent(before)) continue;
          tasks.push_back({task.query_low, before, task.low, task.high});
          break;
        }
        continue;
      }
      const Range range = lookUp(query_[mid], task.low, task.high);
      ranges[mid] = range;
      looked_up[mid] = true;
      if (range.first >= task.high) {
        if (!in_memory) report("right", mid - base, task);
      } else if (mid < task.query_high) {
        tasks.push_back({mid + 1, task.query_high, range.first, task.high});
      }
      if (range.last == task.low) {
        if (!in_memory) report("left", mid - base, task);
      } else if (task.query_low < mid) {
        tasks.push_back({task.query_low, mid - 1, task.low, range.last});
      }
    }
  }

  Range lookUp(const Signature& signature, uint32_t low, uint32_t high) const {
    const std::vector<StrongElement> stretch(elements_.begin() + low, elements_.begin() + high);
    const Range range = findRange(stretch, signature);
    return {range.found, range.first + low, range.last + low};
  }

  void report(const std::string& side, uint32_t index, const Task& task) {
    messages.push_back("dbinary_find_signature_range end " + side +
                       " half after sig (idx = " + std::to_string(index) + ")");
    messages.push_back("l = " + std::to_string(task.low) + "  r = " + std::to_string(task.high));
  }

  const std::vector<StrongElement>& elements_;
  const std::vector<Signature>& query_;
  const uint32_t limit_;
  std::map<uint32_t, Span> directory_;  // by prefix
};

}  // namespace match_twin
