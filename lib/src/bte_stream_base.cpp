#include "bte_stream_base.h"

#include "crc32c.h"
#include "little_endian.h"

namespace {

constexpr uint32_t kMagic = 0x54504243;
constexpr uint32_t kVersion = 1;
constexpr uint32_t kType = 0;
constexpr size_t kCrcOffset = 96;

// Larger files cannot be addressed, and sums of sizes could overflow.
constexpr uint64_t kMaxFileLength = uint64_t{1} << 62;

// The places of the header's 64-bit fields: one list for both directions.
template <typename Header, typename Visit>
void visitFields(Header& header, Visit visit) {
  visit(24, header.total_blocks);
  visit(32, header.last_block);
  visit(40, header.used_blocks);
  visit(48, header.os_block_size);
  visit(56, header.logical_block_size);
  visit(64, header.root);
  visit(72, header.height);
  visit(80, header.records);
  visit(88, header.transaction);
}

uint32_t headerCrc(BlockFileHeaderBytes bytes) {
  storeLittle32(&bytes[kCrcOffset], 0);
  return crc32c(bytes.data(), bytes.size());
}

}  // namespace

BlockFileHeaderBytes encodeBlockFileHeader(const BlockFileHeader& header) {
  BlockFileHeaderBytes bytes = {};
  storeLittle32(&bytes[0], kMagic);
  storeLittle32(&bytes[4], kVersion);
  storeLittle32(&bytes[8], kType);
  storeLittle64(&bytes[16], kBlockFileHeaderBytes);
  visitFields(header, [&](size_t offset, uint64_t value) { storeLittle64(&bytes[offset], value); });
  storeLittle32(&bytes[kCrcOffset], headerCrc(bytes));
  return bytes;
}

bool decodeBlockFileHeader(const BlockFileHeaderBytes& bytes, BlockFileHeader* header) {
  if (loadLittle32(&bytes[0]) != kMagic || loadLittle32(&bytes[4]) != kVersion ||
      loadLittle32(&bytes[8]) != kType || loadLittle64(&bytes[16]) != kBlockFileHeaderBytes ||
      loadLittle32(&bytes[kCrcOffset]) != headerCrc(bytes)) {
    return false;
  }
  BlockFileHeader read;
  visitFields(read, [&](size_t offset, uint64_t& value) { value = loadLittle64(&bytes[offset]); });
  if (read.last_block == 0 || read.total_blocks != read.last_block ||
      read.used_blocks > read.blocks() || read.os_block_size < kBlockFileHeaderBytes ||
      read.logical_block_size == 0 || read.os_block_size > kMaxFileLength / 2 ||
      read.blocks() > kMaxFileLength / 2 / read.logical_block_size) {
    return false;
  }
  *header = read;
  return true;
}
