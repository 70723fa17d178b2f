// The files, the caches and the header of one tree: everything of a B-tree
// that does not depend on its records.
//
// A tree named B is four files: B.l.blk and B.l.stk hold the leaves, B.n.blk
// and B.n.stk the nodes. The leaf file is owned by the tree that has it open
// for writing, so there is never a second writer. Both block files bear the
// number of the last commit; a pair with different numbers is refused.
//
// valid() is the third outcome of every operation. Whoever gets no block here
// just returns: the tree is invalid by then and writes nothing any more.
// Tests: tests/unit/store/tree_files_test.cpp.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "block_cache.h"
#include "block_collection.h"

struct BTreeParams {
  // Records in a leaf and keys in a node. A maximum of 0 is what fits into a
  // block, a minimum of 0 half the maximum; other values are cut to what works.
  uint32_t leaf_size_min = 0, leaf_size_max = 0, node_size_min = 0, node_size_max = 0;
  uint32_t leaf_block_factor = 1, node_block_factor = 1;  // operating-system blocks per block
  uint32_t leaf_cache_size = 32, node_cache_size = 64;    // blocks
};

class TreeBlocks {
 public:
  static constexpr uint32_t kMaxHeight = 16;

  // What the tree's header holds.
  struct State {
    uint64_t root = 0;    // block number; 0: the tree is empty
    uint32_t height = 0;  // levels, that of the leaves included
    uint64_t records = 0;
  };

  // The sizes of an entry in a leaf and in a node, in bytes. Throws
  // std::bad_alloc when the memory of the caches cannot be had.
  TreeBlocks(const std::string& base_name, AccessType access, const BTreeParams& params,
             uint32_t leaf_entry_bytes, uint32_t node_entry_bytes);
  ~TreeBlocks();  // as commit(), then closes the files
  TreeBlocks(const TreeBlocks&) = delete;
  TreeBlocks& operator=(const TreeBlocks&) = delete;

  bool valid() const { return valid_; }
  bool writable() const { return valid_ && access_ == AccessType::kReadWrite; }
  void invalidate() { valid_ = false; }

  State& state() { return state_; }
  const State& state() const { return state_; }

  // Blocks by number and level, 0 being the leaves. On a failure they are
  // empty, or false, and the tree is invalid.
  BlockRef get(uint64_t number, uint32_t level);
  BlockRef add(uint32_t level);
  bool drop(uint64_t number, uint32_t level);  // not while someone holds it

  // Entries in a block of this level.
  uint32_t maxEntries(uint32_t level) const { return level == 0 ? leaf_max_ : node_max_; }
  uint32_t minEntries(uint32_t level) const { return level == 0 ? leaf_min_ : node_min_; }

  const BlockCollection& collection(uint32_t level) const { return level == 0 ? leaves_ : nodes_; }

  bool commit();

 private:
  bool openFiles(const std::string& base_name, const BTreeParams& params);
  bool headersAgree() const;
  bool setSizes(const BTreeParams& params, uint32_t leaf_entry_bytes, uint32_t node_entry_bytes);
  bool writeAll();
  BlockCollection& files(uint32_t level) { return level == 0 ? leaves_ : nodes_; }
  BlockCache& cache(uint32_t level) { return level == 0 ? *leaf_cache_ : *node_cache_; }

  const AccessType access_;
  bool valid_ = false;
  BlockCollection leaves_;
  BlockCollection nodes_;
  std::optional<BlockCache> leaf_cache_;  // there are caches in a tree that opened well
  std::optional<BlockCache> node_cache_;
  State state_;
  uint64_t transaction_ = 0;
  uint32_t leaf_max_ = 0, leaf_min_ = 0;
  uint32_t node_max_ = 0, node_min_ = 0;
};
