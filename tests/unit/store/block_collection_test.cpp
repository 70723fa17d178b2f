#include "block_collection.h"

#include <gtest/gtest.h>

#include <optional>

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

  // A collection and the files that it lies in.
  class Collection : public BlockCollection {
   public:
    bool open(OpenMode mode, uint32_t block_factor) {
      files_.emplace("c");
      return files_->open(0, "c.blk", mode) &&
             files_->open(1, "c.stk", mode == OpenMode::kRead ? mode : OpenMode::kUpdate) &&
             files_->recover(mode == OpenMode::kRead) && load(&*files_, 0, 1, block_factor);
    }
    bool commit() {
      reserveBatch();
      if (!saveStackAndHeader() || !files_->barrier() || !extend() || !writeStack() ||
          !writeHeader(0, 0, 0, 0) || !files_->commit()) {
        return false;
      }
      beginBatch();
      return true;
    }

   private:
    std::optional<JournalledFiles> files_;
  };

  // Four blocks 'a' to 'd', of which `freed` are given back in that order.
  void makeFiles(const std::vector<uint64_t>& freed) {
    Collection made;
    ASSERT_TRUE(made.open(OpenMode::kUpdate, 1));
    for (char fill = 'a'; fill <= 'd'; ++fill) {
      ASSERT_TRUE(made.write(made.allocate(), block(fill).data()));
    }
    for (const uint64_t number : freed) made.release(number);
    ASSERT_TRUE(made.commit());
  }

  bool isWhole() {
    Collection collection;
    return collection.open(OpenMode::kUpdate, 1) && !collection.stackIsDamaged();
  }

  bool opens(OpenMode mode = OpenMode::kUpdate, uint32_t factor = 1) {
    Collection collection;
    return collection.open(mode, factor);
  }

  TempDir dir_;
  FailPoint system_;
};

TEST_F(BlockCollectionTest, OpeningForWritingMakesBothFilesEmpty) {
  Collection collection;
  ASSERT_TRUE(collection.open(OpenMode::kUpdate, 1));
  EXPECT_TRUE(collection.isFresh());
  EXPECT_EQ("", dir_.read("c.blk"));
  EXPECT_EQ("", dir_.read("c.stk"));
}

TEST_F(BlockCollectionTest, AFreshHeaderFillsOneOperatingSystemBlockWithZerosBehindIt) {
  {
    Collection collection;
    ASSERT_TRUE(collection.open(OpenMode::kUpdate, 3));
    ASSERT_TRUE(collection.commit());
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
    Collection collection;
    ASSERT_TRUE(collection.open(OpenMode::kUpdate, 2));
    EXPECT_EQ(1u, collection.allocate());
    EXPECT_EQ(2u, collection.allocate());
    ASSERT_TRUE(collection.write(2, (block('x') + block('y')).data()));
    ASSERT_TRUE(collection.commit());
  }
  const std::string file = dir_.read("c.blk");
  ASSERT_EQ(5 * kBlock, file.size());
  EXPECT_EQ(block('x') + block('y'), file.substr(3 * kBlock));
}

TEST_F(BlockCollectionTest, ReopeningGivesBackBlocksAndCounters) {
  makeFiles({});
  Collection collection;
  ASSERT_TRUE(collection.open(OpenMode::kRead, 1));
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
  Collection collection;
  ASSERT_TRUE(collection.open(OpenMode::kUpdate, 1));
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

  Collection collection;
  ASSERT_TRUE(collection.open(OpenMode::kUpdate, 1));
  collection.allocate();
  ASSERT_TRUE(collection.commit());
  EXPECT_EQ(16u + 2 * 8, dir_.read("c.stk").size());
  collection.allocate();
  collection.allocate();
  ASSERT_TRUE(collection.commit());
  EXPECT_EQ("", dir_.read("c.stk"));
}

TEST_F(BlockCollectionTest, AnUnchangedStackIsNotWritten) {
  makeFiles({2});
  Collection collection;
  ASSERT_TRUE(collection.open(OpenMode::kUpdate, 1));
  system_.failAny({Call::kWrite, Call::kTruncate}, 0);
  ASSERT_TRUE(collection.writeStack());
  EXPECT_EQ(0, system_.count());
}

TEST_F(BlockCollectionTest, ABlockFreedBeforeItWasWrittenStillCountsInTheFilesLength) {
  {
    Collection collection;
    ASSERT_TRUE(collection.open(OpenMode::kUpdate, 1));
    collection.release(collection.allocate());
    ASSERT_TRUE(collection.commit());
  }
  EXPECT_EQ(2 * kBlock, dir_.read("c.blk").size());
  EXPECT_TRUE(opens());
}

TEST_F(BlockCollectionTest, AZeroLengthBlockFileCountsAsAbsentAndALeftOverStackIsCut) {
  makeFiles({2, 3});
  dir_.write("c.blk", "");
  Collection collection;
  ASSERT_TRUE(collection.open(OpenMode::kUpdate, 1));
  EXPECT_TRUE(collection.isFresh());
  EXPECT_EQ(1u, collection.allocate());
  ASSERT_TRUE(collection.commit());
  EXPECT_EQ("", dir_.read("c.stk"));
}

TEST_F(BlockCollectionTest, ReadingOnlyNeedsBothFilesAndFindsAnEmptyOneFresh) {
  EXPECT_FALSE(opens(OpenMode::kRead));
  EXPECT_FALSE(dir_.exists("c.blk"));
  dir_.write("c.blk", "");
  dir_.write("c.stk", "");
  {
    Collection empty;
    ASSERT_TRUE(empty.open(OpenMode::kRead, 1));
    EXPECT_TRUE(empty.isFresh());
  }
  makeFiles({});
  EXPECT_TRUE(opens(OpenMode::kRead));
  std::filesystem::remove("c.stk");
  EXPECT_FALSE(opens(OpenMode::kRead));
}

TEST_F(BlockCollectionTest, TheStackIsReadOnlyWhenTheHeaderShowsFreedBlocks) {
  makeFiles({});
  dir_.write("c.stk", "of no interest");
  EXPECT_TRUE(isWhole());
  makeFiles({1});  // reopened, grown and freed once
  dir_.write("c.stk", "of interest now");
  EXPECT_FALSE(isWhole());
}

TEST_F(BlockCollectionTest, EveryFlippedBitOfTheStackIsNoticed) {
  makeFiles({3, 1});
  const std::string good = dir_.read("c.stk");
  for (size_t bit = 0; bit < good.size() * 8; ++bit) {
    std::string bad = good;
    bad[bit / 8] = static_cast<char>(bad[bit / 8] ^ 1 << bit % 8);
    overwrite("c.stk", bad);
    ASSERT_FALSE(isWhole()) << "bit " << bit;
  }
  dir_.write("c.stk", good + '\0');
  EXPECT_FALSE(isWhole());
  dir_.write("c.stk", good.substr(0, good.size() - 1));
  EXPECT_FALSE(isWhole());
  dir_.write("c.stk", good);
  EXPECT_TRUE(isWhole());
}

TEST_F(BlockCollectionTest, AStackMadeAnewHoldsWhatIsNotUsedTheLowestOnTop) {
  makeFiles({3, 1});
  dir_.write("c.stk", "damaged");
  {
    Collection collection;
    ASSERT_TRUE(collection.open(OpenMode::kUpdate, 1));
    ASSERT_TRUE(collection.stackIsDamaged());
    EXPECT_FALSE(collection.rebuildStack({false, true, true, false, true})) << "three are used";
    ASSERT_TRUE(collection.rebuildStack({false, false, true, false, true}));
    EXPECT_FALSE(collection.stackIsDamaged());
    ASSERT_TRUE(collection.commit());
  }
  Collection collection;
  ASSERT_TRUE(collection.open(OpenMode::kUpdate, 1));
  EXPECT_FALSE(collection.stackIsDamaged());
  EXPECT_EQ(1u, collection.allocate());
  EXPECT_EQ(3u, collection.allocate());
  EXPECT_EQ(5u, collection.allocate());
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
  Collection owner;
  ASSERT_TRUE(owner.open(OpenMode::kOwn, 1));
  EXPECT_FALSE(opens(OpenMode::kOwn));
}

}  // namespace
