// The caches and the header of one tree of a store: everything of a B-tree that
// does not depend on its records.
//
// Whoever gets no block here just returns: the store is invalid by then and
// writes nothing any more. Tests: tests/unit/store/tree_store_test.cpp.
#pragma once

#include <cstdint>
#include <optional>

#include "block_cache.h"
#include "tree_store.h"

// What the tree's header holds.
struct TreeState {
  uint64_t root = 0;    // block number; 0: the tree is empty
  uint32_t height = 0;  // levels, that of the leaves included
  uint64_t records = 0;
};

class TreeBlocks {
 public:
  static constexpr uint32_t kMaxHeight = 16;

  // Tree `tree` of the store, which must outlive this. The sizes of an entry in
  // a leaf and in a node are in bytes. Throws std::bad_alloc when the memory of
  // the caches cannot be had.
  TreeBlocks(TreeStore* store, size_t tree, uint32_t leaf_entry_bytes, uint32_t node_entry_bytes);
  ~TreeBlocks();  // commits the store
  TreeBlocks(const TreeBlocks&) = delete;
  TreeBlocks& operator=(const TreeBlocks&) = delete;

  bool valid() const { return store_->valid(); }
  bool writable() const { return store_->writable(); }
  void invalidate() { store_->invalidate(); }
  // The blocks contradict each other: there is no way back from this.
  void reportDamage();

  TreeState& state() { return state_; }
  const TreeState& state() const { return state_; }

  // Blocks by number and level, 0 being the leaves. On a failure they are
  // empty, or false, and the store is invalid.
  BlockRef get(uint64_t number, uint32_t level);
  BlockRef add(uint32_t level);
  bool drop(uint64_t number, uint32_t level);  // not while someone holds it

  // A batch is going to change these blocks, too. Their old contents go to the
  // journal with the first that has to make room, under one sync.
  void expectChange(uint64_t number, uint32_t level);
  void expectNothing();
  size_t expectedLeaves() const { return expected_leaves_.size(); }
  size_t cachedLeaves() const { return leaf_cache_->places(); }

  // Entries in a block of this level.
  uint32_t maxEntries(uint32_t level) const { return level == 0 ? leaf_max_ : node_max_; }
  uint32_t minEntries(uint32_t level) const { return level == 0 ? leaf_min_ : node_min_; }

  const BlockCollection& collection(uint32_t level) const { return level == 0 ? leaves_ : nodes_; }

  // For the store, which commits and rolls back all its trees together.
  bool changed() const { return leaf_cache_->changed() || node_cache_->changed(); }
  bool foundDamage() const;
  bool saveOld() { return leaf_cache_->saveOld() && node_cache_->saveOld(); }
  bool saveExpected();
  bool flush() { return leaf_cache_->flush() && node_cache_->flush(); }
  void forget();  // every block, unwritten ones too
  void restoreState();

 private:
  bool setSizes(uint32_t leaf_entry_bytes, uint32_t node_entry_bytes);
  bool rebuildStacks();
  BlockCollection& files(uint32_t level) { return level == 0 ? leaves_ : nodes_; }
  BlockCache& cache(uint32_t level) { return level == 0 ? *leaf_cache_ : *node_cache_; }

  TreeStore* const store_;
  const size_t tree_;
  BlockCollection& leaves_;
  BlockCollection& nodes_;
  uint32_t leaf_max_ = 0, leaf_min_ = 0;
  uint32_t node_max_ = 0, node_min_ = 0;
  std::optional<BlockCache> leaf_cache_;  // there are caches in a store that opened well
  std::optional<BlockCache> node_cache_;
  std::vector<uint64_t> expected_leaves_;  // numbers
  std::vector<uint64_t> expected_nodes_;
  TreeState state_;
  bool reported_damage_ = false;
};
