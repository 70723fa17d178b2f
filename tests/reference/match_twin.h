// A matcher that looks at every element for every signature: what the search has
// to answer, found in the slowest and plainest way.
#pragma once

#include <algorithm>
#include <cstring>
#include <map>
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

}  // namespace match_twin
