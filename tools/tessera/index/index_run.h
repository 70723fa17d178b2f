// Brings an index up to date with files: for "index" and "watch".
//
//   files --hashed, opened, fingerprinted, on all processors--> in order --> store
//
// Tests: tests/tool/index_test.py.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "cli/progress.h"
#include "commands.h"
#include "files/walk.h"
#include "index/opened_file.h"
#include "store/catalogue.h"
#include "store/store.h"

namespace tool {

struct IndexCounts {
  size_t files = 0;
  size_t added = 0;
  size_t replaced = 0;
  size_t unchanged = 0;
  size_t too_short = 0;      // documents
  size_t not_inspected = 0;  // documents, or files with all in them
  size_t removed = 0;        // documents
  size_t not_pruned = 0;     // files that are gone, perhaps with a disk
  size_t failed = 0;         // files
};

// "3 files: 1 added, 0 replaced, 2 unchanged, 1 not inspected"
std::string summary(const IndexCounts& counts);

class IndexRun {
 public:
  IndexRun(const CommonOptions& common, const IndexOptions& options, Store* store);

  // Complains about what cannot be indexed or inspected. Ends early when the user
  // interrupts.
  void index(const std::vector<FoundFile>& files);

  // What becomes of files that were below a path that is an empty directory now, cannot be
  // listed or is gone.
  enum class Emptied { kKept, kPruned };

  // The documents of files that are no longer there leave: all that were at or below
  // these paths. Complains about those that are kept.
  void prune(const std::vector<std::string>& below, Emptied emptied);

  void finish();

  const IndexCounts& counts() const { return counts_; }
  bool wasCutShort() const { return cut_short_; }

 private:
  void take(OpenedFile&& opened);
  void addBatch();

  Store* const store_;
  const unsigned jobs_;
  FileOpener opener_;
  std::vector<FileChange> batch_;
  size_t batch_bytes_ = 0;
  IndexCounts counts_;
  bool cut_short_ = false;
  Progress progress_;
};

}  // namespace tool
