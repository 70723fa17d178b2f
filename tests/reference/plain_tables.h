// Search tables made from a list of elements in the plainest way, as bytes that
// a test can bend before it writes them.
#pragma once

#include <algorithm>
#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "documents.h"
#include "meta_data.h"
#include "table_format.h"
#include "temp_dir.h"

namespace plain_tables {

inline constexpr char kDirectory[] = "sig_index_DB";

struct Tables {
  std::string wtbl;
  std::string stbl;
  std::string wmeta;
  std::string smeta;
};

inline StrongElement element(const Signature& signature, int32_t fid, int32_t source) {
  return {signature, fid, source};
}

inline void appendNumber(std::string* out, uint64_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) out->push_back(static_cast<char>(value >> (8 * i) & 0xff));
}

inline void appendSignature(std::string* out, const Signature& signature) {
  for (const unsigned char byte : signature.bytes) out->push_back(static_cast<char>(byte));
}

// Replaces the directory entry of `prefix` in a meta file.
inline void setRange(std::string* meta_file, uint32_t prefix, uint32_t start, uint32_t end) {
  std::string entry;
  appendNumber(&entry, start, 4);
  appendNumber(&entry, end, 4);
  meta_file->replace(12 + 8 * size_t{prefix}, 8, entry);
}

// The record and, for each prefix, where its signatures begin and end in the
// list; two zeros for one that does not occur.
inline std::string metaFile(const MetaData& meta, const std::vector<Signature>& table) {
  std::map<uint32_t, std::pair<uint32_t, uint32_t>> ranges;
  for (uint32_t i = 0; i < table.size(); ++i) {
    const uint32_t prefix = table[i].bytes[0] * 256u + table[i].bytes[1];
    ranges.try_emplace(prefix, i, i).first->second.second = i + 1;
  }
  std::string file;
  appendNumber(&file, static_cast<uint64_t>(meta.fid_base), 8);
  appendNumber(&file, meta.sig_gen_level, 4);
  file.resize(524300, '\0');
  for (const auto& [prefix, range] : ranges) setRange(&file, prefix, range.first, range.second);
  return file;
}

// By signature, then fid, then source: the order of the strong table.
inline void sort(std::vector<StrongElement>* elements) {
  std::sort(elements->begin(), elements->end(),
            [](const StrongElement& left, const StrongElement& right) {
              const int order = std::memcmp(left.signature.bytes, right.signature.bytes, 8);
              if (order != 0) return order < 0;
              return left.fid != right.fid ? left.fid < right.fid : left.source < right.source;
            });
}

// The elements are taken as they stand.
inline Tables make(const std::vector<StrongElement>& elements, const MetaData& meta) {
  std::vector<Signature> strong;
  std::vector<Signature> weak;
  Tables tables;
  for (const StrongElement& e : elements) {
    strong.push_back(e.signature);
    if (weak.empty() || std::memcmp(weak.back().bytes, e.signature.bytes, 8) != 0) {
      weak.push_back(e.signature);
      appendSignature(&tables.wtbl, e.signature);
    }
    appendSignature(&tables.stbl, e.signature);
    appendNumber(&tables.stbl, static_cast<uint32_t>(e.fid), 4);
    appendNumber(&tables.stbl, static_cast<uint32_t>(e.source), 4);
  }
  tables.wmeta = metaFile(meta, weak);
  tables.smeta = metaFile(meta, strong);
  return tables;
}

// Writes the four files to "sig_index_DB", which is made when it is missing.
inline void write(const TempDir& dir, const Tables& tables,
                  const std::string& name = "search_table") {
  if (!dir.exists(kDirectory)) dir.makeDirectory(kDirectory);
  const std::string base = std::string(kDirectory) + "/" + name;
  dir.write(base + ".wtbl", tables.wtbl);
  dir.write(base + ".stbl", tables.stbl);
  dir.write(base + ".wmeta", tables.wmeta);
  dir.write(base + ".smeta", tables.smeta);
}

}  // namespace plain_tables
