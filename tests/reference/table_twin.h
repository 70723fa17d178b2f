// The slow, obvious writer of the four search table files: every prefix counts
// its own elements, nothing is streamed.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "index_model.h"

namespace table_twin {

inline std::string littleEndian(uint64_t value, int bytes) {
  std::string made;
  for (int i = 0; i < bytes; ++i) made += static_cast<char>(value >> (8 * i));
  return made;
}

inline std::string metaRecord(int64_t base, uint32_t level) {
  return littleEndian(static_cast<uint64_t>(base), 8) + littleEndian(level, 4);
}

struct Files {
  std::string weak, strong, weak_meta, strong_meta;
};

// The table whose entries are the strings of `entries` in order.
inline std::string table(const std::vector<std::string>& entries) {
  std::string made;
  for (const std::string& entry : entries) made += entry;
  return made;
}

inline std::string prefixDirectory(const std::vector<std::string>& entries) {
  std::string made;
  size_t position = 0;
  for (int first = 0; first < 256; ++first) {
    for (int second = 0; second < 256; ++second) {
      const size_t start = position;
      while (position < entries.size() &&
             static_cast<unsigned char>(entries[position][0]) == first &&
             static_cast<unsigned char>(entries[position][1]) == second) {
        ++position;
      }
      const bool occurs = position > start;
      made += littleEndian(occurs ? start : 0, 4) + littleEndian(occurs ? position : 0, 4);
    }
  }
  return made;
}

inline Files files(const std::set<IndexModel::SigFid>& records, int64_t base, uint32_t level) {
  if (records.empty()) return {};
  std::vector<std::string> weak;
  std::vector<std::string> strong;
  for (const auto& [signature, fid, source] : records) {
    if (weak.empty() || weak.back() != signature) weak.push_back(signature);
    strong.push_back(signature + littleEndian(static_cast<uint32_t>(fid), 4) +
                     littleEndian(static_cast<uint32_t>(source), 4));
  }
  return {table(weak), table(strong), metaRecord(base, level) + prefixDirectory(weak),
          metaRecord(base, level) + prefixDirectory(strong)};
}

}  // namespace table_twin
