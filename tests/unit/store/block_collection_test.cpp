#include "block_collection.h"

#include <gtest/gtest.h>

#include "fail_point.h"
#include "little_endian.h"
#include "store_records.h"
#include "temp_dir.h"

namespace {

using platform::OpenMode;

constexpr uint32_t kBlock = 1024;

// Files in a fresh directory, made of small blocks.
class BlockCollectionTest : public testing::Test {
 protected:
  BlockCollectionTest() { system_.setGranularity(kBlock); }

  static std::string block(char fill) { return std::string(kBlock, fill); }

  static bool commit(BlockCollection* collection) {
    return collection->extend() && collection->writeStack() && collection->writeHeader(0, 0, 0, 0);
  }

  // Four blocks 'a' to 'd', of which `freed` are given back in that order.
  void makeFiles(const std::vector<uint64_t>& freed) {
    BlockCollection made;
    ASSERT_TRUE(made.open("c", OpenMode::kUpdate, 1));
    for (char fill = 'a'; fill <= 'd'; ++fill) {
      ASSERT_TRUE(made.write(made.allocate(), block(fill).data()));
    }
    for (const uint64_t number : freed) ASSERT_TRUE(made.release(number));
    ASSERT_TRUE(commit(&made));
  }

  bool opens(OpenMode mode = OpenMode::kUpdate, uint32_t factor = 1) {
    BlockCollection collection;
    return collection.open("c", mode, factor);
  }

  TempDir dir_;
  FailPoint system_;
};

TEST_F(BlockCollectionTest, OpeningForWritingMakesBothFilesEmpty) {
  BlockCollection collection;
  ASSERT_TRUE(collection.open("c", OpenMode::kUpdate, 1));
  EXPECT_TRUE(collection.isFresh());
  EXPECT_EQ("", dir_.read("c.blk"));
  EXPECT_EQ("", dir_.read("c.stk"));
}

TEST_F(BlockCollectionTest, AFreshHeaderFillsOneOperatingSystemBlockWithZerosBehindIt) {
  {
    BlockCollection collection;
    ASSERT_TRUE(collection.open("c", OpenMode::kUpdate, 3));
    ASSERT_TRUE(commit(&collection));
    EXPECT_FALSE(collection.isFresh());
  }
  const std::string file = dir_.read("c.blk");
  ASSERT_EQ(kBlock, file.size());
  EXPECT_EQ(std::string(kBlock - 576, '\0'), file.substr(576));
  const BlockFileHeader header = headerOnDisk(dir_, "c.blk");
  EXPECT_EQ(1u, header.total_blocks);
  EXPECT_EQ(1u, header.last_block);
  EXPECT_EQ(0u, header.used_blocks);
  EXPECT_EQ(kBlock, header.os_block_size);
  EXPECT_EQ(3 * kBlock, header.logical_block_size);
  EXPECT_EQ("", dir_.read("c.stk"));
}

TEST_F(BlockCollectionTest, BlockKLiesOneSystemBlockAndKMinusOneLogicalBlocksFromTheStart) {
  {
    BlockCollection collection;
    ASSERT_TRUE(collection.open("c", OpenMode::kUpdate, 2));
    EXPECT_EQ(1u, collection.allocate());
    EXPECT_EQ(2u, collection.allocate());
    ASSERT_TRUE(collection.write(2, (block('x') + block('y')).data()));
    ASSERT_TRUE(commit(&collection));
  }
  const std::string file = dir_.read("c.blk");
  ASSERT_EQ(5 * kBlock, file.size());
  EXPECT_EQ(block('x') + block('y'), file.substr(3 * kBlock));
}

TEST_F(BlockCollectionTest, ReopeningGivesBackBlocksAndCounters) {
  makeFiles({});
  BlockCollection collection;
  ASSERT_TRUE(collection.open("c", OpenMode::kRead, 1));
  EXPECT_FALSE(collection.isFresh());
  EXPECT_EQ(4u, collection.header().used_blocks);
  std::string content(kBlock, '\0');
  ASSERT_TRUE(collection.read(3, content.data()));
  EXPECT_EQ(block('c'), content);
  EXPECT_FALSE(collection.read(0, content.data()));
  EXPECT_FALSE(collection.read(5, content.data()));
}

TEST_F(BlockCollectionTest, FreedBlocksAreReusedLastFreedFirstBeforeTheFileGrows) {
  makeFiles({2, 4, 1});
  BlockCollection collection;
  ASSERT_TRUE(collection.open("c", OpenMode::kUpdate, 1));
  EXPECT_EQ(1u, collection.header().used_blocks);
  EXPECT_EQ(1u, collection.allocate());
  EXPECT_EQ(4u, collection.allocate());
  EXPECT_EQ(2u, collection.allocate());
  EXPECT_EQ(5u, collection.allocate());
  EXPECT_EQ(6u, collection.header().last_block);
  EXPECT_EQ(5u, collection.header().used_blocks);
}

TEST_F(BlockCollectionTest, TheStackFileHoldsCountAndNumbersAndEndsWithTheStack) {
  makeFiles({2, 4, 1});
  const std::string file = dir_.read("c.stk");
  ASSERT_EQ(16u + 3 * 8, file.size());
  const auto* bytes = reinterpret_cast<const unsigned char*>(file.data());
  EXPECT_EQ(3u, loadLittle64(bytes + 8));
  EXPECT_EQ(2u, loadLittle64(bytes + 16));
  EXPECT_EQ(4u, loadLittle64(bytes + 24));
  EXPECT_EQ(1u, loadLittle64(bytes + 32));

  BlockCollection collection;
  ASSERT_TRUE(collection.open("c", OpenMode::kUpdate, 1));
  collection.allocate();
  ASSERT_TRUE(commit(&collection));
  EXPECT_EQ(16u + 2 * 8, dir_.read("c.stk").size());
  collection.allocate();
  collection.allocate();
  ASSERT_TRUE(commit(&collection));
  EXPECT_EQ("", dir_.read("c.stk"));
}

TEST_F(BlockCollectionTest, AnUnchangedStackIsNotWritten) {
  makeFiles({2});
  BlockCollection collection;
  ASSERT_TRUE(collection.open("c", OpenMode::kUpdate, 1));
  system_.failAny({Call::kWrite, Call::kTruncate}, 0);
  ASSERT_TRUE(collection.writeStack());
  EXPECT_EQ(0, system_.count());
}

TEST_F(BlockCollectionTest, ABlockFreedBeforeItWasWrittenStillCountsInTheFilesLength) {
  {
    BlockCollection collection;
    ASSERT_TRUE(collection.open("c", OpenMode::kUpdate, 1));
    ASSERT_TRUE(collection.release(collection.allocate()));
    ASSERT_TRUE(commit(&collection));
  }
  EXPECT_EQ(2 * kBlock, dir_.read("c.blk").size());
  EXPECT_TRUE(opens());
}

TEST_F(BlockCollectionTest, AZeroLengthBlockFileCountsAsAbsentAndALeftOverStackIsCut) {
  makeFiles({2, 3});
  dir_.write("c.blk", "");
  BlockCollection collection;
  ASSERT_TRUE(collection.open("c", OpenMode::kUpdate, 1));
  EXPECT_TRUE(collection.isFresh());
  EXPECT_EQ(1u, collection.allocate());
  ASSERT_TRUE(commit(&collection));
  EXPECT_EQ("", dir_.read("c.stk"));
}

TEST_F(BlockCollectionTest, ReadingOnlyNeedsBothFilesAndAHeader) {
  EXPECT_FALSE(opens(OpenMode::kRead));
  EXPECT_FALSE(dir_.exists("c.blk"));
  dir_.write("c.blk", "");
  dir_.write("c.stk", "");
  EXPECT_FALSE(opens(OpenMode::kRead));
  makeFiles({});
  EXPECT_TRUE(opens(OpenMode::kRead));
  std::filesystem::remove("c.stk");
  EXPECT_FALSE(opens(OpenMode::kRead));
}

TEST_F(BlockCollectionTest, TheStackIsReadOnlyWhenTheHeaderShowsFreedBlocks) {
  makeFiles({});
  dir_.write("c.stk", "of no interest");
  EXPECT_TRUE(opens());
  makeFiles({1});  // reopened, grown and freed once
  dir_.write("c.stk", "of interest now");
  EXPECT_FALSE(opens());
}

TEST_F(BlockCollectionTest, EveryFlippedBitOfTheStackIsNoticed) {
  makeFiles({3, 1});
  const std::string good = dir_.read("c.stk");
  for (size_t bit = 0; bit < good.size() * 8; ++bit) {
    std::string bad = good;
    bad[bit / 8] = static_cast<char>(bad[bit / 8] ^ 1 << bit % 8);
    overwrite("c.stk", bad);
    ASSERT_FALSE(opens()) << "bit " << bit;
  }
  dir_.write("c.stk", good + '\0');
  EXPECT_FALSE(opens());
  dir_.write("c.stk", good.substr(0, good.size() - 1));
  EXPECT_FALSE(opens());
  dir_.write("c.stk", good);
  EXPECT_TRUE(opens());
}

TEST_F(BlockCollectionTest, AFileThatIsNotAsLongAsItsHeaderSaysIsRefused) {
  makeFiles({});
  const std::string good = dir_.read("c.blk");
  for (const size_t length : {size_t{1}, size_t{575}, size_t{kBlock}, good.size() - 1}) {
    dir_.write("c.blk", good.substr(0, length));
    EXPECT_FALSE(opens()) << length;
  }
  dir_.write("c.blk", good + "x");
  EXPECT_FALSE(opens());
  dir_.write("c.blk", good);
  EXPECT_TRUE(opens());
}

TEST_F(BlockCollectionTest, OtherBlockSizesAreRefused) {
  makeFiles({});
  EXPECT_FALSE(opens(OpenMode::kUpdate, 2));
  EXPECT_FALSE(opens(OpenMode::kUpdate, 0));
  EXPECT_FALSE(opens(OpenMode::kUpdate, UINT32_MAX));
  system_.setGranularity(2 * kBlock);
  EXPECT_FALSE(opens());
}

TEST_F(BlockCollectionTest, TheOwnerKeepsEveryOtherOwnerOut) {
  BlockCollection owner;
  ASSERT_TRUE(owner.open("c", OpenMode::kOwn, 1));
  EXPECT_FALSE(opens(OpenMode::kOwn));
}

}  // namespace
