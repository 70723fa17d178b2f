#include "block_format.h"

#include <cstring>

#include "crc32c.h"

namespace {

size_t usedBytes(const BlockFormat& format, const BlockHead& block) {
  return sizeof(BlockHead) + size_t{block.count} * format.entry_bytes;
}

uint32_t blockCrc(const BlockFormat& format, BlockHead* block) {
  const uint32_t kept = block->crc;
  block->crc = 0;
  const uint32_t crc = crc32c(block, usedBytes(format, *block));
  block->crc = kept;
  return crc;
}

}  // namespace

void sealBlock(const BlockFormat& format, BlockHead* block) {
  const size_t used = usedBytes(format, *block);
  std::memset(reinterpret_cast<unsigned char*>(block) + used, 0, format.block_bytes - used);
  block->crc = blockCrc(format, block);
}

bool blockIsSound(const BlockFormat& format, BlockHead* block, uint64_t number) {
  // The count first: it says how far the CRC reaches.
  return block->kind == format.kind && block->number == number && block->count >= 1 &&
         block->count <= format.capacity && block->crc == blockCrc(format, block);
}
