// Looks at all files of an index and tells what is wrong with them.
//
// The trees are checked block by block, each on its own, and then against each
// other; the search tables against themselves and, element by element, against
// the sig-fid tree; the meta data records against each other. Everything is
// read from front to back, so an index may be far larger than memory.
//
// The files are opened for reading only. A batch under way looks like damage, so
// hold a WriterBar while you verify an index that others may open for writing.
//
// Tests: tests/unit/index/index_verify_test.cpp.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform.h"
#include "vn_config.h"

namespace dlp_btree {

// The ranking addresses the strong table by signed 32-bit offsets.
inline constexpr uint64_t kMatchableTableBytes = uint64_t{1} << 31;

enum class Severity {
  kNote,     // nothing is wrong
  kWarning,  // nothing is wrong yet
  kDamage,   // the index does not hold, or does not find, what it should
};

enum class Remedy {
  kNone,
  kOpenForWriting,   // the next opening for writing mends it, or its first commit
  kRebuildTables,    // rebuildTables(), or closing the index after indexing
  kRebuildMetaData,  // rebuildMetaData()
  kRebuildTrees,     // rebuildTrees()
};

struct Finding {
  Severity severity;
  Remedy remedy;
  std::string subject;  // the file or tree, without its directory
  std::string text;     // never holds bytes of a signature
};

struct Verification {
  std::vector<Finding> findings;

  // Of the trees that could be read; of a tree that could not, 0.
  uint64_t documents = 0;    // of the fid-sig tree
  uint64_t postings = 0;     // of the fid-sig tree
  uint64_t signatures = 0;   // distinct ones, of the sig-fid tree
  uint64_t used_blocks = 0;  // of all trees, leaves and nodes
  uint64_t free_blocks = 0;
  uint64_t transaction = 0;         // the number of the last commit
  uint64_t strong_table_bytes = 0;  // 0 without a table

  struct FileSize {
    std::string name;
    uint64_t bytes;
  };
  std::vector<FileSize> files;  // those that exist

  bool isDamaged() const;
};

// Keeps everybody from opening an index for writing while it lives, unless somebody
// has it open so already. Any number of them go together. Makes no file.
class WriterBar {
 public:
  WriterBar(const std::string& directory, const IndexSysConfiguration& configuration);

  bool indexIsInUse() const { return in_use_; }  // then nobody is kept out

 private:
  std::vector<std::unique_ptr<platform::File>> files_;
  bool in_use_ = false;
};

// The names are those of the configuration. Throws std::bad_alloc and nothing
// else.
Verification verifyIndex(const std::string& directory, const IndexSysConfiguration& configuration);

// The part of it that is about three trees with the common name `base_name`
// and these suffixes. False when the sig-fid tree cannot be relied on.
bool verifyTrees(const std::string& base_name, const std::vector<std::string>& suffixes,
                 Verification* verification);

}  // namespace dlp_btree
