#include "tree_blocks.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "tpie_log.h"

namespace {

constexpr uint32_t kLeast = 2;  // entries: what a split and a merge can work with

// Splits leave at least half of a full block on either side, so no more may be
// asked of a block.
uint32_t leastFill(uint32_t wanted, uint32_t max) {
  return wanted == 0 ? max / 2 : std::min(wanted, max / 2);
}

// What a node of any record type tells of its children (btree_node.h).
uint64_t childOf(const BlockHead* node, uint32_t index, uint32_t entry_bytes) {
  if (index == 0) return node->link;
  uint64_t child;
  const auto* const entries = reinterpret_cast<const unsigned char*>(node + 1);
  std::memcpy(&child, entries + size_t{index} * entry_bytes - sizeof child, sizeof child);
  return child;
}

}  // namespace

TreeBlocks::TreeBlocks(TreeStore* store, size_t tree, uint32_t leaf_entry_bytes,
                       uint32_t node_entry_bytes)
    : store_(store),
      tree_(tree),
      leaves_(store->files_of_[tree].leaves),
      nodes_(store->files_of_[tree].nodes) {
  // Until it has opened: a rollback must not bring back a tree without caches.
  const bool store_opened = std::exchange(store_->opened_, false);
  if (!valid() || !setSizes(leaf_entry_bytes, node_entry_bytes)) {
    invalidate();
    return;
  }
  const auto write_back = [store] { return store->writeBack(); };
  leaf_cache_.emplace(&leaves_,
                      BlockFormat{.kind = kLeafKind,
                                  .block_bytes = leaves_.blockBytes(),
                                  .entry_bytes = leaf_entry_bytes,
                                  .capacity = leaf_max_},
                      store->params_.leaf_cache_size, write_back);
  node_cache_.emplace(&nodes_,
                      BlockFormat{.kind = kNodeKind,
                                  .block_bytes = nodes_.blockBytes(),
                                  .entry_bytes = node_entry_bytes,
                                  .capacity = node_max_},
                      store->params_.node_cache_size, write_back);
  restoreState();
  if (writable() && (leaves_.stackIsDamaged() || nodes_.stackIsDamaged()) && !rebuildStacks()) {
    reportDamage();
  }
  if (!valid()) return;
  store_->files_of_[tree].tree = this;
  store_->opened_ = store_opened;
}

TreeBlocks::~TreeBlocks() {
  TreeStore::TreeFiles& of = store_->files_of_[tree_];
  if (of.tree != this) return;
  try {
    store_->commit();
  } catch (...) {
    store_->rollback();
  }
  of.tree = nullptr;
}

bool TreeBlocks::setSizes(uint32_t leaf_entry_bytes, uint32_t node_entry_bytes) {
  constexpr uint32_t kHeadBytes = sizeof(BlockHead);
  const BTreeParams& params = store_->params_;
  leaf_max_ = (leaves_.blockBytes() - kHeadBytes) / leaf_entry_bytes;
  node_max_ = (nodes_.blockBytes() - kHeadBytes) / node_entry_bytes;
  if (leaf_max_ < kLeast || node_max_ < kLeast) return false;
  if (params.leaf_size_max != 0) leaf_max_ = std::clamp(params.leaf_size_max, kLeast, leaf_max_);
  if (params.node_size_max != 0) node_max_ = std::clamp(params.node_size_max, kLeast, node_max_);
  leaf_min_ = leastFill(params.leaf_size_min, leaf_max_);
  node_min_ = leastFill(params.node_size_min, node_max_);
  return true;
}

void TreeBlocks::restoreState() {
  const BlockFileHeader& header = leaves_.header();
  state_ = {header.root, static_cast<uint32_t>(header.height), header.records};
}

void TreeBlocks::expectChange(uint64_t number, uint32_t level) {
  std::vector<uint64_t>& expected = level == 0 ? expected_leaves_ : expected_nodes_;
  if (expected.empty() || expected.back() != number) expected.push_back(number);
}

void TreeBlocks::expectNothing() {
  expected_leaves_.clear();
  expected_nodes_.clear();
}

bool TreeBlocks::saveExpected() {
  for (std::vector<uint64_t>* const expected : {&expected_leaves_, &expected_nodes_}) {
    std::sort(expected->begin(), expected->end());
    expected->erase(std::unique(expected->begin(), expected->end()), expected->end());
  }
  const bool saved = leaves_.saveBlocks(expected_leaves_) && nodes_.saveBlocks(expected_nodes_);
  expectNothing();
  return saved;
}

void TreeBlocks::forget() {
  expectNothing();
  leaf_cache_->clear();
  node_cache_->clear();
}

bool TreeBlocks::foundDamage() const {
  return reported_damage_ || leaf_cache_->foundDamage() || node_cache_->foundDamage();
}

void TreeBlocks::reportDamage() {
  reported_damage_ = true;
  invalidate();
}

// Free is what cannot be reached from the root.
bool TreeBlocks::rebuildStacks() {
  std::vector<bool> used[2] = {std::vector<bool>(leaves_.header().last_block),
                               std::vector<bool>(nodes_.header().last_block)};
  std::vector<uint64_t> numbers;  // of the blocks of one level
  if (state_.height > 0) numbers.push_back(state_.root);
  for (uint32_t level = state_.height; level-- > 0;) {
    std::vector<bool>& used_here = used[level == 0 ? 0 : 1];
    std::vector<uint64_t> children;
    for (const uint64_t number : numbers) {
      if (number == 0 || number >= used_here.size() || used_here[number]) return false;
      used_here[number] = true;
      if (level == 0) continue;
      const BlockRef node = get(number, level);
      if (!node) return false;
      for (uint32_t i = 0; i <= node.head()->count; ++i) {
        children.push_back(childOf(node.head(), i, node_cache_->format().entry_bytes));
      }
    }
    numbers = std::move(children);
  }
  TPIE_LOG("the stacks of free blocks are made anew");
  return leaves_.rebuildStack(used[0]) && nodes_.rebuildStack(used[1]);
}

BlockRef TreeBlocks::get(uint64_t number, uint32_t level) {
  BlockRef block = cache(level).get(number, level);
  if (!block) invalidate();
  return block;
}

BlockRef TreeBlocks::add(uint32_t level) {
  BlockRef block = cache(level).create(files(level).allocate(), level);
  if (!block) invalidate();
  return block;
}

bool TreeBlocks::drop(uint64_t number, uint32_t level) {
  if (files(level).header().used_blocks == 0 || !cache(level).discard(number)) {
    reportDamage();
    return false;
  }
  try {
    files(level).release(number);
  } catch (const std::bad_alloc&) {
    invalidate();
    throw;
  }
  return true;
}
