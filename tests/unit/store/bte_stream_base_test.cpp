#include "bte_stream_base.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "crc32c.h"
#include "little_endian.h"

namespace {

BlockFileHeader someHeader() {
  BlockFileHeader header;
  header.total_blocks = 10;
  header.last_block = 10;
  header.used_blocks = 7;
  header.os_block_size = 65536;
  header.logical_block_size = 131072;
  header.root = 5;
  header.height = 3;
  header.records = 123456789012345;
  header.transaction = 42;
  return header;
}

// With a check sum that fits, whatever the fields say.
bool decodes(const BlockFileHeader& header) {
  BlockFileHeader out;
  return decodeBlockFileHeader(encodeBlockFileHeader(header), &out);
}

TEST(BlockFileHeader, EveryFieldStandsAtItsPlace) {
  const BlockFileHeaderBytes bytes = encodeBlockFileHeader(someHeader());
  ASSERT_EQ(576u, bytes.size());
  EXPECT_EQ((std::vector<unsigned char>{0x43, 0x42, 0x50, 0x54, 1, 0, 0, 0, 0, 0, 0, 0}),
            std::vector<unsigned char>(bytes.begin(), bytes.begin() + 12));
  EXPECT_EQ(0u, loadLittle32(&bytes[12]));
  const uint64_t fields[] = {576, 10, 10, 7, 65536, 131072, 5, 3, 123456789012345, 42};
  for (size_t i = 0; i < 10; ++i) EXPECT_EQ(fields[i], loadLittle64(&bytes[16 + 8 * i])) << i;

  BlockFileHeaderBytes without_crc = bytes;
  storeLittle32(&without_crc[96], 0);
  EXPECT_EQ(crc32c(without_crc.data(), without_crc.size()), loadLittle32(&bytes[96]));
  for (size_t i = 100; i < bytes.size(); ++i) EXPECT_EQ(0, bytes[i]) << i;
}

TEST(BlockFileHeader, DecodingGivesBackWhatWasEncoded) {
  BlockFileHeader read;
  ASSERT_TRUE(decodeBlockFileHeader(encodeBlockFileHeader(someHeader()), &read));
  EXPECT_EQ(encodeBlockFileHeader(someHeader()), encodeBlockFileHeader(read));
  EXPECT_EQ(9u, read.blocks());
  EXPECT_EQ(2u, read.freeBlocks());
  EXPECT_EQ(65536u + 9 * 131072, read.fileLength());
}

TEST(BlockFileHeader, CountersOfANewFileStartAtOne) {
  const BlockFileHeader header;
  EXPECT_EQ(1u, header.total_blocks);
  EXPECT_EQ(1u, header.last_block);
  EXPECT_EQ(0u, header.used_blocks);
  EXPECT_EQ(0u, header.blocks());
}

TEST(BlockFileHeader, EveryFlippedBitIsNoticedAndLeavesTheRecordAlone) {
  const BlockFileHeaderBytes good = encodeBlockFileHeader(someHeader());
  for (size_t bit = 0; bit < good.size() * 8; ++bit) {
    BlockFileHeaderBytes bytes = good;
    bytes[bit / 8] ^= static_cast<unsigned char>(1 << bit % 8);
    BlockFileHeader header;
    ASSERT_FALSE(decodeBlockFileHeader(bytes, &header)) << "bit " << bit;
    ASSERT_EQ(0u, header.os_block_size);
  }
}

TEST(BlockFileHeader, ForeignMagicVersionTypeAndLengthAreRefusedWithAFittingCheckSum) {
  for (const size_t offset : {0, 4, 8, 16}) {
    BlockFileHeaderBytes bytes = encodeBlockFileHeader(someHeader());
    bytes[offset] ^= 1;
    storeLittle32(&bytes[96], 0);
    storeLittle32(&bytes[96], crc32c(bytes.data(), bytes.size()));
    BlockFileHeader header;
    EXPECT_FALSE(decodeBlockFileHeader(bytes, &header)) << offset;
  }
}

TEST(BlockFileHeader, CountersThatContradictEachOtherAreRefused) {
  const auto with = [](auto change) {
    BlockFileHeader header = someHeader();
    change(&header);
    return header;
  };
  EXPECT_TRUE(decodes(someHeader()));
  EXPECT_TRUE(decodes(with([](BlockFileHeader* h) { h->used_blocks = 9; })));
  EXPECT_FALSE(decodes(with([](BlockFileHeader* h) { h->used_blocks = 10; })));
  EXPECT_FALSE(decodes(with([](BlockFileHeader* h) { h->total_blocks = 11; })));
  EXPECT_FALSE(decodes(with([](BlockFileHeader* h) { h->last_block = h->total_blocks = 0; })));
  EXPECT_FALSE(decodes(with([](BlockFileHeader* h) { h->logical_block_size = 0; })));
  EXPECT_FALSE(decodes(with([](BlockFileHeader* h) { h->os_block_size = 575; })));
  // Lengths past what a file can have would wrap around.
  EXPECT_FALSE(decodes(with([](BlockFileHeader* h) { h->os_block_size = UINT64_MAX; })));
  EXPECT_FALSE(decodes(with([](BlockFileHeader* h) { h->logical_block_size = UINT64_MAX / 4; })));
  EXPECT_FALSE(
      decodes(with([](BlockFileHeader* h) { h->last_block = h->total_blocks = UINT64_MAX; })));
}

}  // namespace
