// The files of a tree: what is in them, what is refused, and what a failing
// disk does.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "btree.h"
#include "crc32c.h"
#include "documents.h"
#include "fail_point.h"
#include "little_endian.h"
#include "mm_register.h"
#include "set_tree.h"
#include "store_records.h"
#include "temp_dir.h"

namespace {

constexpr uint32_t kBlock = 1024;
const std::vector<std::string> kFiles = {"t.l.blk", "t.l.stk", "t.n.blk", "t.n.stk"};

class TreeFiles : public testing::Test {
 protected:
  TreeFiles() { system_.setGranularity(kBlock); }

  // 60 records, 21 leaves' worth, some blocks of both kinds freed again.
  void make() {
    NumberTree tree("t", AccessType::kReadWrite, params());
    for (const Number& record : numbers(0, 100)) ASSERT_TRUE(tree.insert(record));
    for (const Number& record : numbers(20, 60)) ASSERT_TRUE(tree.erase(record));
    ASSERT_TRUE(isSound(&tree));
  }
  static std::vector<Number> madeRecords() {
    std::vector<Number> records = numbers(0, 20);
    const std::vector<Number> rest = numbers(60, 100);
    records.insert(records.end(), rest.begin(), rest.end());
    return records;
  }

  static BTreeParams params() { return smallTree(4, 3); }

  static bool opens(AccessType access) { return NumberTree("t", access, params()).is_valid(); }

  // Opens and looks at every block; a damaged file must show one way or the other.
  static bool isGood() {
    NumberTree tree("t", AccessType::kReadOnly, params());
    return tree.is_valid() && tree.verify();
  }

  TempDir dir_;
  FailPoint system_;
};

TEST_F(TreeFiles, OpeningForWritingMakesFourFiles) {
  EXPECT_TRUE(opens(AccessType::kReadWrite));
  for (const std::string& name : kFiles) EXPECT_TRUE(dir_.exists(name)) << name;
  EXPECT_EQ(kBlock, dir_.read("t.l.blk").size());
  EXPECT_EQ(kBlock, dir_.read("t.n.blk").size());
  EXPECT_EQ("", dir_.read("t.l.stk"));
  EXPECT_EQ("", dir_.read("t.n.stk"));
}

TEST_F(TreeFiles, FilesAreMadeOfTheSystemsBlocks) {
  system_.setGranularity(0);
  {
    NumberTree tree("t", AccessType::kReadWrite, {});
    ASSERT_TRUE(tree.insert({1}));
  }
  EXPECT_EQ(2u * 65536, dir_.read("t.l.blk").size());
  const BlockFileHeader header = headerOnDisk(dir_, "t.l.blk");
  EXPECT_EQ(65536u, header.os_block_size);
  EXPECT_EQ(65536u, header.logical_block_size);
  EXPECT_EQ(1u, header.root);
  EXPECT_EQ(1u, header.height);
  EXPECT_EQ(1u, header.records);
}

TEST_F(TreeFiles, ALeafOf65536BytesHolds4094PostingsAndANodeTakes24BytesForEach) {
  system_.setGranularity(0);
  {
    PostingTree tree("t", AccessType::kReadWrite, {});
    std::vector<Posting> batch(4094 * 30);
    for (size_t i = 0; i < batch.size(); ++i) batch[i] = {static_cast<int32_t>(i), 0, {}};
    std::vector<bool> refused;
    ASSERT_TRUE(tree.insertBatch(batch.data(), batch.size(), &refused));
  }
  EXPECT_EQ(30u, headerOnDisk(dir_, "t.l.blk").used_blocks);
  // Of the node: its 29 entries of 24 bytes end where the zeros begin.
  const std::string node = dir_.read("t.n.blk").substr(65536, 32 + 30 * 24);
  EXPECT_EQ("NODE", node.substr(0, 4));
  EXPECT_EQ(29u, loadLittle32(reinterpret_cast<const unsigned char*>(node.data()) + 20));
  EXPECT_NE(std::string(8, '\0'), node.substr(32 + 29 * 24 - 8, 8));
  EXPECT_EQ(std::string(24, '\0'), node.substr(32 + 29 * 24));
}

TEST_F(TreeFiles, BlockFactorsMakeLargerBlocks) {
  BTreeParams params;
  params.leaf_block_factor = 2;
  params.node_block_factor = 3;
  {
    NumberTree tree("t", AccessType::kReadWrite, params);
    for (const Number& record : numbers(0, 1000)) ASSERT_TRUE(tree.insert(record));
  }
  EXPECT_EQ(2 * kBlock, headerOnDisk(dir_, "t.l.blk").logical_block_size);
  EXPECT_EQ(3 * kBlock, headerOnDisk(dir_, "t.n.blk").logical_block_size);
  EXPECT_EQ(4 * kBlock, dir_.read("t.n.blk").size());
  NumberTree tree("t", AccessType::kReadWrite, params);
  EXPECT_TRUE(isSound(&tree));
  EXPECT_FALSE(opens(AccessType::kReadOnly)) << "block factors 1";
}

TEST_F(TreeFiles, ABaseNameIsCutTo126Characters) {
  const std::string base(126, 'b');
  {
    NumberTree tree(base + "left out", AccessType::kReadWrite, params());
    ASSERT_TRUE(tree.insert({5}));
  }
  EXPECT_TRUE(dir_.exists(base + ".l.blk"));
  EXPECT_TRUE(dir_.exists(base + ".n.stk"));
  NumberTree tree(base, AccessType::kReadOnly, params());
  EXPECT_EQ(numbers(5, 6), scan(&tree));
}

TEST_F(TreeFiles, TheTreesHeaderIsInTheLeavesFileOnly) {
  make();
  const BlockFileHeader leaf = headerOnDisk(dir_, "t.l.blk");
  const BlockFileHeader node = headerOnDisk(dir_, "t.n.blk");
  EXPECT_NE(0u, leaf.root);
  EXPECT_GE(leaf.height, 3u);
  EXPECT_EQ(60u, leaf.records);
  EXPECT_EQ(0u, node.root);
  EXPECT_EQ(0u, node.height);
  EXPECT_EQ(0u, node.records);
}

TEST_F(TreeFiles, TheOpeningOfFreshFilesAndEachCommitThatChangedSomethingRaiseTheTransactionOfBothFiles) {
  NumberTree tree("t", AccessType::kReadWrite, params());
  const auto transactions = [this] {
    return std::pair(headerOnDisk(dir_, "t.l.blk").transaction,
                     headerOnDisk(dir_, "t.n.blk").transaction);
  };
  EXPECT_EQ(std::pair(uint64_t{1}, uint64_t{1}), transactions());
  ASSERT_TRUE(tree.insert({1}));
  ASSERT_TRUE(tree.commit());
  EXPECT_EQ(std::pair(uint64_t{2}, uint64_t{2}), transactions());
  system_.failAny({Call::kWrite, Call::kTruncate}, 0);
  EXPECT_FALSE(tree.insert({1}));
  ASSERT_TRUE(tree.commit());
  EXPECT_EQ(0, system_.count());
  ASSERT_TRUE(tree.erase({1}));
  ASSERT_TRUE(tree.commit());
  EXPECT_EQ(std::pair(uint64_t{3}, uint64_t{3}), transactions());
}

TEST_F(TreeFiles, WhatWasCommittedIsThereForAReaderWhileTheTreeIsOpen) {
  NumberTree tree("t", AccessType::kReadWrite, params());
  for (const Number& record : numbers(0, 50)) ASSERT_TRUE(tree.insert(record));
  ASSERT_TRUE(tree.commit());
  NumberTree reader("t", AccessType::kReadOnly, params());
  ASSERT_TRUE(isSound(&reader));
  EXPECT_EQ(numbers(0, 50), scan(&reader));
}

TEST_F(TreeFiles, ASecondWriterIsRefusedUntilTheFirstCloses) {
  {
    NumberTree first("t", AccessType::kReadWrite, params());
    NumberTree second("t", AccessType::kReadWrite, params());
    EXPECT_TRUE(first.is_valid());
    EXPECT_FALSE(second.is_valid());
    EXPECT_FALSE(second.insert({1}));
    EXPECT_TRUE(first.insert({1}));
  }
  EXPECT_TRUE(opens(AccessType::kReadWrite));
}

TEST_F(TreeFiles, AReadOnlyTreeAnswersAndChangesNothing) {
  make();
  std::vector<std::string> before;
  for (const std::string& name : kFiles) before.push_back(dir_.read(name));
  {
    NumberTree tree("t", AccessType::kReadOnly, params());
    ASSERT_TRUE(isSound(&tree));
    EXPECT_EQ(madeRecords(), scan(&tree));
    std::vector<bool> refused;
    const std::vector<Number> batch = {{30}, {31}};
    EXPECT_FALSE(tree.insert({30}));
    EXPECT_FALSE(tree.erase({1}));
    EXPECT_FALSE(tree.insertBatch(batch.data(), 2, &refused));
    EXPECT_EQ((std::vector<bool>{true, true}), refused);
    EXPECT_FALSE(tree.eraseBatch(batch.data(), 2, &refused));
    EXPECT_TRUE(tree.commit());
    EXPECT_TRUE(tree.is_valid());
  }
  for (size_t i = 0; i < kFiles.size(); ++i) EXPECT_TRUE(before[i] == dir_.read(kFiles[i]));
}

TEST_F(TreeFiles, ReadingOnlyMakesNoFiles) {
  EXPECT_FALSE(opens(AccessType::kReadOnly));
  for (const std::string& name : kFiles) EXPECT_FALSE(dir_.exists(name)) << name;
}

TEST_F(TreeFiles, AnInvalidTreeAnswersNothing) {
  NumberTree tree("absent/t", AccessType::kReadWrite, params());
  EXPECT_FALSE(tree.is_valid());
  EXPECT_FALSE(tree.insert({1}));
  EXPECT_FALSE(tree.erase({1}));
  EXPECT_EQ(0u, tree.size());
  EXPECT_EQ(0u, tree.nextLeaf(0));
  std::vector<Number> out;
  EXPECT_FALSE(tree.readLeaf(1, &out));
  EXPECT_EQ(0u,
            tree.query(
                {1}, [](auto&, auto&) { return true; }, [](auto&, auto&) { return false; }, &out));
  EXPECT_FALSE(tree.commit());
  EXPECT_FALSE(tree.verify());
  std::vector<bool> refused;
  const Number record = {1};
  EXPECT_FALSE(tree.insertBatch(&record, 1, &refused));
  EXPECT_EQ(std::vector<bool>{true}, refused);
  EXPECT_FALSE(tree.eraseBatch(&record, 1, &refused));
}

TEST_F(TreeFiles, OneOfTheBlockFilesAloneIsRefused) {
  make();
  const std::string leaves = dir_.read("t.l.blk");
  dir_.write("t.l.blk", "");
  EXPECT_FALSE(opens(AccessType::kReadWrite));
  EXPECT_EQ("", dir_.read("t.l.blk")) << "a refused opening writes nothing";
  dir_.write("t.l.blk", leaves);
  EXPECT_TRUE(isGood());
  dir_.write("t.n.blk", "");
  EXPECT_FALSE(opens(AccessType::kReadWrite));
}

TEST_F(TreeFiles, FilesOfDifferentCommitsAreRefused) {
  make();
  const std::string nodes = dir_.read("t.n.blk");
  const std::string stack = dir_.read("t.n.stk");
  {
    NumberTree tree("t", AccessType::kReadWrite, params());
    ASSERT_TRUE(tree.insert({1000}));
  }
  dir_.write("t.n.blk", nodes);
  dir_.write("t.n.stk", stack);
  EXPECT_FALSE(opens(AccessType::kReadWrite));
}

TEST_F(TreeFiles, LeavesAndNodesInEachOthersPlaceAreRefused) {
  make();
  const std::string leaves = dir_.read("t.l.blk");
  dir_.write("t.l.blk", dir_.read("t.n.blk"));
  dir_.write("t.n.blk", leaves);
  EXPECT_FALSE(opens(AccessType::kReadOnly));
}

TEST_F(TreeFiles, ContradictoryTreeHeadersAreRefused) {
  make();
  const std::string good = dir_.read("t.l.blk");
  const auto opensWith = [&](auto change) {
    BlockFileHeader header = headerOnDisk(dir_, "t.l.blk");
    change(&header);
    const BlockFileHeaderBytes bytes = encodeBlockFileHeader(header);
    dir_.write("t.l.blk", std::string(bytes.begin(), bytes.end()) + good.substr(bytes.size()));
    const bool opened = opens(AccessType::kReadOnly);
    dir_.write("t.l.blk", good);
    return opened;
  };
  EXPECT_TRUE(opensWith([](BlockFileHeader*) {}));
  EXPECT_FALSE(opensWith([](BlockFileHeader* h) { h->root = 0; }));
  EXPECT_FALSE(opensWith([](BlockFileHeader* h) { h->height = 0; }));
  EXPECT_FALSE(opensWith([](BlockFileHeader* h) { h->height = 1; }));
  EXPECT_FALSE(opensWith([](BlockFileHeader* h) { h->height = 17; }));
  EXPECT_FALSE(opensWith([](BlockFileHeader* h) { h->height += uint64_t{1} << 32; }));
  EXPECT_FALSE(opensWith([](BlockFileHeader* h) { h->records = 0; }));
  EXPECT_FALSE(opensWith([](BlockFileHeader* h) { ++h->transaction; }));
  EXPECT_FALSE(opensWith([](BlockFileHeader* h) {
    h->root = h->height = h->records = 0;  // but blocks in use
  }));
}

TEST_F(TreeFiles, CacheMemoryThatCannotBeHadThrows) {
  make();
  const size_t before = MM_register_base::instance().memory_used();
  for (const int nth : {1, 2}) {
    system_.fail(Call::kAllocate, nth);
    EXPECT_THROW(opens(AccessType::kReadWrite), std::bad_alloc) << nth;
  }
  EXPECT_EQ(before, MM_register_base::instance().memory_used());
  EXPECT_TRUE(isGood());
}

TEST_F(TreeFiles, EveryFlippedBitInUsedBytesIsDetected) {
  {
    NumberTree tree("t", AccessType::kReadWrite, params());
    for (const Number& record : numbers(0, 30)) ASSERT_TRUE(tree.insert(record));
    for (const Number& record : numbers(20, 28)) ASSERT_TRUE(tree.erase(record));
  }
  ASSERT_TRUE(isGood());
  for (const std::string& name : kFiles) {
    const std::string good = dir_.read(name);
    // Free blocks hold nothing that is used.
    std::vector<bool> used(good.size(), true);
    if (name.ends_with(".blk")) {
      std::fill(used.begin() + 576, used.begin() + kBlock, false);
      const std::string stack = dir_.read(name.substr(0, 4) + "stk");
      std::vector<uint64_t> freed;
      for (size_t at = 16; at < stack.size(); at += 8) {
        freed.push_back(loadLittle64(reinterpret_cast<const unsigned char*>(&stack[at])));
      }
      const size_t entry = name == "t.l.blk" ? 8 : 16;
      for (size_t block = 1; block * kBlock < good.size(); ++block) {
        const auto* head = reinterpret_cast<const unsigned char*>(&good[block * kBlock]);
        const bool is_free = std::find(freed.begin(), freed.end(), block) != freed.end();
        const size_t end = is_free ? 0 : 32 + loadLittle32(head + 20) * entry;
        const auto begin = used.begin() + static_cast<std::ptrdiff_t>(block * kBlock);
        std::fill(begin + static_cast<std::ptrdiff_t>(end), begin + kBlock, false);
      }
    }
    for (size_t bit = 0; bit < good.size() * 8; ++bit) {
      if (!used[bit / 8]) continue;
      std::string bad = good;
      bad[bit / 8] = static_cast<char>(bad[bit / 8] ^ 1 << bit % 8);
      overwrite(name, bad);
      ASSERT_FALSE(isGood()) << name << " bit " << bit;
    }
    overwrite(name, good);
  }
  EXPECT_TRUE(isGood());
}

TEST_F(TreeFiles, ATruncatedBlockFileMakesTheTreeInvalid) {
  make();
  for (const std::string name : {"t.l.blk", "t.n.blk"}) {
    const std::string good = dir_.read(name);
    for (size_t length = 0; length < good.size(); length += std::max<size_t>(1, good.size() / 97)) {
      overwrite(name, good.substr(0, length));
      ASSERT_FALSE(opens(AccessType::kReadOnly)) << name << " " << length;
      ASSERT_FALSE(opens(AccessType::kReadWrite)) << name << " " << length;
    }
    overwrite(name, good);
  }
  EXPECT_TRUE(isGood());
}

TEST_F(TreeFiles, ADamagedStackOfFreeBlocksIsMadeAnewFromTheBlocksInUse) {
  make();
  for (const std::string name : {"t.l.stk", "t.n.stk"}) {
    const std::string good = dir_.read(name);
    ASSERT_GT(good.size(), 16u);
    std::string flipped = good;
    flipped[20] = static_cast<char>(flipped[20] ^ 1);
    for (const std::string& bad : {std::string(), good.substr(0, good.size() - 1), flipped}) {
      overwrite(name, bad);
      ASSERT_FALSE(isGood()) << "whoever only reads is told";
      {
        NumberTree tree("t", AccessType::kReadWrite, params());
        ASSERT_TRUE(isSound(&tree)) << name;
        ASSERT_EQ(madeRecords(), scan(&tree));
        ASSERT_TRUE(tree.insert({1000}));
        ASSERT_TRUE(tree.erase({1000}));
      }
      ASSERT_TRUE(isGood()) << name;
    }
  }
}

TEST_F(TreeFiles, AStackIsNotMadeAnewWhenTheBlocksInUseAreNotAsManyAsTheHeaderSays) {
  make();
  const BlockFileHeader header = headerOnDisk(dir_, "t.l.blk");
  BlockFileHeader other = header;
  ++other.used_blocks;
  std::string file = dir_.read("t.l.blk");
  const BlockFileHeaderBytes bytes = encodeBlockFileHeader(other);
  file.replace(0, bytes.size(), reinterpret_cast<const char*>(bytes.data()), bytes.size());
  overwrite("t.l.blk", file);
  EXPECT_FALSE(opens(AccessType::kReadWrite));
}

TEST_F(TreeFiles, AFileCutWhileTheTreeIsOpenMakesItInvalid) {
  make();
  NumberTree tree("t", AccessType::kReadOnly, params());
  ASSERT_TRUE(tree.is_valid());
  dir_.write("t.l.blk", dir_.read("t.l.blk").substr(0, 3 * kBlock));
  std::string problem;
  EXPECT_FALSE(tree.verify(&problem));
  EXPECT_NE("", problem);
  EXPECT_FALSE(tree.is_valid());
}

// Writes a block back with a check sum that fits.
void seal(std::string* file, size_t block, size_t entry_bytes) {
  auto* bytes = reinterpret_cast<unsigned char*>(&(*file)[block * kBlock]);
  const size_t used = 32 + loadLittle32(bytes + 20) * entry_bytes;
  storeLittle32(bytes + 4, 0);
  if (used <= kBlock) storeLittle32(bytes + 4, crc32c(bytes, used));
}

TEST_F(TreeFiles, LeavesLinkedInACircleEndScanAndQueryAndMakeTheTreeInvalid) {
  {
    NumberTree tree("t", AccessType::kReadWrite, params());
    for (const Number& record : numbers(0, 40)) ASSERT_TRUE(tree.insert(record));
  }
  std::string leaves = dir_.read("t.l.blk");
  storeLittle64(reinterpret_cast<unsigned char*>(&leaves[10 * kBlock + 24]), 1);
  seal(&leaves, 10, 8);
  dir_.write("t.l.blk", leaves);
  {
    NumberTree tree("t", AccessType::kReadOnly, params());
    ASSERT_TRUE(tree.is_valid());
    EXPECT_EQ(40u, scan(&tree).size());
    EXPECT_FALSE(tree.is_valid());
  }
  NumberTree tree("t", AccessType::kReadOnly, params());
  std::vector<Number> out;
  EXPECT_EQ(0u,
            tree.query(
                {0}, [](auto&, auto&) { return true; }, [](auto&, auto&) { return false; }, &out));
  EXPECT_FALSE(tree.is_valid());
  EXPECT_TRUE(out.empty());
}

TEST_F(TreeFiles, AChildOfAWrongLevelMakesTheTreeInvalid) {
  make();
  std::string nodes = dir_.read("t.n.blk");
  const uint64_t root = headerOnDisk(dir_, "t.l.blk").root;
  auto* bytes = reinterpret_cast<unsigned char*>(&nodes[root * kBlock]);
  storeLittle64(bytes + 24, root);  // its own child
  seal(&nodes, root, 16);
  dir_.write("t.n.blk", nodes);
  NumberTree tree("t", AccessType::kReadWrite, params());
  EXPECT_FALSE(tree.insert({0}));
  EXPECT_FALSE(tree.is_valid());
}

TEST_F(TreeFiles, AFreeBlockThatIsInUseMakesTheTreeInvalid) {
  make();
  std::string stack = dir_.read("t.l.stk");
  ASSERT_GT(stack.size(), 16u);
  const uint64_t count = loadLittle64(reinterpret_cast<const unsigned char*>(&stack[8]));
  auto* bytes = reinterpret_cast<unsigned char*>(stack.data());
  storeLittle64(bytes + 16 + (count - 1) * 8, 1);  // the first leaf
  storeLittle32(bytes + 4, 0);
  storeLittle32(bytes + 4, crc32c(stack.data(), stack.size()));
  dir_.write("t.l.stk", stack);
  {
    NumberTree tree("t", AccessType::kReadOnly, params());
    ASSERT_TRUE(tree.is_valid());
    EXPECT_FALSE(tree.verify());
  }
  NumberTree tree("t", AccessType::kReadWrite, params());
  std::vector<Number> first;
  ASSERT_TRUE(tree.readLeaf(tree.nextLeaf(0), &first));
  EXPECT_FALSE(tree.insert({200})) << "behind the last leaf, which is full";
  EXPECT_FALSE(tree.is_valid());
}

// Arbitrary bytes under check sums that fit: nothing may crash, hang, or read
// past a block. What the answers are is not asked.
TEST_F(TreeFiles, HostileBlocksNeverCrash) {
  const uint64_t seed = documents::seed(20240805);
  SCOPED_TRACE(seed);
  documents::Random random(seed);
  make();
  std::vector<std::string> good;
  for (const std::string& name : kFiles) good.push_back(dir_.read(name));
  for (int round = 0; round < 2000; ++round) {
    for (size_t i = 0; i < kFiles.size(); ++i) overwrite(kFiles[i], good[i]);
    for (const size_t i : {size_t{0}, size_t{2}}) {
      std::string file = good[i];
      for (uint64_t changes = random.below(6); changes > 0; --changes) {
        const size_t block = 1 + random.below(file.size() / kBlock - 1);
        const size_t field = random.oneIn(3) ? 16 + 4 * random.below(4) : 24 + random.below(64);
        file[block * kBlock + field] = static_cast<char>(random.below(random.oneIn(2) ? 30 : 256));
        seal(&file, block, i == 0 ? 8 : 16);
      }
      overwrite(kFiles[i], file);
    }
    NumberTree tree("t", AccessType::kReadWrite, params());
    std::vector<bool> refused;
    std::vector<Number> out;
    const std::vector<Number> batch = numbers(random.below(100), 160, 1 + random.below(3));
    tree.insertBatch(batch.data(), batch.size(), &refused);
    for (int i = 0; i < 30; ++i) tree.erase({random.below(130)});
    for (int i = 0; i < 30; ++i) tree.insert({random.below(130)});
    tree.query(
        {random.below(100)}, [](auto&, auto&) { return true; }, [](auto&, auto&) { return false; },
        &out);
    for (uint64_t leaf = tree.nextLeaf(0); leaf != 0; leaf = tree.nextLeaf(leaf)) {
      tree.readLeaf(leaf, &out);
    }
    if (random.oneIn(2)) tree.verify();
  }
}

// One life of a tree, against its twin. Whatever fails, what is said to be done
// is done, and after a failure nothing is.
void liveThrough(FailPoint* system, uint64_t seed, bool* committed,
                 SetTree<Number, NumberLess>* twin) {
  documents::Random random(seed);
  *committed = false;
  NumberTree tree("t", AccessType::kReadWrite, smallTree(3, 2));
  for (int step = 0; step < 60 && tree.is_valid(); ++step) {
    const Number record = {random.below(80)};
    if (random.oneIn(6)) {
      std::vector<Number> batch = numbers(record.value, record.value + 30, 3);
      std::vector<bool> refused;
      if (tree.insertBatch(batch.data(), batch.size(), &refused)) {
        EXPECT_EQ(twin->insertBatch(batch), refused);
      }
    } else if (random.oneIn(2)) {
      const bool done = tree.insert(record);
      EXPECT_TRUE(!tree.is_valid() || twin->insert(record) == done);
    } else {
      const bool done = tree.erase(record);
      EXPECT_TRUE(!tree.is_valid() || twin->erase(record) == done);
    }
    if (random.oneIn(20)) tree.commit();
  }
  std::vector<Number> out;
  tree.query(
      {0}, [](auto&, auto&) { return true; }, [](auto&, auto&) { return false; }, &out);
  if (tree.is_valid()) {
    EXPECT_EQ(twin->records(), out);
    EXPECT_EQ(twin->size(), tree.size());
  }
  *committed = tree.commit();
  EXPECT_EQ(!system->failed(), tree.is_valid()) << "every failure shows";
}

class FailingDisk : public TreeFiles, public testing::WithParamInterface<Call> {};

TEST_P(FailingDisk, EveryNthFailureMakesTheTreeInvalidAndNeverWrong) {
  const uint64_t seed = documents::seed(77);
  SCOPED_TRACE(seed);
  for (const bool lasting : {false, true}) {
    for (int n = 1;; n = n < 40 ? n + 1 : n + n / 7) {
      TempDir dir;
      SetTree<Number, NumberLess> twin;
      bool committed = false;
      system_.fail(GetParam(), n, lasting);
      liveThrough(&system_, seed, &committed, &twin);
      const bool failed = system_.failed();
      system_.fail(GetParam(), 0);
      if (committed) {
        NumberTree tree("t", AccessType::kReadOnly, smallTree(3, 2));
        ASSERT_TRUE(isSound(&tree)) << n;
        ASSERT_EQ(twin.records(), scan(&tree)) << n;
      }
      if (!failed) break;
      ASSERT_FALSE(committed) << n;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Calls, FailingDisk,
                         testing::Values(Call::kOpen, Call::kSeek, Call::kRead, Call::kWrite,
                                         Call::kSize, Call::kTruncate));

TEST_F(TreeFiles, AfterAFailureNothingIsWrittenUntilARollback) {
  make();
  NumberTree tree("t", AccessType::kReadWrite, params());
  for (const Number& record : numbers(200, 220)) ASSERT_TRUE(tree.insert(record));
  system_.fail(Call::kRead, 1);
  EXPECT_FALSE(tree.verify());
  ASSERT_FALSE(tree.is_valid());
  system_.failAny({Call::kWrite, Call::kTruncate}, 0);
  EXPECT_FALSE(tree.insert({500}));
  EXPECT_FALSE(tree.erase({1}));
  EXPECT_FALSE(tree.commit());
  EXPECT_EQ(0, system_.count());
}

TEST_F(TreeFiles, TheDestructorCommits) {
  {
    NumberTree tree("t", AccessType::kReadWrite, params());
    ASSERT_TRUE(tree.insert({1}));
  }
  EXPECT_EQ(2u, headerOnDisk(dir_, "t.l.blk").transaction);
  NumberTree tree("t", AccessType::kReadOnly, params());
  EXPECT_EQ(numbers(1, 2), scan(&tree));
}

TEST_F(TreeFiles, TheDestructorOfAnInvalidTreeWritesNothing) {
  make();
  std::vector<std::string> before;
  for (const std::string& name : kFiles) before.push_back(dir_.read(name));
  {
    NumberTree tree("t", AccessType::kReadWrite, params());
    ASSERT_TRUE(tree.erase({0}));
    system_.fail(Call::kRead, 1);
    EXPECT_FALSE(tree.verify());
    ASSERT_FALSE(tree.is_valid());
  }
  for (size_t i = 0; i < kFiles.size(); ++i) EXPECT_TRUE(before[i] == dir_.read(kFiles[i]));
}

}  // namespace
