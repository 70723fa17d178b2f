#include "tree_blocks.h"

#include <algorithm>
#include <new>

#include "tpie_log.h"

namespace {

constexpr size_t kMaxBaseName = 126;  // characters; the rest does not count
constexpr uint32_t kLeast = 2;        // entries: what a split and a merge can work with

// Splits leave at least half of a full block on either side, so no more may be
// asked of a block.
uint32_t leastFill(uint32_t wanted, uint32_t max) {
  return wanted == 0 ? max / 2 : std::min(wanted, max / 2);
}

}  // namespace

TreeBlocks::TreeBlocks(const std::string& base_name, AccessType access, const BTreeParams& params,
                       uint32_t leaf_entry_bytes, uint32_t node_entry_bytes)
    : access_(access) {
  if (!openFiles(base_name.substr(0, kMaxBaseName), params) ||
      !setSizes(params, leaf_entry_bytes, node_entry_bytes)) {
    return;
  }
  leaf_cache_.emplace(&leaves_,
                      BlockFormat{.kind = kLeafKind,
                                  .block_bytes = leaves_.blockBytes(),
                                  .entry_bytes = leaf_entry_bytes,
                                  .capacity = leaf_max_},
                      params.leaf_cache_size);
  node_cache_.emplace(&nodes_,
                      BlockFormat{.kind = kNodeKind,
                                  .block_bytes = nodes_.blockBytes(),
                                  .entry_bytes = node_entry_bytes,
                                  .capacity = node_max_},
                      params.node_cache_size);
  const BlockFileHeader& header = leaves_.header();
  state_ = {header.root, static_cast<uint32_t>(header.height), header.records};
  transaction_ = header.transaction;
  valid_ = true;
}

TreeBlocks::~TreeBlocks() { commit(); }

bool TreeBlocks::openFiles(const std::string& base_name, const BTreeParams& params) {
  const bool read_only = access_ == AccessType::kReadOnly;
  using platform::OpenMode;
  if (!leaves_.open(base_name + ".l", read_only ? OpenMode::kRead : OpenMode::kOwn,
                    params.leaf_block_factor) ||
      !nodes_.open(base_name + ".n", read_only ? OpenMode::kRead : OpenMode::kUpdate,
                   params.node_block_factor)) {
    return false;
  }
  if (!headersAgree()) {
    TPIE_LOG("headers of " + base_name + " do not belong together");
    return false;
  }
  for (BlockCollection* fresh : {&leaves_, &nodes_}) {
    if (fresh->isFresh() && !(fresh->writeStack() && fresh->writeHeader(0, 0, 0, 0))) return false;
  }
  return true;
}

bool TreeBlocks::headersAgree() const {
  const BlockFileHeader& leaf = leaves_.header();
  const BlockFileHeader& node = nodes_.header();
  const bool empty = leaf.height == 0;
  return node.root == 0 && node.height == 0 && node.records == 0 &&
         leaf.transaction == node.transaction && leaf.height <= kMaxHeight &&
         (leaf.root == 0) == empty && (leaf.records == 0) == empty &&
         (leaf.used_blocks == 0) == empty && (node.used_blocks == 0) == (leaf.height <= 1);
}

bool TreeBlocks::setSizes(const BTreeParams& params, uint32_t leaf_entry_bytes,
                          uint32_t node_entry_bytes) {
  constexpr uint32_t kHeadBytes = sizeof(BlockHead);
  leaf_max_ = (leaves_.blockBytes() - kHeadBytes) / leaf_entry_bytes;
  node_max_ = (nodes_.blockBytes() - kHeadBytes) / node_entry_bytes;
  if (leaf_max_ < kLeast || node_max_ < kLeast) return false;
  if (params.leaf_size_max != 0) leaf_max_ = std::clamp(params.leaf_size_max, kLeast, leaf_max_);
  if (params.node_size_max != 0) node_max_ = std::clamp(params.node_size_max, kLeast, node_max_);
  leaf_min_ = leastFill(params.leaf_size_min, leaf_max_);
  node_min_ = leastFill(params.node_size_min, node_max_);
  return true;
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
  if (cache(level).discard(number) && files(level).release(number)) return true;
  invalidate();
  return false;
}

bool TreeBlocks::commit() {
  if (!writable()) return valid_;
  if (!leaf_cache_->changed() && !node_cache_->changed()) return true;
  try {
    valid_ = writeAll();
  } catch (const std::bad_alloc&) {
    valid_ = false;
  }
  return valid_;
}

// The order of a commit. The headers come last, because they are what makes the
// rest belong to the tree, and the leaves' is the very last: it holds the root.
bool TreeBlocks::writeAll() {
  ++transaction_;
  return leaf_cache_->flush() && node_cache_->flush() &&  //
         leaves_.extend() && nodes_.extend() &&           //
         leaves_.writeStack() && nodes_.writeStack() &&   //
         nodes_.writeHeader(0, 0, 0, transaction_) &&
         leaves_.writeHeader(state_.root, state_.height, state_.records, transaction_);
}
