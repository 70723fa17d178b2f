#include "tree_store.h"

#include <algorithm>
#include <new>

#include "commit_protocol.h"
#include "tpie_log.h"
#include "tree_blocks.h"

namespace {

constexpr size_t kMaxBaseName = 126;  // characters; the rest does not count

// The files of a tree, in the order of their numbers.
enum FileOfTree { kLeafBlocks, kLeafStack, kNodeBlocks, kNodeStack, kFilesOfTree };

constexpr const char* kFileSuffixes[] = {".l.blk", ".l.stk", ".n.blk", ".n.stk"};

size_t fileNumber(size_t tree, FileOfTree file) { return tree * kFilesOfTree + file; }

// Of one tree: do leaves and nodes belong together?
bool pairAgrees(const BlockFileHeader& leaf, const BlockFileHeader& node) {
  const bool empty = leaf.height == 0;
  return node.root == 0 && node.height == 0 && node.records == 0 &&
         leaf.height <= TreeBlocks::kMaxHeight && (leaf.root == 0) == empty &&
         (leaf.records == 0) == empty && (leaf.used_blocks == 0) == empty &&
         (node.used_blocks == 0) == (leaf.height <= 1);
}

}  // namespace

TreeStore::TreeStore(const std::string& base_name, const std::vector<std::string>& suffixes,
                     AccessType access, const BTreeParams& params)
    : access_(access), params_(params), files_(base_name), files_of_(suffixes.size()) {
  if (suffixes.size() > kMaxTrees || !open(filePaths(base_name, suffixes))) return;
  if (!files_.recover(access_ == AccessType::kReadOnly) || !load()) return;
  const bool any_fresh = std::any_of(files_of_.begin(), files_of_.end(),
                                     [](const TreeFiles& of) { return of.leaves.isFresh(); });
  valid_ = !any_fresh || access_ == AccessType::kReadWrite;
  try {
    if (any_fresh && writable() && !commit()) rollback();
  } catch (...) {
    rollback();
    throw;
  }
  opened_ = valid_;
}

TreeStore::~TreeStore() = default;

std::vector<std::string> TreeStore::filePaths(const std::string& base_name,
                                              const std::vector<std::string>& suffixes) {
  std::vector<std::string> paths;
  for (const std::string& suffix : suffixes) {
    const std::string name = (base_name + suffix).substr(0, kMaxBaseName);
    for (const char* const of_file : kFileSuffixes) paths.push_back(name + of_file);
  }
  return paths;
}

bool TreeStore::open(const std::vector<std::string>& paths) {
  using platform::OpenMode;
  const bool read_only = access_ == AccessType::kReadOnly;
  // The leaf blocks first: who owns them owns the rest.
  for (const FileOfTree file : {kLeafBlocks, kLeafStack, kNodeBlocks, kNodeStack}) {
    const OpenMode mode = read_only             ? OpenMode::kRead
                          : file == kLeafBlocks ? OpenMode::kOwn
                                                : OpenMode::kUpdate;
    for (size_t number = file; number < paths.size(); number += kFilesOfTree) {
      if (!files_.open(number, paths[number], mode)) return false;
    }
  }
  return true;
}

bool TreeStore::load() {
  for (size_t tree = 0; tree < files_of_.size(); ++tree) {
    TreeFiles& of = files_of_[tree];
    if (!of.leaves.load(&files_, fileNumber(tree, kLeafBlocks), fileNumber(tree, kLeafStack),
                        params_.leaf_block_factor) ||
        !of.nodes.load(&files_, fileNumber(tree, kNodeBlocks), fileNumber(tree, kNodeStack),
                       params_.node_block_factor)) {
      return false;
    }
  }
  written_back_ = false;
  if (headersAgree()) return true;
  TPIE_LOG("the headers of the block files do not belong together");
  return false;
}

bool TreeStore::headersAgree() {
  bool any = false;
  for (const TreeFiles& of : files_of_) {
    if (of.leaves.isFresh() != of.nodes.isFresh()) return false;
    if (of.leaves.isFresh()) continue;
    const BlockFileHeader& leaf = of.leaves.header();
    const BlockFileHeader& node = of.nodes.header();
    if (!any) transaction_ = leaf.transaction;
    any = true;
    if (leaf.transaction != transaction_ || node.transaction != transaction_ ||
        !pairAgrees(leaf, node)) {
      return false;
    }
  }
  if (!any) transaction_ = 0;
  return true;
}

bool TreeStore::changed() const {
  return written_back_ || std::any_of(files_of_.begin(), files_of_.end(), [](const TreeFiles& of) {
           return of.leaves.isFresh() || (of.tree != nullptr && of.tree->changed());
         });
}

bool TreeStore::commit() {
  if (!writable()) return valid_;
  if (!changed()) return true;
  try {
    valid_ = writeAll();
  } catch (...) {
    valid_ = false;
    throw;
  }
  return valid_;
}

// The order of a commit. All that will be overwritten is saved before the first
// file changes, so that one sync of the journal serves the rest; and no memory is
// asked for behind the commit point.
bool TreeStore::writeAll() {
  if (!takes(ProtocolStep::kHeadersLast) && !writeHeaders()) return false;
  if (!saveChangedBlocks()) return false;
  for (TreeFiles& of : files_of_) {
    of.leaves.reserveBatch();
    of.nodes.reserveBatch();
    if (!of.leaves.saveStackAndHeader() || !of.nodes.saveStackAndHeader()) return false;
  }
  if (!files_.barrier() || !flushCaches()) return false;
  for (TreeFiles& of : files_of_) {
    if (!of.leaves.extend() || !of.nodes.extend() || !of.leaves.writeStack() ||
        !of.nodes.writeStack()) {
      return false;
    }
  }
  if (takes(ProtocolStep::kHeadersLast) && !writeHeaders()) return false;
  if (!files_.commit()) return false;
  ++transaction_;
  written_back_ = false;
  for (TreeFiles& of : files_of_) {
    of.leaves.beginBatch();
    of.nodes.beginBatch();
  }
  return true;
}

bool TreeStore::writeHeaders() {
  return std::all_of(files_of_.begin(), files_of_.end(), [this](TreeFiles& of) {
    const BlockFileHeader& header = of.leaves.header();
    TreeState state = {header.root, static_cast<uint32_t>(header.height), header.records};
    if (of.tree != nullptr) state = of.tree->state();
    return of.nodes.writeHeader(0, 0, 0, transaction_ + 1) &&
           of.leaves.writeHeader(state.root, state.height, state.records, transaction_ + 1);
  });
}

bool TreeStore::saveChangedBlocks() {
  return std::all_of(files_of_.begin(), files_of_.end(),
                     [](const TreeFiles& of) { return of.tree == nullptr || of.tree->saveOld(); });
}

// The journal's sync is what a batch waits for most, so it serves all of the batch.
bool TreeStore::saveExpectedBlocks() {
  return std::all_of(files_of_.begin(), files_of_.end(), [](const TreeFiles& of) {
    return of.tree == nullptr || of.tree->saveExpected();
  });
}

bool TreeStore::flushCaches() {
  written_back_ = true;
  return std::all_of(files_of_.begin(), files_of_.end(),
                     [](const TreeFiles& of) { return of.tree == nullptr || of.tree->flush(); });
}

// In the middle of a batch: a cache is full of changed blocks.
bool TreeStore::writeBack() {
  try {
    return writable() && saveExpectedBlocks() && saveChangedBlocks() && files_.barrier() &&
           flushCaches();
  } catch (...) {
    invalidate();
    throw;
  }
}

bool TreeStore::rollback() {
  if (access_ != AccessType::kReadWrite) return valid_;
  valid_ = false;
  const bool damaged = std::any_of(files_of_.begin(), files_of_.end(), [](const TreeFiles& of) {
    return of.tree != nullptr && of.tree->foundDamage();
  });
  for (TreeFiles& of : files_of_) {
    if (of.tree != nullptr) of.tree->forget();
  }
  try {
    if (!files_.rollback() || !load()) return false;
  } catch (const std::bad_alloc&) {
    return false;
  }
  for (TreeFiles& of : files_of_) {
    if (of.tree != nullptr) of.tree->restoreState();
  }
  valid_ = opened_ && !damaged;  // trees of a store that did not open have no caches
  return valid_;
}
