// What leaves and nodes have in common: the head of a block and its check.
//
//   0       4       8               16      20      24              32
//   +-------+-------+---------------+-------+-------+---------------+-----------+-------+
//   | kind  | CRC   | own number    | level | count | link          | `count`   | zeros |
//   | u32   | u32   | u64           | u32   | u32   | u64           | entries   |       |
//   +-------+-------+---------------+-------+-------+---------------+-----------+-------+
//
// All little-endian, as the processors are that this runs on: blocks are used
// where they lie. The CRC-32C covers head and entries, its own four bytes taken
// as zeros. The rest of the block is zero on disk, so that equal operations
// give equal files. What an entry and the link are is drawn in btree_node.h.
// Tests: tests/unit/store/block_cache_test.cpp.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

static_assert(std::endian::native == std::endian::little, "blocks are little-endian as they lie");

struct BlockHead {
  uint32_t kind;
  uint32_t crc;
  uint64_t number;
  uint32_t level;  // 0: leaf
  uint32_t count;  // entries, at least 1 on disk
  uint64_t link;
};
static_assert(sizeof(BlockHead) == 32);

inline constexpr uint32_t kLeafKind = 0x4641454C;  // "LEAF"
inline constexpr uint32_t kNodeKind = 0x45444F4E;  // "NODE"

// How the blocks of one collection are filled.
struct BlockFormat {
  uint32_t kind = 0;
  uint32_t block_bytes = 0;
  uint32_t entry_bytes = 0;
  uint32_t capacity = 0;  // entries
};

// Before a block is written: zeros behind its entries, its CRC in its head.
void sealBlock(const BlockFormat& format, BlockHead* block);

// After a block was read: is it the one with this number, whole, and of this
// format? Changes the block while it looks, but puts it back.
bool blockIsSound(const BlockFormat& format, BlockHead* block, uint64_t number);
