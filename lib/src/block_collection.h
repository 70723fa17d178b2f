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
// did not come to write the header. A false says that the disk or the memory
// failed or that the files are damaged; what it means for the tree is decided
// in tree_blocks.cpp. Tests: tests/unit/store/block_collection_test.cpp.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "bte_stream_base.h"
#include "platform.h"

enum class AccessType { kReadOnly = 1, kReadWrite = 2 };

class BlockCollection {
 public:
  // `block_mode` is the mode of the block file: kRead, kUpdate or kOwn. The
  // stack file is opened to match. Nothing is written: a collection that was
  // absent becomes one by writeStack() and writeHeader().
  bool open(const std::string& name, platform::OpenMode block_mode, uint32_t block_factor);
  bool isFresh() const { return fresh_; }  // was absent, and has no header yet

  const BlockFileHeader& header() const { return header_; }
  uint32_t blockBytes() const { return static_cast<uint32_t>(header_.logical_block_size); }

  // A whole block of blockBytes() bytes.
  bool read(uint64_t number, void* block);
  bool write(uint64_t number, const void* block);

  uint64_t allocate();            // the number of a block now in use
  bool release(uint64_t number);  // is free from now on

  const std::vector<uint64_t>& freeBlocks() const { return free_blocks_; }

  // The steps of a commit, in the order in which TreeBlocks takes them.
  bool extend();      // the file is as long as its block numbers say
  bool writeStack();  // if it has changed since the last time
  bool writeHeader(uint64_t root, uint64_t height, uint64_t records, uint64_t transaction);

 private:
  bool readHeader();
  bool readStack();
  bool overwrite(platform::File* file, uint64_t offset, const void* data, size_t bytes);
  bool setLength(platform::File* file, uint64_t length);

  std::unique_ptr<platform::File> block_file_;
  std::unique_ptr<platform::File> stack_file_;
  BlockFileHeader header_;
  uint64_t file_length_ = 0;  // of the block file
  bool fresh_ = false;
  std::vector<uint64_t> free_blocks_;
  bool stack_changed_ = false;
};
