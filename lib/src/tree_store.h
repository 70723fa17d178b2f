// The trees of one index: their files, and the batches that change them together.
//
// A tree named B is four files: B.l.blk and B.l.stk hold the leaves, B.n.blk
// and B.n.stk the nodes. The trees of a store share a journal (undo_journal.h),
// so that a commit makes everything lasting that was done to any of them, and a
// crash, a rollback or a failed commit leaves all of them as after the commit
// before. Opening files that were absent is a batch of its own. Every block
// file bears the number of the last commit; files with different numbers do not
// belong together and are refused.
//
// The leaf files are owned by the store that has them open for writing, so there
// is never a second writer; the owner's death frees them.
//
// Not thread-safe. Tests: tests/unit/store/tree_store_test.cpp, tests/fault/.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "block_collection.h"
#include "journalled_files.h"

enum class AccessType { kReadOnly = 1, kReadWrite = 2 };

struct BTreeParams {
  // Records in a leaf and keys in a node. A maximum of 0 is what fits into a
  // block, a minimum of 0 half the maximum; other values are cut to what works.
  uint32_t leaf_size_min = 0, leaf_size_max = 0, node_size_min = 0, node_size_max = 0;
  uint32_t leaf_block_factor = 1, node_block_factor = 1;  // operating-system blocks per block
  uint32_t leaf_cache_size = 32, node_cache_size = 64;    // blocks
};

class TreeBlocks;

class TreeStore {
 public:
  static constexpr size_t kMaxTrees = kJournalledFiles / 4;

  // Opens or, for writing, creates the trees base_name + suffix, at most three,
  // each name cut to 126 characters. What a crash left behind is undone first.
  // A failure shows in valid() only. Throws std::bad_alloc.
  TreeStore(const std::string& base_name, const std::vector<std::string>& suffixes,
            AccessType access, const BTreeParams& params);
  ~TreeStore();  // closes the files; after the trees

  // The paths of the files, by their numbers: for each tree .l.blk, .l.stk,
  // .n.blk and .n.stk.
  static std::vector<std::string> filePaths(const std::string& base_name,
                                            const std::vector<std::string>& suffixes);
  TreeStore(const TreeStore&) = delete;
  TreeStore& operator=(const TreeStore&) = delete;

  // The third outcome of every operation, beside "done" and "refused": after a
  // failed opening, a failed check or an I/O error all trees are invalid. They
  // answer nothing and write nothing any more.
  bool valid() const { return valid_; }
  bool writable() const { return valid_ && access_ == AccessType::kReadWrite; }
  void invalidate() { valid_ = false; }

  // Everything done to the trees is lasting. False and invalid on a failure;
  // invalid too when std::bad_alloc is thrown. Without a change since the last
  // commit nothing is written.
  bool commit();

  // Back to the last commit, also from an invalid state. False, and invalid for
  // good, when that fails too, when files are damaged, when a sync has failed, or
  // after a failed opening.
  bool rollback();

  // The numbers of used and free blocks, the root and the counter of a tree.
  const BlockCollection& leaves(size_t tree) const { return files_of_[tree].leaves; }
  const BlockCollection& nodes(size_t tree) const { return files_of_[tree].nodes; }
  uint64_t transaction() const { return transaction_; }

 private:
  friend class TreeBlocks;

  struct TreeFiles {
    BlockCollection leaves;
    BlockCollection nodes;
    TreeBlocks* tree = nullptr;  // null while nobody has it open
  };

  bool open(const std::vector<std::string>& paths);
  bool load();
  bool headersAgree();
  bool changed() const;
  bool writeBack();
  bool saveChangedBlocks();
  bool saveExpectedBlocks();
  bool flushCaches();
  bool writeAll();
  bool writeHeaders();

  const AccessType access_;
  const BTreeParams params_;
  JournalledFiles files_;
  std::vector<TreeFiles> files_of_;
  bool opened_ = false;
  bool valid_ = false;
  bool written_back_ = false;  // blocks were written since the last commit
  uint64_t transaction_ = 0;   // of the last commit
};
