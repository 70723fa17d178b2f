// What the two halves of the verification share: findings and files.
#pragma once

#include <memory>
#include <string>

#include "index_verify.h"
#include "platform.h"
#include "tree_records.h"
#include "vn_win32_charset_chg.h"

namespace dlp_btree {

inline void report(Verification* v, Severity severity, Remedy remedy, const std::string& path,
                   const std::string& text) {
  v->findings.push_back({severity, remedy, path.substr(path.find_last_of("/\\") + 1), text});
}

inline void reportDamage(Verification* v, Remedy remedy, const std::string& path,
                         const std::string& text) {
  report(v, Severity::kDamage, remedy, path, text);
}

inline std::string number(uint64_t value) { return std::to_string(value); }

// A file of the index that should be there; null, and reported, when it cannot be used.
struct IndexFile {
  std::unique_ptr<platform::File> file;
  uint64_t bytes = 0;
};

inline IndexFile openFile(const std::string& path, Remedy remedy, Verification* v) {
  IndexFile opened = {platform::current().open(path.c_str(), platform::OpenMode::kRead), 0};
  const int64_t size = opened.file ? opened.file->size() : -1;
  if (size < 0) {
    reportDamage(v, remedy, path, vn_exists(path.c_str()) ? "cannot be opened" : "is missing");
    return {};
  }
  opened.bytes = static_cast<uint64_t>(size);
  v->files.push_back({path.substr(path.find_last_of("/\\") + 1), opened.bytes});
  return opened;
}

inline bool readWhole(platform::File* file, void* buffer, size_t bytes) {
  return file->seek(0) && file->read(buffer, bytes) == static_cast<int64_t>(bytes);
}

// The half that looks at the search tables `base_name` + suffix. `tree` is null
// when there is none to compare with, `meta_data` when there is no whole record
// in the index directory.
void verifyTables(const std::string& base_name, SigFidTree* tree, const std::string& meta_path,
                  const unsigned char* meta_data, Verification* v);

}  // namespace dlp_btree
