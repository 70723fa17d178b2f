#include "btree.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "documents.h"
#include "fail_point.h"
#include "store_records.h"
#include "temp_dir.h"

namespace {

// Trees in a fresh directory; in small blocks, so that tall ones stay small.
class BTreeTest : public testing::Test {
 protected:
  BTreeTest() { system_.setGranularity(1024); }

  // A tree of these records, on disk.
  void make(const std::vector<Number>& records, const BTreeParams& params) {
    NumberTree tree("t", AccessType::kReadWrite, params);
    insertAll(&tree, records);
  }

  static void insertAll(NumberTree* tree, const std::vector<Number>& records) {
    for (const Number& record : records) ASSERT_TRUE(tree->insert(record)) << record.value;
    ASSERT_TRUE(isSound(tree));
  }

  // The number of records in each leaf.
  static std::vector<size_t> fillOfLeaves(NumberTree* tree) {
    std::vector<size_t> fill;
    std::vector<Number> records;
    for (uint64_t leaf = tree->nextLeaf(0); leaf != 0; leaf = tree->nextLeaf(leaf)) {
      EXPECT_TRUE(tree->readLeaf(leaf, &records));
      fill.push_back(records.size());
    }
    return fill;
  }

  BlockFileHeader leaves() { return headerOnDisk(dir_, "t.l.blk"); }
  BlockFileHeader nodes() { return headerOnDisk(dir_, "t.n.blk"); }

  TempDir dir_;
  FailPoint system_;
};

TEST_F(BTreeTest, InsertingTheSameRecordTwiceIsRefusedAndLeavesTheSize) {
  NumberTree tree("t", AccessType::kReadWrite, {});
  EXPECT_TRUE(tree.insert({7}));
  EXPECT_FALSE(tree.insert({7}));
  EXPECT_EQ(1u, tree.size());
  EXPECT_TRUE(tree.is_valid());
}

TEST_F(BTreeTest, ErasingAnAbsentRecordIsRefused) {
  NumberTree tree("t", AccessType::kReadWrite, {});
  EXPECT_FALSE(tree.erase({7}));
  insertAll(&tree, numbers(1, 5));
  EXPECT_FALSE(tree.erase({0}));
  EXPECT_FALSE(tree.erase({5}));
  EXPECT_TRUE(tree.erase({3}));
  EXPECT_FALSE(tree.erase({3}));
  EXPECT_EQ(3u, tree.size());
}

TEST_F(BTreeTest, ReopeningYieldsTheSameRecordsInTheSameOrder) {
  const std::vector<Number> records = numbers(0, 300, 3);
  make(records, smallTree(4, 3));
  NumberTree tree("t", AccessType::kReadWrite, smallTree(4, 3));
  ASSERT_TRUE(isSound(&tree));
  EXPECT_EQ(records.size(), tree.size());
  EXPECT_EQ(records, scan(&tree));
}

TEST_F(BTreeTest, AscendingInsertsFillEveryLeaf) {
  make(numbers(0, 400), smallTree(4, 10));
  EXPECT_EQ(100u, leaves().used_blocks);
  EXPECT_EQ(3u, leaves().height);
}

TEST_F(BTreeTest, AscendingBatchesFillEveryLeaf) {
  {
    NumberTree tree("t", AccessType::kReadWrite, smallTree(4, 10));
    std::vector<bool> refused;
    for (uint64_t first = 0; first < 400; first += 50) {
      const std::vector<Number> batch = numbers(first, first + 50);
      ASSERT_TRUE(tree.insertBatch(batch.data(), batch.size(), &refused));
      ASSERT_TRUE(isSound(&tree));
    }
  }
  EXPECT_EQ(100u, leaves().used_blocks);
}

TEST_F(BTreeTest, DescendingInsertsHalveTheLeaves) {
  std::vector<Number> records = numbers(0, 400);
  std::reverse(records.begin(), records.end());
  make(records, smallTree(10, 10));
  EXPECT_GE(leaves().used_blocks, 40u);
  EXPECT_LE(leaves().used_blocks, 80u);
}

TEST_F(BTreeTest, ALeafThatIsSplitByABatchIsLeftWithATenthOfRoom) {
  make(numbers(0, 1000, 10), smallTree(100, 10));  // one full leaf
  {
    NumberTree tree("t", AccessType::kReadWrite, smallTree(100, 10));
    const std::vector<Number> batch = numbers(5, 805, 10);
    std::vector<bool> refused;
    ASSERT_TRUE(tree.insertBatch(batch.data(), batch.size(), &refused));
    ASSERT_TRUE(isSound(&tree));
    std::vector<Number> leaf_records;
    ASSERT_TRUE(tree.readLeaf(tree.nextLeaf(0), &leaf_records));
    EXPECT_EQ(90u, leaf_records.size());
  }
  EXPECT_EQ(2u, leaves().used_blocks);
}

TEST_F(BTreeTest, ABatchIsRefusedWhereSingleInsertsWouldBe) {
  NumberTree tree("t", AccessType::kReadWrite, smallTree(4, 3));
  insertAll(&tree, numbers(0, 40, 4));
  const std::vector<Number> batch = {{0}, {1}, {1}, {1}, {4}, {5}, {8}, {8}, {90}, {90}, {91}};
  const std::vector<bool> expected = {true, false, true,  true, true, false,
                                      true, true,  false, true, false};
  std::vector<bool> refused = {true};
  ASSERT_TRUE(tree.insertBatch(batch.data(), batch.size(), &refused));
  EXPECT_EQ(expected, refused);
  EXPECT_EQ(14u, tree.size());
  EXPECT_TRUE(isSound(&tree));

  EXPECT_TRUE(tree.insertBatch(nullptr, 0, &refused));
  EXPECT_TRUE(refused.empty());
}

TEST_F(BTreeTest, ABatchIntoAnEmptyTreeRefusesItsOwnRepeats) {
  NumberTree tree("t", AccessType::kReadWrite, {});
  const std::vector<Number> batch = {{1}, {1}, {2}};
  std::vector<bool> refused;
  ASSERT_TRUE(tree.insertBatch(batch.data(), batch.size(), &refused));
  EXPECT_EQ((std::vector<bool>{false, true, false}), refused);
  EXPECT_EQ(2u, tree.size());
}

TEST_F(BTreeTest, ABatchMuchLargerThanALeafFitsBetweenTwoRecords) {
  NumberTree tree("t", AccessType::kReadWrite, smallTree(4, 3));
  insertAll(&tree, {{0}, {1000}});
  const std::vector<Number> batch = numbers(1, 1000);
  std::vector<bool> refused;
  ASSERT_TRUE(tree.insertBatch(batch.data(), batch.size(), &refused));
  EXPECT_EQ(std::vector<bool>(999, false), refused);
  ASSERT_TRUE(isSound(&tree));
  EXPECT_EQ(numbers(0, 1001), scan(&tree));
}

// What does not fill a leaf up to its tenth of room goes to the next one; only the
// last leaves share what is left.
TEST_F(BTreeTest, ABatchThatComesToEveryLeafLeavesATenthOfRoomInEach) {
  make(numbers(0, 40000, 10), smallTree(100, 5));  // forty full leaves, nodes of several levels
  NumberTree tree("t", AccessType::kReadWrite, smallTree(100, 5));
  std::vector<Number> expected = numbers(0, 40000, 10);
  const std::vector<Number> batch = numbers(5, 40005, 50);
  std::vector<bool> refused;
  ASSERT_TRUE(tree.insertBatch(batch.data(), batch.size(), &refused));
  EXPECT_EQ(std::vector<bool>(batch.size(), false), refused);
  ASSERT_TRUE(isSound(&tree));
  expected.insert(expected.end(), batch.begin(), batch.end());
  std::sort(expected.begin(), expected.end(), NumberLess());
  EXPECT_EQ(expected, scan(&tree));

  const std::vector<size_t> fill = fillOfLeaves(&tree);
  ASSERT_EQ(54u, fill.size()) << "4800 records";
  for (size_t i = 0; i + 3 < fill.size(); ++i) EXPECT_EQ(90u, fill[i]) << i;
}

// A leaf to which the batch does not come is left alone.
TEST_F(BTreeTest, ABatchCarriesNothingIntoALeafItDoesNotNeed) {
  make(numbers(0, 8000, 4), smallTree(100, 10));  // twenty full leaves
  NumberTree tree("t", AccessType::kReadWrite, smallTree(100, 10));
  const std::vector<Number> batch = numbers(1, 8000, 800);  // one for every second leaf
  std::vector<bool> refused;
  ASSERT_TRUE(tree.insertBatch(batch.data(), batch.size(), &refused));
  ASSERT_TRUE(isSound(&tree));
  std::vector<size_t> expected;
  for (int i = 0; i < 10; ++i) expected.insert(expected.end(), {50, 51, 100});
  EXPECT_EQ(expected, fillOfLeaves(&tree));
}

// A small tree is not worth it: it stays in the cache as a whole.
TEST_F(BTreeTest, ABatchThatFitsIntoTheCacheHalvesFullLeaves) {
  make(numbers(0, 3200, 4), smallTree(100, 10));  // eight full leaves
  NumberTree tree("t", AccessType::kReadWrite, smallTree(100, 10));
  const std::vector<Number> batch = numbers(1, 3200, 100);
  std::vector<bool> refused;
  ASSERT_TRUE(tree.insertBatch(batch.data(), batch.size(), &refused));
  EXPECT_EQ(std::vector<size_t>(16, 52), fillOfLeaves(&tree));
}

// Each leaf for itself to change it, and all of them together to save what they
// were.
TEST_F(BTreeTest, ABatchReadsEachLeafItNeedsOnce) {
  make(numbers(0, 4000, 2), smallTree(50, 10));
  NumberTree tree("t", AccessType::kReadWrite, smallTree(50, 10));
  const std::vector<Number> batch = numbers(1, 4000, 20);
  system_.fail(Call::kRead, 0, false, "t.l.blk");
  std::vector<bool> refused;
  ASSERT_TRUE(tree.insertBatch(batch.data(), batch.size(), &refused));
  ASSERT_TRUE(tree.commit());
  EXPECT_EQ(40 + 1 + 1, system_.count()) << "the header is saved, too";
}

// The leaves are many more than the cache holds, but their old contents are on the
// disk before the first of them is written.
TEST_F(BTreeTest, ABatchSyncsWhatItsLeavesWereOnce) {
  make(numbers(0, 4000, 2), smallTree(50, 100));  // forty leaves, one node
  for (const bool erase : {false, true}) {
    NumberTree tree("t", AccessType::kReadWrite, smallTree(50, 100));
    const std::vector<Number> batch = numbers(erase ? 0 : 1, 4000, 500);
    std::vector<Number> more = numbers(erase ? 100 : 101, 4000, 100);
    more.insert(more.end(), batch.begin(), batch.end());
    std::sort(more.begin(), more.end(), NumberLess());
    system_.fail(Call::kSync, 0, false, ".jnl");
    std::vector<bool> refused;
    ASSERT_TRUE(erase ? tree.eraseBatch(more.data(), more.size(), &refused)
                      : tree.insertBatch(more.data(), more.size(), &refused));
    EXPECT_EQ(1, system_.count()) << erase;
    ASSERT_TRUE(tree.commit());
    EXPECT_EQ(3, system_.count()) << "and for the headers, and for the end; " << erase;
  }
}

TEST_F(BTreeTest, ABatchOfErasuresIsRefusedWhereSingleOnesWouldBe) {
  NumberTree tree("t", AccessType::kReadWrite, smallTree(4, 3));
  insertAll(&tree, numbers(0, 40));
  const std::vector<Number> batch = {{0}, {0}, {5}, {39}, {40}};
  std::vector<bool> refused;
  ASSERT_TRUE(tree.eraseBatch(batch.data(), batch.size(), &refused));
  EXPECT_EQ((std::vector<bool>{false, true, false, false, true}), refused);
  EXPECT_EQ(37u, tree.size());
  EXPECT_TRUE(tree.eraseBatch(nullptr, 0, &refused));
}

TEST_F(BTreeTest, AnEmptiedTreeHasNoBlocksAndGivesThemAllBack) {
  {
    NumberTree tree("t", AccessType::kReadWrite, smallTree(3, 2));
    insertAll(&tree, numbers(0, 100));
    std::vector<Number> order = numbers(0, 100);
    std::shuffle(order.begin(), order.end(), std::mt19937_64(documents::seed(1)));
    for (const Number& record : order) {
      ASSERT_TRUE(tree.erase(record));
      ASSERT_TRUE(isSound(&tree)) << record.value;
    }
    EXPECT_EQ(0u, tree.nextLeaf(0));
    EXPECT_EQ(0u, tree.size());
  }
  EXPECT_EQ(0u, leaves().root);
  EXPECT_EQ(0u, leaves().height);
  EXPECT_EQ(0u, leaves().used_blocks);
  EXPECT_EQ(0u, nodes().used_blocks);
  EXPECT_GT(nodes().blocks(), 10u);

  const size_t leaf_bytes = dir_.read("t.l.blk").size();
  const size_t node_bytes = dir_.read("t.n.blk").size();
  make(numbers(0, 100), smallTree(3, 2));
  EXPECT_EQ(leaf_bytes, dir_.read("t.l.blk").size());
  EXPECT_EQ(node_bytes, dir_.read("t.n.blk").size());
}

TEST_F(BTreeTest, FreedBlocksAreReusedBeforeTheFileGrows) {
  NumberTree tree("t", AccessType::kReadWrite, smallTree(4, 4));
  insertAll(&tree, numbers(0, 200));
  ASSERT_TRUE(tree.commit());
  const uint64_t blocks = leaves().blocks();
  for (int round = 0; round < 5; ++round) {
    for (uint64_t value = 50; value < 150; ++value) ASSERT_TRUE(tree.erase({value}));
    ASSERT_TRUE(isSound(&tree));
    const std::vector<Number> batch = numbers(1000, 1100);
    std::vector<bool> refused;
    ASSERT_TRUE(tree.insertBatch(batch.data(), batch.size(), &refused));
    for (const Number& record : batch) ASSERT_TRUE(tree.erase(record));
    for (uint64_t value = 50; value < 150; ++value) ASSERT_TRUE(tree.insert({value}));
    ASSERT_TRUE(isSound(&tree));
  }
  ASSERT_TRUE(tree.commit());
  EXPECT_LE(leaves().blocks(), blocks + 50) << "halves at most";
}

TEST_F(BTreeTest, TreesOfTheSmallestBlocksGrowTallAndShrinkAgain) {
  {
    NumberTree tree("t", AccessType::kReadWrite, smallTree(1, 1));  // acts as 2 and 2
    insertAll(&tree, numbers(0, 300));
  }
  EXPECT_GE(leaves().height, 7u);
  NumberTree tree("t", AccessType::kReadWrite, smallTree(2, 2));
  for (uint64_t value = 0; value < 298; ++value) ASSERT_TRUE(tree.erase({value}));
  ASSERT_TRUE(isSound(&tree));
  ASSERT_TRUE(tree.commit());
  EXPECT_EQ(1u, leaves().height);
}

TEST_F(BTreeTest, SizeLimitsAreCutToWhatFitsAndWorks) {
  BTreeParams params = smallTree(UINT32_MAX, UINT32_MAX);
  params.leaf_size_min = params.node_size_min = UINT32_MAX;
  NumberTree tree("t", AccessType::kReadWrite, params);
  std::vector<Number> order = numbers(0, 3000);
  std::shuffle(order.begin(), order.end(), std::mt19937_64(documents::seed(2)));
  insertAll(&tree, order);
  for (size_t i = 0; i < 2000; ++i) ASSERT_TRUE(tree.erase(order[i]));
  EXPECT_TRUE(isSound(&tree));
}

TEST_F(BTreeTest, ASmallerMinimumLeavesThinnerLeaves) {
  BTreeParams params = smallTree(10, 10);
  params.leaf_size_min = 1;
  make(numbers(0, 100), params);
  NumberTree tree("t", AccessType::kReadWrite, params);
  for (uint64_t value = 0; value < 100; ++value) {
    ASSERT_TRUE(value % 10 == 0 || tree.erase({value}));
  }
  ASSERT_TRUE(isSound(&tree));
  ASSERT_TRUE(tree.commit());
  EXPECT_EQ(10u, leaves().used_blocks);
}

TEST_F(BTreeTest, TheSeventeenthLevelIsRefusedAndMakesTheTreeInvalid) {
  system_.setGranularity(640);
  BTreeParams params = smallTree(2, 2);
  params.leaf_cache_size = params.node_cache_size = 512;
  uint64_t inserted = 0;
  {
    NumberTree tree("t", AccessType::kReadWrite, params);
    while (tree.insert({inserted})) ++inserted;
    EXPECT_FALSE(tree.is_valid());
    ASSERT_LT(inserted, 1u << 18);
    // Nothing of it was committed.
    EXPECT_FALSE(tree.commit());
  }
  // Ascending records leave nodes of two children, so it is leaf 2^16 that is
  // one too many, and every leaf before it holds two records.
  EXPECT_EQ(2 * ((1u << 16) - 1), inserted);
}

TEST_F(BTreeTest, EqualOperationsGiveEqualFiles) {
  std::string files[2];
  for (std::string& content : files) {
    TempDir dir;
    {
      NumberTree tree("t", AccessType::kReadWrite, smallTree(5, 4));
      documents::Random random(3);
      for (int i = 0; i < 2000; ++i) {
        const Number record = {random.below(500)};
        random.oneIn(2) ? tree.insert(record) : tree.erase(record);
      }
    }
    for (const char* name : {"t.l.blk", "t.l.stk", "t.n.blk", "t.n.stk"}) content += dir.read(name);
  }
  EXPECT_TRUE(files[0] == files[1]);
}

// Queries.

constexpr auto kSameFid = [](const Posting& record, const Posting& probe) {
  return record.fid == probe.fid;
};
constexpr auto kPastFid = [](const Posting& record, const Posting& probe) {
  return record.fid > probe.fid;
};

class QueryTest : public BTreeTest {
 protected:
  // Five postings for each of the files 0, 2 ... 38, in leaves of three.
  QueryTest() : tree_("t", AccessType::kReadWrite, smallTree(3, 3)) {
    for (int32_t fid = 0; fid < 40; fid += 2) {
      for (int32_t source = 0; source < 5; ++source) {
        EXPECT_TRUE(tree_.insert({fid, source, {}}));
      }
    }
  }

  PostingTree tree_;
};

TEST_F(QueryTest, AnEmptyTreeGivesNothing) {
  PostingTree empty("empty", AccessType::kReadWrite, {});
  std::vector<Posting> out;
  EXPECT_EQ(0u, empty.query({0, INT32_MIN, {}}, kSameFid, kPastFid, &out));
}

TEST_F(QueryTest, ARunThatSpansSeveralLeavesIsAppendedWhole) {
  std::vector<Posting> out = {{99, 99, {}}};
  EXPECT_EQ(5u, tree_.query({8, INT32_MIN, {}}, kSameFid, kPastFid, &out));
  ASSERT_EQ(6u, out.size());
  EXPECT_EQ(99, out[0].fid);
  for (int32_t source = 0; source < 5; ++source) {
    EXPECT_EQ((Posting{8, source, {}}), out[static_cast<size_t>(source) + 1]);
  }
}

TEST_F(QueryTest, TheFirstAndTheLastRunAreFound) {
  std::vector<Posting> out;
  EXPECT_EQ(5u, tree_.query({0, INT32_MIN, {}}, kSameFid, kPastFid, &out));
  EXPECT_EQ(5u, tree_.query({38, INT32_MIN, {}}, kSameFid, kPastFid, &out));
  EXPECT_EQ(0u, tree_.query({40, INT32_MIN, {}}, kSameFid, kPastFid, &out));
  EXPECT_EQ(0u, tree_.query({-1, INT32_MIN, {}}, kSameFid, kPastFid, &out));
}

TEST_F(QueryTest, TheWalkStopsAtTheFirstOtherRecordAfterTheRun) {
  int32_t last = -1;
  std::vector<Posting> out;
  const auto same = [&](const Posting& record, const Posting& probe) {
    last = record.fid;
    return record.fid == probe.fid;
  };
  const auto never = [](const Posting&, const Posting&) { return false; };
  EXPECT_EQ(5u, tree_.query({8, INT32_MIN, {}}, same, never, &out));
  EXPECT_EQ(10, last);
}

TEST_F(QueryTest, TheWalkForAnAbsentFileStopsWhereTheOrderSaysSo) {
  int looked_at = 0;
  std::vector<Posting> out;
  const auto same = [&](const Posting& record, const Posting& probe) {
    ++looked_at;
    return record.fid == probe.fid;
  };
  EXPECT_EQ(0u, tree_.query({9, INT32_MIN, {}}, same, kPastFid, &out));
  EXPECT_LE(looked_at, 4) << "at most one leaf and one record";
  EXPECT_TRUE(out.empty());
}

TEST_F(QueryTest, AProbeInsideTheRunReachesBackToTheBeginningOfItsLeafOnly) {
  PostingTree tree("u", AccessType::kReadWrite, smallTree(3, 3));
  for (int32_t source = 0; source < 9; ++source) ASSERT_TRUE(tree.insert({1, source, {}}));
  std::vector<Posting> out;
  EXPECT_EQ(6u, tree.query({1, 4, {}}, kSameFid, kPastFid, &out));  // leaves 012 345 678
  EXPECT_EQ(3, out.front().source);
  EXPECT_EQ(8, out.back().source);
}

TEST_F(QueryTest, AFailureMidwayGivesNothingAndKeepsWhatWasThere) {
  ASSERT_TRUE(tree_.commit());
  PostingTree tree("t", AccessType::kReadOnly, smallTree(3, 3));
  system_.fail(Call::kRead, 2, false, "t.l.blk");
  std::vector<Posting> out = {{99, 99, {}}};
  EXPECT_EQ(0u, tree.query({8, INT32_MIN, {}}, kSameFid, kPastFid, &out));
  EXPECT_TRUE(system_.failed());
  EXPECT_FALSE(tree.is_valid());
  EXPECT_EQ(1u, out.size());
  EXPECT_EQ(0u, tree.query({8, INT32_MIN, {}}, kSameFid, kPastFid, &out));
}

// Scans.

TEST_F(BTreeTest, AScanOfAnEmptyTreeEndsAtOnce) {
  NumberTree tree("t", AccessType::kReadWrite, {});
  EXPECT_EQ(0u, tree.nextLeaf(0));
  EXPECT_TRUE(scan(&tree).empty());
}

TEST_F(BTreeTest, AScanCanBeRepeatedAndReadsEveryLeafOnce) {
  make(numbers(0, 500), smallTree(5, 5));
  NumberTree tree("t", AccessType::kReadOnly, smallTree(5, 5));
  for (int round = 0; round < 3; ++round) {
    system_.fail(Call::kRead, 0, false, "t.l.blk");
    EXPECT_EQ(numbers(0, 500), scan(&tree));
    EXPECT_EQ(100, system_.count());
  }
}

}  // namespace
