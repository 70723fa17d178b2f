// One block file and the stack of its free blocks: NAME.blk and NAME.stk.
//
// Blocks are numbered from 1 (bte_stream_base.h draws the file). A freed block
// goes on the stack, and the next block asked for is the one freed last; the
// file grows only when the stack is empty. The stack is kept in memory and
// written whole by writeStack(). An empty one is a file of length 0, otherwise,
// little-endian:
//
//   0       4         8       16
//   +-------+---------+-------+-----------------------------+
//   | magic | CRC-32C | count | `count` block numbers, the  |
//   | u32   | u32     | u64   | one freed last at the end   |
//   +-------+---------+-------+-----------------------------+
//
// The CRC covers the whole file, its own four bytes taken as zeros.
//
// A zero-length block file counts as absent: it is what an opening leaves that
// did not come to write the header. A false says that the disk failed or that
// the files are damaged; what it means for the trees is decided in
// tree_store.cpp. Members that may need memory throw std::bad_alloc.
// Tests: tests/unit/store/block_collection_test.cpp.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "bte_stream_base.h"
#include "journalled_files.h"

class BlockCollection {
 public:
  // Reads header and stack of the two files, which have these numbers in
  // `files`. Blocks are block_factor operating-system blocks long. Called again,
  // it forgets what it knew. Nothing is written: a collection that was absent
  // becomes one by writeStack() and writeHeader().
  bool load(JournalledFiles* files, size_t block_file, size_t stack_file, uint32_t block_factor);
  bool isFresh() const { return fresh_; }  // was absent, and has no header yet

  // The stack file is not what the header says. rebuildStack() makes it anew:
  // free is what the tree does not reach. False when the header does not count
  // as many; used[number] for 1 to last_block - 1.
  bool stackIsDamaged() const { return stack_damaged_; }
  bool rebuildStack(const std::vector<bool>& used);

  const BlockFileHeader& header() const { return header_; }
  uint32_t blockBytes() const { return static_cast<uint32_t>(header_.logical_block_size); }

  // A whole block of blockBytes() bytes.
  bool read(uint64_t number, void* block);
  bool write(uint64_t number, const void* block);

  uint64_t allocate();            // the number of a block now in use
  void release(uint64_t number);  // is free from now on

  const std::vector<uint64_t>& freeBlocks() const { return free_blocks_; }

  // The steps of a commit, in the order in which TreeStore takes them. Saving is
  // for the journal: the old contents of what is about to be written. A block
  // that was free at the begin of the batch has none worth saving.
  void reserveBatch();                                    // memory that beginBatch() will need
  bool saveBlocks(const std::vector<uint64_t>& numbers);  // ascending
  bool saveStackAndHeader();
  bool extend();      // the file is as long as its block numbers say
  bool writeStack();  // if it has changed since the last time
  bool writeHeader(uint64_t root, uint64_t height, uint64_t records, uint64_t transaction);
  void beginBatch();  // what is on disk now is the old state

 private:
  bool readHeader();
  bool readStack();
  bool isWorthSaving(uint64_t number) const;
  uint64_t offsetOf(uint64_t number) const {
    return header_.os_block_size + (number - 1) * header_.logical_block_size;
  }

  JournalledFiles* files_ = nullptr;
  size_t block_file_ = 0;
  size_t stack_file_ = 0;
  BlockFileHeader header_;
  bool fresh_ = false;
  std::vector<uint64_t> free_blocks_;
  bool stack_changed_ = false;
  bool stack_damaged_ = false;
  std::vector<bool> settled_;  // by block number: free at begin, or saved since
};
