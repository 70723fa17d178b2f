// The header record that every block file begins with.
//
// A block file is one operating-system block, of which the header takes the
// first 576 bytes and zeros the rest, and then the blocks, numbered from 1:
//
//   0                os                   os + logical
//   +--------+-------+--------------------+--------------------+----
//   | header | zeros | block 1            | block 2            | ...
//   +--------+-------+--------------------+--------------------+----
//
// os = operating-system block size, logical = logical block size, a multiple
// of it. The header, integers little-endian:
//
//   0       4         8      12        16       24      32     40     48   56
//   +-------+---------+------+---------+--------+-------+------+------+----+---------+
//   | magic | version | type | padding | header | total | last | used | os | logical |
//   | u32   | u32 1   | u32 0| u32 0   | 576    | u64   | u64  | u64  | u64| u64     |
//   +-------+---------+------+---------+--------+-------+------+------+----+---------+
//   64     72       80        88            96           100              576
//   +------+--------+---------+-------------+------------+----------------+
//   | root | height | records | transaction | CRC-32C    | zeros          |
//   | u64  | u64    | u64     | u64         | u32        |                |
//   +------+--------+---------+-------------+------------+----------------+
//
// `total` and `last` are one more than the blocks in the file: the number that
// the next new block gets. used <= last - 1; the difference is the free blocks.
// From byte 64 on stands what the tree keeps about itself: root, height and
// records in the file of its leaves only, zeros in that of its nodes, and in
// both the number of the commit that wrote them, the same in all files of an
// index. The CRC is that of the 576
// bytes with its own four as zeros. Tests: tests/unit/store/bte_stream_base_test.cpp.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

struct BlockFileHeader {
  uint64_t total_blocks = 1;
  uint64_t last_block = 1;
  uint64_t used_blocks = 0;
  uint64_t os_block_size = 0;       // bytes
  uint64_t logical_block_size = 0;  // bytes
  uint64_t root = 0;                // block number; 0: the tree is empty
  uint64_t height = 0;              // levels, the leaves' included
  uint64_t records = 0;
  uint64_t transaction = 0;  // of the commit that wrote this

  uint64_t blocks() const { return last_block - 1; }
  uint64_t freeBlocks() const { return blocks() - used_blocks; }
  uint64_t fileLength() const { return os_block_size + blocks() * logical_block_size; }
};

inline constexpr size_t kBlockFileHeaderBytes = 576;
using BlockFileHeaderBytes = std::array<unsigned char, kBlockFileHeaderBytes>;

BlockFileHeaderBytes encodeBlockFileHeader(const BlockFileHeader& header);

// False when the bytes are no header of this version, are damaged, or do not
// agree with themselves.
bool decodeBlockFileHeader(const BlockFileHeaderBytes& bytes, BlockFileHeader* header);
