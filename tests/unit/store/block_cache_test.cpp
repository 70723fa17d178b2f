#include "block_cache.h"

#include <gtest/gtest.h>

#include <cstring>
#include <new>

#include "crc32c.h"
#include "fail_point.h"
#include "mm_register.h"
#include "store_records.h"
#include "temp_dir.h"

namespace {

constexpr uint32_t kBlock = 1024;
constexpr BlockFormat kFormat = {
    .kind = kLeafKind, .block_bytes = kBlock, .entry_bytes = 8, .capacity = 100};

class BlockCacheTest : public testing::Test {
 protected:
  BlockCacheTest() {
    system_.setGranularity(kBlock);
    EXPECT_TRUE(files_.open(0, "c.blk", platform::OpenMode::kUpdate));
    EXPECT_TRUE(files_.open(1, "c.stk", platform::OpenMode::kUpdate));
    EXPECT_TRUE(files_.recover(/*read_only=*/false));
    EXPECT_TRUE(collection_.load(&files_, 0, 1, 1));
    EXPECT_TRUE(collection_.writeHeader(0, 0, 0, 0));
  }

  // As a store does it, but for the journal.
  class Cache : public BlockCache {
   public:
    Cache(BlockCollection* collection, const BlockFormat& format, uint32_t blocks)
        : BlockCache(collection, format, blocks, [this] {
            ++write_backs;
            return flush();
          }) {}
    int write_backs = 0;
  };

  // A new block of one entry, `value`.
  uint64_t make(BlockCache* cache, uint64_t value, uint32_t level = 0) {
    BlockRef block = cache->create(collection_.allocate(), level);
    EXPECT_TRUE(block);
    block.head()->count = 1;
    std::memcpy(block.head() + 1, &value, sizeof value);
    return block.number();
  }

  static uint64_t valueOf(const BlockRef& block) {
    uint64_t value = 0;
    std::memcpy(&value, block.head() + 1, sizeof value);
    return value;
  }

  std::string onDisk(uint64_t number) { return dir_.read("c.blk").substr(number * kBlock, kBlock); }

  TempDir dir_;
  FailPoint system_;
  JournalledFiles files_{"c"};
  BlockCollection collection_;
};

TEST_F(BlockCacheTest, AChangedBlockThatMakesRoomTakesAllChangedOnesToDiskWithIt) {
  Cache cache(&collection_, kFormat, 8);
  for (uint64_t value = 1; value <= 8; ++value) make(&cache, value * 10);
  EXPECT_TRUE(cache.get(1, 0));  // the second is now the one used longest ago
  system_.fail(Call::kWrite, 0);
  make(&cache, 90);
  EXPECT_EQ(1, cache.write_backs);
  EXPECT_EQ(8, system_.count());
  system_.fail(Call::kRead, 0);
  EXPECT_EQ(10u, valueOf(cache.get(1, 0)));
  EXPECT_EQ(0, system_.count());
  EXPECT_EQ(20u, valueOf(cache.get(2, 0)));
  EXPECT_EQ(1, system_.count());
}

TEST_F(BlockCacheTest, AnUnchangedBlockIsNotWrittenWhenItLeaves) {
  Cache cache(&collection_, kFormat, 8);
  for (uint64_t value = 1; value <= 9; ++value) make(&cache, value);
  ASSERT_TRUE(cache.flush());
  system_.fail(Call::kWrite, 0);
  for (uint64_t number = 1; number <= 9; ++number) EXPECT_TRUE(cache.get(number, 0));
  EXPECT_EQ(0, system_.count());
}

TEST_F(BlockCacheTest, ABlockThatIsHeldStaysWhereItIs) {
  Cache cache(&collection_, kFormat, 8);
  const uint64_t number = make(&cache, 7);
  const BlockRef held = cache.get(number, 0);
  for (uint64_t value = 1; value <= 20; ++value) make(&cache, value);
  EXPECT_EQ(number, held.number());
  EXPECT_EQ(7u, valueOf(held));
  EXPECT_FALSE(cache.discard(number));
}

TEST_F(BlockCacheTest, WithAllPlacesOfASetHeldThereIsNoRoom) {
  Cache cache(&collection_, kFormat, 8);
  std::vector<BlockRef> held;
  for (uint64_t value = 1; value <= 8; ++value) held.push_back(cache.get(make(&cache, value), 0));
  EXPECT_FALSE(cache.create(collection_.allocate(), 0));
  held.pop_back();
  EXPECT_TRUE(cache.create(collection_.allocate(), 0));
}

TEST_F(BlockCacheTest, BlocksOfDifferentSetsDoNotPushEachOtherOut) {
  Cache cache(&collection_, kFormat, 9);  // two sets
  for (uint64_t value = 1; value <= 16; ++value) make(&cache, value);
  system_.failAny({Call::kWrite, Call::kRead}, 0);
  for (uint64_t number = 1; number <= 16; ++number) EXPECT_TRUE(cache.get(number, 0));
  EXPECT_EQ(0, system_.count());
}

TEST_F(BlockCacheTest, AHandleThatMovesOnLetsGoOfItsBlock) {
  Cache cache(&collection_, kFormat, 8);
  BlockRef block = cache.get(make(&cache, 1), 0);
  block = cache.get(make(&cache, 2), 0);
  EXPECT_TRUE(cache.discard(1));
  EXPECT_FALSE(cache.discard(2));
  BlockRef other = std::move(block);
  EXPECT_FALSE(block);  // NOLINT: moved from on purpose
  EXPECT_EQ(2u, valueOf(other));
  other = BlockRef();
  EXPECT_TRUE(cache.discard(2));
}

TEST_F(BlockCacheTest, AWrittenBlockIsZeroBehindItsEntriesAndBearsItsCheckSum) {
  Cache cache(&collection_, kFormat, 8);
  const uint64_t number = make(&cache, 0x0102030405060708);
  {
    BlockRef block = cache.get(number, 0);
    std::memset(reinterpret_cast<char*>(block.head()) + 40, 'x', kBlock - 40);
    ASSERT_TRUE(cache.flush());
  }
  std::string bytes = onDisk(number);
  EXPECT_EQ("LEAF", bytes.substr(0, 4));
  EXPECT_EQ(std::string({8, 7, 6, 5, 4, 3, 2, 1}), bytes.substr(32, 8));
  EXPECT_EQ(std::string(kBlock - 40, '\0'), bytes.substr(40));
  uint32_t crc = 0;
  std::memcpy(&crc, &bytes[4], sizeof crc);
  bytes.replace(4, 4, 4, '\0');
  EXPECT_EQ(crc32c(bytes.data(), 40), crc);
}

TEST_F(BlockCacheTest, FlushWritesChangedBlocksInTheOrderOfTheFileAndOnlyOnce) {
  Cache cache(&collection_, kFormat, 16);
  for (uint64_t value = 1; value <= 16; ++value) make(&cache, value);
  EXPECT_TRUE(cache.changed());
  system_.fail(Call::kWrite, 0);
  ASSERT_TRUE(cache.flush());
  EXPECT_EQ(16, system_.count());
  EXPECT_FALSE(cache.changed());
  ASSERT_TRUE(cache.flush());
  EXPECT_EQ(16, system_.count());
}

TEST_F(BlockCacheTest, ADiscardedBlockIsNotWrittenAndItsNumberCanBeUsedAnew) {
  Cache cache(&collection_, kFormat, 8);
  const uint64_t number = make(&cache, 1);
  ASSERT_TRUE(cache.discard(number));
  system_.fail(Call::kWrite, 0);
  ASSERT_TRUE(cache.flush());
  EXPECT_EQ(0, system_.count());
  EXPECT_TRUE(cache.discard(number));  // also when it is not there
  EXPECT_TRUE(cache.create(number, 0));
  EXPECT_FALSE(cache.create(number, 0)) << "it is in use";
}

TEST_F(BlockCacheTest, ABlockOfAnotherLevelIsRefusedFromMemoryAndFromDisk) {
  uint64_t number = 0;
  {
    Cache cache(&collection_, kFormat, 8);
    number = make(&cache, 1, /*level=*/2);
    ASSERT_TRUE(cache.flush());
    EXPECT_TRUE(cache.get(number, 2));
    EXPECT_FALSE(cache.get(number, 1));
  }
  Cache cache(&collection_, kFormat, 8);
  EXPECT_FALSE(cache.get(number, 1));
  EXPECT_TRUE(cache.get(number, 2));
}

TEST_F(BlockCacheTest, EveryFlippedBitOfHeadAndEntriesIsNoticed) {
  uint64_t number = 0;
  {
    Cache cache(&collection_, kFormat, 8);
    number = make(&cache, 77);
    ASSERT_TRUE(cache.flush());
  }
  const std::string good = dir_.read("c.blk");
  for (size_t bit = 0; bit < 40 * 8; ++bit) {
    std::string bad = good;
    const size_t at = number * kBlock + bit / 8;
    bad[at] = static_cast<char>(bad[at] ^ 1 << bit % 8);
    overwrite("c.blk", bad);
    Cache cache(&collection_, kFormat, 8);
    ASSERT_FALSE(cache.get(number, 0)) << "bit " << bit;
    ASSERT_TRUE(cache.foundDamage());
  }
  dir_.write("c.blk", good);
  Cache cache(&collection_, kFormat, 8);
  EXPECT_TRUE(cache.get(number, 0));
}

TEST_F(BlockCacheTest, ABlockInThePlaceOfAnotherIsRefused) {
  {
    Cache cache(&collection_, kFormat, 8);
    make(&cache, 1);
    make(&cache, 2);
    ASSERT_TRUE(cache.flush());
  }
  std::string file = dir_.read("c.blk");
  file.replace(1 * kBlock, kBlock, onDisk(2));
  dir_.write("c.blk", file);
  Cache cache(&collection_, kFormat, 8);
  EXPECT_FALSE(cache.get(1, 0));
  EXPECT_TRUE(cache.get(2, 0));
}

TEST_F(BlockCacheTest, FailedReadsAndWritesGiveNoBlock) {
  Cache cache(&collection_, kFormat, 8);
  for (uint64_t value = 1; value <= 8; ++value) make(&cache, value);
  system_.fail(Call::kWrite, 1);
  EXPECT_FALSE(cache.create(collection_.allocate(), 0));
  EXPECT_FALSE(cache.foundDamage());
  system_.fail(Call::kWrite, 1);
  EXPECT_FALSE(cache.flush());
  system_.fail(Call::kWrite, 0);
  ASSERT_TRUE(cache.flush());
  make(&cache, 9);
  system_.fail(Call::kRead, 1);
  EXPECT_FALSE(cache.get(1, 0));
}

TEST_F(BlockCacheTest, ItsMemoryIsRegisteredForAsLongAsItLives) {
  const size_t before = MM_register_base::instance().memory_used();
  {
    Cache cache(&collection_, kFormat, 17);
    EXPECT_EQ(before + 24 * kBlock, MM_register_base::instance().memory_used());
  }
  EXPECT_EQ(before, MM_register_base::instance().memory_used());
}

TEST_F(BlockCacheTest, MemoryThatCannotBeHadThrowsAndIsNotRegistered) {
  MM_register_base& memory = MM_register_base::instance();
  const size_t before = memory.memory_used();
  system_.fail(Call::kAllocate, 1);
  EXPECT_THROW(Cache(&collection_, kFormat, 8), std::bad_alloc);
  EXPECT_EQ(before, memory.memory_used());

  memory.set_memory_limit(before + 8 * kBlock - 1);
  EXPECT_THROW(Cache(&collection_, kFormat, 8), std::bad_alloc);
  memory.set_memory_limit(0);
  EXPECT_EQ(before, memory.memory_used());
}

}  // namespace
